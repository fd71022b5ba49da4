#pragma once
// The performance tests (-p): entry functions named in the command table.
// Each takes the parameter array and its length and returns a result code (see qlutil.h).

#include "qlutil.h"

int PerfSignHash(TEST_PARAMETER *pTestParam, int nParameters);           // -p sign-hash
int PerfBatchSign(TEST_PARAMETER *pTestParam, int nParameters);          // -p batch-sign
int PerfSignHashedData(TEST_PARAMETER *pTestParam, int nParameters);     // -p sign-hashed-data
int PerfVerifyHash(TEST_PARAMETER *pTestParam, int nParameters);         // -p verify-hash
int PerfSPBEncode(TEST_PARAMETER *pTestParam, int nParameters);          // -p spb-encode
int PerfSPBDecode(TEST_PARAMETER *pTestParam, int nParameters);          // -p spb-decode
int PerfSignXML(TEST_PARAMETER *pTestParam, int nParameters);            // -p sign-xml
int PerfSignPIX(TEST_PARAMETER *pTestParam, int nParameters);            // -p pix-sign
int PerfVerifyPIX(TEST_PARAMETER *pTestParam, int nParameters);          // -p pix-verify
int PerfSignPIXDict(TEST_PARAMETER *pTestParam, int nParameters);        // -p pix-dict-sign
int PerfVerifyPIXDict(TEST_PARAMETER *pTestParam, int nParameters);      // -p pix-dict-verify
int PerfSignPIXJWS(TEST_PARAMETER *pTestParam, int nParameters);         // -p pix-jws-sign
int PerfCheckPIXJWS(TEST_PARAMETER *pTestParam, int nParameters);        // -p pix-jws-check
int PerfRequestPIX(TEST_PARAMETER *pTestParam, int nParameters);         // -p pix-request
int PerfVerifyXML(TEST_PARAMETER *pTestParam, int nParameters);          // -p verify-xml
int PerfEncrypt(TEST_PARAMETER *pTestParam, int nParameters);            // -p encrypt
int PerfDecrypt(TEST_PARAMETER *pTestParam, int nParameters);            // -p decrypt
int PerfGenerateCVV(TEST_PARAMETER *pTestParam, int nParameters);        // -p generate-cvv
int PerfVerifyCVV(TEST_PARAMETER *pTestParam, int nParameters);          // -p verify-cvv
int PerfGeneratePIN(TEST_PARAMETER *pTestParam, int nParameters);        // -p generate-pin
int PerfVerifyPINBlock(TEST_PARAMETER *pTestParam, int nParameters);     // -p verify-pin-block
int PerfPINBlockTranslate(TEST_PARAMETER *pTestParam, int nParameters);  // -p pin-block-translate
int PerfGenerateDUKPT(TEST_PARAMETER *pTestParam, int nParameters);      // -p generate-dukpt
int PerfGenerateECDH(TEST_PARAMETER *pTestParam, int nParameters);       // -p generate-ecdh
int PerfHash(TEST_PARAMETER *pTestParam, int nParameters);               // -p hash
int PerfGenKey(TEST_PARAMETER *pTestParam, int nParameters);             // -p gen-key
int PerfListKeys(TEST_PARAMETER *pTestParam, int nParameters);           // -p list-keys
int PerfGenKeyMaterial(TEST_PARAMETER *pTestParam, int nParameters);     // -p gen-key-material
int PerfP11SignHash(TEST_PARAMETER *pTestParam, int nParameters);        // -p p11-sign-hash
int PerfP11Enc(TEST_PARAMETER *pTestParam, int nParameters);             // -p p11-enc-dec
int PerfP11GenKeyPair(TEST_PARAMETER *pTestParam, int nParameters);      // -p p11-gen-key-pair
int PerfP11GenKey(TEST_PARAMETER *pTestParam, int nParameters);          // -p p11-gen-key
int PerfOathSAAuth(TEST_PARAMETER *pTestParam, int nParameters);         // -p oath-sa-auth
int PerfPkcs7Sign(TEST_PARAMETER *pTestParam, int nParameters);          // -p pkcs7-sign
int PerfSVaultToken(TEST_PARAMETER *pTestParam, int nParameters);        // -p svault-gen-token
int PerfSVaultGetData(TEST_PARAMETER *pTestParam, int nParameters);      // -p svault-get-data
int PerfNop(TEST_PARAMETER *pTestParam, int nParameters);                // -p nop
int PerfExportTR31(TEST_PARAMETER *pTestParam, int nParameters);         // -p export-tr31
int PerfImportTR31(TEST_PARAMETER *pTestParam, int nParameters);         // -p import-tr31
int PerfBchainSignHash(TEST_PARAMETER *pTestParam, int nParameters);     // -p bchain-sign-hash
int PerfMofNSplit(TEST_PARAMETER *pTestParam, int nParameters);          // -p mofn-split
int PerfMofNRecover(TEST_PARAMETER *pTestParam, int nParameters);        // -p mofn-recover
