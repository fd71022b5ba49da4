#include <cstdlib>

#include "qlapi.h"

extern "C" int QInitialize(int) { return 0; }
extern "C" int QFinalize(void) { return 0; }
extern "C" void *QAlloc(unsigned int dwSize) { return std::malloc(dwSize ? dwSize : 1); }
extern "C" void QFree(void *pvData) { std::free(pvData); }
