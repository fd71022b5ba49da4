#pragma once
// The HSM load figures sampled during a performance run: the series, their summary on screen
// and their CSV file. The sampler thread itself is in util.h (it needs a connection).

#include <vector>

// One entry per kept sample in each series; the three always have the same length. Written
// only by the sampler thread, read by the runner after the sampler has been joined.
struct HSMStatistics {
  std::vector<double> session_count;  // sessions open on the HSM
  std::vector<double> cpu;            // processor use, as the HSM reports it
  std::vector<double> mem;            // memory in use, as the HSM reports it
};

// Sum of a series, folded from 0 with the running total truncated toward zero after every
// element (the HSM reports whole numbers, so nothing is lost in practice). The total is kept in
// 64 bits and saturates instead of overflowing.
double GetHSMStatisticsSums(const std::vector<double> &data);

// Population standard deviation of the series around mean (divisor n). 0 for an empty series.
double CalcStdDeviation(const std::vector<double> &data, double mean);

// Prints the summary (samples, interval, then mean and deviation of CPU, memory and sessions).
// Prints nothing when no sample was kept.
void PrintStatistics(const HSMStatistics &stats_results, unsigned long interval);

// Writes the series to the file (created or truncated): a header line and one line per sample,
// in the stream's default number format. An empty series leaves the file empty; a file that
// cannot be opened is skipped silently; a failed write is reported on the console.
void DumpStatistics2CSV(const HSMStatistics &statistics_results, const char *stats_file_name);
