#include "harness/user_names.h"

#include <cstdio>

void CalculateCreateCountUserRange(int total, int thread_count, int thread_index, int *first,
                                   int *count) {
  if (thread_count < 1) thread_count = 1;
  if (total < 0) total = 0;
  const int base = total / thread_count;
  const int extra = total % thread_count;
  *count = base + (thread_index < extra ? 1 : 0);
  *first = thread_index * base + (thread_index < extra ? thread_index : extra);
}

void GenCountUserName(const char *prefix, int counter, char *out, size_t out_len) {
  snprintf(out, out_len, "%s%d", prefix != nullptr ? prefix : "", counter);
}
