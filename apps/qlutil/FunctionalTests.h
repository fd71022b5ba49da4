#pragma once
// The functional tests (-f): entry functions named in the command table.
// Each takes the parameter array and its length and returns a result code (see qlutil.h).

#include "qlutil.h"

int FuncSignHash(TEST_PARAMETER *pTestParam, int nParameters);           // -f sign-hash
int FuncEncDec(TEST_PARAMETER *pTestParam, int nParameters);             // -f enc-dec
int FuncGenVerCVV(TEST_PARAMETER *pTestParam, int nParameters);          // -f gen-ver-cvv
int FuncWrapUnwrap(TEST_PARAMETER *pTestParam, int nParameters);         // -f wrap-unwrap
int FuncNop(TEST_PARAMETER *pTestParam, int nParameters);                // -f nop
int FuncSignXML(TEST_PARAMETER *pTestParam, int nParameters);            // -f xml
int FuncCnt(TEST_PARAMETER *pTestParam, int nParameters);                // -f cnt
int FuncKeepAlive(TEST_PARAMETER *pTestParam, int nParameters);          // -f keep-alive
int FuncImpPkcs12(TEST_PARAMETER *pTestParam, int nParameters);          // -f pkcs12
int FuncPINBlockTranslate(TEST_PARAMETER *pTestParam, int nParameters);  // -f pin-block-translate
int FuncSVaultGenToken(TEST_PARAMETER *pTestParam, int nParameters);     // -f svault-gen-token
