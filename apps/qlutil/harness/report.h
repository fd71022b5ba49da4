#pragma once
// What both runners do after the threads have ended: the footer, the -out row and qlutil_time,
// on the success path and on the error path. Internal to the runners.

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "harness/thread_info.h"

namespace runner_detail {

struct RunTimes {
  time_t start_date = 0;
  time_t end_date = 0;
  double result_ms = 0.0;  // elapsed wall time of the threads
  int64_t passes = -1;     // passes of every thread together; -1: threads times iterations
};

// Footer (by footer format and Metric), -out row with result 0, and qlutil_time when asked.
void ReportSuccess(const THREAD_INFO *ti, const RunTimes &times, uint32_t dwFlags);
// "Error during the test!", an empty qlutil_time when asked, and the -out row with error_code.
void ReportFailure(const THREAD_INFO *ti, int error_code, const RunTimes &times, uint32_t dwFlags);
// The Error of the first of `count` copies (in index order) that recorded one, else `current`.
int FirstThreadError(const unsigned char *copies, size_t cbTestInfo, int count, int current);

// The thread's copy in slot i of the block.
inline THREAD_INFO *CopyAt(unsigned char *copies, size_t cbTestInfo, int i) {
  return reinterpret_cast<THREAD_INFO *>(copies + static_cast<size_t>(i) * cbTestInfo);
}

// Makes sure FileOutput can ask the HSM for its version texts.
void EnsureHsmVersionQuery();

}  // namespace runner_detail
