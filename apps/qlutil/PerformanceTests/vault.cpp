// The tokenisation vault performance tests: svault-gen-token and svault-get-data. Init makes
// the test key (and, for svault-get-data, one token blob); Fin deletes the key. They run against
// the library's vault calls, which answer "not supported" until the HSM serves them.

#include <cstring>

#include "PerformanceTests.h"
#include "harness/harness.h"

namespace {

constexpr const char kTestSecret[] = "4111111111111111";
constexpr uint32_t kTokenLen = 256;
constexpr uint32_t kBlobLen = 1024;
constexpr int kVaultKeyAlg = QL_ALG_AES256;
constexpr uint32_t kGetSecret = 1;
// A card number kept as a token of the same length, digits only.
constexpr QL_SVAULT_TOKEN_INFO kTokenInfo = {1, 3, 0, 10};

}  // namespace

typedef struct _PERF_SVAULT_INFO {
  THREAD_INFO ti;
  bool bGetData;  // svault-get-data
  HSESSIONCTX hSrcSession;
  char szKeyName[kTempKeyNameSize];  // the test key
  unsigned char pbBlob[kBlobLen];    // svault-get-data: the token blob made in Init
  uint32_t dwBlobLen;
  HSESSIONCTX hSession;
  char szToken[kTokenLen];
  unsigned char pbThreadBlob[kBlobLen];
} PERF_SVAULT_INFO;

namespace {

int GenerateTestKey(const char *tag, PERF_SVAULT_INFO *info) {
  return GenTempKey(tag, info->hSrcSession, kVaultKeyAlg, info->szKeyName);
}

void DeleteTestObject(PERF_SVAULT_INFO *info) {
  RemoveTempKey(info->hSrcSession, info->szKeyName);
}

}  // namespace

int PerfSVaultFin(void *pTestInfo) {
  auto *info = static_cast<PERF_SVAULT_INFO *>(pTestInfo);
  DeleteTestObject(info);
  CloseRecordSession(&info->hSrcSession);
  return 0;
}

int PerfSVaultInit(void *pTestInfo) {
  auto *info = static_cast<PERF_SVAULT_INFO *>(pTestInfo);
  PerfSetup setup(info->bGetData ? "PerfSVaultGetDataInit" : "PerfSVaultTokenInit");
  setup.Connect(&info->ti, &info->hSrcSession);
  setup.Run([&] { return GenerateTestKey(setup.Tag(), info); });
  if (info->bGetData) {
    setup.Do("QSVaultGenToken", [&] {
      uint32_t token_len = kTokenLen;
      info->dwBlobLen = kBlobLen;
      return QSVaultGenToken(info->hSrcSession, info->szKeyName, &kTokenInfo, kTestSecret,
                             info->szToken, &token_len, info->pbBlob, &info->dwBlobLen, 0);
    });
  }
  if (!setup.Ok()) PerfSVaultFin(info);
  return setup.Rc();
}

int PerfSVaultThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_SVAULT_INFO *>(pThreadInfo);
  info->hSession = nullptr;
  return PerfSetup("PerfSVaultThreadInit").Connect(&info->ti, &info->hSession).Rc();
}

int PerfSVaultThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_SVAULT_INFO *>(pThreadInfo);
  CloseRecordSession(&info->hSession);
  return 0;
}

unsigned int PerfSVaultThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_SVAULT_INFO *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [info](unsigned long counter) {
    uint32_t token_len = kTokenLen;
    if (info->bGetData) {
      const int rc = QSVaultGetData(info->hSession, info->szKeyName, kGetSecret, info->pbBlob,
                                    info->dwBlobLen, info->szToken, &token_len, 0);
      return rc == 0 ? 0 : PerfPassFailed("PerfSVaultGetDataThread", "QSVaultGetData", rc, counter);
    }
    uint32_t blob_len = kBlobLen;
    const int rc = QSVaultGenToken(info->hSession, info->szKeyName, &kTokenInfo, kTestSecret,
                                   info->szToken, &token_len, info->pbThreadBlob, &blob_len, 0);
    return rc == 0 ? 0 : PerfPassFailed("PerfSVaultTokenThread", "QSVaultGenToken", rc, counter);
  });
}

namespace {

int RunVaultTest(TEST_PARAMETER *pTestParam, int nParameters, bool get_data) {
  PERF_SVAULT_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
  info.bGetData = get_data;
  if (IsValidTestCountersConfig(&info.ti) && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfSVaultThread, PerfSVaultInit, PerfSVaultFin,
                                  PerfSVaultThreadInit, PerfSVaultThreadFin, &info, sizeof(info));
  }
  if (get_data) {
    PerfHelpDescription({"SVault data retrieval performance test.",
                         "This test returns the number of secrets read back from a token blob per",
                         "second."});
  } else {
    PerfHelpDescription({"SVault token generation performance test.",
                         "This test returns the number of tokens generated per second."});
  }
  return PerfHelpCommandExamples(get_data ? "svault-get-data" : "svault-gen-token", {"-t 5 -i 10"});
}

}  // namespace

int PerfSVaultToken(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunVaultTest(pTestParam, nParameters, false);
}

int PerfSVaultGetData(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunVaultTest(pTestParam, nParameters, true);
}
