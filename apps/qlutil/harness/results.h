#pragma once
// Opt-in results of a -p run, beside the footer: latency percentiles (--latency), a JSON document
// (--json FILE), one progress line a second on standard error (--progress), runs of a fixed time
// (--duration SECONDS) after a discarded first period (--warmup SECONDS), and a regression gate
// against a stored JSON result (--compare FILE [--threshold PCT]).
//
// Without these switches nothing here runs: the loop guard (ShouldStopPerfTestLoop) sees no
// tally, reads no clock and behaves as it always did.
//
// With them, the runner gives each thread a PassTally (its own cache line) through a thread-local
// pointer; the loop guard counts each completed pass there and, with --latency, records its time
// in the thread's own histogram: no allocation and no lock on the measured path. A monitor thread
// ends the warm-up, samples the counts once a second (progress, the per-second series) and
// stops the threads when the duration is up. The histograms are merged after the run.

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qlutil.h"
#include "statistics.h"

struct _THREAD_INFO;

// The exit code of a run that --compare finds worse than the stored one by more than the
// threshold.
constexpr int kResultRegression = 75;

// ---------------------------------------------------------------------------------------------
// Latency histogram: log-bucketed nanoseconds, fixed memory. Values below 64 ns have a bucket
// each; above, every power of two is split into 32 buckets, so a reported value is within about
// 3% of the true one.
class LatencyHistogram {
 public:
  static constexpr int kSubBits = 5;
  static constexpr int kSub = 1 << kSubBits;
  static constexpr int kBuckets = (64 - kSubBits + 1) * kSub;

  void Record(uint64_t ns) {
    ++counts_[Index(ns)];
    ++count_;
    if (ns > max_) max_ = ns;
  }
  void Merge(const LatencyHistogram &other);
  uint64_t count() const { return count_; }
  uint64_t max() const { return max_; }
  // The value at quantile q (0 < q <= 1): the middle of the bucket holding it, never above max.
  uint64_t Percentile(double q) const;

  static int Index(uint64_t ns) {
    if (ns < 2 * kSub) return static_cast<int>(ns);
    const int msb = 63 - __builtin_clzll(ns);
    const int shift = msb - kSubBits;
    return (shift + 1) * kSub + static_cast<int>((ns >> shift) & (kSub - 1));
  }
  // The smallest value of bucket i and the bucket's width.
  static uint64_t Low(int i);
  static uint64_t Width(int i);

 private:
  std::array<uint64_t, kBuckets> counts_{};
  uint64_t count_ = 0;
  uint64_t max_ = 0;
};

// ---------------------------------------------------------------------------------------------
// What a thread's loop guard writes: its completed passes (read by the monitor while the run
// goes on) and, with --latency, its histogram.
struct alignas(64) PassTally {
  std::atomic<uint64_t> done{0};
  uint64_t last_ns = 0;        // the start of the running pass (with a histogram)
  uint64_t warm_passes = 0;    // passes of the warm-up, which -i does not count
  bool pass_measured = false;  // the running pass began after the warm-up
  LatencyHistogram *histogram = nullptr;
};

namespace perf_tally {
// The calling thread's tally; null outside monitored runs.
extern thread_local constinit PassTally *current;
// The loop guard of a monitored thread (ShouldStopPerfTestLoop forwards here).
bool PassBoundary(PassTally *tally, unsigned long *counter, int max);
}  // namespace perf_tally

// ---------------------------------------------------------------------------------------------
// The switches. LoadResultsOptions reads them (a -p command's loader calls it); a value that is
// wrong, or a --compare file that cannot be read as a result, gets one line on standard error
// and false.
struct ResultsOptions {
  bool latency = false;
  bool progress = false;
  std::string json_file;
  std::string compare_file;
  double threshold_pct = 10.0;
  double duration_s = 0;  // 0: -i iterations
  double warmup_s = 0;
  bool Any() const {
    return latency || progress || !json_file.empty() || !compare_file.empty() || duration_s > 0 ||
           warmup_s > 0;
  }
};

bool LoadResultsOptions(TEST_PARAMETER *param, int param_count);
const ResultsOptions &GetResultsOptions();
void ResetResultsOptions();

// The command line as the JSON document records it, secrets masked ("-w ****"). The driver sets
// it before running the command.
void SetResultsCommandLine(int argc, const char *const *argv);
std::string MaskedCommandLine(int argc, const char *const *argv);

// ---------------------------------------------------------------------------------------------
// One monitored run: made by the runner before its threads start (when the options ask for
// anything), Start()ed with the threads, Finish()ed when they are joined.
class RunMonitor {
 public:
  RunMonitor(const ResultsOptions &options, int threads);
  ~RunMonitor();
  RunMonitor(const RunMonitor &) = delete;
  RunMonitor &operator=(const RunMonitor &) = delete;

  PassTally *Tally(int thread) { return &tallies_[static_cast<size_t>(thread)]; }
  // Starts the monitor thread, with the run's threads.
  void Start();
  // Stops the monitor thread (the run's threads have ended).
  void Finish();
  // Nanoseconds (steady clock) at which the measured period began: the start, or the end of the
  // warm-up.
  uint64_t MeasureStartNs() const { return measure_start_ns_.load(); }
  uint64_t TotalPasses() const;
  LatencyHistogram MergedHistogram() const;
  const std::vector<uint64_t> &PerSecond() const { return per_second_; }

 private:
  void Monitor();

  const ResultsOptions options_;
  std::vector<PassTally> tallies_;
  std::vector<LatencyHistogram> histograms_;
  std::vector<uint64_t> per_second_;
  std::atomic<uint64_t> measure_start_ns_{0};
  struct Control;
  std::unique_ptr<Control> control_;
};

uint64_t SteadyNowNs();

// ---------------------------------------------------------------------------------------------
// After the run: the percentiles line, the JSON document and the comparison. Answers the run's
// result, or kResultRegression when --compare finds a regression.
struct RunSummary {
  int result_code = 0;  // 0: success; else the run's error code
  int threads = 0;
  int iterations = 0;  // -i per thread; -1 in a run of fixed duration
  int metric = 1;      // 1 operations per second, otherwise bytes per second
  int64_t message_size = 0;
  uint64_t passes = 0;
  double elapsed_ms = 0;
  const LatencyHistogram *latency = nullptr;
  const std::vector<uint64_t> *per_second = nullptr;
  const HSMStatistics *hsm_statistics = nullptr;
  const _THREAD_INFO *ti = nullptr;
};

int ReportResults(const RunSummary &summary, int result);

// The percentiles line printed after the footer.
std::string LatencyLine(const LatencyHistogram &histogram);
