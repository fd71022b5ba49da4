#pragma once
// The tests that go through the Windows CryptoAPI provider (-p csp-*, -f csp-*, -f spb-*).
// On other platforms they print one line saying so and return 50.
// Each takes the parameter array and its length and returns a result code (see qlutil.h).

#include "qlutil.h"

int PerfCSPKeyGen(TEST_PARAMETER *pTestParam, int nParameters);      // -p csp-key-gen
int PerfCSPEnc(TEST_PARAMETER *pTestParam, int nParameters);         // -p csp-enc
int PerfCSPDec(TEST_PARAMETER *pTestParam, int nParameters);         // -p csp-dec
int PerfCSPSign(TEST_PARAMETER *pTestParam, int nParameters);        // -p csp-sign
int PerfCSPVerifySign(TEST_PARAMETER *pTestParam, int nParameters);  // -p csp-verify
int PerfCSPImportKey(TEST_PARAMETER *pTestParam, int nParameters);   // -p csp-import-key
int PerfCSPExportKey(TEST_PARAMETER *pTestParam, int nParameters);   // -p csp-export-key
int PerfCSPHash(TEST_PARAMETER *pTestParam, int nParameters);        // -p csp-hash
int CSPHash(TEST_PARAMETER *pTestParam, int nParameters);            // -f csp-hash
int CSPSignHash(TEST_PARAMETER *pTestParam, int nParameters);        // -f csp-sign-hash
int CSPEncDec(TEST_PARAMETER *pTestParam, int nParameters);          // -f csp-enc-dec
int CSPWrapUnwrap(TEST_PARAMETER *pTestParam, int nParameters);      // -f csp-wrap-unwrap
int CSPSpbEnc(TEST_PARAMETER *pTestParam, int nParameters);          // -f spb-enc
int CSPSpbDec(TEST_PARAMETER *pTestParam, int nParameters);          // -f spb-dec
