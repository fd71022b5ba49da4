// The runner of functional tests, stress tests and jobs.
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "harness/connection.h"
#include "harness/report.h"
#include "harness/runners.h"
#include "option_usage.h"

using runner_detail::CopyAt;

int ExecuteTestThreads(pfn_TestThread ThreadFunc, void *pTestInfo, size_t cbTestInfo) {
  // Switches the command never read are reported before anything reaches the HSM.
  if (CheckUnreadOptions()) return kResultUsage;
  // Checks of the command line as a whole go here: nothing has been started or asked of the
  // HSM yet.
  runner_detail::EnsureHsmVersionQuery();
  auto *ti = static_cast<THREAD_INFO *>(pTestInfo);
  int ErrorCode = kRunnerNoError;

  // The event first, so that every copy points to it.
  QL_EVENT_HANDLE hErrorEvent = nullptr;
  InitEvent(&hErrorEvent);
  ti->phErrorEvent = &hErrorEvent;

  const int threads = ti->Threads > 0 ? ti->Threads : 0;
  std::vector<QL_THREAD_HANDLE> handles(static_cast<size_t>(threads), nullptr);
  std::unique_ptr<unsigned char[]> copies(new unsigned char[threads * cbTestInfo + 1]);

  runner_detail::RunTimes times;
  times.start_date = time(nullptr);
  const double start = ChronStart();
  for (int i = 0; i < threads; ++i) {
    THREAD_INFO *copy = CopyAt(copies.get(), cbTestInfo, i);
    std::memcpy(copy, pTestInfo, cbTestInfo);
    copy->ThreadId = i;
    // A thread that cannot start leaves a null handle, which the wait skips;
    // its copy's Error stays 0, so the run is judged by the threads that did
    // run.
    handles[i] = CreateThreadNow(ThreadFunc, copy);
  }
  WaitForThreads(handles.data(), static_cast<uint32_t>(threads));
  times.result_ms = ChronEndDelta(start) * 1000.0;
  times.end_date = time(nullptr);
  for (QL_THREAD_HANDLE handle : handles) CloseThreadHandle(handle);

  const uint32_t dwFlags = GetConnectionFlags(ti);
  if (IsErrorEventSignaled(&hErrorEvent)) {
    ErrorCode = runner_detail::FirstThreadError(copies.get(), cbTestInfo, threads, ErrorCode);
    runner_detail::ReportFailure(ti, ErrorCode, times, dwFlags);
  } else {
    runner_detail::ReportSuccess(ti, times, dwFlags);
  }

  copies.reset();
  CloseEventHandle(&hErrorEvent);
  ti->phErrorEvent = nullptr;
  return ErrorCode != kRunnerNoError ? ErrorCode : kResultSuccess;
}
