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
//   456789ABCDEF0123), its first two parts as a double-length key (k3), and the FIPS-197 AES
//   example key (k4, for format 4). The encrypted input blocks are those clear blocks under the
//   source keys in ECB (triple DES, EDE); the format 1 input is the clear block 141234A9C3E5B7D2
//   (PIN 1234, fixed fill) under k3.

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

// The type of a case: the source format in bits 0-7, the destination format in bits 8-15.
constexpr uint32_t Type(uint32_t src, uint32_t dst) {
  return src | (dst << 8);
}
constexpr int kPinKeyCount = 4;

struct PinKey {
  const char *label;
  uint32_t alg;
  unsigned char key[24];
  uint32_t len;
};

const PinKey kPinKeys[kPinKeyCount] = {
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
    // The AES key of format 4: the FIPS-197 example key.
    {"k4",
     QL_ALG_AES128,
     {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E,
      0x0F},
     16},
};

struct PinCase {
  int src;  // index into kPinKeys
  int dst;
  uint32_t type;
  const char *pan;
  unsigned char in[8];  // the input block under the source key
  // Format 0 output: the clear block the destination key must give back. Formats 1, 3 and 4
  // carry random fill: their output is decoded and its control field and PIN (1234) compared.
  unsigned char expected[8];
  int expectedRc;
};

// clang-format off
const PinCase kPinCases[] = {
    {0, 1, Type(0, 0), "43219876543210987", {0xC9, 0x67, 0xC8, 0x19, 0x81, 0x51, 0xA4, 0x58}, {0x04, 0x12, 0xAC, 0x89, 0xAB, 0xCD, 0xEF, 0x67}, 0},
    {1, 2, Type(0, 0), "4111111111111111", {0x38, 0x7D, 0xDD, 0xDB, 0xCA, 0x49, 0x26, 0x4A}, {0x04, 0x12, 0x25, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}, 0},
    {2, 0, Type(0, 0), "43219876543210987", {0x14, 0xDD, 0x66, 0x12, 0x83, 0xF5, 0xA0, 0x6C}, {0x04, 0x12, 0xAC, 0x89, 0xAB, 0xCD, 0xEF, 0x67}, 0},
    // Format 0 to formats 3 and 4.
    {0, 2, Type(0, 3), "43219876543210987", {0xC9, 0x67, 0xC8, 0x19, 0x81, 0x51, 0xA4, 0x58}, {}, 0},
    {0, 3, Type(0, 4), "43219876543210987", {0xC9, 0x67, 0xC8, 0x19, 0x81, 0x51, 0xA4, 0x58}, {}, 0},
    // Format 1 (clear block 141234A9C3E5B7D2 under k3) to format 0 needs no authorisation ...
    {2, 0, Type(1, 0), "43219876543210987", {0x32, 0x2D, 0xA4, 0x20, 0x01, 0x21, 0x80, 0x69}, {0x04, 0x12, 0xAC, 0x89, 0xAB, 0xCD, 0xEF, 0x67}, 0},
    {2, 1, Type(1, 1), "", {0x32, 0x2D, 0xA4, 0x20, 0x01, 0x21, 0x80, 0x69}, {}, 0},
    // ... while a PAN-bound block leaves its PAN behind only under an EFT daemon authorisation.
    {0, 2, Type(0, 1), "43219876543210987", {0xC9, 0x67, 0xC8, 0x19, 0x81, 0x51, 0xA4, 0x58}, {}, QL_ERR_EFTD_NOT_AUTHORIZED},
};
// clang-format on

typedef struct tag_FUNC_PIN_INFO {
  THREAD_INFO ti;
} FUNC_PIN_INFO;

void PrintPinCase(const PinCase &c, const char names[kPinKeyCount][64], const unsigned char *out) {
  ScreenOutput(
      "[FuncPINBlockTranslateThread] Test SrcKey(%s) DstKey(%s) Type(0x%02x) PAN(%s) "
      "InBlock(%02x%02x%02x) OutBlock(%02x%02x%02x)\r\n",
      names[c.src], names[c.dst], c.type, c.pan, c.in[0], c.in[1], c.in[2], out[0], out[1], out[2]);
}

// The PAN field of formats 0 and 3 (8 bytes: the 12 digits left of the check digit) or of
// format 4 (16 bytes: the PAN's length less 12, the PAN, zeros).
void PanField(const char *pan, uint32_t format, unsigned char *field) {
  const size_t n = strlen(pan);
  unsigned char nibbles[32] = {};
  size_t count = 0;
  if (format == 4) {
    nibbles[count++] = static_cast<unsigned char>(n - 12);
    for (size_t i = 0; i < n; ++i) nibbles[count++] = static_cast<unsigned char>(pan[i] - '0');
    count = 32;
  } else {
    count = 4;
    for (size_t i = n - 13; i < n - 1; ++i)
      nibbles[count++] = static_cast<unsigned char>(pan[i] - '0');
  }
  for (size_t i = 0; i < count / 2; ++i)
    field[i] = static_cast<unsigned char>((nibbles[2 * i] << 4) | nibbles[2 * i + 1]);
}

// True when a clear PIN field holds the format's control field and PIN 1234, and fill of its
// format (format 3: A to F; format 4: A).
bool PinFieldHolds1234(const unsigned char *field, uint32_t format) {
  auto nibble = [field](int i) { return (field[i / 2] >> (i % 2 == 0 ? 4 : 0)) & 0x0F; };
  if (nibble(0) != static_cast<int>(format) || nibble(1) != 4) return false;
  for (int i = 0; i < 4; ++i) {
    if (nibble(2 + i) != i + 1) return false;
  }
  for (int i = 6; i < 16; ++i) {
    if (format == 3 && nibble(i) < 0x0A) return false;
    if (format == 4 && nibble(i) != 0x0A) return false;
  }
  return true;
}

// The destination block decoded with the destination key: matches when its clear block is the
// case's expected one (format 0) or its PIN field holds 1234 (formats 1, 3 and 4).
int CheckOutput(HSESSIONCTX hSession, const PinCase &c, const char names[kPinKeyCount][64],
                const unsigned char *out, uint32_t outLen) {
  KeyOwner dst;
  int rc = QGetUserKey(hSession, names[c.dst], 0, dst.Put());
  if (rc != 0) {
    ScreenOutput("[FuncPINBlockTranslateThread] Error in QGetUserKey(%s). Returned (%d)\r\n",
                 names[c.dst], rc);
    return rc;
  }
  const uint32_t mode = QL_MODE_ECB;
  const uint32_t padding = QL_PAD_NONE;
  rc = QSetKeyParam(dst.Get(), QKP_MODE, &mode, sizeof mode, 0);
  if (rc == 0) rc = QSetKeyParam(dst.Get(), QKP_PADDING, &padding, sizeof padding, 0);
  const uint32_t format = c.type >> 8;
  unsigned char clear[16] = {};
  memcpy(clear, out, outLen < sizeof clear ? outLen : sizeof clear);
  uint32_t clearLen = outLen;
  if (rc == 0) rc = QDecrypt(dst.Get(), nullptr, 1, 0, clear, &clearLen);
  unsigned char pan[16] = {};
  if (format != 1) PanField(c.pan, format, pan);
  if (rc == 0 && format == 4) {
    // Format 4 enciphers twice: the PIN field, XOR the PAN field, then again.
    for (int i = 0; i < 16; ++i) clear[i] ^= pan[i];
    rc = QDecrypt(dst.Get(), nullptr, 1, 0, clear, &clearLen);
  }
  if (rc != 0) {
    ScreenOutput("[FuncPINBlockTranslateThread] Error in QDecrypt. Returned (%d)\r\n", rc);
    return rc;
  }
  bool match = false;
  if (format == 0) {
    match = clearLen == sizeof c.expected && memcmp(clear, c.expected, sizeof c.expected) == 0;
  } else {
    if (format == 3)
      for (int i = 0; i < 8; ++i) clear[i] ^= pan[i];
    match = PinFieldHolds1234(clear, format);
  }
  if (!match) {
    ScreenOutput(
        "[FuncPINBlockTranslateThread] Decrypted PIN Block does not match expected result.\r\n");
    PrintPinCase(c, names, out);
    return kResultCheckFailed;
  }
  return 0;
}

int PinCaseRun(HSESSIONCTX hSession, const PinCase &c, const char names[kPinKeyCount][64]) {
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
  return CheckOutput(hSession, c, names, out, outLen);
}

int PinRound(FUNC_PIN_INFO *info, HSESSIONCTX hSession) {
  // Temporary keys named after the thread, so that threads sharing a user never meet.
  char names[kPinKeyCount][64];
  KeyOwner keys[kPinKeyCount];
  for (int i = 0; i < kPinKeyCount; ++i) {
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
