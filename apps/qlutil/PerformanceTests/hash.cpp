// The hash performance test: each pass makes a hash object, feeds it -m bytes, reads the value
// and destroys the object. Plain digests run in the library; HMAC and CMAC run in the HSM with a
// session key that ThreadInit makes.

#include <cstring>

#include "PerformanceTests.h"
#include "harness/harness.h"

namespace {

constexpr int kDefaultHashDataLen = 64;
constexpr uint32_t kMaxHashValueLen = 64;

bool IsHmacAlg(int alg) {
  return alg >= QL_ALG_HMAC_MD5 && alg <= QL_ALG_HMAC_SHA3_512;
}
bool IsKeyedHashAlg(int alg) {
  return IsHmacAlg(alg) || alg == QL_ALG_CMAC_AES || alg == QL_ALG_CMAC_DES;
}
// The key a keyed hash needs: a generic HMAC secret (the longer one for the 512-bit digests),
// AES-256 for CMAC-AES, three-key TDES for CMAC-DES.
uint32_t KeyAlgForHash(int alg) {
  if (alg == QL_ALG_CMAC_AES) return QL_ALG_AES256;
  if (alg == QL_ALG_CMAC_DES) return QL_ALG_3DES_168;
  if (alg == QL_ALG_HMAC_SHA2_512 || alg == QL_ALG_HMAC_SHA3_512) return QL_ALG_HMAC_KEY_512;
  return QL_ALG_HMAC_KEY;
}

}  // namespace

typedef struct _PERF_HASH_INFO {
  THREAD_INFO ti;
  int HashAlgId;    // -h
  bool bPrintTime;  // --print-time: each thread prints its mean time per hash
  HSESSIONCTX hSession;
  HKEYCTX hKey;  // HMAC and CMAC only: an unnamed session key
  unsigned char *pbData;
  uint32_t dwDataLen;  // -m
} PERF_HASH_INFO;

int PerfHashThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_HASH_INFO *>(pThreadInfo);
  info->hSession = nullptr;
  info->hKey = nullptr;
  info->pbData = nullptr;

  PerfSetup setup("PerfHashThreadInit");
  HeapBuffer data;
  setup.Alloc(&data, info->dwDataLen);
  if (!setup.Ok()) return setup.Rc();
  SessionOwner session;
  KeyOwner key;
  setup.Connect(&info->ti, &session);
  setup.Random(session.Get(), data.Get(), info->dwDataLen);
  if (IsKeyedHashAlg(info->HashAlgId)) {
    setup.SessionKey(session.Get(), static_cast<int>(KeyAlgForHash(info->HashAlgId)),
                     QL_KEY_EXPORTABLE | QL_KEY_TEMPORARY, &key);
  }
  if (!setup.Ok()) return setup.Rc();
  info->pbData = data.Release();
  info->hKey = key.Detach();
  info->hSession = session.Detach();
  return 0;
}

unsigned int PerfHashThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_HASH_INFO *>(pThreadInfo);
  unsigned char value[kMaxHashValueLen];
  const double start = ChronStart();
  unsigned long passes = 0;
  bool failed = false;
  auto fail = [&failed](const char *call, int rc, unsigned long counter) {
    ScreenOutput("[PerfHashThread] Fail in %s rc = %d. Iteration = %lu\r\n", call, rc, counter);
    failed = true;
    return rc;
  };
  const unsigned int answer = RunPerfLoop(&info->ti, [&](unsigned long counter) {
    passes = counter;
    HashOwner hash;
    int rc = QCreateHash(info->hSession, static_cast<uint32_t>(info->HashAlgId), info->hKey, 0,
                         hash.Put());
    if (rc != 0) return fail("QCreateHash", rc, counter);
    rc = QHashData(hash.Get(), info->pbData, info->dwDataLen, 0);
    if (rc != 0) return fail("QHashData", rc, counter);
    uint32_t len = sizeof(value);
    rc = QGetHashParam(hash.Get(), QHP_HASHVAL, value, &len, 0);
    if (rc != 0) return fail("QGetHashParam", rc, counter);
    rc = hash.Free();
    return rc != 0 ? fail("QDestroyHash", rc, counter) : 0;
  });
  if (info->bPrintTime && !failed && passes > 0) {
    ScreenOutput("[PerfHashThread] Thread %d: %lu hashes, %.4f ms per hash\r\n", info->ti.ThreadId,
                 passes, ChronEndDelta(start) * 1000.0 / static_cast<double>(passes));
  }
  return answer;
}

int PerfHashThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_HASH_INFO *>(pThreadInfo);
  DestroyRecordKey(&info->hKey, 0);
  CloseRecordSession(&info->hSession);
  FreeRecordBuffer(&info->pbData);
  return 0;
}

int PerfHash(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_HASH_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
  info.HashAlgId = GetParameterAlg(pTestParam, nParameters, "-h");
  info.bPrintTime = IsParameterDefined(pTestParam, nParameters, "--print-time") != 0;
  int data_len = kDefaultHashDataLen;
  if (IsParameterDefined(pTestParam, nParameters, "-m")) {
    data_len = GetParameterInt(pTestParam, nParameters, "-m");
  }
  info.ti.MessageSize = data_len;
  info.dwDataLen = data_len > 0 ? static_cast<uint32_t>(data_len) : 0;

  if (IsValidTestCountersConfig(&info.ti) && info.HashAlgId != -1 && data_len > 0 &&
      CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfHashThread, nullptr, nullptr, PerfHashThreadInit,
                                  PerfHashThreadFin, &info, sizeof(info));
  }

  PerfHelpDescription({"Hash performance test.",
                       "This test returns the number of hashes (create, hash, read the value,",
                       "destroy) computed per second. HMAC and CMAC use a key of the HSM."});
  ScreenOutput("     -h      Hash algorithm:\r\n");
  ShowHelpHashAlgorithms();
  ShowHelpHmacAlgorithms();
  ShowHelpCmacAlgorithms();
  ScreenOutput("     -m      [OPTIONAL] Size of the data to hash, in bytes. 64 (default).\r\n");
  ScreenOutput("     --print-time [OPTIONAL] Each thread prints its mean time per hash.\r\n");
  return PerfHelpCommandExamples(
      "hash", {"-t 5 -i 1000 -h sha256 -m 1024", "-t 5 -i 1000 -h hmac_sha2_256"});
}
