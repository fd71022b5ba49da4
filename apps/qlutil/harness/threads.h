#pragma once
// Helpers of the test threads: the pause of -opsleep, the loop guard, and the error signaller.

#include <cstdint>

#include "harness/results.h"
#include "harness/thread_info.h"

// True when -t was given.
bool IsValidTestCountersConfig(const THREAD_INFO *ti);
void QlSleep(unsigned long ms);
unsigned long QlGetThreadId();
// The pause between two operations of -opsleep: none, fixed, or random in [dwInit, dwEnd - 1]
// seconds (seeded from uiRandomSeed, which it advances). Equal bounds pause exactly dwInit.
void QlOperationSleep(OP_SLEEP_INFO *pstOpSleepInfo);
// The pause QlOperationSleep makes, in milliseconds (advancing the seed the same way).
uint32_t QlOperationSleepMs(OP_SLEEP_INFO *pstOpSleepInfo);

// Publishes a thread's failure whichever way the thread function leaves: at scope exit, a
// nonzero *lib_ret_code goes into thread_info.Error and the run's error event is set.
class ThreadErrorSignaling {
 public:
  ThreadErrorSignaling(int &lib_ret_code, THREAD_INFO &thread_info)
      : lib_ret_code_(&lib_ret_code), thread_info_(&thread_info) {}
  ~ThreadErrorSignaling();
  ThreadErrorSignaling(const ThreadErrorSignaling &) = delete;
  ThreadErrorSignaling &operator=(const ThreadErrorSignaling &) = delete;

 private:
  int *lib_ret_code_;
  THREAD_INFO *thread_info_;
};

// The loop guard of every thread body: with max -1 never stops; stops once *counter has
// reached max; otherwise counts one up and lets the body go on.
inline bool ShouldStopPerfTestLoop(unsigned long *counter, int max) {
  // A run with --latency, --progress, --duration, --warmup, --json or --compare (results.h).
  if (PassTally *tally = perf_tally::current; tally != nullptr) [[unlikely]] {
    return perf_tally::PassBoundary(tally, counter, max);
  }
  if (max == -1) return false;
  if (static_cast<long long>(*counter) >= max) return true;
  ++*counter;
  return false;
}
