// The payment performance tests: SPB messages (spb-encode, spb-decode), CVV, PIN, DUKPT and
// TR-31 key blocks.
//
// They are written against the library's payment calls; until the HSM serves a service, its
// calls answer the library's "not supported" code, which the test reports like any failure.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "PerformanceTests.h"
#include "harness/harness.h"

namespace {

// SPB message flags.
constexpr uint32_t kSpbFlagGen01 = QL_SPB_GEN01;  // --gen01
constexpr uint32_t kSpbFlagV3 = QL_SPB_V3;        // --v3: version 3 message (else version 2)
constexpr uint32_t kSpbFlagPad = QL_SPB_PAD;      // --pad (spb-decode)
constexpr const char *kDefaultIspb = "11111111";
constexpr uint32_t kSpbPieceLen = 32768;
// A piece's output may hold up to one block more than the piece: the padding when encoding,
// the block the HSM holds back when decoding.
constexpr uint32_t kSpbOutLen = kSpbPieceLen + 16;
constexpr size_t kSpbKeyNameSize = QL_MAX_OBJ_NAME + 1;

// The card of the CVV and PIN tests.
constexpr const char *kTestPan = "4123456789012345";
constexpr const char *kTestExpiry = "8701";
constexpr const char *kTestServiceCode = "101";
constexpr uint32_t kTestPinLen = 4;
constexpr uint32_t kPinBlockLen = 8;
constexpr uint32_t kIsoFormat0 = 0;
constexpr uint32_t kPaymentKeyAlg = QL_ALG_3DES_112;
constexpr uint32_t kKsnLen = 10;
constexpr uint32_t kKsiLen = 5;

// The SPB default objects of the test ISPB: its key and a self-signed certificate of it
// ("<key>.crt"), made active by the HSM, so that one key serves both sides of a message.
int InstallSPBDefaultObjects(HSESSIONCTX hSession, char *pszKeyName) {
  uint32_t len = kSpbKeyNameSize;
  const int rc = QSPBGenerateKey(hSession, kDefaultIspb, pszKeyName, &len, QL_SPB_KEY_SELF_SIGNED);
  if (rc != 0) pszKeyName[0] = '\0';
  return rc;
}

int UninstallSPBDefaultObjects(HSESSIONCTX hSession, char *pszKeyName) {
  int rc = 0;
  if (pszKeyName[0] != '\0') {
    const std::string certificate = std::string(pszKeyName) + ".crt";
    rc = QRemoveObj(hSession, certificate.c_str());
    const int key_rc = QRemoveObj(hSession, pszKeyName);
    if (rc == 0) rc = key_rc;
  }
  pszKeyName[0] = '\0';
  return rc;
}

int InstallSPBCerts(const THREAD_INFO *ti, char *pszKeyName) {
  SessionOwner session;
  int rc = ConnectEx(session.Put(), ti);
  if (rc != 0) {
    ScreenOutput("[InstallSPBCerts] Fail in ConnectEx. rc = %d\r\n", rc);
    return rc;
  }
  rc = InstallSPBDefaultObjects(session.Get(), pszKeyName);
  if (rc != 0) ScreenOutput("[InstallSPBCerts] Fail in InstallSPBDefaultObjects. rc = %d\r\n", rc);
  return rc;
}

int UninstallSPBCerts(const THREAD_INFO *ti, char *pszKeyName) {
  if (pszKeyName[0] == '\0') return 0;
  SessionOwner session;
  const int rc = ConnectEx(session.Put(), ti);
  if (rc != 0) {
    ScreenOutput("[UninstallSPBCerts] Fail in ConnectEx. rc = %d\r\n", rc);
    return rc;
  }
  return UninstallSPBDefaultObjects(session.Get(), pszKeyName);
}

// The random message of a thread, drawn a piece at a time (the HSM hands out at most 64 KiB of
// random bytes per call).
void RandomMessage(PerfSetup *setup, HSESSIONCTX hSession, unsigned char *data, uint32_t size) {
  for (uint32_t done = 0; done < size && setup->Ok(); done += kSpbPieceLen)
    setup->Random(hSession, data + done, std::min(size - done, kSpbPieceLen));
}

// --c3 in hexadecimal and --c4 in decimal, 0 when absent.
unsigned char GetSpbByte(TEST_PARAMETER *pTestParam, int nParameters, const char *name, int base) {
  const char *value = GetParameterStr(pTestParam, nParameters, name);
  if (value == nullptr || value[0] == '\0') return 0;
  return static_cast<unsigned char>(std::strtoul(value, nullptr, base) & 0xFF);
}

void ShowHelpSpbOptions() {
  ScreenOutput("     --si    [OPTIONAL] Source ISPB. 11111111 (default).\r\n");
  ScreenOutput("     --di    [OPTIONAL] Destination ISPB. 11111111 (default).\r\n");
  ScreenOutput(
      "             Without --si or --di the default SPB objects are installed before\r\n");
  ScreenOutput("             the test and removed after it.\r\n");
  ScreenOutput("     -m      Message size in bytes.\r\n");
  ScreenOutput("     --c3    [OPTIONAL] C3 (error code) byte, in hexadecimal. 00 (default).\r\n");
  ScreenOutput("     --c4    [OPTIONAL] C4 (special treatment) byte, in decimal. 0 (default).\r\n");
  ScreenOutput("     --v3    [OPTIONAL] SPB version 3 message (version 2 by default).\r\n");
}

// One ISO 9564 format 0 PIN block of a 4-digit PIN and the test PAN.
void BuildIsoFormat0Block(const char *pin, unsigned char *block) {
  unsigned char pin_field[kPinBlockLen], pan_field[kPinBlockLen] = {};
  std::memset(pin_field, 0xFF, sizeof(pin_field));
  pin_field[0] = static_cast<unsigned char>(kTestPinLen);
  for (uint32_t i = 0; i < kTestPinLen; ++i) {
    const unsigned char digit = static_cast<unsigned char>(pin[i] - '0');
    unsigned char &byte = pin_field[1 + i / 2];
    byte = (i % 2 == 0) ? static_cast<unsigned char>((digit << 4) | 0x0F)
                        : static_cast<unsigned char>((byte & 0xF0) | digit);
  }
  // The 12 right-most PAN digits without the check digit.
  const char *pan12 = kTestPan + std::strlen(kTestPan) - 13;
  for (int i = 0; i < 12; ++i) {
    const unsigned char digit = static_cast<unsigned char>(pan12[i] - '0');
    unsigned char &byte = pan_field[2 + i / 2];
    byte = (i % 2 == 0) ? static_cast<unsigned char>(digit << 4)
                        : static_cast<unsigned char>(byte | digit);
  }
  for (uint32_t i = 0; i < kPinBlockLen; ++i) block[i] = pin_field[i] ^ pan_field[i];
}

// Encrypts one 8-byte block in place with ECB and no padding.
int EncryptBlock(HKEYCTX hKey, unsigned char *block) {
  const uint32_t mode = QL_MODE_ECB, padding = QL_PAD_NONE;
  int rc = QSetKeyParam(hKey, QKP_MODE, &mode, sizeof(mode), 0);
  if (rc == 0) rc = QSetKeyParam(hKey, QKP_PADDING, &padding, sizeof(padding), 0);
  uint32_t len = kPinBlockLen;
  if (rc == 0) rc = QEncrypt(hKey, nullptr, 1, 0, block, &len, kPinBlockLen);
  return rc;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// spb-encode, spb-decode

// The options both SPB tests read, and the default objects Init installs for them.
typedef struct tag_SPB_TEST_OPTIONS {
  const char *pszSrcISPB;  // --si
  const char *pszDstISPB;  // --di
  int cbMessageSize;       // -m
  unsigned char bC3;       // --c3
  unsigned char bC4;       // --c4
  uint32_t dwFlags;        // --v3, and --gen01 (spb-encode) or --pad (spb-decode)
  bool bImportDefaultCerts;
  char szSpbKeyName[kSpbKeyNameSize];  // the default objects Init installed
} SPB_TEST_OPTIONS;

namespace {

// Without --si or --di the default ISPB's objects are installed for the test.
void LoadSpbOptions(SPB_TEST_OPTIONS *spb, TEST_PARAMETER *pTestParam, int nParameters) {
  spb->pszSrcISPB = GetParameterStr(pTestParam, nParameters, "--si");
  spb->pszDstISPB = GetParameterStr(pTestParam, nParameters, "--di");
  if (spb->pszSrcISPB == nullptr || spb->pszDstISPB == nullptr) spb->bImportDefaultCerts = true;
  if (spb->pszSrcISPB == nullptr) spb->pszSrcISPB = kDefaultIspb;
  if (spb->pszDstISPB == nullptr) spb->pszDstISPB = kDefaultIspb;
  spb->cbMessageSize = GetParameterInt(pTestParam, nParameters, "-m");
  spb->bC3 = GetSpbByte(pTestParam, nParameters, "--c3", 16);
  spb->bC4 = GetSpbByte(pTestParam, nParameters, "--c4", 10);
}

int InstallSpbTestObjects(const THREAD_INFO *ti, SPB_TEST_OPTIONS *spb) {
  if (!spb->bImportDefaultCerts) return 0;
  return InstallSPBCerts(ti, spb->szSpbKeyName);
}

int UninstallSpbTestObjects(const THREAD_INFO *ti, SPB_TEST_OPTIONS *spb) {
  if (!spb->bImportDefaultCerts) return 0;
  UninstallSPBCerts(ti, spb->szSpbKeyName);
  return 0;
}

}  // namespace

typedef struct tag_PERF_SPB_ENCODE_INFO {
  THREAD_INFO ti;
  SPB_TEST_OPTIONS spb;
  HSESSIONCTX hSession;
  unsigned char *pbInBuffer;   // the random message
  unsigned char *pbOutBuffer;  // kSpbOutLen bytes
  uint32_t dwOutBufferSize;
} PERF_SPB_ENCODE_INFO;

int PerfSPBEncodeTestInit(void *pTestInfo) {
  auto *info = static_cast<PERF_SPB_ENCODE_INFO *>(pTestInfo);
  return InstallSpbTestObjects(&info->ti, &info->spb);
}

int PerfSPBEncodeTestFin(void *pTestInfo) {
  auto *info = static_cast<PERF_SPB_ENCODE_INFO *>(pTestInfo);
  return UninstallSpbTestObjects(&info->ti, &info->spb);
}

int PerfSPBEncodeThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_SPB_ENCODE_INFO *>(pThreadInfo);
  info->hSession = nullptr;
  info->pbInBuffer = nullptr;
  info->pbOutBuffer = nullptr;
  const uint32_t size = static_cast<uint32_t>(info->spb.cbMessageSize);
  PerfSetup setup("PerfSPBEncodeThreadInit");
  HeapBuffer in(size), out(kSpbOutLen);
  if (!in || !out) {
    setup.Fail("malloc", -1);
    return setup.Rc();
  }
  SessionOwner session;
  setup.Connect(&info->ti, &session);
  RandomMessage(&setup, session.Get(), in.Get(), size);
  if (!setup.Ok()) return setup.Rc();
  info->dwOutBufferSize = kSpbOutLen;
  info->pbInBuffer = in.Release();
  info->pbOutBuffer = out.Release();
  info->hSession = session.Detach();
  return 0;
}

unsigned int PerfSPBEncodeThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_SPB_ENCODE_INFO *>(pThreadInfo);
  const char *tag = "PerfSPBEncodeThread";
  const SPB_TEST_OPTIONS &spb = info->spb;
  const uint32_t size = static_cast<uint32_t>(spb.cbMessageSize);
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    HSPBMSGCTX msg = nullptr;
    int rc = QSPBEncodeInit(info->hSession, spb.pszSrcISPB, spb.pszDstISPB, size, spb.bC3, spb.bC4,
                            &msg, spb.dwFlags);
    if (rc != 0) return PerfPassFailed(tag, "QSPBEncodeInit", rc, counter);
    for (uint32_t done = 0; done < size && rc == 0;) {
      const uint32_t piece = std::min(size - done, kSpbPieceLen);
      uint32_t out_len = info->dwOutBufferSize;
      rc = QSPBEncodeCont(msg, info->pbInBuffer + done, piece, info->pbOutBuffer, &out_len);
      done += piece;
    }
    if (rc != 0) {
      PerfPassFailed(tag, "QSPBEncodeCont", rc, counter);
      uint32_t header_len = QL_SPB_HEADER_LEN;
      QSPBEncodeEnd(&msg, info->pbOutBuffer, &header_len);  // releases the message
      return rc;
    }
    uint32_t out_len = QL_SPB_HEADER_LEN;
    rc = QSPBEncodeEnd(&msg, info->pbOutBuffer, &out_len);
    return rc == 0 ? 0 : PerfPassFailed(tag, "QSPBEncodeEnd", rc, counter);
  });
}

int PerfSPBEncodeThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_SPB_ENCODE_INFO *>(pThreadInfo);
  CloseRecordSession(&info->hSession);
  FreeRecordBuffer(&info->pbInBuffer);
  FreeRecordBuffer(&info->pbOutBuffer);
  return 0;
}

int PerfSPBEncode(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_SPB_ENCODE_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
  LoadSpbOptions(&info.spb, pTestParam, nParameters);
  if (IsParameterDefined(pTestParam, nParameters, "--v3")) info.spb.dwFlags |= kSpbFlagV3;
  if (IsParameterDefined(pTestParam, nParameters, "--gen01")) info.spb.dwFlags |= kSpbFlagGen01;

  if (IsValidTestCountersConfig(&info.ti) && info.spb.cbMessageSize > 0 &&
      CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfSPBEncodeThread, PerfSPBEncodeTestInit, PerfSPBEncodeTestFin,
                                  PerfSPBEncodeThreadInit, PerfSPBEncodeThreadFin, &info,
                                  sizeof(info));
  }

  PerfHelpDescription({"SPB message encoding performance test.",
                       "This test returns the number of SPB messages encoded per second."});
  ShowHelpSpbOptions();
  ScreenOutput("     --gen01 [OPTIONAL] Encode as a GEN0001 message.\r\n");
  return PerfHelpCommandExamples(
      "spb-encode", {"-t 5 -i 10 -m 1024", "-t 5 -i 10 -m 1024 --si 11111111 --di 22222222 --v3"});
}

typedef struct tag_PERF_SPB_DECODE_INFO {
  THREAD_INFO ti;
  SPB_TEST_OPTIONS spb;
  unsigned char bAcceptExpired;   // --aexp
  unsigned char bAutoUpdateCert;  // --autocer
  HSESSIONCTX hSession;
  unsigned char *pbEncoded;  // the 588-byte header, then the encoded body
  uint32_t dwEncodedLen;
  unsigned char *pbOutBuffer;  // kSpbOutLen bytes
} PERF_SPB_DECODE_INFO;

int PerfSPBDecodeTestInit(void *pTestInfo) {
  auto *info = static_cast<PERF_SPB_DECODE_INFO *>(pTestInfo);
  return InstallSpbTestObjects(&info->ti, &info->spb);
}

int PerfSPBDecodeTestFin(void *pTestInfo) {
  auto *info = static_cast<PERF_SPB_DECODE_INFO *>(pTestInfo);
  return UninstallSpbTestObjects(&info->ti, &info->spb);
}

int PerfSPBDecodeThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_SPB_DECODE_INFO *>(pThreadInfo);
  const SPB_TEST_OPTIONS &spb = info->spb;
  info->hSession = nullptr;
  info->pbEncoded = nullptr;
  info->pbOutBuffer = nullptr;
  info->dwEncodedLen = 0;
  const uint32_t size = static_cast<uint32_t>(spb.cbMessageSize);
  // The encoded body is at most the message plus a block of padding per piece.
  const uint32_t encoded_cap = QL_SPB_HEADER_LEN + size + (size / kSpbPieceLen + 1) * 16;
  PerfSetup setup("PerfSPBDecodeThreadInit");
  HeapBuffer in(size), encoded(encoded_cap), out(kSpbOutLen);
  if (!in || !encoded || !out) {
    setup.Fail("malloc", -1);
    return setup.Rc();
  }
  SessionOwner session;
  setup.Connect(&info->ti, &session);
  RandomMessage(&setup, session.Get(), in.Get(), size);
  HSPBMSGCTX msg = nullptr;
  setup.Do("QSPBEncodeInit", [&] {
    return QSPBEncodeInit(session.Get(), spb.pszDstISPB, spb.pszSrcISPB, size, spb.bC3, spb.bC4,
                          &msg, spb.dwFlags & kSpbFlagV3);
  });
  uint32_t written = QL_SPB_HEADER_LEN;
  for (uint32_t done = 0; setup.Ok() && done < size;) {
    const uint32_t piece = std::min(size - done, kSpbPieceLen);
    uint32_t out_len = encoded_cap - written;
    setup.Do("QSPBEncodeCont", [&] {
      return QSPBEncodeCont(msg, in.Get() + done, piece, encoded.Get() + written, &out_len);
    });
    done += piece;
    written += out_len;
  }
  if (msg != nullptr) {
    uint32_t header_len = QL_SPB_HEADER_LEN;
    const int end_rc = QSPBEncodeEnd(&msg, encoded.Get(), &header_len);
    if (setup.Ok() && end_rc != 0) setup.Fail("QSPBEncodeEnd", end_rc);
  }
  if (!setup.Ok()) return setup.Rc();
  info->dwEncodedLen = written;
  info->pbEncoded = encoded.Release();
  info->pbOutBuffer = out.Release();
  info->hSession = session.Detach();
  return 0;
}

unsigned int PerfSPBDecodeThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_SPB_DECODE_INFO *>(pThreadInfo);
  const char *tag = "PerfSPBDecodeThread";
  const SPB_TEST_OPTIONS &spb = info->spb;
  const uint32_t body_len = info->dwEncodedLen - QL_SPB_HEADER_LEN;
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    HSPBMSGCTX msg = nullptr;
    int rc = QSPBDecodeInit(info->hSession, spb.pszSrcISPB, spb.pszDstISPB, info->pbEncoded,
                            QL_SPB_HEADER_LEN, body_len, info->bAcceptExpired,
                            info->bAutoUpdateCert, &msg, spb.dwFlags);
    if (rc != 0) return PerfPassFailed(tag, "QSPBDecodeInit", rc, counter);
    for (uint32_t done = 0; done < body_len && rc == 0;) {
      const uint32_t piece = std::min(body_len - done, kSpbPieceLen);
      uint32_t out_len = kSpbOutLen;
      rc = QSPBDecodeCont(msg, info->pbEncoded + QL_SPB_HEADER_LEN + done, piece, info->pbOutBuffer,
                          &out_len);
      done += piece;
    }
    const int end_rc = QSPBDecodeEnd(&msg);
    if (rc != 0) return PerfPassFailed(tag, "QSPBDecodeCont", rc, counter);
    return end_rc == 0 ? 0 : PerfPassFailed(tag, "QSPBDecodeEnd", end_rc, counter);
  });
}

int PerfSPBDecodeThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_SPB_DECODE_INFO *>(pThreadInfo);
  CloseRecordSession(&info->hSession);
  FreeRecordBuffer(&info->pbEncoded);
  FreeRecordBuffer(&info->pbOutBuffer);
  return 0;
}

int PerfSPBDecode(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_SPB_DECODE_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
  LoadSpbOptions(&info.spb, pTestParam, nParameters);
  info.bAcceptExpired = IsParameterDefined(pTestParam, nParameters, "--aexp") ? 1 : 0;
  info.bAutoUpdateCert = IsParameterDefined(pTestParam, nParameters, "--autocer") ? 1 : 0;
  if (IsParameterDefined(pTestParam, nParameters, "--v3")) info.spb.dwFlags |= kSpbFlagV3;
  if (IsParameterDefined(pTestParam, nParameters, "--pad")) info.spb.dwFlags |= kSpbFlagPad;

  if (IsValidTestCountersConfig(&info.ti) && info.spb.cbMessageSize > 0 &&
      CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfSPBDecodeThread, PerfSPBDecodeTestInit, PerfSPBDecodeTestFin,
                                  PerfSPBDecodeThreadInit, PerfSPBDecodeThreadFin, &info,
                                  sizeof(info));
  }

  PerfHelpDescription({"SPB message decoding performance test.",
                       "This test returns the number of SPB messages decoded per second; each",
                       "thread encodes one message before the test."});
  ShowHelpSpbOptions();
  ScreenOutput("     --aexp  [OPTIONAL] Accept an expired sender certificate.\r\n");
  ScreenOutput("     --autocer [OPTIONAL] Update the sender certificate from the message.\r\n");
  ScreenOutput("     --pad   [OPTIONAL] Leave the padding on the decoded message.\r\n");
  return PerfHelpCommandExamples("spb-decode", {"-t 5 -i 10 -m 1024"});
}

// ---------------------------------------------------------------------------------------------
// generate-cvv, verify-cvv, generate-pin: one payment key per thread, an unnamed session key.

typedef struct _PERF_CARD_KEY_INFO {
  THREAD_INFO ti;
  int Operation;  // 0 generate CVV, 1 verify CVV, 2 generate PIN
  HSESSIONCTX hSession;
  HKEYCTX hKey;
  uint32_t dwKeyLen;  // read from the key
  char szCvv[4];      // verify-cvv: the CVV made in ThreadInit
} PERF_CARD_KEY_INFO;

namespace {

constexpr int kOpGenerateCvv = 0;
constexpr int kOpVerifyCvv = 1;
constexpr int kOpGeneratePin = 2;

const char *CardKeyTag(int op) {
  return op == kOpGenerateCvv ? "PerfGenerateCVVThreadInit"
         : op == kOpVerifyCvv ? "PerfVerifyCVVThreadInit"
                              : "PerfGeneratePINThreadInit";
}

}  // namespace

int PerfCardKeyThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_CARD_KEY_INFO *>(pThreadInfo);
  PerfSetup setup(CardKeyTag(info->Operation));
  info->hSession = nullptr;
  info->hKey = nullptr;
  SessionOwner session;
  KeyOwner key;
  setup.Connect(&info->ti, &session);
  setup.SessionKey(session.Get(), kPaymentKeyAlg, QL_KEY_EXPORTABLE | QL_KEY_TEMPORARY, &key);
  setup.Do("QGetKeyParam(QKP_KEYLEN)", [&] {
    uint32_t size = sizeof(info->dwKeyLen);
    return QGetKeyParam(key.Get(), QKP_KEYLEN, &info->dwKeyLen, &size, 0);
  });
  if (info->Operation == kOpVerifyCvv) {
    setup.Do("QGenerateCVV", [&] {
      return QGenerateCVV(key.Get(), kTestPan, kTestExpiry, kTestServiceCode, info->szCvv, 0);
    });
  }
  if (!setup.Ok()) return setup.Rc();
  info->hKey = key.Detach();
  info->hSession = session.Detach();
  return 0;
}

unsigned int PerfCardKeyThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_CARD_KEY_INFO *>(pThreadInfo);
  char cvv[4];
  char pin[16];
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    int rc = 0;
    if (info->Operation == kOpGenerateCvv) {
      rc = QGenerateCVV(info->hKey, kTestPan, kTestExpiry, kTestServiceCode, cvv, 0);
      if (rc != 0) PerfPassFailed("PerfGenerateCVVThread", "QGenerateCVV", rc, counter);
    } else if (info->Operation == kOpVerifyCvv) {
      rc = QVerifyCVV(info->hKey, kTestPan, kTestExpiry, kTestServiceCode, info->szCvv, 0);
      if (rc != 0) PerfPassFailed("PerfVerifyCVVThread", "QVerifyCVV", rc, counter);
    } else {
      uint32_t pin_len = sizeof(pin);
      rc = QGeneratePIN(info->hKey, kTestPan, kTestPinLen, pin, &pin_len, 0);
      if (rc != 0) PerfPassFailed("PerfGeneratePINThread", "QGeneratePIN", rc, counter);
    }
    return rc;
  });
}

int PerfCardKeyThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_CARD_KEY_INFO *>(pThreadInfo);
  DestroyRecordKey(&info->hKey, 0);
  CloseRecordSession(&info->hSession);
  return 0;
}

namespace {

int RunCardKeyTest(TEST_PARAMETER *pTestParam, int nParameters, int operation,
                   std::initializer_list<const char *> description, const char *command) {
  PERF_CARD_KEY_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
  info.Operation = operation;
  if (IsValidTestCountersConfig(&info.ti) && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfCardKeyThread, nullptr, nullptr, PerfCardKeyThreadInit,
                                  PerfCardKeyThreadFin, &info, sizeof(info));
  }
  PerfHelpDescription(description);
  return PerfHelpCommandExamples(command, {"-t 5 -i 10"});
}

}  // namespace

int PerfGenerateCVV(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunCardKeyTest(pTestParam, nParameters, kOpGenerateCvv,
                        {"CVV generation performance test.",
                         "This test returns the number of CVVs generated per second."},
                        "generate-cvv");
}

int PerfVerifyCVV(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunCardKeyTest(pTestParam, nParameters, kOpVerifyCvv,
                        {"CVV verification performance test.",
                         "This test returns the number of CVVs verified per second."},
                        "verify-cvv");
}

int PerfGeneratePIN(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunCardKeyTest(pTestParam, nParameters, kOpGeneratePin,
                        {"PIN generation performance test.",
                         "This test returns the number of PINs generated per second."},
                        "generate-pin");
}

// ---------------------------------------------------------------------------------------------
// verify-pin-block

typedef struct _PERF_VERIFY_PIN_BLOCK_INFO {
  THREAD_INFO ti;
  const char *pszPtkName;  // -ptk: an existing PIN translation key; made per thread when absent
  HSESSIONCTX hSession;
  HKEYCTX hPtk;
  HKEYCTX hPgk;
  unsigned char pbPinBlock[kPinBlockLen];
} PERF_VERIFY_PIN_BLOCK_INFO;

int PerfVerifyPINBlockThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_VERIFY_PIN_BLOCK_INFO *>(pThreadInfo);
  info->hSession = nullptr;
  info->hPtk = nullptr;
  info->hPgk = nullptr;
  PerfSetup setup("PerfVerifyPINBlockThreadInit");
  SessionOwner session;
  KeyOwner ptk, pgk;
  setup.Connect(&info->ti, &session);
  setup.SessionKey(session.Get(), kPaymentKeyAlg, QL_KEY_TEMPORARY, &pgk);
  setup.TestKey(session.Get(), info->pszPtkName != nullptr, info->pszPtkName, kPaymentKeyAlg,
                QL_KEY_TEMPORARY, &ptk);
  char pin[16] = {};
  setup.Do("QGeneratePIN", [&] {
    uint32_t pin_len = sizeof(pin);
    return QGeneratePIN(pgk.Get(), kTestPan, kTestPinLen, pin, &pin_len, 0);
  });
  setup.Do("QEncrypt", [&] {
    BuildIsoFormat0Block(pin, info->pbPinBlock);
    return EncryptBlock(ptk.Get(), info->pbPinBlock);
  });
  if (!setup.Ok()) return setup.Rc();
  info->hPtk = ptk.Detach();
  info->hPgk = pgk.Detach();
  info->hSession = session.Detach();
  return 0;
}

unsigned int PerfVerifyPINBlockThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_VERIFY_PIN_BLOCK_INFO *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [info](unsigned long counter) {
    const int rc = QVerifyPINBlock(info->hPtk, info->hPgk, kIsoFormat0, kTestPan, info->pbPinBlock,
                                   kPinBlockLen, 0);
    return rc == 0 ? 0 : PerfPassFailed("PerfVerifyPINBlockThread", "QVerifyPINBlock", rc, counter);
  });
}

int PerfVerifyPINBlockThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_VERIFY_PIN_BLOCK_INFO *>(pThreadInfo);
  DestroyRecordKey(&info->hPtk, 0);
  DestroyRecordKey(&info->hPgk, 0);
  CloseRecordSession(&info->hSession);
  return 0;
}

int PerfVerifyPINBlock(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_VERIFY_PIN_BLOCK_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
  info.pszPtkName = GetParameterStr(pTestParam, nParameters, "-ptk");
  if (info.pszPtkName != nullptr && info.pszPtkName[0] == '\0') info.pszPtkName = nullptr;

  if (IsValidTestCountersConfig(&info.ti) && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfVerifyPINBlockThread, nullptr, nullptr,
                                  PerfVerifyPINBlockThreadInit, PerfVerifyPINBlockThreadFin, &info,
                                  sizeof(info));
  }
  PerfHelpDescription({"PIN block verification performance test.",
                       "This test returns the number of PIN blocks (ISO format 0) verified per",
                       "second."});
  ScreenOutput(
      "     -ptk    [OPTIONAL] Name of the PIN translation key. A session key of each\r\n");
  ScreenOutput("             thread by default.\r\n");
  return PerfHelpCommandExamples("verify-pin-block", {"-t 5 -i 10"});
}

// ---------------------------------------------------------------------------------------------
// pin-block-translate

typedef struct _PERF_PIN_BLOCK_TRANSLATE_INFO {
  THREAD_INFO ti;
  const char *pszSrcPek;  // -srcpek; made per thread when absent
  const char *pszDstPek;  // -dstpek; made per thread when absent
  HSESSIONCTX hSession;
  char szSrcPek[kTempKeyNameSize];  // the thread's own keys, removed in ThreadFin
  char szDstPek[kTempKeyNameSize];
  unsigned char pbPinBlock[kPinBlockLen];  // encrypted under the source key
} PERF_PIN_BLOCK_TRANSLATE_INFO;

int PerfPINBlockTranslateThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_PIN_BLOCK_TRANSLATE_INFO *>(pThreadInfo);
  RemoveTempKey(info->hSession, info->szSrcPek);
  RemoveTempKey(info->hSession, info->szDstPek);
  CloseRecordSession(&info->hSession);
  return 0;
}

int PerfPINBlockTranslateThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_PIN_BLOCK_TRANSLATE_INFO *>(pThreadInfo);
  const char *tag = "PerfPINBlockTranslateThreadInit";
  info->hSession = nullptr;
  info->szSrcPek[0] = info->szDstPek[0] = '\0';
  int rc = ConnectEx(&info->hSession, &info->ti);
  if (rc != 0) ScreenOutput("[%s] Fail in ConnectEx. rc = %d\r\n", tag, rc);
  if (rc == 0 && info->pszSrcPek == nullptr) {
    rc = GenTempKey(tag, info->hSession, kPaymentKeyAlg, info->szSrcPek);
  }
  if (rc == 0 && info->pszDstPek == nullptr) {
    rc = GenTempKey(tag, info->hSession, kPaymentKeyAlg, info->szDstPek);
  }
  if (rc == 0) {
    PerfSetup setup(tag);
    KeyOwner src;
    setup.UserKey(info->hSession, info->pszSrcPek ? info->pszSrcPek : info->szSrcPek, &src);
    setup.Do("QEncrypt", [&] {
      BuildIsoFormat0Block("1234", info->pbPinBlock);
      return EncryptBlock(src.Get(), info->pbPinBlock);
    });
    rc = setup.Rc();
  }
  if (rc != 0) PerfPINBlockTranslateThreadFin(info);
  return rc;
}

unsigned int PerfPINBlockTranslateThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_PIN_BLOCK_TRANSLATE_INFO *>(pThreadInfo);
  const char *src = info->pszSrcPek ? info->pszSrcPek : info->szSrcPek;
  const char *dst = info->pszDstPek ? info->pszDstPek : info->szDstPek;
  unsigned char out[kPinBlockLen];
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    uint32_t out_len = sizeof(out);
    const int rc = QPINBlockTranslate(info->hSession, src, dst, kIsoFormat0, kTestPan,
                                      info->pbPinBlock, kPinBlockLen, out, &out_len, 0);
    return rc == 0
               ? 0
               : PerfPassFailed("PerfPINBlockTranslateThread", "QPINBlockTranslate", rc, counter);
  });
}

int PerfPINBlockTranslate(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_PIN_BLOCK_TRANSLATE_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
  info.pszSrcPek = GetParameterStr(pTestParam, nParameters, "-srcpek");
  info.pszDstPek = GetParameterStr(pTestParam, nParameters, "-dstpek");
  if (info.pszSrcPek != nullptr && info.pszSrcPek[0] == '\0') info.pszSrcPek = nullptr;
  if (info.pszDstPek != nullptr && info.pszDstPek[0] == '\0') info.pszDstPek = nullptr;

  if (IsValidTestCountersConfig(&info.ti) && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfPINBlockTranslateThread, nullptr, nullptr,
                                  PerfPINBlockTranslateThreadInit, PerfPINBlockTranslateThreadFin,
                                  &info, sizeof(info));
  }
  PerfHelpDescription({"PIN block translation performance test.",
                       "This test returns the number of PIN blocks translated per second from",
                       "one PIN encryption key to another."});
  ScreenOutput("     -srcpek [OPTIONAL] Name of the source PIN encryption key.\r\n");
  ScreenOutput("     -dstpek [OPTIONAL] Name of the destination PIN encryption key.\r\n");
  ScreenOutput(
      "             Each thread makes the keys not given and removes them at the end.\r\n");
  return PerfHelpCommandExamples("pin-block-translate", {"-t 5 -i 10"});
}

// ---------------------------------------------------------------------------------------------
// generate-dukpt

typedef struct _PERF_GENERATE_DUKPT_INFO {
  THREAD_INFO ti;
  HSESSIONCTX hSession;
  char szBdkName[QL_MAX_OBJ_NAME + 1];  // the thread's base derivation key
  unsigned char pbKsn[kKsnLen];
} PERF_GENERATE_DUKPT_INFO;

int PerfGenerateDUKPTThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_GENERATE_DUKPT_INFO *>(pThreadInfo);
  RemoveTempKey(info->hSession, info->szBdkName);
  CloseRecordSession(&info->hSession);
  return 0;
}

int PerfGenerateDUKPTThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_GENERATE_DUKPT_INFO *>(pThreadInfo);
  info->hSession = nullptr;
  info->szBdkName[0] = '\0';
  PerfSetup setup("PerfGenerateDUKPTThreadInit");
  setup.Do("ConnectEx", [&] { return ConnectEx(&info->hSession, &info->ti); });
  setup.Random(info->hSession, info->pbKsn, kKsnLen);
  char bdk_name[QL_MAX_OBJ_NAME + 1] = {};
  setup.Do("QGenerateBDKName", [&] {
    uint32_t len = sizeof(bdk_name);
    return QGenerateBDKName(info->hSession, info->pbKsn, kKsiLen, bdk_name, &len);
  });
  setup.Do("QGenerateKey",
           [&] { return QGenerateKey(info->hSession, bdk_name, kPaymentKeyAlg, 0, nullptr); });
  if (!setup.Ok()) {
    PerfGenerateDUKPTThreadFin(info);
    return setup.Rc();
  }
  std::memcpy(info->szBdkName, bdk_name, sizeof(bdk_name));
  return 0;
}

unsigned int PerfGenerateDUKPTThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_GENERATE_DUKPT_INFO *>(pThreadInfo);
  const char *tag = "PerfGenerateDUKPTThread";
  char name[kTempKeyNameSize];
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    GetTempKeyNameOffline(name);
    int rc = QGenerateDUKPT(info->hSession, info->szBdkName, info->pbKsn, kKsnLen, name, 0);
    if (rc != 0) return PerfPassFailed(tag, "QGenerateDUKPT", rc, counter);
    rc = QRemoveObj(info->hSession, name);
    return rc == 0 ? 0 : PerfPassFailed(tag, "QRemoveObj", rc, counter);
  });
}

int PerfGenerateDUKPT(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_GENERATE_DUKPT_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
  if (IsValidTestCountersConfig(&info.ti) && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfGenerateDUKPTThread, nullptr, nullptr,
                                  PerfGenerateDUKPTThreadInit, PerfGenerateDUKPTThreadFin, &info,
                                  sizeof(info));
  }
  PerfHelpDescription({"DUKPT generation performance test.",
                       "This test returns the number of DUKPT keys derived (and removed) per",
                       "second from a base derivation key of each thread."});
  return PerfHelpCommandExamples("generate-dukpt", {"-t 5 -i 10"});
}

// ---------------------------------------------------------------------------------------------
// export-tr31, import-tr31

typedef struct _PERF_EXPORT_TR31 {
  THREAD_INFO ti;
  int KbpkAlgId;      // --kbpk-alg
  int KeyAlgId;       // --key-alg
  int Usage;          // --tr31-usage
  int Mode;           // --tr31-mode
  int Exportability;  // --tr31-exp
  HSESSIONCTX hSrcSession;
  char szKbpkName[kTempKeyNameSize];
  char szKeyName[kTempKeyNameSize];
  char szImportPrefix[16];  // import-tr31: the names of the imported keys begin with it
  HSESSIONCTX hSession;
  char *pszKeyBlock;  // heap, dwKeyBlockSize bytes
  uint32_t dwKeyBlockSize;
  uint32_t dwKeyBlockLen;  // import-tr31: the block exported in ThreadInit
} PERF_EXPORT_TR31;

namespace {

int ReadTr31Options(PERF_EXPORT_TR31 *info, TEST_PARAMETER *pTestParam, int nParameters) {
  info->KbpkAlgId = QL_ALG_AES256;
  if (IsParameterDefined(pTestParam, nParameters, "--kbpk-alg")) {
    info->KbpkAlgId = GetParameterAlg(pTestParam, nParameters, "--kbpk-alg");
  }
  info->KeyAlgId = QL_ALG_AES192;
  if (IsParameterDefined(pTestParam, nParameters, "--key-alg")) {
    info->KeyAlgId = GetParameterAlg(pTestParam, nParameters, "--key-alg");
  }
  info->Usage = 0;
  if (IsParameterDefined(pTestParam, nParameters, "--tr31-usage")) {
    info->Usage = GetParameterTR31Usage(pTestParam, nParameters, "--tr31-usage");
  }
  info->Mode = 0;
  if (IsParameterDefined(pTestParam, nParameters, "--tr31-mode")) {
    info->Mode = GetParameterTR31Mode(pTestParam, nParameters, "--tr31-mode");
  }
  info->Exportability = 0;  // auto
  if (IsParameterDefined(pTestParam, nParameters, "--tr31-exp")) {
    info->Exportability = GetParameterTR31Exp(pTestParam, nParameters, "--tr31-exp");
  }
  return info->KbpkAlgId != -1 && info->KeyAlgId != -1 && info->Usage != -1 && info->Mode != -1 &&
         info->Exportability != -1;
}

// The key block of the record's keys and options, into block (a size query without one).
int ExportTr31(const PERF_EXPORT_TR31 *info, HSESSIONCTX hSession, char *block, uint32_t *len) {
  return QEFTExportTR31(hSession, info->szKbpkName, info->szKeyName,
                        static_cast<uint32_t>(info->Usage), static_cast<uint32_t>(info->Mode),
                        static_cast<uint32_t>(info->Exportability), block, len, 0);
}

// Removes the keys import-tr31 made: every object whose name begins with the run's prefix.
struct ImportedNames {
  const char *prefix;
  std::vector<std::string> names;
};

int CollectImportedName(void *pvParam, const char *szName, int bLast) {
  auto *found = static_cast<ImportedNames *>(pvParam);
  if (!bLast && szName != nullptr &&
      std::strncmp(szName, found->prefix, std::strlen(found->prefix)) == 0) {
    found->names.emplace_back(szName);
  }
  return 0;
}

void RemoveImportedKeys(HSESSIONCTX session, const char *prefix) {
  if (session == nullptr || prefix[0] == '\0') return;
  ImportedNames found{prefix, {}};
  if (QListObjs(session, CollectImportedName, &found) != 0) return;
  for (const std::string &name : found.names) QRemoveObj(session, name.c_str());
}

void ShowHelpTr31Options(bool with_usage) {
  ScreenOutput(
      "     --kbpk-alg  [OPTIONAL] Key block protection key algorithm. aes256 (default):\r\n");
  ShowHelpExportTR31KbpkAlg();
  ScreenOutput("     --key-alg   [OPTIONAL] Algorithm of the key carried. aes192 (default).\r\n");
  if (with_usage) {
    ScreenOutput("     --tr31-usage [OPTIONAL] Key usage. auto (default):\r\n");
    ShowHelpExportTR31Usage();
  }
  ScreenOutput("     --tr31-mode [OPTIONAL] Mode of use. auto (default):\r\n");
  ShowHelpExportTR31Mode();
  ScreenOutput("     --tr31-exp  [OPTIONAL] Exportability. auto (default):\r\n");
  ShowHelpExportTR31Exp();
}

}  // namespace

int PerfExportTR31Fin(void *pTestInfo) {
  auto *info = static_cast<PERF_EXPORT_TR31 *>(pTestInfo);
  RemoveImportedKeys(info->hSrcSession, info->szImportPrefix);
  RemoveTempKey(info->hSrcSession, info->szKeyName);
  RemoveTempKey(info->hSrcSession, info->szKbpkName);
  CloseRecordSession(&info->hSrcSession);
  return 0;
}

int PerfExportTR31Init(void *pTestInfo) {
  auto *info = static_cast<PERF_EXPORT_TR31 *>(pTestInfo);
  const char *tag = "PerfExportTR31Init";
  int rc = ConnectEx(&info->hSrcSession, &info->ti);
  if (rc != 0) ScreenOutput("[%s] Fail in ConnectEx. rc = %d\r\n", tag, rc);
  if (rc == 0) rc = GenTempKey(tag, info->hSrcSession, info->KbpkAlgId, info->szKbpkName);
  if (rc == 0) {
    rc = GenTempKey(tag, info->hSrcSession, info->KeyAlgId, info->szKeyName, QL_KEY_EXPORTABLE);
  }
  if (rc == 0) {
    // The imported keys' names: "T31" and the first eight digits of the key's name.
    std::snprintf(info->szImportPrefix, sizeof(info->szImportPrefix), "T31%.8s_", info->szKeyName);
  }
  if (rc != 0) PerfExportTR31Fin(info);
  return rc;
}

int PerfExportTR31ThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_EXPORT_TR31 *>(pThreadInfo);
  info->hSession = nullptr;
  info->pszKeyBlock = nullptr;
  info->dwKeyBlockSize = info->dwKeyBlockLen = 0;
  PerfSetup setup("PerfExportTR31ThreadInit");
  SessionOwner session;
  setup.Connect(&info->ti, &session);
  uint32_t len = 0;
  setup.SizeQuery("QEFTExportTR31", [&] { return ExportTr31(info, session.Get(), nullptr, &len); });
  HeapBuffer block;
  setup.Alloc(&block, len + 1);
  setup.Do("QEFTExportTR31", [&] {
    // import-tr31 imports this block; export-tr31 overwrites it on every pass.
    uint32_t block_len = len + 1;
    const int rc =
        ExportTr31(info, session.Get(), reinterpret_cast<char *>(block.Get()), &block_len);
    info->dwKeyBlockLen = block_len;
    return rc;
  });
  if (!setup.Ok()) return setup.Rc();
  info->dwKeyBlockSize = len + 1;
  info->pszKeyBlock = reinterpret_cast<char *>(block.Release());
  info->hSession = session.Detach();
  return 0;
}

int PerfExportTR31ThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_EXPORT_TR31 *>(pThreadInfo);
  CloseRecordSession(&info->hSession);
  FreeRecordBuffer(&info->pszKeyBlock);
  return 0;
}

unsigned int PerfExportTR31Thread(void *pThreadInfo) {
  auto *info = static_cast<PERF_EXPORT_TR31 *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [info](unsigned long counter) {
    uint32_t len = info->dwKeyBlockSize;
    const int rc = ExportTr31(info, info->hSession, info->pszKeyBlock, &len);
    return rc == 0 ? 0 : PerfPassFailed("PerfExportTR31Thread", "QEFTExportTR31", rc, counter);
  });
}

unsigned int PerfImportTR31Thread(void *pThreadInfo) {
  auto *info = static_cast<PERF_EXPORT_TR31 *>(pThreadInfo);
  char name[sizeof(info->szImportPrefix) + kTempKeyNameSize];
  const size_t prefix_len = std::strlen(info->szImportPrefix);
  std::memcpy(name, info->szImportPrefix, prefix_len);
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    // Fin removes the imported keys by their prefix.
    GetTempKeyNameOffline(name + prefix_len);
    const int rc = QEFTImportTR31(info->hSession, info->szKbpkName, name, info->pszKeyBlock,
                                  info->dwKeyBlockLen, 0);
    return rc == 0 ? 0 : PerfPassFailed("PerfImportTR31Thread", "QEFTImportTR31", rc, counter);
  });
}

namespace {

int RunTr31Test(TEST_PARAMETER *pTestParam, int nParameters, bool import) {
  PERF_EXPORT_TR31 info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
  const bool options_ok = ReadTr31Options(&info, pTestParam, nParameters);
  if (IsValidTestCountersConfig(&info.ti) && options_ok && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(import ? PerfImportTR31Thread : PerfExportTR31Thread,
                                  PerfExportTR31Init, PerfExportTR31Fin, PerfExportTR31ThreadInit,
                                  PerfExportTR31ThreadFin, &info, sizeof(info));
  }
  if (import) {
    PerfHelpDescription({"TR-31 key import performance test.",
                         "This test returns the number of TR-31 key blocks imported per second.",
                         "The imported keys are removed at the end of the test."});
  } else {
    PerfHelpDescription({"TR-31 key export performance test.",
                         "This test returns the number of TR-31 key blocks exported per second."});
  }
  ShowHelpTr31Options(!import);
  return PerfHelpCommandExamples(import ? "import-tr31" : "export-tr31",
                                 {"-t 5 -i 10 --kbpk-alg aes256 --key-alg aes192"});
}

}  // namespace

int PerfExportTR31(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunTr31Test(pTestParam, nParameters, false);
}

int PerfImportTR31(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunTr31Test(pTestParam, nParameters, true);
}
