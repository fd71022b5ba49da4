// The opt-in results of -p: the latency histogram against exact percentiles, and the loop guard of
// monitored threads (what it counts, when it stops), without an HSM.
#include "harness/results.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace {

TEST(LatencyHistogram, BucketsTileTheValuesInOrder) {
  int previous = -1;
  std::vector<uint64_t> values;
  for (uint64_t v = 0; v < 5000; ++v) values.push_back(v);
  for (int bit = 12; bit < 64; ++bit) {
    const uint64_t p = uint64_t{1} << bit;
    values.insert(values.end(), {p - 1, p, p + 1, p + p / 3});
  }
  values.push_back(UINT64_MAX);
  std::sort(values.begin(), values.end());
  for (uint64_t v : values) {
    const int i = LatencyHistogram::Index(v);
    ASSERT_GE(i, previous) << v;
    ASSERT_LT(i, LatencyHistogram::kBuckets) << v;
    ASSERT_LE(LatencyHistogram::Low(i), v) << v;
    // Within the bucket, and a bucket is at most 1/32 of its values wide.
    ASSERT_LE(v - LatencyHistogram::Low(i), LatencyHistogram::Width(i) - 1) << v;
    ASSERT_LE(LatencyHistogram::Width(i), std::max<uint64_t>(1, v / 32)) << v;
    previous = i;
  }
}

TEST(LatencyHistogram, PercentilesOfMergedThreadsMatchTheSortedSamples) {
  std::mt19937_64 random(7);
  std::lognormal_distribution<double> latency(11.0, 0.8);  // around 60 us, a long tail
  LatencyHistogram a, b;
  std::vector<uint64_t> all;
  for (int i = 0; i < 20000; ++i) {
    const auto ns = static_cast<uint64_t>(latency(random));
    (i % 3 == 0 ? a : b).Record(ns);
    all.push_back(ns);
  }
  a.Merge(b);
  std::sort(all.begin(), all.end());
  ASSERT_EQ(a.count(), all.size());
  EXPECT_EQ(a.max(), all.back());
  for (double q : {0.5, 0.9, 0.99, 0.999, 1.0}) {
    const uint64_t exact = all[static_cast<size_t>(std::ceil(q * all.size())) - 1];
    const double got = static_cast<double>(a.Percentile(q));
    EXPECT_NEAR(got, static_cast<double>(exact), static_cast<double>(exact) * 0.032) << q;
  }
  EXPECT_EQ(LatencyHistogram().Percentile(0.5), 0u);
}

// The guard of one monitored thread, run by hand.
struct GuardedLoop {
  explicit GuardedLoop(const ResultsOptions &options) : monitor(options, 1) { monitor.Start(); }
  ~GuardedLoop() { monitor.Finish(); }
  // Passes until the guard says stop; answers the counter the body saw last.
  unsigned long Run(int max) {
    unsigned long counter = 0;
    while (!perf_tally::PassBoundary(monitor.Tally(0), &counter, max)) {
    }
    return counter;
  }
  RunMonitor monitor;
};

TEST(MonitoredLoop, IterationsAreCountedAndTimed) {
  ResultsOptions options;
  options.latency = true;
  GuardedLoop loop(options);
  EXPECT_EQ(loop.Run(5), 5u);
  EXPECT_EQ(loop.monitor.TotalPasses(), 5u);
  EXPECT_EQ(loop.monitor.MergedHistogram().count(), 5u);
}

TEST(MonitoredLoop, WarmUpPassesAreNeitherCountedNorTimedNorTakenFromMinusI) {
  ResultsOptions options;
  options.latency = true;
  options.warmup_s = 0.05;
  GuardedLoop loop(options);
  const unsigned long counter = loop.Run(4);
  EXPECT_GT(counter, 4u) << "the warm-up ran passes before the four measured ones";
  EXPECT_EQ(loop.monitor.TotalPasses(), 4u);
  EXPECT_EQ(loop.monitor.MergedHistogram().count(), 4u);
}

TEST(MonitoredLoop, ADurationEndsARunWithoutIterations) {
  ResultsOptions options;
  options.duration_s = 0.05;
  GuardedLoop loop(options);
  const unsigned long counter = loop.Run(-1);
  EXPECT_GT(counter, 0u);
  EXPECT_EQ(loop.monitor.TotalPasses(), counter);
  EXPECT_EQ(loop.monitor.MergedHistogram().count(), 0u) << "no histogram without --latency";
}

TEST(ResultsCommandLine, SecretsAreMasked) {
  const char *argv[] = {"qlutil", "-u", "master", "-w", "s3cret", "-p", "nop", "-pwd", "x"};
  EXPECT_EQ(MaskedCommandLine(9, argv), "qlutil -u master -w **** -p nop -pwd ****");
}

}  // namespace
