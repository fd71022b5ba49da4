#include "statistics.h"

#include <cmath>
#include <cstdint>
#include <exception>
#include <fstream>
#include <limits>

#include "Output.h"

namespace {

// Truncation toward zero into the running total, saturating where a plain conversion would be
// undefined (out of range, NaN).
int64_t TruncateToTotal(double value) {
  constexpr double kMax = 9223372036854774784.0;  // largest double below 2^63
  if (std::isnan(value)) return 0;
  if (value >= kMax) return std::numeric_limits<int64_t>::max();
  if (value <= -kMax) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

}  // namespace

double GetHSMStatisticsSums(const std::vector<double> &data) {
  int64_t total = 0;
  for (double value : data) total = TruncateToTotal(static_cast<double>(total) + value);
  return static_cast<double>(total);
}

double CalcStdDeviation(const std::vector<double> &data, double mean) {
  if (data.empty()) return 0.0;
  double sum_of_squares = 0.0;
  for (double value : data) {
    const double diff = value - mean;
    sum_of_squares += diff * diff;
  }
  return std::sqrt(sum_of_squares / static_cast<double>(data.size()));
}

void PrintStatistics(const HSMStatistics &stats_results, unsigned long interval) {
  if (stats_results.cpu.empty()) return;
  const double population = static_cast<double>(stats_results.cpu.size());
  const double cpu_mean = GetHSMStatisticsSums(stats_results.cpu) / population;
  const double mem_mean = GetHSMStatisticsSums(stats_results.mem) / population;
  const double session_mean = GetHSMStatisticsSums(stats_results.session_count) / population;

  ScreenOutput("\nSamples: %lu\n", static_cast<unsigned long>(stats_results.cpu.size()));
  ScreenOutput("Statistics sampling interval: %lums\n", interval);
  ScreenOutput("CPU avg: %.2f stddev: %.2f\n", cpu_mean,
               CalcStdDeviation(stats_results.cpu, cpu_mean));
  ScreenOutput("Mem avg: %.2f stddev: %.2f\n", mem_mean,
               CalcStdDeviation(stats_results.mem, mem_mean));
  ScreenOutput("Session avg: %.2f stddev: %.2f\n\n", session_mean,
               CalcStdDeviation(stats_results.session_count, session_mean));
}

void DumpStatistics2CSV(const HSMStatistics &statistics_results, const char *stats_file_name) {
  try {
    std::ofstream file(stats_file_name, std::ios::out | std::ios::trunc);
    if (!file.is_open()) return;
    if (statistics_results.cpu.empty()) return;
    // Opening is allowed to fail quietly; a write that fails is worth a message.
    file.exceptions(std::ios::badbit | std::ios::failbit);
    file << "session_count,cpu_usage,memory_usage\n";
    for (size_t i = 0; i < statistics_results.cpu.size(); ++i) {
      file << statistics_results.session_count[i] << ',' << statistics_results.cpu[i] << ','
           << statistics_results.mem[i] << '\n';
    }
    file.flush();
    file.close();
  } catch (const std::exception &e) {
    ScreenOutput("Failed to write statistics file: %s error: %s", stats_file_name, e.what());
  }
}
