#pragma once
// The HSM statistics sampler that runs beside a performance test.

#include <atomic>

#include "harness/thread_info.h"
#include "statistics.h"

// True when a CSV file or the summary was asked for and the interval is not 0 (which turns
// sampling off).
bool IsStatsEnabled(const THREAD_INFO *thread_info);
// The sampler thread's body: its own session, one reading every statSleepIntervalMs (the first
// discarded) until stop is set. Closes its session on every path.
void GetHSMStatistics(const THREAD_INFO *thread_info, std::atomic<bool> &stop,
                      HSMStatistics &statistics_results);
