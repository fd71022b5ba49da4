// The secret-sharing performance tests: mofn-split and mofn-recover. Their thread bodies
// publish a failure through ThreadErrorSignaling.

#include <cstring>
#include <vector>

#include "PerformanceTests.h"
#include "harness/harness.h"

namespace {

constexpr uint32_t kDefaultSecretLen = 32;

// A secret or a set of parts from a switch: hexadecimal text (the default) or a file
// (--secretform / --partsform file). Empty when absent or unreadable.
std::vector<unsigned char> ReadBytes(TEST_PARAMETER *pTestParam, int nParameters,
                                     const char *value_option, const char *form_option) {
  if (GetParameterDataInform(pTestParam, nParameters, form_option, kHexData) == kFile) {
    DBLOB blob{};
    std::vector<unsigned char> bytes;
    if (GetParameterFileContent(pTestParam, nParameters, value_option, &blob) != nullptr &&
        blob.pvData != nullptr) {
      bytes.assign(blob.pvData, blob.pvData + blob.dwDataLen);
    }
    ResetDblob(&blob);
    return bytes;
  }
  return GetParameterHex(pTestParam, nParameters, value_option);
}

void ShowHelpMofNOptions() {
  ScreenOutput("     -m      Parts needed to recover the secret (M).\r\n");
  ScreenOutput("     -n      Parts made (N).\r\n");
  ScreenOutput("     --secret     [OPTIONAL] The secret. 32 random bytes by default.\r\n");
  ScreenOutput("     --secretform [OPTIONAL] Form of --secret:\r\n");
  ShowHelpDataInformParameters();
}

}  // namespace

typedef struct _PERF_MOFN_INFO {
  THREAD_INFO ti;
  uint32_t dwM;                   // -m
  uint32_t dwN;                   // -n
  const unsigned char *pbSecret;  // the entry's buffer, shared read-only; random when empty
  uint32_t dwSecretLen;
  const unsigned char *pbParts;  // mofn-recover with --parts: the entry's buffer
  uint32_t dwPartsLen;
  HSESSIONCTX hSrcSession;
  unsigned char *pbSplit;  // mofn-recover: the parts Init made (QAlloc)
  uint32_t dwPartLen;
  HSESSIONCTX hSession;
  unsigned char pbRandomSecret[kDefaultSecretLen];
} PERF_MOFN_INFO;

int PerfMofNInit(void *pTestInfo) {
  auto *info = static_cast<PERF_MOFN_INFO *>(pTestInfo);
  if (info->pbSecret != nullptr) return 0;
  PerfSetup setup("PerfMofNInit");
  SessionOwner session;
  setup.Connect(&info->ti, &session);
  if (setup.Ok()) {
    // The record points at the secret whether or not it could be drawn.
    setup.Random(session.Get(), info->pbRandomSecret, kDefaultSecretLen);
    info->pbSecret = info->pbRandomSecret;
    info->dwSecretLen = kDefaultSecretLen;
  }
  return setup.Rc();
}

// mofn-recover: the secret is split once, unless --parts gave the parts.
int PerfMofNRecoverInit(void *pTestInfo) {
  auto *info = static_cast<PERF_MOFN_INFO *>(pTestInfo);
  int rc = PerfMofNInit(info);
  if (rc != 0 || info->pbParts != nullptr) return rc;
  PerfSetup setup("PerfMofNRecoverInit");
  SessionOwner session;
  setup.Connect(&info->ti, &session);
  setup.Do("QMofNSplit", [&] {
    return QMofNSplit(session.Get(), info->dwM, info->dwN, info->pbSecret, info->dwSecretLen,
                      &info->pbSplit, &info->dwPartLen);
  });
  if (setup.Ok()) {
    info->pbParts = info->pbSplit;
    info->dwPartsLen = info->dwPartLen * info->dwN;
  }
  return setup.Rc();
}

int PerfMofNRecoverFin(void *pTestInfo) {
  auto *info = static_cast<PERF_MOFN_INFO *>(pTestInfo);
  if (info->pbSplit != nullptr) QFree(info->pbSplit);
  info->pbSplit = nullptr;
  return 0;
}

int PerfMofNThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_MOFN_INFO *>(pThreadInfo);
  info->hSession = nullptr;
  return PerfSetup("PerfMofNThreadInit").Connect(&info->ti, &info->hSession).Rc();
}

int PerfMofNThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_MOFN_INFO *>(pThreadInfo);
  CloseRecordSession(&info->hSession);
  return 0;
}

unsigned int PerfMofNSplitThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_MOFN_INFO *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [info](unsigned long counter) {
    unsigned char *parts = nullptr;
    uint32_t part_len = 0;
    const int rc = QMofNSplit(info->hSession, info->dwM, info->dwN, info->pbSecret,
                              info->dwSecretLen, &parts, &part_len);
    QFree(parts);
    return rc == 0 ? 0 : PerfPassFailed("PerfMofNSplitThread", "QMofNSplit", rc, counter);
  });
}

unsigned int PerfMofNRecoverThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_MOFN_INFO *>(pThreadInfo);
  // Any M of the parts recover the secret: the first M are sent.
  const uint32_t part_len = info->dwPartLen != 0 ? info->dwPartLen : info->dwPartsLen / info->dwN;
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    unsigned char *secret = nullptr;
    uint32_t secret_len = 0;
    const int rc =
        QMofNRecover(info->hSession, info->pbParts, info->dwM, part_len, &secret, &secret_len);
    QFree(secret);
    return rc == 0 ? 0 : PerfPassFailed("PerfMofNRecoverThread", "QMofNRecover", rc, counter);
  });
}

namespace {

int RunMofNTest(TEST_PARAMETER *pTestParam, int nParameters, bool recover) {
  PERF_MOFN_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
  const int m = GetParameterInt(pTestParam, nParameters, "-m");
  const int n = GetParameterInt(pTestParam, nParameters, "-n");
  info.dwM = m > 0 ? static_cast<uint32_t>(m) : 0;
  info.dwN = n > 0 ? static_cast<uint32_t>(n) : 0;
  bool options_ok = m > 0 && n >= m;

  const std::vector<unsigned char> secret =
      ReadBytes(pTestParam, nParameters, "--secret", "--secretform");
  if (IsParameterDefined(pTestParam, nParameters, "--secret")) {
    options_ok = options_ok && !secret.empty();
    info.pbSecret = secret.data();
    info.dwSecretLen = static_cast<uint32_t>(secret.size());
  }
  std::vector<unsigned char> parts;
  if (recover && IsParameterDefined(pTestParam, nParameters, "--parts")) {
    parts = ReadBytes(pTestParam, nParameters, "--parts", "--partsform");
    options_ok = options_ok && !parts.empty() && info.dwN > 0 && parts.size() % info.dwN == 0;
    info.pbParts = parts.data();
    info.dwPartsLen = static_cast<uint32_t>(parts.size());
  }

  if (IsValidTestCountersConfig(&info.ti) && options_ok && CheckConnectionFlags(&info.ti, false)) {
    if (recover) {
      return ExecutePerfTestThreads(PerfMofNRecoverThread, PerfMofNRecoverInit, PerfMofNRecoverFin,
                                    PerfMofNThreadInit, PerfMofNThreadFin, &info, sizeof(info));
    }
    return ExecutePerfTestThreads(PerfMofNSplitThread, PerfMofNInit, nullptr, PerfMofNThreadInit,
                                  PerfMofNThreadFin, &info, sizeof(info));
  }
  if (recover) {
    PerfHelpDescription({"M of N recover performance test.",
                         "This test returns the number of secrets recovered from M parts per",
                         "second."});
  } else {
    PerfHelpDescription({"M of N split performance test.",
                         "This test returns the number of secrets split into N parts per second."});
  }
  ShowHelpMofNOptions();
  if (recover) {
    ScreenOutput(
        "     --parts      [OPTIONAL] The N parts, one after the other. Made from the\r\n");
    ScreenOutput("                  secret before the test by default.\r\n");
    ScreenOutput("     --partsform  [OPTIONAL] Form of --parts:\r\n");
    ShowHelpDataInformParameters();
  }
  return PerfHelpCommandExamples(recover ? "mofn-recover" : "mofn-split", {"-t 5 -i 10 -m 2 -n 3"});
}

}  // namespace

int PerfMofNSplit(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunMofNTest(pTestParam, nParameters, false);
}

int PerfMofNRecover(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunMofNTest(pTestParam, nParameters, true);
}
