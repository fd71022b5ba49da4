// The common test options of THREAD_INFO, the thread helpers and the error
// signaller.
#include <cstdlib>
#include <thread>

#include "util.h"

void LoadTestVolumeParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count) {
  ti->Threads = GetParameterInt(param, param_count, "-t");
  ti->Iterations = GetParameterInt(param, param_count, "-i");
}

void LoadTestStatsParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count) {
  ti->printStatsOnScreen = IsParameterDefined(param, param_count, "--stats_print") != 0;
  ti->pszStatsFile = GetParameterStr(param, param_count, "--stats_file");
  ti->statSleepIntervalMs = kDefaultStatsIntervalMs;
  if (IsParameterDefined(param, param_count, "--stats_interval")) {
    const int interval = GetParameterInt(param, param_count, "--stats_interval");
    if (interval != -1) ti->statSleepIntervalMs = static_cast<uint32_t>(interval);
  }
}

void LoadReturnFileParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count) {
  ti->pszTestCase = GetParameterStr(param, param_count, "-tc");
  ti->writeReturnFiles = IsParameterDefined(param, param_count, "--retfiles") != 0;
}

void LoadReuseParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count) {
  const int reuse = GetParameterInt(param, param_count, "-r");
  ti->ReuseSession = reuse == 0 ? 0 : 1;
}

void LoadGenericParameters(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count) {
  LoadLibConnectionParams(ti, param, param_count);
  LoadTestVolumeParams(ti, param, param_count);
  LoadTestStatsParams(ti, param, param_count);
  LoadReturnFileParams(ti, param, param_count);
  LoadReuseParams(ti, param, param_count);
}

void LoadGenericJobParameters(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count,
                              bool is_anonymous) {
  if (is_anonymous) {
    LoadAnonymousConnectionParams(ti, param, param_count);
  } else {
    LoadLibConnectionParams(ti, param, param_count);
  }
  LoadReturnFileParams(ti, param, param_count);
  ti->UseLoadBalance = 0;
  ti->Iterations = 1;
  ti->Threads = 1;
}

uint32_t GetConnectionFlags(const THREAD_INFO *ti) {
  uint32_t flags = ti->UseTLS != 0 ? kSessionEncrypted : kSessionUnencrypted;
  if (ti->UseLoadBalance == 0) flags += kSessionBypassLoadBalance;
  if (ti->SessionCache == 0) flags += kSessionBypassCache;
  return flags;
}

bool IsValidTestCountersConfig(const THREAD_INFO *ti) {
  return ti->Threads != -1;
}

void QlSleep(unsigned long ms) {
  QL_Sleep(ms);
}

unsigned long QlGetThreadId() {
  return SSLLockThreadId();
}

uint32_t QlOperationSleepMs(OP_SLEEP_INFO *pstOpSleepInfo) {
  const uint32_t init = pstOpSleepInfo->dwInit;
  const uint32_t end = pstOpSleepInfo->dwEnd;
  if (init == 0) return 0;
  // Equal bounds leave no range to draw from: the pause is the bound itself.
  if (end == 0 || end == init) return init * 1000u;
  // The upper bound itself is never drawn. A range given upside down wraps in
  // unsigned arithmetic, as it always has.
  srand(++pstOpSleepInfo->uiRandomSeed);
  const uint32_t r = static_cast<uint32_t>(rand());
  return ((r % (end - init)) + init) * 1000u;
}

void QlOperationSleep(OP_SLEEP_INFO *pstOpSleepInfo) {
  const uint32_t ms = QlOperationSleepMs(pstOpSleepInfo);
  if (ms != 0) QL_Sleep(ms);
}

ThreadErrorSignaling::~ThreadErrorSignaling() {
  if (*lib_ret_code_ == 0) return;
  thread_info_->Error = *lib_ret_code_;
  SignalErrorEvent(thread_info_->phErrorEvent);
}
