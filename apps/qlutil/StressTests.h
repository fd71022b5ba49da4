#pragma once
// The stress tests (-s): entry functions named in the command table.
// Each takes the parameter array and its length and returns a result code (see qlutil.h).

#include "qlutil.h"

int StressUser(TEST_PARAMETER *pTestParam, int nParameters);           // -s user
int StressCreateUser(TEST_PARAMETER *pTestParam, int nParameters);     // -s create-user
int StressCreateUserPTL(TEST_PARAMETER *pTestParam, int nParameters);  // -s create-user-ptl
int StressSession(TEST_PARAMETER *pTestParam, int nParameters);        // -s session
int SessionOpening(TEST_PARAMETER *pTestParam, int nParameters);       // -s session-opening
