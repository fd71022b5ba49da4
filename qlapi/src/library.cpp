#include "qlapi.h"

extern "C" int QInitialize(int) { return 0; }
extern "C" int QFinalize(void) { return 0; }
