// The runner of performance tests: five callbacks, an optional HSM statistics
// sampler, and the preparation and clean-up kept outside the measured time.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

#include "Output.h"
#include "harness/connection.h"
#include "harness/report.h"
#include "harness/runners.h"
#include "harness/sampling.h"
#include "harness/threads.h"
#include "option_usage.h"

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

// A thread of a monitored run: its loop guard finds the thread's tally (results.h).
struct MonitoredStart {
  pfn_TestThread body = nullptr;
  void *record = nullptr;
  PassTally *tally = nullptr;
};

unsigned int MonitoredThread(void *pv) {
  auto *start = static_cast<MonitoredStart *>(pv);
  perf_tally::current = start->tally;
  const unsigned int answer = start->body(start->record);
  perf_tally::current = nullptr;
  return answer;
}

}  // namespace

int ExecutePerfTestThreads(pfn_TestThread ThreadFunc, pfn_InitFinCallback InitializeTest,
                           pfn_InitFinCallback FinalizeTest, pfn_InitializeThread InitializeThread,
                           pfn_FinalizeThread FinalizeThread, void *pTestInfo, size_t cbTestInfo) {
  // The results switches of every -p command (results.h), then the switches the command never
  // read, before anything reaches the HSM.
  int option_count = 0;
  TEST_PARAMETER *options = GetCommandOptions(&option_count);
  if (options != nullptr && !LoadResultsOptions(options, option_count)) return kResultUsage;
  if (CheckUnreadOptions()) return kResultUsage;
  // Checks of the command line as a whole go here: nothing has been started or asked of the
  // HSM yet.
  runner_detail::EnsureHsmVersionQuery();
  auto *ti = static_cast<THREAD_INFO *>(pTestInfo);
  int ErrorCode = kRunnerNoError;
  // The first failure of a callback or of a thread start; the run fails when it is set.
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
  // The opt-in results (--latency, --json, --progress, --duration, ...): off unless asked for.
  const ResultsOptions &results = GetResultsOptions();
  std::unique_ptr<RunMonitor> monitor;
  if (results.Any()) monitor = std::make_unique<RunMonitor>(results, threads);
  std::vector<MonitoredStart> monitored(monitor ? static_cast<size_t>(threads) : 0);
  // Copies whose InitializeThread succeeded: each of them gets its FinalizeThread.
  int copies_ready = 0;

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
    const int r = InitializeThread(copy);
    if (r != 0) {
      printf("Failed to initialize test thread: %d\n", r);
      nRet = r;
      break;
    }
    copies_ready = i + 1;
  }

  if (nRet == 0) {
    if (IsStatsEnabled(ti)) sampler.Start(ti);
    times.start_date = time(nullptr);
    const double start = ChronStart();
    if (monitor) monitor->Start();
    int started = 0;
    for (; started < threads; ++started) {
      THREAD_INFO *copy = CopyAt(copies.get(), cbTestInfo, started);
      if (monitor) {
        monitored[started] = {ThreadFunc, copy, monitor->Tally(started)};
        handles[started] = CreateThreadNow(MonitoredThread, &monitored[started]);
      } else {
        handles[started] = CreateThreadNow(ThreadFunc, copy);
      }
      if (handles[started] == nullptr) {
        ScreenOutput("\n\nFailed to create thread. Count: %d Asked: %d\n\n", started, ti->Threads);
        ScreenOutput("Exiting! \n\n");
        // The threads already running stop at their next poll of the event.
        SignalErrorEvent(&hErrorEvent);
        nRet = kRunnerThreadStartFailed;
        break;
      }
    }
    WaitForThreads(handles.data(), static_cast<uint32_t>(started));
    times.result_ms = ChronEndDelta(start) * 1000.0;
    if (monitor) {
      // Measured from the end of the warm-up; the passes are the ones the threads counted.
      const uint64_t end_ns = SteadyNowNs();
      monitor->Finish();
      times.result_ms = static_cast<double>(end_ns - monitor->MeasureStartNs()) / 1e6;
      times.passes = static_cast<int64_t>(monitor->TotalPasses());
    }
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
  }

  // Every copy that was set up is released, whatever failed after its set-up; the first
  // failure is the run's.
  for (int i = 0; i < copies_ready; ++i) {
    try {
      const int r = FinalizeThread(CopyAt(copies.get(), cbTestInfo, i));
      if (r != 0) {
        printf("Failed to finalize test thread: %d\n", r);
        if (nRet == 0) nRet = r;
      }
    } catch (...) {
      ScreenOutput("*** Exception ***\r\n");
      SignalErrorEvent(&hErrorEvent);
      // The first copy carries the mark, whichever thread's clean-up threw.
      CopyAt(copies.get(), cbTestInfo, 0)->Error = kRunnerCleanupException;
    }
  }

  if (FinalizeTest != nullptr) {
    const int r = FinalizeTest(pTestInfo);
    if (r != 0) {
      printf("Failed to finalize test: %d\n", r);
      if (nRet == 0) nRet = r;
    }
  }

  const uint32_t dwFlags = GetConnectionFlags(ti);
  if (!IsErrorEventSignaled(&hErrorEvent) && nRet == 0) {
    // Each pass of a block test handles BlockCount items: the row records
    // items.
    if (ti->BlockCount != 0) {
      ti->Iterations = static_cast<int>(static_cast<int64_t>(ti->Iterations) * ti->BlockCount);
      if (times.passes >= 0) times.passes *= ti->BlockCount;
    }
    // A run of fixed duration records the mean passes of a thread as its iterations.
    if (monitor && results.duration_s > 0 && ti->Threads > 0) {
      ti->Iterations = static_cast<int>(times.passes / ti->Threads);
    }
    runner_detail::ReportSuccess(ti, times, dwFlags);
  } else {
    ErrorCode = nRet != 0 ? nRet
                          : runner_detail::FirstThreadError(copies.get(), cbTestInfo, copies_ready,
                                                            ErrorCode);
    runner_detail::ReportFailure(ti, ErrorCode, times, dwFlags);
  }
  if (!monitor) return clean_up();
  const LatencyHistogram latency = monitor->MergedHistogram();
  RunSummary summary;
  summary.result_code = ErrorCode != kRunnerNoError ? ErrorCode : 0;
  summary.threads = ti->Threads;
  summary.iterations = results.duration_s > 0 ? -1 : ti->Iterations;
  summary.metric = ti->Metric;
  summary.message_size = ti->MessageSize;
  summary.passes = times.passes >= 0 ? static_cast<uint64_t>(times.passes) : 0;
  summary.elapsed_ms = times.result_ms;
  summary.latency = results.latency ? &latency : nullptr;
  summary.per_second = &monitor->PerSecond();
  summary.hsm_statistics = IsStatsEnabled(ti) ? &sampler.results() : nullptr;
  summary.ti = ti;
  return ReportResults(summary, clean_up());
}
