// The runner of performance tests: five callbacks, an optional HSM statistics
// sampler, and the preparation and clean-up kept outside the measured time.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

#include "Output.h"
#include "option_usage.h"
#include "util.h"
#include "util_report.h"

using runner_detail::CopyAt;

namespace {

// The sampler thread of one run. Stopping joins it, so a run never leaves it
// behind, whichever path the run takes.
class StatsSampler {
 public:
  StatsSampler() = default;
  StatsSampler(const StatsSampler &) = delete;
  StatsSampler &operator=(const StatsSampler &) = delete;
  ~StatsSampler() { Stop(); }

  void Start(const THREAD_INFO *ti) {
    try {
      thread_ = std::thread(GetHSMStatistics, ti, std::ref(stop_), std::ref(results_));
    } catch (const std::system_error &) {
      // No sampler: the run goes on and reports no samples.
    }
  }
  void Stop() {
    if (!thread_.joinable()) return;
    stop_.store(true);
    thread_.join();
  }
  const HSMStatistics &results() const { return results_; }

 private:
  std::atomic<bool> stop_{false};
  HSMStatistics results_;
  std::thread thread_;
};

}  // namespace

int ExecutePerfTestThreads(pfn_TestThread ThreadFunc, pfn_InitFinCallback InitializeTest,
                           pfn_InitFinCallback FinalizeTest, pfn_InitializeThread InitializeThread,
                           pfn_FinalizeThread FinalizeThread, void *pTestInfo, size_t cbTestInfo) {
  // Switches the command never read are reported before anything reaches the HSM.
  if (CheckUnreadOptions()) return kResultUsage;
  runner_detail::EnsureHsmVersionQuery();
  auto *ti = static_cast<THREAD_INFO *>(pTestInfo);
  int ErrorCode = kRunnerNoError;
  int nRet = 0;
  runner_detail::RunTimes times;
  times.start_date = times.end_date = time(nullptr);
  StatsSampler sampler;

  QL_EVENT_HANDLE hErrorEvent = nullptr;
  InitEvent(&hErrorEvent);
  ti->phErrorEvent = &hErrorEvent;

  const int threads = ti->Threads > 0 ? ti->Threads : 0;
  std::vector<QL_THREAD_HANDLE> handles(static_cast<size_t>(threads), nullptr);
  std::unique_ptr<unsigned char[]> copies(new unsigned char[threads * cbTestInfo + 1]);
  int copies_made = 0;

  auto clean_up = [&]() {
    sampler.Stop();
    copies.reset();
    CloseEventHandle(&hErrorEvent);
    ti->phErrorEvent = nullptr;
    return ErrorCode != kRunnerNoError ? ErrorCode : kResultSuccess;
  };

  if (InitializeTest != nullptr) {
    const int r = InitializeTest(pTestInfo);
    if (r != 0) {
      printf("Failed to initialize test: %d\n", r);
      ErrorCode = r;
      return clean_up();
    }
  }

  for (int i = 0; i < threads; ++i) {
    THREAD_INFO *copy = CopyAt(copies.get(), cbTestInfo, i);
    std::memcpy(copy, pTestInfo, cbTestInfo);
    copy->ThreadId = i;
    copies_made = i + 1;
    const int r = InitializeThread(copy);
    if (r != 0) {
      printf("Failed to initialize test thread: %d\n", r);
      nRet = ErrorCode = r;
      break;
    }
  }

  if (IsStatsEnabled(ti)) sampler.Start(ti);

  if (nRet == 0) {
    times.start_date = time(nullptr);
    const double start = ChronStart();
    for (int i = 0; i < threads; ++i) {
      handles[i] = CreateThreadNow(ThreadFunc, CopyAt(copies.get(), cbTestInfo, i));
      if (handles[i] == nullptr) {
        ScreenOutput("\n\nFailed to create thread. Count: %d Asked: %d\n\n", i, ti->Threads);
        ScreenOutput("Exiting! \n\n");
        // Stop what already runs before leaving, so that nothing uses the
        // copies any more.
        SignalErrorEvent(&hErrorEvent);
        WaitForThreads(handles.data(), static_cast<uint32_t>(i));
        for (QL_THREAD_HANDLE handle : handles) CloseThreadHandle(handle);
        sampler.Stop();
        fflush(stdout);
        exit(1);
      }
    }
    WaitForThreads(handles.data(), static_cast<uint32_t>(threads));
    times.result_ms = ChronEndDelta(start) * 1000.0;
    times.end_date = time(nullptr);
    for (QL_THREAD_HANDLE &handle : handles) {
      CloseThreadHandle(handle);
      handle = nullptr;
    }

    if (IsStatsEnabled(ti)) {
      sampler.Stop();
      if (ti->pszStatsFile != nullptr) DumpStatistics2CSV(sampler.results(), ti->pszStatsFile);
      if (ti->printStatsOnScreen) PrintStatistics(sampler.results(), ti->statSleepIntervalMs);
    }

    try {
      for (int i = 0; i < threads; ++i) {
        const int r = FinalizeThread(CopyAt(copies.get(), cbTestInfo, i));
        if (r != 0) {
          printf("Failed to finalize test thread: %d\n", r);
          nRet = r;
          break;
        }
      }
    } catch (...) {
      ScreenOutput("*** Exception ***\r\n");
      SignalErrorEvent(&hErrorEvent);
      // The first copy carries the mark, whichever thread's clean-up threw.
      if (threads > 0) CopyAt(copies.get(), cbTestInfo, 0)->Error = kRunnerCleanupException;
    }
  } else {
    // A failed preparation runs no test: the sampler has nothing to watch.
    sampler.Stop();
  }

  if (FinalizeTest != nullptr) {
    // Its result replaces whatever nRet held, as it always has.
    nRet = FinalizeTest(pTestInfo);
    if (nRet != 0) {
      printf("Failed to finalize test: %d\n", nRet);
      return clean_up();
    }
  }

  const uint32_t dwFlags = GetConnectionFlags(ti);
  if (!IsErrorEventSignaled(&hErrorEvent) && nRet == 0) {
    // Each pass of a block test handles BlockCount items: the row records
    // items.
    if (ti->BlockCount != 0) {
      ti->Iterations = static_cast<int>(static_cast<int64_t>(ti->Iterations) * ti->BlockCount);
    }
    runner_detail::ReportSuccess(ti, times, dwFlags);
  } else {
    ErrorCode = nRet != 0 ? nRet
                          : runner_detail::FirstThreadError(copies.get(), cbTestInfo, copies_made,
                                                            ErrorCode);
    runner_detail::ReportFailure(ti, ErrorCode, times, dwFlags);
  }
  return clean_up();
}
