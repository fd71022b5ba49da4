// The HSM statistics report: the truncating fold, the population deviation, the summary and the
// CSV file.
#include "statistics.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>

namespace {

std::string ReadAll(const std::filesystem::path &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

class TempDir {
 public:
  TempDir() {
    path_ = std::filesystem::temp_directory_path() /
            ("ql_stats_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "_" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(path_);
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  std::filesystem::path operator/(const char *name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

TEST(StatisticsSums, FoldTruncatesTheRunningTotalAtEveryStep) {
  struct Case {
    std::vector<double> data;
    double sum;
  } cases[] = {
      {{}, 0.0},
      {{2, 3, 4}, 9.0},
      {{0.5, 0.5}, 0.0},       // each half is cut away before the next is added
      {{1.7, 1.7, 1.7}, 3.0},  // 1, 2, 3
      {{-1.5, 0.7}, 0.0},      // toward zero: -1, then -0.3 -> 0
      {{4294967295.0, 4294967295.0}, 8589934590.0},  // no 32-bit wrap
  };
  for (const Case &c : cases) EXPECT_EQ(GetHSMStatisticsSums(c.data), c.sum);
}

TEST(StatisticsSums, OutOfRangeValuesSaturateInsteadOfOverflowing) {
  const double max64 = static_cast<double>(std::numeric_limits<int64_t>::max());
  EXPECT_EQ(GetHSMStatisticsSums({1e30}), max64);
  EXPECT_EQ(GetHSMStatisticsSums({1e30, 1e30}), max64);
  EXPECT_EQ(GetHSMStatisticsSums({-1e30}),
            static_cast<double>(std::numeric_limits<int64_t>::min()));
  EXPECT_EQ(GetHSMStatisticsSums({std::nan(""), 5}), 5.0);
}

TEST(StatisticsDeviation, PopulationFormula) {
  EXPECT_NEAR(CalcStdDeviation({2, 3, 4}, 3.0), std::sqrt(2.0 / 3.0), 1e-12);  // ~0.82, not 1
  EXPECT_EQ(CalcStdDeviation({5, 5, 5}, 5.0), 0.0);
  EXPECT_EQ(CalcStdDeviation({7}, 3.0), 4.0);  // around the mean given, not the series' own
  EXPECT_EQ(CalcStdDeviation({}, 1.0), 0.0);
}

TEST(StatisticsSummary, PrintsMeansAndDeviationsInOrder) {
  HSMStatistics stats;
  stats.session_count = {1, 2, 3};
  stats.cpu = {10, 20, 30};
  stats.mem = {100, 100, 100};
  ::testing::internal::CaptureStdout();
  PrintStatistics(stats, 1000);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "\nSamples: 3\n"
            "Statistics sampling interval: 1000ms\n"
            "CPU avg: 20.00 stddev: 8.16\n"
            "Mem avg: 100.00 stddev: 0.00\n"
            "Session avg: 2.00 stddev: 0.82\n\n");
}

TEST(StatisticsSummary, MeanComesFromTheTruncatingFold) {
  HSMStatistics stats;
  stats.session_count = {0, 0};
  stats.cpu = {0.5, 0.5};
  stats.mem = {0, 0};
  ::testing::internal::CaptureStdout();
  PrintStatistics(stats, 500);
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("CPU avg: 0.00 stddev: 0.50\n"), std::string::npos) << out;
}

TEST(StatisticsSummary, NoSampleNoOutput) {
  ::testing::internal::CaptureStdout();
  PrintStatistics(HSMStatistics{}, 500);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST(StatisticsCsv, HeaderThenOneLinePerSampleInDefaultFormat) {
  TempDir dir;
  HSMStatistics stats;
  stats.session_count = {12, 3};
  stats.cpu = {3.5, 0};
  stats.mem = {1000000, 123456};
  DumpStatistics2CSV(stats, (dir / "s.csv").c_str());
  EXPECT_EQ(ReadAll(dir / "s.csv"),
            "session_count,cpu_usage,memory_usage\n"
            "12,3.5,1e+06\n"
            "3,0,123456\n");
}

TEST(StatisticsCsv, NoSampleLeavesAnEmptyFile) {
  TempDir dir;
  { std::ofstream(dir / "s.csv") << "old content"; }
  DumpStatistics2CSV(HSMStatistics{}, (dir / "s.csv").c_str());
  ASSERT_TRUE(std::filesystem::exists(dir / "s.csv"));
  EXPECT_EQ(ReadAll(dir / "s.csv"), "");
}

TEST(StatisticsCsv, UnopenableFileIsSkippedSilently) {
  TempDir dir;
  HSMStatistics stats;
  stats.session_count = {1};
  stats.cpu = {1};
  stats.mem = {1};
  ::testing::internal::CaptureStdout();
  DumpStatistics2CSV(stats, (dir / "missing" / "s.csv").c_str());
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_FALSE(std::filesystem::exists(dir / "missing"));
}

TEST(StatisticsCsv, FailedWriteIsReported) {
  if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
  HSMStatistics stats;
  stats.session_count = {1};
  stats.cpu = {1};
  stats.mem = {1};
  ::testing::internal::CaptureStdout();
  DumpStatistics2CSV(stats, "/dev/full");
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("Failed to write statistics file: /dev/full error: ", 0), 0u) << out;
  EXPECT_NE(out.back(), '\n');
}

}  // namespace
