// -f gen-ver-cvv and -f pin-block-translate: payment services checked against known answers.
//
// Known-answer data:
// - CVV: the published card-verification-value example data: CVK A 0123456789ABCDEF, CVK B
//   FEDCBA9876543210, 16-digit PAN 4123456789012345, expiry 8701, service code 101, CVV 561.
// - PIN blocks: ISO 9564-1 format 0 clear blocks for PIN 1234: with PAN 43219876543210987 the
//   widely published example block 0412AC89ABCDEF67; with PAN 4111111111111111 the block
//   041225EEEEEEEEEE built by the same rule (PIN field 041234FFFFFFFFFF XOR 0000 and the 12 PAN
//   digits left of the check digit). The keys are the CVK pair above (k1), the three-key
//   triple-DES example key of NIST SP 800-67 (k2: 0123456789ABCDEF 23456789ABCDEF01
//   456789ABCDEF0123) and its first two parts as a double-length key (k3). The encrypted input
//   blocks are those clear blocks under the source keys in ECB (triple DES, EDE).

#include <cstdio>
#include <cstring>

#include "FunctionalTests.h"
#include "Output.h"
#include "harness/harness.h"

namespace {

// ---------------------------------------------------------------------------------------------
// gen-ver-cvv

const unsigned char kCvkA[8] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};
const unsigned char kCvkB[8] = {0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10};
constexpr const char *kCvvPan = "4123456789012345";
constexpr const char *kCvvExpiry = "8701";
constexpr const char *kCvvServiceCode = "101";
constexpr const char *kCvvExpected = "561";

typedef struct tag_FUNC_CVV_INFO {
  THREAD_INFO ti;
  int nKeyAlg;  // -k: 3des112 (A|B) or 3des168 (A|B|A)
} FUNC_CVV_INFO;

int CvvRound(FUNC_CVV_INFO *info, HSESSIONCTX hSession) {
  unsigned char key[24];
  memcpy(key, kCvkA, 8);
  memcpy(key + 8, kCvkB, 8);
  memcpy(key + 16, kCvkA, 8);
  const uint32_t keyLen = info->nKeyAlg == QL_ALG_3DES_168 ? 24 : 16;
  KeyOwner hKey;
  int rc = QImportKey(hSession, nullptr, nullptr, key, keyLen, QL_PLAINTEXTKEY_BLOB,
                      static_cast<uint32_t>(info->nKeyAlg), QL_KEY_TEMPORARY, hKey.Put());
  if (rc != 0) {
    ScreenOutput("[FuncGenVerCVVThread] Fail in QImportKey. rc = %d\r\n", rc);
    return rc;
  }
  uint32_t algId = 0;
  uint32_t len = sizeof algId;
  rc = QGetKeyParam(hKey.Get(), QKP_ALGID, &algId, &len, 0);
  if (rc != 0) {
    ScreenOutput("[FuncGenVerCVVThread] Fail in QGetKeyParam. rc = %d\r\n", rc);
    return rc;
  }
  char cvv[4] = {};
  rc = QGenerateCVV(hKey.Get(), kCvvPan, kCvvExpiry, kCvvServiceCode, cvv, 0);
  if (rc != 0) {
    ScreenOutput("[FuncGenVerCVVThread] Fail in QGenerateCVV. rc = %d\r\n", rc);
    return rc;
  }
  rc = QVerifyCVV(hKey.Get(), kCvvPan, kCvvExpiry, kCvvServiceCode, cvv, 0);
  if (rc != 0) {
    ScreenOutput("[FuncGenVerCVVThread] Fail in QVerifyCVV. rc = %d\r\n", rc);
    return rc;
  }
  if (strncmp(cvv, kCvvExpected, sizeof cvv) != 0) {
    ScreenOutput("[FuncGenVerCVVThread] CVV differs from the Test Vector. rc = %d\r\n",
                 kResultCheckFailed);
    return kResultCheckFailed;
  }
  return 0;
}

unsigned int FuncGenVerCVVThread(void *pvInfo) {
  auto *info = static_cast<FUNC_CVV_INFO *>(pvInfo);
  return RunFuncSessionLoop(
      &info->ti,
      [](int rc) {
        ScreenOutput("[FuncGenVerCVVThread] Error in ConnectEx. Err = %lu\r\n",
                     static_cast<unsigned long>(rc));
      },
      [info](HSESSIONCTX session, unsigned long) { return CvvRound(info, session); });
}

// ---------------------------------------------------------------------------------------------
// pin-block-translate

// ISO 9564-1 format 0.
constexpr uint32_t kPinBlockIso0 = 0x00;

struct PinKey {
  const char *label;
  uint32_t alg;
  unsigned char key[24];
  uint32_t len;
};

const PinKey kPinKeys[3] = {
    {"k1",
     QL_ALG_3DES_112,
     {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32,
      0x10},
     16},
    {"k2",
     QL_ALG_3DES_168,
     {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0x23, 0x45, 0x67, 0x89,
      0xAB, 0xCD, 0xEF, 0x01, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0x01, 0x23},
     24},
    {"k3",
     QL_ALG_3DES_112,
     {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF,
      0x01},
     16},
};

struct PinCase {
  int src;  // index into kPinKeys
  int dst;
  uint32_t type;
  const char *pan;
  unsigned char in[8];        // the clear block under the source key
  unsigned char expected[8];  // the clear block the destination key must give back
  int expectedRc;
};

const PinCase kPinCases[] = {
    {0,
     1,
     kPinBlockIso0,
     "43219876543210987",
     {0xC9, 0x67, 0xC8, 0x19, 0x81, 0x51, 0xA4, 0x58},
     {0x04, 0x12, 0xAC, 0x89, 0xAB, 0xCD, 0xEF, 0x67},
     0},
    {1,
     2,
     kPinBlockIso0,
     "4111111111111111",
     {0x38, 0x7D, 0xDD, 0xDB, 0xCA, 0x49, 0x26, 0x4A},
     {0x04, 0x12, 0x25, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE},
     0},
    {2,
     0,
     kPinBlockIso0,
     "43219876543210987",
     {0x14, 0xDD, 0x66, 0x12, 0x83, 0xF5, 0xA0, 0x6C},
     {0x04, 0x12, 0xAC, 0x89, 0xAB, 0xCD, 0xEF, 0x67},
     0},
};

typedef struct tag_FUNC_PIN_INFO {
  THREAD_INFO ti;
} FUNC_PIN_INFO;

void PrintPinCase(const PinCase &c, const char names[3][64], const unsigned char *out) {
  ScreenOutput(
      "[FuncPINBlockTranslateThread] Test SrcKey(%s) DstKey(%s) Type(0x%02x) PAN(%s) "
      "InBlock(%02x%02x%02x) OutBlock(%02x%02x%02x)\r\n",
      names[c.src], names[c.dst], c.type, c.pan, c.in[0], c.in[1], c.in[2], out[0], out[1], out[2]);
}

int PinCaseRun(HSESSIONCTX hSession, const PinCase &c, const char names[3][64]) {
  unsigned char out[64] = {};
  uint32_t outLen = sizeof out;
  int rc = QPINBlockTranslate(hSession, names[c.src], names[c.dst], c.type, c.pan, c.in,
                              sizeof c.in, out, &outLen, 0);
  if (rc != c.expectedRc) {
    ScreenOutput(
        "[FuncPINBlockTranslateThread] Error in PINBlockTranslate. Returned (%d) "
        "Expected (%d)\r\n",
        rc, c.expectedRc);
    PrintPinCase(c, names, out);
    return rc != 0 ? rc : kResultCheckFailed;
  }
  if (rc != 0) return 0;  // an expected refusal: nothing to decrypt
  KeyOwner dst;
  rc = QGetUserKey(hSession, names[c.dst], 0, dst.Put());
  if (rc != 0) {
    ScreenOutput("[FuncPINBlockTranslateThread] Error in QGetUserKey(%s). Returned (%d)\r\n",
                 names[c.dst], rc);
    return rc;
  }
  const uint32_t mode = QL_MODE_ECB;
  const uint32_t padding = QL_PAD_NONE;
  rc = QSetKeyParam(dst.Get(), QKP_MODE, &mode, sizeof mode, 0);
  if (rc == 0) rc = QSetKeyParam(dst.Get(), QKP_PADDING, &padding, sizeof padding, 0);
  unsigned char clear[64];
  memcpy(clear, out, sizeof clear);
  uint32_t clearLen = outLen;
  if (rc == 0) rc = QDecrypt(dst.Get(), nullptr, 1, 0, clear, &clearLen);
  if (rc != 0) {
    ScreenOutput("[FuncPINBlockTranslateThread] Error in QDecrypt. Returned (%d)\r\n", rc);
    return rc;
  }
  if (clearLen != sizeof c.expected || memcmp(clear, c.expected, sizeof c.expected) != 0) {
    ScreenOutput(
        "[FuncPINBlockTranslateThread] Decrypted PIN Block does not match expected result.\r\n");
    PrintPinCase(c, names, out);
    return kResultCheckFailed;
  }
  return 0;
}

int PinRound(FUNC_PIN_INFO *info, HSESSIONCTX hSession) {
  // Temporary keys named after the thread, so that threads sharing a user never meet.
  char names[3][64];
  KeyOwner keys[3];
  for (int i = 0; i < 3; ++i) {
    const PinKey &k = kPinKeys[i];
    snprintf(names[i], sizeof names[i], "qlutil_pin_%s_%d", k.label, info->ti.ThreadId);
    int rc = QImportKey(hSession, names[i], nullptr, k.key, k.len, QL_PLAINTEXTKEY_BLOB, k.alg,
                        QL_KEY_TEMPORARY, keys[i].Put());
    if (rc != 0) {
      ScreenOutput("[FuncPINBlockTranslateThread] Error in QImportKey(%s). Err = %lu\r\n", k.label,
                   static_cast<unsigned long>(rc));
      return rc;
    }
    uint32_t algId = 0;
    uint32_t len = sizeof algId;
    rc = QGetKeyParam(keys[i].Get(), QKP_ALGID, &algId, &len, 0);
    if (rc != 0) {
      ScreenOutput("[FuncPINBlockTranslateThread] Error in QGetKeyParam(%s). Err = %lu\r\n",
                   k.label, static_cast<unsigned long>(rc));
      return rc;
    }
  }
  for (const PinCase &c : kPinCases) {
    const int rc = PinCaseRun(hSession, c, names);
    if (rc != 0) return rc;
  }
  return 0;
}

unsigned int FuncPINBlockTranslateThread(void *pvInfo) {
  auto *info = static_cast<FUNC_PIN_INFO *>(pvInfo);
  return RunFuncSessionLoop(
      &info->ti, [](int rc) { ScreenOutput("Error in ConnectEx. Err = %d\r\n", rc); },
      [info](HSESSIONCTX session, unsigned long) { return PinRound(info, session); });
}

}  // namespace

int FuncGenVerCVV(TEST_PARAMETER *pTestParam, int nParameters) {
  FUNC_CVV_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  info.nKeyAlg = GetParameterAlg(pTestParam, nParameters, "-k");
  if (info.ti.Threads == -1 || info.ti.Iterations == -1 || info.nKeyAlg == -1 ||
      !CheckConnectionFlags(&info.ti, false)) {
    FuncHelpDescription({"     Functional CVV generation and verification test. The CVV of a\r\n",
                         "     known card and key is generated, verified and compared with its\r\n",
                         "     test vector.\r\n"});
    ScreenOutput("     -k      CVV key algorithm: 3des112 or 3des168\r\n");
    return FuncHelpExample(
        "     qlutil -a 10.10.10.10 -u master -w 24681357 -f gen-ver-cvv -t 5 -i 10 -k "
        "3des112\r\n");
  }
  return ExecuteTestThreads(FuncGenVerCVVThread, &info, sizeof info);
}

int FuncPINBlockTranslate(TEST_PARAMETER *pTestParam, int nParameters) {
  FUNC_PIN_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  if (info.ti.Threads == -1 || info.ti.Iterations == -1 || !CheckConnectionFlags(&info.ti, false)) {
    FuncHelpDescription({"     Functional PIN block translation test. Known PIN blocks are\r\n",
                         "     translated between known keys and compared with their expected\r\n",
                         "     clear blocks.\r\n"});
    return FuncHelpExample(
        "     qlutil -a 10.10.10.10 -u master -w 24681357 -f pin-block-translate -t 5 -i 10\r\n");
  }
  return ExecuteTestThreads(FuncPINBlockTranslateThread, &info, sizeof info);
}
