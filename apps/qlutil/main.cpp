// qlutil's entry: a thin shell over the driver with the compiled-in command table.

#include <cstdio>

#include "qlutil.h"

int main(int argc, char **argv) {
  // Line buffering keeps the console text in order when a fault ends the run early: the
  // exception guard writes its line straight to the descriptor.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  return RunQlutil(argc, argv, kCommandTable, kCommandTableRows);
}
