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
#include "harness/harness.h"

namespace {

constexpr int kDefaultSignDataLen = 64;
constexpr uint32_t kSessionKeyFlags = QL_KEY_EXPORTABLE | QL_KEY_TEMPORARY;  // 5
constexpr uint32_t kTestKeyFlags = QL_KEY_EXPORTABLE;                        // 1
constexpr size_t kMaxKeyNameCopy = 49;
constexpr uint32_t kBatchRandomLen = 1024;
constexpr uint32_t kMaxHashLen = 64;

// Releases the key a test shares between its threads and the session that made it.
void ReleaseSharedKey(HSESSIONCTX *phSession, HKEYCTX *phKey, uint32_t dwDestroyFlags) {
  DestroyRecordKey(phKey, dwDestroyFlags);
  CloseRecordSession(phSession);
}

// GenSharedKey's answer when no temporary name could be drawn: success, so that the test goes on
// without a shared key and each thread reports its own failing QGetUserKey instead.
constexpr int kGoOnWithoutSharedKey = 0;

// Init of a test whose threads share one key: a session of its own, a temporary name and a
// stored key of alg under it.
int GenSharedKey(const char *tag, const THREAD_INFO *ti, int alg, HSESSIONCTX *phSession,
                 char *pszKeyName, HKEYCTX *phKey) {
  int rc = ConnectEx(phSession, ti);
  if (rc != 0) {
    ScreenOutput("[%s] Fail in ConnectEx. rc = %d\r\n", tag, rc);
  } else if (!GetTempKeyName(pszKeyName, *phSession)) {
    // The line shows rc as it stands, ConnectEx's 0: the name's own code is not kept.
    ScreenOutput("[%s] Fail in GetTempKeyName. rc = %d\r\n", tag, rc);
    return kGoOnWithoutSharedKey;
  } else {
    rc = QGenerateKey(*phSession, pszKeyName, alg, kTestKeyFlags, phKey);
    if (rc != 0) ScreenOutput("[%s] Fail in QGenerateKey. rc = %d\r\n", tag, rc);
  }
  if (rc != 0) ReleaseSharedKey(phSession, phKey, 0);
  return rc;
}

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
  return GenSharedKey("PerfSignHashInit", &info->ti, info->KeyAlgId, &info->hSrcSession,
                      info->szKeyName, &info->hSrcKey);
}

int PerfSignHashThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_SIGN_HASH_INFO *>(pThreadInfo);
  info->hKey = nullptr;
  info->hSession = nullptr;
  info->hHash = nullptr;
  info->pbSignature = nullptr;
  info->dwSignatureLen = 0;

  // Only the hash of the data is kept.
  const uint32_t data_len = static_cast<uint32_t>(info->nDataLen);
  PerfSetup setup("PerfSignHashThreadInit");
  HeapBuffer data;
  SessionOwner session;
  HashOwner hash;
  KeyOwner key;
  setup.Alloc(&data, data_len);
  setup.Connect(&info->ti, &session);
  setup.Random(session.Get(), data.Get(), data_len);
  setup.CreateHash(session.Get(), info->HashAlgId, &hash);
  setup.TestKey(session.Get(), info->bIsGenKeyPerTest, info->szKeyName, info->KeyAlgId,
                kSessionKeyFlags, &key);
  setup.HashData(&hash, data.Get(), data_len);
  HeapBuffer signature;
  uint32_t signature_len = 0;
  if (setup.Ok()) {
    uint32_t len = 0;
    const int rc = QSignHash(hash.Get(), key.Get(), info->dwFlags, nullptr, &len);
    if (rc == QL_ERR_BUFFER_TOO_SMALL) {
      setup.Alloc(&signature, len);
      signature_len = len;
    } else {
      // An answer of 0 is printed, leaves no buffer and is still taken as success.
      setup.Fail("QSignHash", rc);
    }
  }
  if (!setup.Ok()) return setup.Rc();
  info->dwSignatureLen = signature_len;
  info->hSession = session.Detach();
  info->hHash = hash.Detach();
  info->hKey = key.Detach();
  info->pbSignature = signature.Release();
  return 0;
}

unsigned int PerfSignHashThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_SIGN_HASH_INFO *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [info](unsigned long counter) {
    uint32_t len = info->dwSignatureLen;
    const int rc = QSignHash(info->hHash, info->hKey, info->dwFlags, info->pbSignature, &len);
    // The line's tag is "[QHashData]", not the thread's name.
    return rc == 0 ? 0 : PerfPassFailed("QHashData", "QSignHash", rc, counter);
  });
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
  ReleaseSharedKey(&info->hSrcSession, &info->hSrcKey,
                   info->bIsPredefinedKey ? 0 : QL_DESTROY_REMOVE);
  return 0;
}

int PerfSignHash(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_SIGN_HASH_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
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
  return PerfHelpCommandExamples(
      "sign-hash", {"-t 5 -i 10 -h sha256 -k rsa2048 --tg", "-t 5 -i 10 -h sha256 --kn rsa"});
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
  return GenSharedKey("PerfBatchSignInit", &info->ti, info->KeyAlgId, &info->hSrcSession,
                      info->szKeyName, &info->hSrcKey);
}

int PerfBatchSignThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_BATCH_SIGN_INFO *>(pThreadInfo);
  info->hKey = nullptr;
  info->hSession = nullptr;
  info->pbBatchSrc = nullptr;
  info->pbBatch = nullptr;
  info->dwBatchLen = 0;

  PerfSetup setup("PerfBatchSignThreadInit");
  SessionOwner session;
  KeyOwner key;
  HashOwner hash;
  setup.Connect(&info->ti, &session);
  setup.TestKey(session.Get(), info->bIsGenKeyPerTest, info->szKeyName, info->KeyAlgId,
                kSessionKeyFlags, &key);
  unsigned char random[kBatchRandomLen];
  setup.Random(session.Get(), random, sizeof(random));
  setup.CreateHash(session.Get(), info->HashAlgId, &hash);
  setup.HashData(&hash, random, sizeof(random));
  unsigned char digest[kMaxHashLen];
  uint32_t digest_len = sizeof(digest);
  setup.Do("QGetHashParam",
           [&] { return QGetHashParam(hash.Get(), QHP_HASHVAL, digest, &digest_len, 0); });
  uint32_t key_len = 0;
  setup.Do("QGetKeyParam(QKP_KEYLEN)", [&] {
    uint32_t size = sizeof(key_len);
    return QGetKeyParam(key.Get(), QKP_KEYLEN, &key_len, &size, 0);
  });
  HeapBuffer padded;
  setup.Alloc(&padded, key_len);
  if (setup.Ok()) {
    // The one call that answers non-zero on success. A failure is reported with the code 0
    // and ThreadInit goes on: the loop then signs whatever the block holds.
    uint32_t hash_len = digest_len;
    if (QDoRSAPadding(session.Get(), QL_RSA_PADDING_PKCS1_TYPE1, padded.Get(), digest, &hash_len,
                      key_len, static_cast<uint32_t>(GetHashOIDFromAlgId(info->HashAlgId))) == 0) {
      setup.Fail("QDoRSAPadding", 0);
    }
  }
  HeapBuffer batch_src, batch;
  const uint32_t batch_len = QL_BATCH_HEADER_LEN + info->dwBatchCount * key_len;
  setup.Alloc(&batch_src, batch_len, "malloc(batch src)");
  setup.Alloc(&batch, batch_len, "malloc(batch)");
  if (!setup.Ok()) return setup.Rc();
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
  return RunPerfLoop(&info->ti, [info](unsigned long counter) {
    std::memcpy(info->pbBatch, info->pbBatchSrc, info->dwBatchLen);
    const int rc = QBatchSign(info->hKey, info->pbBatch, info->dwBatchCount, 0);
    return rc == 0 ? 0 : PerfPassFailed("PerfBatchSignThread", "QBatchSign", rc, counter);
  });
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
  ReleaseSharedKey(&info->hSrcSession, &info->hSrcKey, QL_DESTROY_REMOVE);
  return 0;
}

int PerfBatchSign(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_BATCH_SIGN_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
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
  return PerfHelpCommandExamples("batch-sign", {"-t 5 -i 10 -h sha256 -k rsa2048 -bc 100",
                                                "-t 5 -i 10 -h sha256 -k rsa2048 -bc 100 -tg"});
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
  info->hSession = nullptr;
  info->hKey = nullptr;
  info->pbSignature = nullptr;
  info->dwSignatureLen = 0;

  // QSignHashedData names its key, so each thread's key is stored under a temporary name.
  PerfSetup setup("PerfSignHashedDataThreadInit");
  SessionOwner session;
  RemovedKeyOwner key;
  HashOwner hash;
  setup.Connect(&info->ti, &session);
  setup.TempKeyName(session.Get(), info->szKeyName);
  setup.Do("QGenerateKey", [&] {
    return QGenerateKey(session.Get(), info->szKeyName, static_cast<uint32_t>(info->KeyAlgId), 0,
                        key.Put());
  });
  unsigned char data[kDefaultSignDataLen];
  setup.Random(session.Get(), data, sizeof(data));
  setup.CreateHash(session.Get(), info->HashAlgId, &hash);
  setup.HashData(&hash, data, sizeof(data));
  setup.Do("QGetHashParam", [&] {
    info->dwHashLen = sizeof(info->pbHash);
    return QGetHashParam(hash.Get(), QHP_HASHVAL, info->pbHash, &info->dwHashLen, 0);
  });
  uint32_t len = 0;
  setup.SizeQuery("QSignHashedData", [&] {
    return QSignHashedData(session.Get(), info->szKeyName, QL_PAD_NONE, info->pbHash,
                           info->dwHashLen, static_cast<uint32_t>(info->HashAlgId), nullptr, &len,
                           0);
  });
  HeapBuffer signature;
  setup.Alloc(&signature, len);
  if (!setup.Ok()) return setup.Rc();
  info->dwSignatureLen = len;
  info->hSession = session.Detach();
  info->hKey = key.Detach();
  info->pbSignature = signature.Release();
  return 0;
}

unsigned int PerfSignHashedDataThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_SIGN_HASHED_DATA_INFO *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [info](unsigned long counter) {
    uint32_t len = info->dwSignatureLen;
    const int rc =
        QSignHashedData(info->hSession, info->szKeyName, QL_PAD_NONE, info->pbHash, info->dwHashLen,
                        static_cast<uint32_t>(info->HashAlgId), info->pbSignature, &len, 0);
    return rc == 0 ? 0 : PerfPassFailed("PerfSignHashedDataThread", "QSignHashedData", rc, counter);
  });
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
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
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
  return PerfHelpCommandExamples("sign-hashed-data", {"-t 5 -i 10 -h sha256 -k rsa2048"});
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
  info->hSession = nullptr;
  info->hKey = nullptr;
  info->hHash = nullptr;
  info->pbSignature = nullptr;
  info->dwSignatureLen = 0;

  PerfSetup setup("PerfVerifyHashThreadInit");
  SessionOwner session;
  KeyOwner key;
  HashOwner hash;
  setup.Connect(&info->ti, &session);
  setup.SessionKey(session.Get(), info->KeyAlgId, kSessionKeyFlags, &key);
  unsigned char data[kDefaultSignDataLen];
  setup.Random(session.Get(), data, sizeof(data));
  setup.CreateHash(session.Get(), info->HashAlgId, &hash);
  setup.HashData(&hash, data, sizeof(data));
  uint32_t len = 0;
  setup.SizeQuery("QSignHash", [&] { return QSignHash(hash.Get(), key.Get(), 0, nullptr, &len); });
  HeapBuffer signature;
  setup.Alloc(&signature, len);
  setup.Do("QSignHash", [&] { return QSignHash(hash.Get(), key.Get(), 0, signature.Get(), &len); });
  if (!setup.Ok()) return setup.Rc();
  info->dwSignatureLen = len;
  info->pbSignature = signature.Release();
  info->hHash = hash.Detach();
  info->hKey = key.Detach();
  info->hSession = session.Detach();
  return 0;
}

unsigned int PerfVerifyHashThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_VERIFY_HASH_INFO *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [info](unsigned long counter) {
    const int rc =
        QVerifySignature(info->hHash, info->pbSignature, info->dwSignatureLen, info->hKey);
    return rc == 0 ? 0 : PerfPassFailed("PerfVerifyHashThread", "QVerifySignature", rc, counter);
  });
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
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
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
  return PerfHelpCommandExamples(
      "verify-hash", {"-t 5 -i 10 -h sha256 -k rsa2048", "-t 5 -i 10 -h sha256 -k ecc_secp256r1"});
}
