#include "harness/results.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "Output.h"
#include "harness/connection.h"
#include "harness/report.h"
#include "harness/runners.h"
#include "harness/thread_info.h"
#include "option_usage.h"
#include "param_options.h"
#include "qlapi.h"
#include "version.h"

using nlohmann::json;

// ---------------------------------------------------------------------------------------------
// LatencyHistogram

uint64_t LatencyHistogram::Low(int i) {
  if (i < 2 * kSub) return static_cast<uint64_t>(i);
  const int shift = i / kSub - 1;
  return static_cast<uint64_t>(kSub + i % kSub) << shift;
}

uint64_t LatencyHistogram::Width(int i) {
  return i < 2 * kSub ? 1 : uint64_t{1} << (i / kSub - 1);
}

void LatencyHistogram::Merge(const LatencyHistogram &other) {
  for (int i = 0; i < kBuckets; ++i)
    counts_[static_cast<size_t>(i)] += other.counts_[static_cast<size_t>(i)];
  count_ += other.count_;
  max_ = std::max(max_, other.max_);
}

uint64_t LatencyHistogram::Percentile(double q) const {
  if (count_ == 0) return 0;
  const auto target =
      std::max<uint64_t>(1, static_cast<uint64_t>(std::ceil(q * static_cast<double>(count_))));
  uint64_t seen = 0;
  for (int i = 0; i < kBuckets; ++i) {
    seen += counts_[static_cast<size_t>(i)];
    if (seen >= target) return std::min(Low(i) + Width(i) / 2, max_);
  }
  return max_;
}

uint64_t SteadyNowNs() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

// ---------------------------------------------------------------------------------------------
// The loop guard of monitored threads. One monitored run at a time per process: its state is
// here, set by RunMonitor.

namespace {
std::atomic<bool> g_measuring{true};  // false during the warm-up
std::atomic<bool> g_stop{false};      // the duration is up
std::atomic<bool> g_fixed_duration{false};
}  // namespace

namespace perf_tally {

thread_local constinit PassTally *current = nullptr;

bool PassBoundary(PassTally *tally, unsigned long *counter, int max) {
  // The pass that ends here counts when it began in the measured period.
  const bool measuring = g_measuring.load(std::memory_order_relaxed);
  if (tally->histogram != nullptr) {
    const uint64_t now = SteadyNowNs();
    if (tally->pass_measured) tally->histogram->Record(now - tally->last_ns);
    tally->last_ns = now;
  }
  if (tally->pass_measured) {
    tally->done.store(tally->done.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  if (g_stop.load(std::memory_order_relaxed)) return true;
  tally->pass_measured = measuring;
  if (!measuring) {
    ++tally->warm_passes;
  } else if (!g_fixed_duration.load(std::memory_order_relaxed) && max != -1 &&
             static_cast<long long>(*counter - tally->warm_passes) >= max) {
    tally->pass_measured = false;
    return true;
  }
  ++*counter;
  return false;
}

}  // namespace perf_tally

// ---------------------------------------------------------------------------------------------
// Options

namespace {

ResultsOptions g_options;
std::string g_command_line;

void OptionError(const std::string &text) {
  fprintf(stderr, "qlutil: %s\n", text.c_str());
}

// A number of seconds in [min, max]; false with a line on standard error otherwise.
bool ReadSeconds(TEST_PARAMETER *param, int count, const char *name, double min, double max,
                 double *out) {
  const char *value = GetParameterStr(param, count, name);
  char *end = nullptr;
  const double v = value != nullptr ? std::strtod(value, &end) : 0;
  if (value == nullptr || *value == '\0' || end == nullptr || *end != '\0' || !(v >= min) ||
      !(v <= max)) {
    char range[96];
    snprintf(range, sizeof range, "%s wants a number of seconds from %g to %g", name, min, max);
    OptionError(range);
    return false;
  }
  *out = v;
  return true;
}

// The stored result of --compare: readable, a JSON object with a rate.
bool ReadStoredResult(const std::string &path, json *out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    OptionError("--compare: cannot read " + path);
    return false;
  }
  *out = json::parse(in, nullptr, false);
  if (out->is_discarded() || !out->is_object() || !(*out)["rate"].is_number() ||
      !(*out)["test"].is_string()) {
    OptionError("--compare: " + path + " is not a result written by --json");
    return false;
  }
  return true;
}

}  // namespace

bool LoadResultsOptions(TEST_PARAMETER *param, int count) {
  ResultsOptions o;
  o.latency = IsParameterDefined(param, count, "--latency") != 0;
  o.progress = IsParameterDefined(param, count, "--progress") != 0;
  if (IsParameterDefined(param, count, "--json")) {
    const char *file = GetParameterStr(param, count, "--json");
    if (file == nullptr || *file == '\0') {
      OptionError("--json wants a file name");
      return false;
    }
    o.json_file = file;
  }
  if (IsParameterDefined(param, count, "--duration") &&
      !ReadSeconds(param, count, "--duration", 0.001, 86400, &o.duration_s)) {
    return false;
  }
  if (IsParameterDefined(param, count, "--warmup") &&
      !ReadSeconds(param, count, "--warmup", 0, 3600, &o.warmup_s)) {
    return false;
  }
  if (IsParameterDefined(param, count, "--compare")) {
    const char *file = GetParameterStr(param, count, "--compare");
    json stored;
    if (file == nullptr || *file == '\0' || !ReadStoredResult(file, &stored)) {
      if (file == nullptr || *file == '\0') OptionError("--compare wants a result file");
      return false;
    }
    o.compare_file = file;
    if (IsParameterDefined(param, count, "--threshold") &&
        !ReadSeconds(param, count, "--threshold", 0, 1000, &o.threshold_pct)) {
      return false;
    }
  }
  g_options = o;
  return true;
}

const ResultsOptions &GetResultsOptions() {
  return g_options;
}

void ResetResultsOptions() {
  g_options = ResultsOptions{};
}

std::string MaskedCommandLine(int argc, const char *const *argv) {
  static const std::set<std::string> kSecretSwitches = {
      "-w", "-pwd", "-pin", "--pin", "-secret", "--secret", "-seed", "--seed", "-pw"};
  std::string line;
  for (int i = 0; i < argc; ++i) {
    if (i > 0) line += ' ';
    const bool secret = i > 0 && kSecretSwitches.count(argv[i - 1]) != 0;
    line += secret ? "****" : argv[i];
  }
  return line;
}

void SetResultsCommandLine(int argc, const char *const *argv) {
  g_command_line = MaskedCommandLine(argc, argv);
}

// ---------------------------------------------------------------------------------------------
// RunMonitor

struct RunMonitor::Control {
  std::mutex mutex;
  std::condition_variable wake;
  bool finished = false;
  std::thread thread;
};

RunMonitor::RunMonitor(const ResultsOptions &options, int threads)
    : options_(options),
      tallies_(static_cast<size_t>(std::max(threads, 0))),
      histograms_(options.latency ? static_cast<size_t>(std::max(threads, 0)) : 0),
      control_(std::make_unique<Control>()) {
  for (size_t i = 0; i < histograms_.size(); ++i) tallies_[i].histogram = &histograms_[i];
}

RunMonitor::~RunMonitor() {
  Finish();
}

void RunMonitor::Start() {
  const bool warming = options_.warmup_s > 0;
  g_measuring.store(!warming);
  g_stop.store(false);
  g_fixed_duration.store(options_.duration_s > 0);
  if (!warming) measure_start_ns_.store(SteadyNowNs());
  try {
    control_->thread = std::thread(&RunMonitor::Monitor, this);
  } catch (const std::system_error &) {
    // Without the monitor the warm-up never ends and a duration never stops the threads: say so
    // and let the run end at once.
    OptionError("cannot start the run's monitor thread");
    g_measuring.store(true);
    g_stop.store(true);
  }
}

void RunMonitor::Finish() {
  {
    std::lock_guard<std::mutex> lock(control_->mutex);
    control_->finished = true;
  }
  control_->wake.notify_all();
  if (control_->thread.joinable()) control_->thread.join();
  if (measure_start_ns_.load() == 0) measure_start_ns_.store(SteadyNowNs());
  g_measuring.store(true);
  g_stop.store(false);
  g_fixed_duration.store(false);
}

void RunMonitor::Monitor() {
  using Clock = std::chrono::steady_clock;
  std::unique_lock<std::mutex> lock(control_->mutex);
  auto sleep_until = [&](Clock::time_point when) {
    return control_->wake.wait_until(lock, when, [&] { return control_->finished; });
  };
  auto seconds = [](double s) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
  };
  if (options_.warmup_s > 0) {
    if (sleep_until(Clock::now() + seconds(options_.warmup_s))) return;
    measure_start_ns_.store(SteadyNowNs());
    g_measuring.store(true);
  }
  const Clock::time_point start = Clock::now();
  const bool timed = options_.duration_s > 0;
  const Clock::time_point deadline = start + seconds(options_.duration_s);
  Clock::time_point next = start + std::chrono::seconds(1);
  uint64_t previous = 0;
  for (;;) {
    const Clock::time_point wake = timed && !g_stop.load() ? std::min(next, deadline) : next;
    if (sleep_until(wake)) return;
    const Clock::time_point now = Clock::now();
    if (now >= next) {
      const uint64_t total = TotalPasses();
      per_second_.push_back(total - previous);
      if (options_.progress) {
        const double elapsed = std::chrono::duration<double>(now - start).count();
        fprintf(stderr, "qlutil: %llu operations in %.0f s, %.2f op/s now, %.2f op/s mean\n",
                static_cast<unsigned long long>(total), elapsed,
                static_cast<double>(total - previous), static_cast<double>(total) / elapsed);
      }
      previous = total;
      next += std::chrono::seconds(1);
    }
    if (timed && now >= deadline) g_stop.store(true);
  }
}

uint64_t RunMonitor::TotalPasses() const {
  uint64_t total = 0;
  for (const PassTally &t : tallies_) total += t.done.load(std::memory_order_relaxed);
  return total;
}

LatencyHistogram RunMonitor::MergedHistogram() const {
  LatencyHistogram merged;
  for (const LatencyHistogram &h : histograms_) merged.Merge(h);
  return merged;
}

// ---------------------------------------------------------------------------------------------
// Reporting

namespace {

constexpr double kQuantiles[] = {0.50, 0.90, 0.99, 0.999};
constexpr const char *kQuantileNames[] = {"p50", "p90", "p99", "p99.9"};

double Micros(uint64_t ns) {
  return static_cast<double>(ns) / 1000.0;
}

double Rate(const RunSummary &s) {
  if (s.elapsed_ms <= 0) return 0;
  const double volume = s.metric == 1
                            ? static_cast<double>(s.passes)
                            : static_cast<double>(s.passes) * static_cast<double>(s.message_size);
  return volume / (s.elapsed_ms / 1000.0);
}

json Versions(const RunSummary &s) {
  json v;
  v["qlutil"] = kQlutilVersion;
  char library[256] = {};
  uint32_t len = sizeof library;
  v["library"] = QVersion(nullptr, QL_VERSION_LIBRARY, library, &len) == 0 ? library : "";
  json hsm = json::object();
  char texts[6][512] = {};
  if (s.ti != nullptr) {
    const std::string address = s.ti->GetAddress(), user = s.ti->GetUserId(),
                      password = s.ti->GetPassword();
    if (QueryHsmVersionTexts(address.c_str(), user.c_str(), password.c_str(),
                             static_cast<unsigned>(GetConnectionFlags(s.ti)), s.ti->GetPort(),
                             texts)) {
      const char *names[6] = {"model", "firmware", "serial", "hardware", "name", "library"};
      for (int i = 0; i < 6; ++i) hsm[names[i]] = texts[i];
    }
  }
  v["hsm"] = hsm;
  return v;
}

json Document(const RunSummary &s) {
  json d;
  d["format"] = "qlutil-result/1";
  d["command"] = g_command_line;
  const TEST_FUNCTION *row = GetCommandRow();
  d["test"] = row != nullptr ? row->pszFunctionName : "";
  d["versions"] = Versions(s);
  d["threads"] = s.threads;
  d["iterations"] = s.iterations;
  const ResultsOptions &o = g_options;
  d["duration_s"] = o.duration_s;
  d["warmup_s"] = o.warmup_s;
  d["elapsed_ms"] = s.elapsed_ms;
  d["operations"] = s.passes;
  d["unit"] = s.metric == 1 ? "op/s" : "bytes/s";
  d["rate"] = s.result_code == 0 ? Rate(s) : 0.0;
  d["result"] = s.result_code;
  d["errors"] = s.result_code == 0 ? 0 : 1;
  if (s.latency != nullptr && s.latency->count() > 0) {
    json l;
    for (size_t i = 0; i < std::size(kQuantiles); ++i) {
      l[kQuantileNames[i]] = Micros(s.latency->Percentile(kQuantiles[i]));
    }
    l["max"] = Micros(s.latency->max());
    l["count"] = s.latency->count();
    d["latency_us"] = l;
  }
  if (s.hsm_statistics != nullptr && !s.hsm_statistics->cpu.empty()) {
    d["hsm_statistics"] = {{"interval_ms", s.ti != nullptr ? s.ti->statSleepIntervalMs : 0},
                           {"sessions", s.hsm_statistics->session_count},
                           {"cpu", s.hsm_statistics->cpu},
                           {"memory", s.hsm_statistics->mem}};
  }
  d["per_second"] = s.per_second != nullptr ? *s.per_second : std::vector<uint64_t>{};
  return d;
}

// Worse by more than the threshold: the rate fell, or p99 rose (when both runs measured it).
bool Regressed(const json &now, const json &stored, double threshold) {
  bool worse = false;
  if (now["test"] != stored["test"]) {
    fprintf(stderr, "qlutil: --compare: the stored result is of %s, not of %s\n",
            stored["test"].get<std::string>().c_str(), now["test"].get<std::string>().c_str());
    return true;
  }
  const double old_rate = stored["rate"].get<double>(), rate = now["rate"].get<double>();
  if (old_rate > 0 && (old_rate - rate) / old_rate * 100.0 > threshold) {
    fprintf(stderr, "qlutil: the rate fell %.1f%% (%.2f to %.2f), more than %g%%\n",
            (old_rate - rate) / old_rate * 100.0, old_rate, rate, threshold);
    worse = true;
  }
  if (now.contains("latency_us") && stored.contains("latency_us") &&
      stored["latency_us"]["p99"].is_number()) {
    const double old_p99 = stored["latency_us"]["p99"].get<double>();
    const double p99 = now["latency_us"]["p99"].get<double>();
    if (old_p99 > 0 && (p99 - old_p99) / old_p99 * 100.0 > threshold) {
      fprintf(stderr, "qlutil: p99 rose %.1f%% (%.1f us to %.1f us), more than %g%%\n",
              (p99 - old_p99) / old_p99 * 100.0, old_p99, p99, threshold);
      worse = true;
    }
  }
  return worse;
}

}  // namespace

std::string LatencyLine(const LatencyHistogram &h) {
  char line[256];
  snprintf(line, sizeof line,
           "Latency (us): p50 %.1f, p90 %.1f, p99 %.1f, p99.9 %.1f, max %.1f\r\n",
           Micros(h.Percentile(0.5)), Micros(h.Percentile(0.9)), Micros(h.Percentile(0.99)),
           Micros(h.Percentile(0.999)), Micros(h.max()));
  return line;
}

int ReportResults(const RunSummary &s, int result) {
  const ResultsOptions &o = g_options;
  // The line follows the footer (none when the footer is off).
  const int footer = GetFooterFormat();
  if (o.latency && s.result_code == 0 && s.latency != nullptr &&
      (footer == kFooterFull || footer == kFooterTimeOnly)) {
    ScreenOutput("%s", LatencyLine(*s.latency).c_str());
  }
  if (o.json_file.empty() && o.compare_file.empty()) return result;
  const json document = Document(s);
  if (!o.json_file.empty()) {
    std::ofstream out(o.json_file, std::ios::binary | std::ios::trunc);
    out << document.dump(2) << '\n';
    if (!out) fprintf(stderr, "qlutil: --json: cannot write %s\n", o.json_file.c_str());
  }
  if (!o.compare_file.empty() && s.result_code == 0) {
    json stored;
    if (!ReadStoredResult(o.compare_file, &stored)) return kResultRegression;
    if (Regressed(document, stored, o.threshold_pct)) return kResultRegression;
  }
  return result;
}
