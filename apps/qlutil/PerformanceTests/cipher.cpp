// The symmetric cipher performance tests: encrypt and decrypt.
//
// Each thread encrypts (or decrypts) one message of -m bytes per pass, in pieces, with a key of
// its own that lives in its session only. A failing piece ends the current message only: the
// loop goes on with the next one, and the code of the last piece decides what the thread
// reports. The figure is bytes per second (encrypt: operations per second with -ops 1).

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "PerformanceTests.h"
#include "perf_common.h"

namespace {

// encrypt: at most 8,064 bytes per piece, in an 8,192-byte buffer that leaves room for a
// padding block or a GCM tag.
constexpr uint32_t kEncryptPieceLen = 8064;
constexpr uint32_t kEncryptBufferLen = 8192;
// decrypt: pieces of at most 2,048 bytes, and a ciphertext buffer 128 bytes longer than the
// message for the padding and tag.
constexpr uint32_t kDecryptPieceLen = 2048;
constexpr uint32_t kDecryptSlack = 128;

const char *const kCipherExampleHead = "qlutil -a 10.10.10.10 -u master -w 24681357";

void ShowHelpCipherOptions() {
  ScreenOutput("     -k      Key algorithm:\r\n");
  ShowHelpSymmetricAlgorithms();
  ScreenOutput("     -m      Message size in bytes.\r\n");
  ScreenOutput("     -mo     [OPTIONAL] Cipher mode (the key's default when absent):\r\n");
  ShowHelpMode();
  ScreenOutput("     -pa     [OPTIONAL] Padding (the key's default when absent):\r\n");
  ShowHelpPadding();
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// encrypt

typedef struct _PERF_ENCRYPT_INFO {
  THREAD_INFO ti;
  int KeyAlgId;  // -k
  int Mode;      // -mo; -1 when absent
  int Padding;   // -pa; -1 when absent
  HSESSIONCTX hSession;
  HKEYCTX hKey;
  unsigned char pbData[kEncryptBufferLen];
} PERF_ENCRYPT_INFO;

int PerfEncryptThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_ENCRYPT_INFO *>(pThreadInfo);
  const char *tag = "PerfEncryptThreadInit";
  info->hSession = nullptr;
  info->hKey = nullptr;

  SessionOwner session;
  KeyOwner key;
  int rc = ConnectEx(session.Put(), &info->ti);
  if (rc != 0) ScreenOutput("[%s] Fail in ConnectEx. rc = %d\r\n", tag, rc);
  if (rc == 0) {
    rc = QGetRandom(session.Get(), info->pbData, kEncryptPieceLen);
    if (rc != 0) ScreenOutput("[%s] Fail in QGetRandom. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    rc = QGenerateKey(session.Get(), nullptr, static_cast<uint32_t>(info->KeyAlgId),
                      QL_KEY_TEMPORARY, key.Put());
    if (rc != 0) ScreenOutput("[%s] Fail in QGenerateKey. rc = %d\r\n", tag, rc);
  }
  if (rc == 0 && info->Mode != -1) {
    rc = QSetKeyParam(key.Get(), QKP_MODE, &info->Mode, sizeof(info->Mode), 0);
    if (rc != 0) ScreenOutput("[%s] Fail in QSetKeyParam(QKP_MODE). rc = %d\r\n", tag, rc);
  }
  if (rc == 0 && info->Padding != -1) {
    rc = QSetKeyParam(key.Get(), QKP_PADDING, &info->Padding, sizeof(info->Padding), 0);
    if (rc != 0) ScreenOutput("[%s] Fail in QSetKeyParam(QKP_PADDING). rc = %d\r\n", tag, rc);
  }
  if (rc != 0) return rc;
  info->hKey = key.Detach();
  info->hSession = session.Detach();
  return 0;
}

unsigned int PerfEncryptThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_ENCRYPT_INFO *>(pThreadInfo);
  const uint32_t message_size = static_cast<uint32_t>(info->ti.MessageSize);
  unsigned long counter = 0;
  int rc = 0;
  do {
    if (ShouldStopPerfTestLoop(&counter, info->ti.Iterations)) break;
    uint32_t remaining = message_size;
    while (remaining > 0) {
      uint32_t piece = std::min(remaining, kEncryptPieceLen);
      remaining -= piece;
      rc =
          QEncrypt(info->hKey, nullptr, remaining == 0, 0, info->pbData, &piece, kEncryptBufferLen);
      if (rc != 0) {
        ScreenOutput("[PerfEncrypt] Fail in QEncrypt. rc = %d\r\n", rc);
        break;  // this message only
      }
      if (PerfRunFailed(&info->ti)) break;
    }
  } while (!PerfRunFailed(&info->ti));
  PublishPerfThreadError(&info->ti, rc);
  return 1;
}

int PerfEncryptThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_ENCRYPT_INFO *>(pThreadInfo);
  DestroyRecordKey(&info->hKey, 0);
  CloseRecordSession(&info->hSession);
  return 0;
}

int PerfEncrypt(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_ENCRYPT_INFO info;
  std::memset(&info, 0, sizeof(info));
  LoadGenericParameters(&info.ti, pTestParam, nParameters);
  info.ti.Metric = GetParameterInt(pTestParam, nParameters, "-ops") == 1 ? 1 : 2;
  info.KeyAlgId = GetParameterAlg(pTestParam, nParameters, "-k");
  info.ti.MessageSize = GetParameterInt(pTestParam, nParameters, "-m");
  info.Mode = GetParameterAlg(pTestParam, nParameters, "-mo");
  info.Padding = GetParameterAlg(pTestParam, nParameters, "-pa");
  const bool bad_mode = IsParameterDefined(pTestParam, nParameters, "-mo") && info.Mode == -1;
  const bool bad_padding = IsParameterDefined(pTestParam, nParameters, "-pa") && info.Padding == -1;

  if (IsValidTestCountersConfig(&info.ti) && info.KeyAlgId != -1 && info.ti.MessageSize > 0 &&
      !bad_mode && !bad_padding && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfEncryptThread, nullptr, nullptr, PerfEncryptThreadInit,
                                  PerfEncryptThreadFin, &info, sizeof(info));
  }

  PerfHelpDescription(
      {"Symmetric encryption performance test.",
       "This test returns the number of bytes encrypted per second or operations per second."});
  ShowHelpCipherOptions();
  ScreenOutput("     -ops    [OPTIONAL] 1: Report operations per second instead of bytes per\r\n");
  ScreenOutput("             second.\r\n");
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput("     %s -p encrypt -t 5 -i 10 -k aes256 -m 1024 -pa pkcs5_padding -mo ecb\r\n",
               kCipherExampleHead);
  return kResultUsage;
}

// ---------------------------------------------------------------------------------------------
// decrypt

typedef struct _PERF_DECRYPT_INFO {
  THREAD_INFO ti;
  int KeyAlgId;  // -k
  int Mode;      // -mo; -1 when absent
  int Padding;   // -pa; -1 when absent
  char szKeyName[256];
  unsigned char *pbyEncBuffer;  // the ciphertext, decrypted on every pass
  uint32_t cbEncBuffer;
  HSESSIONCTX hSession;
  HKEYCTX hKey;
} PERF_DECRYPT_INFO;

int PerfDecryptThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_DECRYPT_INFO *>(pThreadInfo);
  const char *tag = "PerfDecryptThreadInit";
  info->hSession = nullptr;
  info->hKey = nullptr;
  info->pbyEncBuffer = nullptr;
  info->cbEncBuffer = 0;

  const uint32_t message_size = static_cast<uint32_t>(info->ti.MessageSize);
  const uint32_t buffer_size = message_size + kDecryptSlack;
  HeapBuffer buffer(buffer_size);
  if (!buffer) {
    ScreenOutput("[%s] Fail in malloc. rc = %d\r\n", tag, -1);
    return -1;
  }
  SessionOwner session;
  KeyOwner key;
  int rc = ConnectEx(session.Put(), &info->ti);
  if (rc != 0) ScreenOutput("[%s] Fail in ConnectEx. rc = %d\r\n", tag, rc);
  uint32_t number = 0;
  if (rc == 0) {
    rc = QGetRandom(session.Get(), reinterpret_cast<unsigned char *>(&number), sizeof(number));
    if (rc != 0) ScreenOutput("[%s] Fail in QGetRandom. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    std::snprintf(info->szKeyName, sizeof(info->szKeyName), "%lu_QLUTI_TMP_KEY",
                  static_cast<unsigned long>(number));
    rc = QGenerateKey(session.Get(), info->szKeyName, static_cast<uint32_t>(info->KeyAlgId),
                      QL_KEY_TEMPORARY, key.Put());
    if (rc != 0) ScreenOutput("[%s] Fail in QGenerateKey. rc = %d\r\n", tag, rc);
  }
  if (rc == 0 && info->Mode != -1) {
    rc = QSetKeyParam(key.Get(), QKP_MODE, &info->Mode, sizeof(info->Mode), 0);
    if (rc != 0) ScreenOutput("[%s] Fail in QSetKeyParam. rc = %d\r\n", tag, rc);
  }
  if (rc == 0 && info->Padding != -1) {
    rc = QSetKeyParam(key.Get(), QKP_PADDING, &info->Padding, sizeof(info->Padding), 0);
    if (rc != 0) ScreenOutput("[%s] Fail in QSetKeyParam. rc = %d\r\n", tag, rc);
  }
  // The buffer's own content is encrypted once, in pieces, into the ciphertext the loop
  // decrypts. The room left in the buffer, not the piece size, bounds each output: the last
  // piece may grow by a padding block or a tag.
  uint32_t done = 0, remaining = message_size;
  while (rc == 0 && remaining > 0) {
    uint32_t piece = std::min(remaining, kDecryptPieceLen);
    remaining -= piece;
    rc = QEncrypt(key.Get(), nullptr, remaining == 0, 0, buffer.Get() + done, &piece,
                  std::min(buffer_size - done, kDecryptPieceLen + kDecryptSlack));
    if (rc != 0) {
      ScreenOutput("[%s] Fail in QEncrypt. rc = %d\r\n", tag, rc);
      break;
    }
    done += piece;
  }
  if (rc != 0) return rc;
  info->cbEncBuffer = done;
  info->pbyEncBuffer = buffer.Release();
  info->hKey = key.Detach();
  info->hSession = session.Detach();
  return 0;
}

unsigned int PerfDecryptThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_DECRYPT_INFO *>(pThreadInfo);
  unsigned char piece_buffer[kDecryptPieceLen];
  unsigned long counter = 0;
  int rc = 0;
  do {
    if (ShouldStopPerfTestLoop(&counter, info->ti.Iterations)) break;
    const unsigned char *at = info->pbyEncBuffer;
    uint32_t remaining = info->cbEncBuffer;
    while (remaining > 0) {
      uint32_t piece = std::min(remaining, kDecryptPieceLen);
      std::memcpy(piece_buffer, at, piece);
      at += piece;
      remaining -= piece;
      rc = QDecrypt(info->hKey, nullptr, remaining == 0, 0, piece_buffer, &piece);
      if (rc != 0) {
        // The encrypt test's message, kept as it has always read.
        ScreenOutput("[PerfEncrypt] Fail in QEncrypt. rc = %d\r\n", rc);
        break;  // this message only
      }
      if (PerfRunFailed(&info->ti)) break;
    }
  } while (!PerfRunFailed(&info->ti));
  PublishPerfThreadError(&info->ti, rc);
  return 1;
}

int PerfDecryptThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_DECRYPT_INFO *>(pThreadInfo);
  DestroyRecordKey(&info->hKey, 0);
  CloseRecordSession(&info->hSession);
  FreeRecordBuffer(&info->pbyEncBuffer);
  info->cbEncBuffer = 0;
  return 0;
}

int PerfDecrypt(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_DECRYPT_INFO info;
  std::memset(&info, 0, sizeof(info));
  LoadGenericParameters(&info.ti, pTestParam, nParameters);
  info.ti.Metric = 2;
  info.KeyAlgId = GetParameterAlg(pTestParam, nParameters, "-k");
  info.ti.MessageSize = GetParameterInt(pTestParam, nParameters, "-m");
  info.Mode = GetParameterAlg(pTestParam, nParameters, "-mo");
  info.Padding = GetParameterAlg(pTestParam, nParameters, "-pa");
  const bool bad_mode = IsParameterDefined(pTestParam, nParameters, "-mo") && info.Mode == -1;
  const bool bad_padding = IsParameterDefined(pTestParam, nParameters, "-pa") && info.Padding == -1;

  if (IsValidTestCountersConfig(&info.ti) && info.KeyAlgId != -1 && info.ti.MessageSize > 0 &&
      !bad_mode && !bad_padding && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfDecryptThread, nullptr, nullptr, PerfDecryptThreadInit,
                                  PerfDecryptThreadFin, &info, sizeof(info));
  }

  PerfHelpDescription({"Symmetric decryption performance test.",
                       "This test returns the number of bytes decrypted per second."});
  ShowHelpCipherOptions();
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput("     %s -p decrypt -t 5 -i 10 -k aes256 -m 1024 -pa pkcs5_padding -mo ecb\r\n",
               kCipherExampleHead);
  return kResultUsage;
}
