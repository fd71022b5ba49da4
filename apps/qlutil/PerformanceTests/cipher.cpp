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
#include "harness/harness.h"

namespace {

// encrypt: at most 8,064 bytes per piece, in an 8,192-byte buffer that leaves room for a
// padding block or a GCM tag.
constexpr uint32_t kEncryptPieceLen = 8064;
constexpr uint32_t kEncryptBufferLen = 8192;
// decrypt: pieces of at most 2,048 bytes, and a ciphertext buffer 128 bytes longer than the
// message for the padding and tag.
constexpr uint32_t kDecryptPieceLen = 2048;
constexpr uint32_t kDecryptSlack = 128;

void ShowHelpCipherOptions() {
  ScreenOutput("     -k      Key algorithm:\r\n");
  ShowHelpSymmetricAlgorithms();
  ScreenOutput("     -m      Message size in bytes.\r\n");
  ScreenOutput("     -mo     [OPTIONAL] Cipher mode (the key's default when absent):\r\n");
  ShowHelpMode();
  ScreenOutput("     -pa     [OPTIONAL] Padding (the key's default when absent):\r\n");
  ShowHelpPadding();
}

// The options of both tests: -k, -m (the message size), -mo and -pa (-1 when absent). True
// when -k names a key, -m is positive and a -mo or -pa given names a known word.
bool LoadCipherOptions(THREAD_INFO *ti, int *pKeyAlgId, int *pMode, int *pPadding,
                       TEST_PARAMETER *pTestParam, int nParameters) {
  *pKeyAlgId = GetParameterAlg(pTestParam, nParameters, "-k");
  ti->MessageSize = GetParameterInt(pTestParam, nParameters, "-m");
  *pMode = GetParameterAlg(pTestParam, nParameters, "-mo");
  *pPadding = GetParameterAlg(pTestParam, nParameters, "-pa");
  const bool bad_mode = IsParameterDefined(pTestParam, nParameters, "-mo") && *pMode == -1;
  const bool bad_padding = IsParameterDefined(pTestParam, nParameters, "-pa") && *pPadding == -1;
  return *pKeyAlgId != -1 && ti->MessageSize > 0 && !bad_mode && !bad_padding;
}

// The key's -mo and -pa, when given (-1 stands for absent). The calls' names differ between
// the two tests' messages.
void SetCipherParams(PerfSetup *setup, HKEYCTX hKey, int mode, int padding, const char *mode_call,
                     const char *padding_call) {
  if (mode != -1) {
    setup->Do(mode_call, [&] { return QSetKeyParam(hKey, QKP_MODE, &mode, sizeof(mode), 0); });
  }
  if (padding != -1) {
    setup->Do(padding_call,
              [&] { return QSetKeyParam(hKey, QKP_PADDING, &padding, sizeof(padding), 0); });
  }
}

// The loop of both bodies: one message of message_len bytes per pass, in pieces of at most
// piece_max bytes; piece(offset, len, final) sends one. A failing piece prints the message
// both tests have always printed and ends that message only; the next pass goes on, and the
// code of the last piece sent is published at the end.
template <typename Piece>
unsigned int RunPiecedMessages(THREAD_INFO *ti, uint32_t message_len, uint32_t piece_max,
                               Piece &&piece) {
  unsigned long counter = 0;
  int rc = 0;
  do {
    if (ShouldStopPerfTestLoop(&counter, ti->Iterations)) break;
    uint32_t remaining = message_len;
    while (remaining > 0) {
      const uint32_t len = std::min(remaining, piece_max);
      const uint32_t offset = message_len - remaining;
      remaining -= len;
      rc = piece(offset, len, remaining == 0);
      if (rc != 0) {
        ScreenOutput("[PerfEncrypt] Fail in QEncrypt. rc = %d\r\n", rc);
        break;  // this message only
      }
      if (PerfRunFailed(ti)) break;
    }
  } while (!PerfRunFailed(ti));
  PublishPerfThreadError(ti, rc);
  return 1;
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
  info->hSession = nullptr;
  info->hKey = nullptr;

  PerfSetup setup("PerfEncryptThreadInit");
  SessionOwner session;
  KeyOwner key;
  setup.Connect(&info->ti, &session);
  setup.Random(session.Get(), info->pbData, kEncryptPieceLen);
  setup.SessionKey(session.Get(), info->KeyAlgId, QL_KEY_TEMPORARY, &key);
  SetCipherParams(&setup, key.Get(), info->Mode, info->Padding, "QSetKeyParam(QKP_MODE)",
                  "QSetKeyParam(QKP_PADDING)");
  if (!setup.Ok()) return setup.Rc();
  info->hKey = key.Detach();
  info->hSession = session.Detach();
  return 0;
}

unsigned int PerfEncryptThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_ENCRYPT_INFO *>(pThreadInfo);
  const uint32_t message_size = static_cast<uint32_t>(info->ti.MessageSize);
  return RunPiecedMessages(
      &info->ti, message_size, kEncryptPieceLen, [info](uint32_t, uint32_t len, bool final) {
        uint32_t piece = len;
        return QEncrypt(info->hKey, nullptr, final, 0, info->pbData, &piece, kEncryptBufferLen);
      });
}

int PerfEncryptThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_ENCRYPT_INFO *>(pThreadInfo);
  DestroyRecordKey(&info->hKey, 0);
  CloseRecordSession(&info->hSession);
  return 0;
}

int PerfEncrypt(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_ENCRYPT_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters,
                 GetParameterInt(pTestParam, nParameters, "-ops") == 1 ? 1 : 2);
  const bool options_ok = LoadCipherOptions(&info.ti, &info.KeyAlgId, &info.Mode, &info.Padding,
                                            pTestParam, nParameters);

  if (IsValidTestCountersConfig(&info.ti) && options_ok && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfEncryptThread, nullptr, nullptr, PerfEncryptThreadInit,
                                  PerfEncryptThreadFin, &info, sizeof(info));
  }

  PerfHelpDescription(
      {"Symmetric encryption performance test.",
       "This test returns the number of bytes encrypted per second or operations per second."});
  ShowHelpCipherOptions();
  ScreenOutput("     -ops    [OPTIONAL] 1: Report operations per second instead of bytes per\r\n");
  ScreenOutput("             second.\r\n");
  return PerfHelpCommandExamples("encrypt",
                                 {"-t 5 -i 10 -k aes256 -m 1024 -pa pkcs5_padding -mo ecb"});
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
  info->hSession = nullptr;
  info->hKey = nullptr;
  info->pbyEncBuffer = nullptr;
  info->cbEncBuffer = 0;

  const uint32_t message_size = static_cast<uint32_t>(info->ti.MessageSize);
  const uint32_t buffer_size = message_size + kDecryptSlack;
  PerfSetup setup("PerfDecryptThreadInit");
  HeapBuffer buffer(buffer_size);
  if (!buffer) {
    setup.Fail("malloc", -1);
    return setup.Rc();
  }
  SessionOwner session;
  KeyOwner key;
  setup.Connect(&info->ti, &session);
  uint32_t number = 0;
  setup.Random(session.Get(), reinterpret_cast<unsigned char *>(&number), sizeof(number));
  setup.Do("QGenerateKey", [&] {
    std::snprintf(info->szKeyName, sizeof(info->szKeyName), "%lu_QLUTI_TMP_KEY",
                  static_cast<unsigned long>(number));
    return QGenerateKey(session.Get(), info->szKeyName, static_cast<uint32_t>(info->KeyAlgId),
                        QL_KEY_TEMPORARY, key.Put());
  });
  SetCipherParams(&setup, key.Get(), info->Mode, info->Padding, "QSetKeyParam", "QSetKeyParam");
  // The buffer's own content is encrypted once, in pieces, into the ciphertext the loop
  // decrypts. The room left in the buffer, not the piece size, bounds each output: the last
  // piece may grow by a padding block or a tag.
  uint32_t done = 0, remaining = message_size;
  while (setup.Ok() && remaining > 0) {
    uint32_t piece = std::min(remaining, kDecryptPieceLen);
    remaining -= piece;
    setup.Do("QEncrypt", [&] {
      return QEncrypt(key.Get(), nullptr, remaining == 0, 0, buffer.Get() + done, &piece,
                      std::min(buffer_size - done, kDecryptPieceLen + kDecryptSlack));
    });
    done += piece;
  }
  if (!setup.Ok()) return setup.Rc();
  info->cbEncBuffer = done;
  info->pbyEncBuffer = buffer.Release();
  info->hKey = key.Detach();
  info->hSession = session.Detach();
  return 0;
}

unsigned int PerfDecryptThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_DECRYPT_INFO *>(pThreadInfo);
  unsigned char piece_buffer[kDecryptPieceLen];
  return RunPiecedMessages(&info->ti, info->cbEncBuffer, kDecryptPieceLen,
                           [&](uint32_t offset, uint32_t len, bool final) {
                             std::memcpy(piece_buffer, info->pbyEncBuffer + offset, len);
                             uint32_t piece = len;
                             return QDecrypt(info->hKey, nullptr, final, 0, piece_buffer, &piece);
                           });
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
  LoadPerfRecord(&info, pTestParam, nParameters, 2);
  const bool options_ok = LoadCipherOptions(&info.ti, &info.KeyAlgId, &info.Mode, &info.Padding,
                                            pTestParam, nParameters);

  if (IsValidTestCountersConfig(&info.ti) && options_ok && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfDecryptThread, nullptr, nullptr, PerfDecryptThreadInit,
                                  PerfDecryptThreadFin, &info, sizeof(info));
  }

  PerfHelpDescription({"Symmetric decryption performance test.",
                       "This test returns the number of bytes decrypted per second."});
  ShowHelpCipherOptions();
  return PerfHelpCommandExamples("decrypt",
                                 {"-t 5 -i 10 -k aes256 -m 1024 -pa pkcs5_padding -mo ecb"});
}
