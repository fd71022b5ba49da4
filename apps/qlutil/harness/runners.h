#pragma once
// The two runners: ExecuteTestThreads (-f, -s, the access-control tests and jobs) and
// ExecutePerfTestThreads (-p), and the version query of the -out row.

#include <cstddef>

#include "harness/thread_info.h"
#include "qlutil.h"

// clang-format off
// A performance thread body, as every -p test writes it (the loop stays free of locks,
// allocations and system calls: the guard is a counter, the poll one atomic load):
//
//   unsigned PerfXxxThread(void *pv) {
//     auto *info = static_cast<PERF_XXX_INFO *>(pv);
//     unsigned long counter = 0;
//     int rc = 0;
//     while (!ShouldStopPerfTestLoop(&counter, info->ti.Iterations)) {
//       rc = QXxx(...);
//       if (rc != 0) {
//         ScreenOutput("[PerfXxxThread] Fail in QXxx rc = %d. Iteration = %lu\r\n", rc, counter);
//         break;
//       }
//       if (IsErrorEventSignaled(info->ti.phErrorEvent)) break;
//     }
//     if (rc != 0) {
//       info->ti.Error = rc;
//       SignalErrorEvent(info->ti.phErrorEvent);
//     }
//     return 1;
//   }
// clang-format on
//
// Callbacks of a performance test: 0 means success.
typedef int (*pfn_InitFinCallback)(void *pTestInfo);
typedef int (*pfn_InitializeThread)(void *pThreadInfo);
typedef int (*pfn_FinalizeThread)(void *pThreadInfo);

// Runs ThreadFunc on Threads byte copies of the record (cbTestInfo bytes, THREAD_INFO first),
// waits for all, prints the footer, writes the -out row and qlutil_time. Returns 100000, or the
// Error of the lowest-indexed thread that recorded one when the error event was set.
int ExecuteTestThreads(pfn_TestThread ThreadFunc, void *pTestInfo, size_t cbTestInfo);

// The performance runner: InitializeTest (may be null) on the record; per copy, in index order,
// InitializeThread; the threads, timed; FinalizeThread per copy; FinalizeTest (may be null).
// Samples the HSM's load alongside when asked. Every copy whose InitializeThread succeeded gets
// its FinalizeThread and, once InitializeTest succeeded, FinalizeTest is called, whatever failed
// in between. Any failing callback or thread start fails the run (the error footer and row):
// the result is the first such code, else the lowest-indexed thread's Error; 100000 on success.
int ExecutePerfTestThreads(pfn_TestThread ThreadFunc, pfn_InitFinCallback InitializeTest,
                           pfn_InitFinCallback FinalizeTest, pfn_InitializeThread InitializeThread,
                           pfn_FinalizeThread FinalizeThread, void *pTestInfo, size_t cbTestInfo);

// Asks the HSM at address/port (user and password, or anonymously without a user) for its six
// version texts: model, firmware, serial number, hardware, name, library. False when the
// session or the query fails. The -out row gets its texts through this.
bool QueryHsmVersionTexts(const char *address, const char *user, const char *password,
                          unsigned flags, int port, char texts[6][512]);
