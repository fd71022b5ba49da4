#include "version.h"

const char *const kQlutilVersion = "4.10.0.0";
