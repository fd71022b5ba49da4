// Helpers of the test threads.
#include "harness/threads.h"

#include <cstdlib>

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
  // unsigned arithmetic.
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
