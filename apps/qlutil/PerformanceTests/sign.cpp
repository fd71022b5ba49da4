// The signature performance tests: sign-hash, batch-sign, sign-hashed-data, verify-hash.
//
// Keys: without --tg (-tg for batch-sign) each thread signs with an unnamed session key of its
// own (generation flags 5), released in ThreadFin with flags 0; with it, Init makes one
// persistent key under a temporary name for the whole test, the threads open it by name, and
// Fin removes it from the HSM (flag 32). A key named by the user (--kn) is opened the same way
// and never removed.

#include <cstdio>
#include <cstring>

#include "PerformanceTests.h"
#include "perf_common.h"

namespace {

constexpr int kDefaultSignDataLen = 64;
constexpr uint32_t kSessionKeyFlags = QL_KEY_EXPORTABLE | QL_KEY_TEMPORARY;  // 5
constexpr uint32_t kTestKeyFlags = QL_KEY_EXPORTABLE;                        // 1
constexpr size_t kMaxKeyNameCopy = 49;
constexpr uint32_t kBatchRandomLen = 1024;
constexpr uint32_t kMaxHashLen = 64;

const char *const kSignExampleHead = "qlutil -a 10.10.10.10 -u master -w 24681357";

}  // namespace

// ---------------------------------------------------------------------------------------------
// sign-hash

typedef struct _PERF_SIGN_HASH_INFO {
  THREAD_INFO ti;
  int HashAlgId;               // -h
  int KeyAlgId;                // -k
  HKEYCTX hSrcKey;             // whole-test key (made in Init with --tg)
  HKEYCTX hKey;                // the thread's signing key
  HSESSIONCTX hSrcSession;     // whole-test session of Init and Fin
  HSESSIONCTX hSession;        // the thread's session
  HHASHCTX hHash;              // the thread's hash, already fed with the data
  unsigned char *pbSignature;  // heap, dwSignatureLen bytes
  uint32_t dwSignatureLen;
  unsigned char pbHash[64];  // not used by this test
  uint32_t dwHashLen;        // not used by this test
  int nDataLen;              // --ds
  bool bIsGenKeyPerTest;     // --tg (or --kn)
  bool bIsPredefinedKey;     // --kn
  char szKeyName[50];
  uint32_t dwFlags;  // QSignHash flags: 2 with --disable_legacy_sign
} PERF_SIGN_HASH_INFO;

int PerfSignHashInit(void *pTestInfo) {
  auto *info = static_cast<PERF_SIGN_HASH_INFO *>(pTestInfo);
  if (!info->bIsGenKeyPerTest || info->bIsPredefinedKey) return 0;

  int rc = ConnectEx(&info->hSrcSession, &info->ti);
  if (rc != 0) {
    ScreenOutput("[PerfSignHashInit] Fail in ConnectEx. rc = %d\r\n", rc);
  } else if (!GetTempKeyName(info->szKeyName, info->hSrcSession)) {
    // Kept lenient on purpose: the test goes on without a shared key, and its threads then
    // report the failure of QGetUserKey.
    ScreenOutput("[PerfSignHashInit] Fail in GetTempKeyName. rc = %d\r\n", rc);
    return 0;
  } else {
    rc = QGenerateKey(info->hSrcSession, info->szKeyName, info->KeyAlgId, kTestKeyFlags,
                      &info->hSrcKey);
    if (rc != 0) ScreenOutput("[PerfSignHashInit] Fail in QGenerateKey. rc = %d\r\n", rc);
  }
  if (rc != 0) {
    DestroyRecordKey(&info->hSrcKey);
    CloseRecordSession(&info->hSrcSession);
  }
  return rc;
}

int PerfSignHashThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_SIGN_HASH_INFO *>(pThreadInfo);
  const char *tag = "PerfSignHashThreadInit";
  info->hKey = nullptr;
  info->hSession = nullptr;
  info->hHash = nullptr;
  info->pbSignature = nullptr;
  info->dwSignatureLen = 0;

  // Only the hash of the data is kept.
  HeapBuffer data(static_cast<size_t>(info->nDataLen));
  SessionOwner session;
  HashOwner hash;
  KeyOwner key;
  int rc = data ? 0 : -1;
  if (rc != 0) ScreenOutput("[%s] Fail in malloc. rc = %d\r\n", tag, rc);
  if (rc == 0) {
    rc = Connect(&info->ti, session.Put(), false);
    if (rc != 0) ScreenOutput("[%s] Fail in ConnectEx. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    rc = QGetRandom(session.Get(), data.Get(), static_cast<uint32_t>(info->nDataLen));
    if (rc != 0) ScreenOutput("[%s] Fail in QGetRandom. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    rc = QCreateHash(session.Get(), static_cast<uint32_t>(info->HashAlgId), nullptr, 0, hash.Put());
    if (rc != 0) ScreenOutput("[%s] Fail in QCreateHash. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    if (info->bIsGenKeyPerTest) {
      rc = QGetUserKey(session.Get(), info->szKeyName, 0, key.Put());
      if (rc != 0) ScreenOutput("[%s] Fail in QGetUserKey. rc = %d\r\n", tag, rc);
    } else {
      rc = QGenerateKey(session.Get(), nullptr, static_cast<uint32_t>(info->KeyAlgId),
                        kSessionKeyFlags, key.Put());
      if (rc != 0) ScreenOutput("[%s] Fail in QGenerateKey. rc = %d\r\n", tag, rc);
    }
  }
  if (rc == 0) {
    rc = QHashData(hash.Get(), data.Get(), static_cast<uint32_t>(info->nDataLen), 0);
    if (rc != 0) ScreenOutput("[%s] Fail in QHashData. rc = %d\r\n", tag, rc);
  }
  HeapBuffer signature;
  if (rc == 0) {
    uint32_t len = 0;
    rc = QSignHash(hash.Get(), key.Get(), info->dwFlags, nullptr, &len);
    if (rc == QL_ERR_BUFFER_TOO_SMALL) {
      signature = HeapBuffer(len);
      rc = signature ? 0 : -1;
      if (rc != 0) ScreenOutput("[%s] Fail in malloc. rc = %d\r\n", tag, rc);
      info->dwSignatureLen = len;
    } else {
      // An answer of 0 leaves no buffer and is still taken as success.
      ScreenOutput("[%s] Fail in QSignHash. rc = %d\r\n", tag, rc);
    }
  }
  if (rc != 0) {
    info->dwSignatureLen = 0;
    return rc;
  }
  info->hSession = session.Detach();
  info->hHash = hash.Detach();
  info->hKey = key.Detach();
  info->pbSignature = signature.Release();
  return 0;
}

unsigned int PerfSignHashThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_SIGN_HASH_INFO *>(pThreadInfo);
  unsigned long counter = 0;
  int rc = 0;
  do {
    if (ShouldStopPerfTestLoop(&counter, info->ti.Iterations)) break;
    uint32_t len = info->dwSignatureLen;
    rc = QSignHash(info->hHash, info->hKey, info->dwFlags, info->pbSignature, &len);
    if (rc != 0) {
      ScreenOutput("[QHashData] Fail in QSignHash rc = %d. Iteration = %lu\r\n", rc, counter);
      break;
    }
  } while (!PerfRunFailed(&info->ti));
  PublishPerfThreadError(&info->ti, rc);
  return 1;
}

int PerfSignHashThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_SIGN_HASH_INFO *>(pThreadInfo);
  DestroyRecordKey(&info->hKey, 0);
  DestroyRecordHash(&info->hHash);
  CloseRecordSession(&info->hSession);
  FreeRecordBuffer(&info->pbSignature);
  return 0;
}

int PerfSignHashFin(void *pTestInfo) {
  auto *info = static_cast<PERF_SIGN_HASH_INFO *>(pTestInfo);
  if (!info->bIsGenKeyPerTest) return 0;
  // The key Init generated is removed from the HSM; a key named by the user never is.
  DestroyRecordKey(&info->hSrcKey, info->bIsPredefinedKey ? 0 : QL_DESTROY_REMOVE);
  CloseRecordSession(&info->hSrcSession);
  return 0;
}

int PerfSignHash(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_SIGN_HASH_INFO info;
  std::memset(&info, 0, sizeof(info));
  LoadGenericParameters(&info.ti, pTestParam, nParameters);
  info.ti.Metric = 1;
  info.HashAlgId = GetParameterAlg(pTestParam, nParameters, "-h");
  info.KeyAlgId = GetParameterAlg(pTestParam, nParameters, "-k");
  info.nDataLen = kDefaultSignDataLen;
  if (IsParameterDefined(pTestParam, nParameters, "--ds")) {
    info.nDataLen = GetParameterInt(pTestParam, nParameters, "--ds");
  }
  info.bIsGenKeyPerTest = IsParameterDefined(pTestParam, nParameters, "--tg") != 0;
  const char *key_name = GetParameterStr(pTestParam, nParameters, "--kn");
  if (key_name != nullptr && key_name[0] != '\0') {
    info.bIsPredefinedKey = true;
    info.bIsGenKeyPerTest = true;
    std::strncpy(info.szKeyName, key_name, kMaxKeyNameCopy);
  }
  info.dwFlags = IsParameterDefined(pTestParam, nParameters, "--disable_legacy_sign")
                     ? QL_SIGN_DISABLE_LEGACY
                     : 0;

  if (IsValidTestCountersConfig(&info.ti) && info.HashAlgId != -1 &&
      (info.KeyAlgId != -1 || info.bIsPredefinedKey) && info.nDataLen > 0 &&
      CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfSignHashThread, PerfSignHashInit, PerfSignHashFin,
                                  PerfSignHashThreadInit, PerfSignHashThreadFin, &info,
                                  sizeof(info));
  }

  PerfHelpDescription({"Hash signature performance test.",
                       "This test returns the number of signatures generated per second."});
  ScreenOutput("     -h      Hash algorithm:\r\n");
  ShowHelpHashAlgorithms();
  ScreenOutput("     -k      Key algorithm (not needed with --kn):\r\n");
  ShowHelpAsymSigAlgorithms();
  ScreenOutput("     --ds    [OPTIONAL] Size of the data to hash, in bytes. 64 (default).\r\n");
  ScreenOutput(
      "     --kn    [OPTIONAL] Name of an existing HSM key to sign with (implies --tg).\r\n");
  ScreenOutput("             The key is never removed.\r\n");
  ScreenOutput("     --tg    [OPTIONAL] One key for the whole test instead of one per thread.\r\n");
  ScreenOutput("     --disable_legacy_sign [OPTIONAL] Refuse the legacy RSA signature form.\r\n");
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput("     %s -p sign-hash -t 5 -i 10 -h sha256 -k rsa2048 --tg\r\n", kSignExampleHead);
  ScreenOutput("     %s -p sign-hash -t 5 -i 10 -h sha256 --kn rsa\r\n", kSignExampleHead);
  return kResultUsage;
}

// ---------------------------------------------------------------------------------------------
// batch-sign

typedef struct _PERF_BATCH_SIGN_INFO {
  THREAD_INFO ti;
  int HashAlgId;  // -h
  int KeyAlgId;   // -k (RSA)
  HKEYCTX hSrcKey;
  HKEYCTX hKey;
  HSESSIONCTX hSrcSession;
  HSESSIONCTX hSession;
  unsigned char *pbBatchSrc;  // header area and dwBatchCount padded blocks, copied every pass
  unsigned char *pbBatch;     // signed in place
  uint32_t dwBatchCount;      // -bc
  uint32_t dwBatchLen;
  int32_t bIsGenKeyPerTest;  // -tg
  char szKeyName[50];
} PERF_BATCH_SIGN_INFO;

int PerfBatchSignInit(void *pTestInfo) {
  auto *info = static_cast<PERF_BATCH_SIGN_INFO *>(pTestInfo);
  if (!info->bIsGenKeyPerTest) return 0;

  int rc = ConnectEx(&info->hSrcSession, &info->ti);
  if (rc != 0) {
    ScreenOutput("[PerfBatchSignInit] Fail in ConnectEx. rc = %d\r\n", rc);
  } else if (!GetTempKeyName(info->szKeyName, info->hSrcSession)) {
    ScreenOutput("[PerfBatchSignInit] Fail in GetTempKeyName. rc = %d\r\n", rc);
    return 0;
  } else {
    rc = QGenerateKey(info->hSrcSession, info->szKeyName, info->KeyAlgId, kTestKeyFlags,
                      &info->hSrcKey);
    if (rc != 0) ScreenOutput("[PerfBatchSignInit] Fail in QGenerateKey. rc = %d\r\n", rc);
  }
  if (rc != 0) {
    DestroyRecordKey(&info->hSrcKey);
    CloseRecordSession(&info->hSrcSession);
  }
  return rc;
}

int PerfBatchSignThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_BATCH_SIGN_INFO *>(pThreadInfo);
  const char *tag = "PerfBatchSignThreadInit";
  info->hKey = nullptr;
  info->hSession = nullptr;
  info->pbBatchSrc = nullptr;
  info->pbBatch = nullptr;
  info->dwBatchLen = 0;

  SessionOwner session;
  KeyOwner key;
  HashOwner hash;
  int rc = Connect(&info->ti, session.Put(), false);
  if (rc != 0) ScreenOutput("[%s] Fail in ConnectEx. rc = %d\r\n", tag, rc);
  if (rc == 0) {
    if (info->bIsGenKeyPerTest) {
      rc = QGetUserKey(session.Get(), info->szKeyName, 0, key.Put());
      if (rc != 0) ScreenOutput("[%s] Fail in QGetUserKey. rc = %d\r\n", tag, rc);
    } else {
      rc = QGenerateKey(session.Get(), nullptr, static_cast<uint32_t>(info->KeyAlgId),
                        kSessionKeyFlags, key.Put());
      if (rc != 0) ScreenOutput("[%s] Fail in QGenerateKey. rc = %d\r\n", tag, rc);
    }
  }
  unsigned char random[kBatchRandomLen];
  if (rc == 0) {
    rc = QGetRandom(session.Get(), random, sizeof(random));
    if (rc != 0) ScreenOutput("[%s] Fail in QGetRandom. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    rc = QCreateHash(session.Get(), static_cast<uint32_t>(info->HashAlgId), nullptr, 0, hash.Put());
    if (rc != 0) ScreenOutput("[%s] Fail in QCreateHash. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    rc = QHashData(hash.Get(), random, sizeof(random), 0);
    if (rc != 0) ScreenOutput("[%s] Fail in QHashData. rc = %d\r\n", tag, rc);
  }
  unsigned char digest[kMaxHashLen];
  uint32_t digest_len = sizeof(digest);
  if (rc == 0) {
    rc = QGetHashParam(hash.Get(), QHP_HASHVAL, digest, &digest_len, 0);
    if (rc != 0) ScreenOutput("[%s] Fail in QGetHashParam. rc = %d\r\n", tag, rc);
  }
  uint32_t key_len = 0;
  if (rc == 0) {
    uint32_t size = sizeof(key_len);
    rc = QGetKeyParam(key.Get(), QKP_KEYLEN, &key_len, &size, 0);
    if (rc != 0) ScreenOutput("[%s] Fail in QGetKeyParam(QKP_KEYLEN). rc = %d\r\n", tag, rc);
  }
  HeapBuffer padded;
  if (rc == 0) {
    padded = HeapBuffer(key_len);
    rc = padded ? 0 : -1;
    if (rc != 0) ScreenOutput("[%s] Fail in malloc. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    // The one call that answers non-zero on success. A failure is reported with the code 0
    // and ThreadInit goes on: the loop then signs whatever the block holds.
    uint32_t hash_len = digest_len;
    if (QDoRSAPadding(session.Get(), QL_RSA_PADDING_PKCS1_TYPE1, padded.Get(), digest, &hash_len,
                      key_len, static_cast<uint32_t>(GetHashOIDFromAlgId(info->HashAlgId))) == 0) {
      ScreenOutput("[%s] Fail in QDoRSAPadding. rc = %d\r\n", tag, rc);
    }
  }
  HeapBuffer batch_src, batch;
  const uint32_t batch_len = QL_BATCH_HEADER_LEN + info->dwBatchCount * key_len;
  if (rc == 0) {
    batch_src = HeapBuffer(batch_len);
    rc = batch_src ? 0 : -1;
    if (rc != 0) ScreenOutput("[%s] Fail in malloc(batch src). rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    batch = HeapBuffer(batch_len);
    rc = batch ? 0 : -1;
    if (rc != 0) ScreenOutput("[%s] Fail in malloc(batch). rc = %d\r\n", tag, rc);
  }
  if (rc != 0) return rc;
  for (uint32_t i = 0; i < info->dwBatchCount; ++i) {
    std::memcpy(batch_src.Get() + QL_BATCH_HEADER_LEN + i * key_len, padded.Get(), key_len);
  }
  info->dwBatchLen = batch_len;
  info->pbBatchSrc = batch_src.Release();
  info->pbBatch = batch.Release();
  info->hKey = key.Detach();
  info->hSession = session.Detach();
  return 0;
}

unsigned int PerfBatchSignThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_BATCH_SIGN_INFO *>(pThreadInfo);
  unsigned long counter = 0;
  int rc = 0;
  do {
    if (ShouldStopPerfTestLoop(&counter, info->ti.Iterations)) break;
    std::memcpy(info->pbBatch, info->pbBatchSrc, info->dwBatchLen);
    rc = QBatchSign(info->hKey, info->pbBatch, info->dwBatchCount, 0);
    if (rc != 0) {
      ScreenOutput("[PerfBatchSignThread] Fail in QBatchSign rc = %d. Iteration = %lu\r\n", rc,
                   counter);
      break;
    }
  } while (!PerfRunFailed(&info->ti));
  PublishPerfThreadError(&info->ti, rc);
  return 1;
}

int PerfBatchSignThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_BATCH_SIGN_INFO *>(pThreadInfo);
  DestroyRecordKey(&info->hKey, 0);
  CloseRecordSession(&info->hSession);
  FreeRecordBuffer(&info->pbBatchSrc);
  FreeRecordBuffer(&info->pbBatch);
  return 0;
}

int PerfBatchSignFin(void *pTestInfo) {
  auto *info = static_cast<PERF_BATCH_SIGN_INFO *>(pTestInfo);
  if (!info->bIsGenKeyPerTest) return 0;
  DestroyRecordKey(&info->hSrcKey, QL_DESTROY_REMOVE);
  CloseRecordSession(&info->hSrcSession);
  return 0;
}

int PerfBatchSign(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_BATCH_SIGN_INFO info;
  std::memset(&info, 0, sizeof(info));
  LoadGenericParameters(&info.ti, pTestParam, nParameters);
  info.ti.Metric = 1;
  info.HashAlgId = GetParameterAlg(pTestParam, nParameters, "-h");
  info.KeyAlgId = GetParameterAlg(pTestParam, nParameters, "-k");
  info.bIsGenKeyPerTest = IsParameterDefined(pTestParam, nParameters, "-tg");
  const int batch_count = GetParameterInt(pTestParam, nParameters, "-bc");
  if (batch_count > 0) {
    info.dwBatchCount = static_cast<uint32_t>(batch_count);
    info.ti.BlockCount = batch_count;  // one pass counts as -bc signatures
  }

  if (IsValidTestCountersConfig(&info.ti) && info.HashAlgId != -1 && info.KeyAlgId != -1 &&
      info.dwBatchCount > 0 && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfBatchSignThread, PerfBatchSignInit, PerfBatchSignFin,
                                  PerfBatchSignThreadInit, PerfBatchSignThreadFin, &info,
                                  sizeof(info));
  }

  PerfHelpDescription({"Batch signature performance test.",
                       "This test returns the number of signatures generated per second; one",
                       "request signs -bc blocks padded beforehand (PKCS#1 type 1)."});
  ScreenOutput("     -h      Hash algorithm:\r\n");
  ShowHelpHashAlgorithms();
  ScreenOutput("     -k      Key algorithm:\r\n");
  ShowHelpRSAAlgorithms();
  ScreenOutput("     -bc     Batch count: signatures per request.\r\n");
  ScreenOutput("     -tg     [OPTIONAL] One key for the whole test instead of one per thread.\r\n");
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput("     %s -p batch-sign -t 5 -i 10 -h sha256 -k rsa2048 -bc 100\r\n",
               kSignExampleHead);
  ScreenOutput("     %s -p batch-sign -t 5 -i 10 -h sha256 -k rsa2048 -bc 100 -tg\r\n",
               kSignExampleHead);
  return kResultUsage;
}

// ---------------------------------------------------------------------------------------------
// sign-hashed-data

typedef struct _PERF_SIGN_HASHED_DATA_INFO {
  THREAD_INFO ti;
  int HashAlgId;  // -h
  int KeyAlgId;   // -k
  HSESSIONCTX hSession;
  HKEYCTX hKey;  // the thread's key, stored under szKeyName and removed in ThreadFin
  char szKeyName[kTempKeyNameSize];
  unsigned char pbHash[kMaxHashLen];
  uint32_t dwHashLen;
  unsigned char *pbSignature;
  uint32_t dwSignatureLen;
} PERF_SIGN_HASHED_DATA_INFO;

int PerfSignHashedDataThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_SIGN_HASHED_DATA_INFO *>(pThreadInfo);
  const char *tag = "PerfSignHashedDataThreadInit";
  info->hSession = nullptr;
  info->hKey = nullptr;
  info->pbSignature = nullptr;
  info->dwSignatureLen = 0;

  // QSignHashedData names its key, so each thread's key is stored under a temporary name.
  SessionOwner session;
  RemovedKeyOwner key;
  HashOwner hash;
  int rc = Connect(&info->ti, session.Put(), false);
  if (rc != 0) ScreenOutput("[%s] Fail in ConnectEx. rc = %d\r\n", tag, rc);
  if (rc == 0 && !GetTempKeyName(info->szKeyName, session.Get(), &rc)) {
    ScreenOutput("[%s] Fail in GetTempKeyName. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    rc = QGenerateKey(session.Get(), info->szKeyName, static_cast<uint32_t>(info->KeyAlgId), 0,
                      key.Put());
    if (rc != 0) ScreenOutput("[%s] Fail in QGenerateKey. rc = %d\r\n", tag, rc);
  }
  unsigned char data[kDefaultSignDataLen];
  if (rc == 0) {
    rc = QGetRandom(session.Get(), data, sizeof(data));
    if (rc != 0) ScreenOutput("[%s] Fail in QGetRandom. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    rc = QCreateHash(session.Get(), static_cast<uint32_t>(info->HashAlgId), nullptr, 0, hash.Put());
    if (rc != 0) ScreenOutput("[%s] Fail in QCreateHash. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    rc = QHashData(hash.Get(), data, sizeof(data), 0);
    if (rc != 0) ScreenOutput("[%s] Fail in QHashData. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    info->dwHashLen = sizeof(info->pbHash);
    rc = QGetHashParam(hash.Get(), QHP_HASHVAL, info->pbHash, &info->dwHashLen, 0);
    if (rc != 0) ScreenOutput("[%s] Fail in QGetHashParam. rc = %d\r\n", tag, rc);
  }
  HeapBuffer signature;
  if (rc == 0) {
    uint32_t len = 0;
    rc = QSignHashedData(session.Get(), info->szKeyName, QL_PAD_NONE, info->pbHash, info->dwHashLen,
                         static_cast<uint32_t>(info->HashAlgId), nullptr, &len, 0);
    if (rc == QL_ERR_BUFFER_TOO_SMALL) {
      signature = HeapBuffer(len);
      rc = signature ? 0 : -1;
      info->dwSignatureLen = len;
      if (rc != 0) ScreenOutput("[%s] Fail in malloc. rc = %d\r\n", tag, rc);
    } else {
      if (rc == 0) rc = QL_ERR_PROTOCOL;  // a size query must name the size it needs
      ScreenOutput("[%s] Fail in QSignHashedData. rc = %d\r\n", tag, rc);
    }
  }
  if (rc != 0) {
    info->dwSignatureLen = 0;
    return rc;
  }
  info->hSession = session.Detach();
  info->hKey = key.Detach();
  info->pbSignature = signature.Release();
  return 0;
}

unsigned int PerfSignHashedDataThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_SIGN_HASHED_DATA_INFO *>(pThreadInfo);
  unsigned long counter = 0;
  int rc = 0;
  do {
    if (ShouldStopPerfTestLoop(&counter, info->ti.Iterations)) break;
    uint32_t len = info->dwSignatureLen;
    rc =
        QSignHashedData(info->hSession, info->szKeyName, QL_PAD_NONE, info->pbHash, info->dwHashLen,
                        static_cast<uint32_t>(info->HashAlgId), info->pbSignature, &len, 0);
    if (rc != 0) {
      ScreenOutput(
          "[PerfSignHashedDataThread] Fail in QSignHashedData rc = %d. Iteration = %lu\r\n", rc,
          counter);
      break;
    }
  } while (!PerfRunFailed(&info->ti));
  PublishPerfThreadError(&info->ti, rc);
  return 1;
}

int PerfSignHashedDataThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_SIGN_HASHED_DATA_INFO *>(pThreadInfo);
  DestroyRecordKey(&info->hKey, QL_DESTROY_REMOVE);
  CloseRecordSession(&info->hSession);
  FreeRecordBuffer(&info->pbSignature);
  return 0;
}

int PerfSignHashedData(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_SIGN_HASHED_DATA_INFO info;
  std::memset(&info, 0, sizeof(info));
  LoadGenericParameters(&info.ti, pTestParam, nParameters);
  info.ti.Metric = 1;
  info.HashAlgId = GetParameterAlg(pTestParam, nParameters, "-h");
  info.KeyAlgId = GetParameterAlg(pTestParam, nParameters, "-k");

  if (IsValidTestCountersConfig(&info.ti) && info.HashAlgId != -1 && info.KeyAlgId != -1 &&
      CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfSignHashedDataThread, nullptr, nullptr,
                                  PerfSignHashedDataThreadInit, PerfSignHashedDataThreadFin, &info,
                                  sizeof(info));
  }

  PerfHelpDescription({"Hashed data signature performance test.",
                       "This test returns the number of digests signed per second (the digest",
                       "is computed beforehand and sent with each request)."});
  ScreenOutput("     -h      Hash algorithm:\r\n");
  ShowHelpHashAlgorithms();
  ScreenOutput("     -k      Key algorithm:\r\n");
  ShowHelpAsymSigAlgorithms();
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput("     %s -p sign-hashed-data -t 5 -i 10 -h sha256 -k rsa2048\r\n", kSignExampleHead);
  return kResultUsage;
}

// ---------------------------------------------------------------------------------------------
// verify-hash

typedef struct _PERF_VERIFY_HASH_INFO {
  THREAD_INFO ti;
  int HashAlgId;  // -h
  int KeyAlgId;   // -k
  HSESSIONCTX hSession;
  HKEYCTX hKey;    // unnamed session key
  HHASHCTX hHash;  // fed with the data once
  unsigned char *pbSignature;
  uint32_t dwSignatureLen;
} PERF_VERIFY_HASH_INFO;

int PerfVerifyHashThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_VERIFY_HASH_INFO *>(pThreadInfo);
  const char *tag = "PerfVerifyHashThreadInit";
  info->hSession = nullptr;
  info->hKey = nullptr;
  info->hHash = nullptr;
  info->pbSignature = nullptr;
  info->dwSignatureLen = 0;

  SessionOwner session;
  KeyOwner key;
  HashOwner hash;
  int rc = Connect(&info->ti, session.Put(), false);
  if (rc != 0) ScreenOutput("[%s] Fail in ConnectEx. rc = %d\r\n", tag, rc);
  if (rc == 0) {
    rc = QGenerateKey(session.Get(), nullptr, static_cast<uint32_t>(info->KeyAlgId),
                      kSessionKeyFlags, key.Put());
    if (rc != 0) ScreenOutput("[%s] Fail in QGenerateKey. rc = %d\r\n", tag, rc);
  }
  unsigned char data[kDefaultSignDataLen];
  if (rc == 0) {
    rc = QGetRandom(session.Get(), data, sizeof(data));
    if (rc != 0) ScreenOutput("[%s] Fail in QGetRandom. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    rc = QCreateHash(session.Get(), static_cast<uint32_t>(info->HashAlgId), nullptr, 0, hash.Put());
    if (rc != 0) ScreenOutput("[%s] Fail in QCreateHash. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    rc = QHashData(hash.Get(), data, sizeof(data), 0);
    if (rc != 0) ScreenOutput("[%s] Fail in QHashData. rc = %d\r\n", tag, rc);
  }
  uint32_t len = 0;
  HeapBuffer signature;
  if (rc == 0) {
    rc = QSignHash(hash.Get(), key.Get(), 0, nullptr, &len);
    if (rc == QL_ERR_BUFFER_TOO_SMALL) {
      signature = HeapBuffer(len);
      rc = signature ? 0 : -1;
      if (rc != 0) ScreenOutput("[%s] Fail in malloc. rc = %d\r\n", tag, rc);
    } else {
      if (rc == 0) rc = QL_ERR_PROTOCOL;  // a size query must name the size it needs
      ScreenOutput("[%s] Fail in QSignHash. rc = %d\r\n", tag, rc);
    }
  }
  if (rc == 0) {
    rc = QSignHash(hash.Get(), key.Get(), 0, signature.Get(), &len);
    if (rc != 0) ScreenOutput("[%s] Fail in QSignHash. rc = %d\r\n", tag, rc);
  }
  if (rc != 0) return rc;
  info->dwSignatureLen = len;
  info->pbSignature = signature.Release();
  info->hHash = hash.Detach();
  info->hKey = key.Detach();
  info->hSession = session.Detach();
  return 0;
}

unsigned int PerfVerifyHashThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_VERIFY_HASH_INFO *>(pThreadInfo);
  unsigned long counter = 0;
  int rc = 0;
  do {
    if (ShouldStopPerfTestLoop(&counter, info->ti.Iterations)) break;
    rc = QVerifySignature(info->hHash, info->pbSignature, info->dwSignatureLen, info->hKey);
    if (rc != 0) {
      ScreenOutput("[PerfVerifyHashThread] Fail in QVerifySignature rc = %d. Iteration = %lu\r\n",
                   rc, counter);
      break;
    }
  } while (!PerfRunFailed(&info->ti));
  PublishPerfThreadError(&info->ti, rc);
  return 1;
}

int PerfVerifyHashThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_VERIFY_HASH_INFO *>(pThreadInfo);
  DestroyRecordKey(&info->hKey, 0);
  DestroyRecordHash(&info->hHash);
  CloseRecordSession(&info->hSession);
  FreeRecordBuffer(&info->pbSignature);
  return 0;
}

int PerfVerifyHash(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_VERIFY_HASH_INFO info;
  std::memset(&info, 0, sizeof(info));
  LoadGenericParameters(&info.ti, pTestParam, nParameters);
  info.ti.Metric = 1;
  info.HashAlgId = GetParameterAlg(pTestParam, nParameters, "-h");
  info.KeyAlgId = GetParameterAlg(pTestParam, nParameters, "-k");

  if (IsValidTestCountersConfig(&info.ti) && info.HashAlgId != -1 && info.KeyAlgId != -1 &&
      CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfVerifyHashThread, nullptr, nullptr, PerfVerifyHashThreadInit,
                                  PerfVerifyHashThreadFin, &info, sizeof(info));
  }

  PerfHelpDescription({"Hash signature verification performance test.",
                       "This test returns the number of signatures verified per second."});
  ScreenOutput("     -h      Hash algorithm:\r\n");
  ShowHelpHashAlgorithms();
  ScreenOutput("     -k      Key algorithm:\r\n");
  ShowHelpAsymSigAlgorithms();
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput("     %s -p verify-hash -t 5 -i 10 -h sha256 -k rsa2048\r\n", kSignExampleHead);
  ScreenOutput("     %s -p verify-hash -t 5 -i 10 -h sha256 -k ecc_secp256r1\r\n",
               kSignExampleHead);
  return kResultUsage;
}
