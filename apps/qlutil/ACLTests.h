#pragma once
// The access-control test (-f acl).
// Each takes the parameter array and its length and returns a result code (see qlutil.h).

#include "qlutil.h"

int FuncACL(TEST_PARAMETER *pTestParam, int nParameters);  // -f acl
