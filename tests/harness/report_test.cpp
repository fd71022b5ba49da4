// What the runners print and write once the threads have ended: both footer formats, the -out
// row and the time file.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "Output.h"
#include "fake_qlapi.h"
#include "harness_test_util.h"
#include "harness/harness.h"
#include "harness/report.h"

namespace {

class ReportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    FakeLibrary::Get().Reset();
    runner_detail::EnsureHsmVersionQuery();
    ti_ = THREAD_INFO{};
    ti_.Threads = 4;
    ti_.Iterations = 25;
    ti_.Metric = 1;
    ti_.UseTLS = 1;
    ti_.UseLoadBalance = 1;
    ti_.SessionCache = 1;
    SetupUserPwdConnection(&ti_, "10.0.0.7", "alice", "secret", 5555);
    times_.start_date = 0;
    times_.end_date = 2;
    times_.result_ms = 2000.0;
  }
  void TearDown() override {
    CloseFileOutput();
    SetFooterFormat(kFooterFull);
  }

  std::string Success(int footer_format) {
    SetFooterFormat(footer_format);
    ::testing::internal::CaptureStdout();
    runner_detail::ReportSuccess(&ti_, times_, GetConnectionFlags(&ti_));
    return ::testing::internal::GetCapturedStdout();
  }

  THREAD_INFO ti_{};
  runner_detail::RunTimes times_;
  TempCwd cwd_;
};

TEST_F(ReportTest, OperationFootersOfTheExampleRun) {
  // 4 threads of 25 operations in 2000 ms.
  EXPECT_EQ(Success(kFooterFull), "Total time: 2000.00 ms (2.00 seg) [50.00 op/sec]\n\r");
  EXPECT_EQ(Success(kFooterTimeOnly), "50\n\r");
  EXPECT_EQ(Success(7), "");  // other formats print no footer
}

TEST_F(ReportTest, ByteFooters) {
  ti_.Metric = 2;
  ti_.MessageSize = 1024;  // 102400 bytes in 2 s
  EXPECT_EQ(Success(kFooterFull),
            "Total time: 2000.00 ms (2.00 seg) Total message size: 100.00 KB [50.00 KB/sec]\n\r");
  EXPECT_EQ(Success(kFooterTimeOnly), "51200\n\r");
}

TEST_F(ReportTest, LargeRunsCountInSixtyFourBits) {
  // 8e12 bytes: a 32-bit product would wrap.
  ti_.Metric = 2;
  ti_.Threads = 8;
  ti_.Iterations = 1000000;
  ti_.MessageSize = 1000000;
  EXPECT_EQ(
      Success(kFooterFull),
      "Total time: 2000.00 ms (2.00 seg) Total message size: 7450.58 GB [3725.29 GB/sec]\n\r");
  ti_.Metric = 1;
  ti_.Iterations = 1000000000;  // 8e9 operations
  EXPECT_EQ(Success(kFooterFull), "Total time: 2000.00 ms (2.00 seg) [4000000000.00 op/sec]\n\r");
}

TEST_F(ReportTest, ZeroVolumeGivesAZeroRate) {
  ti_.Iterations = 0;
  EXPECT_EQ(Success(kFooterTimeOnly), "0\n\r");
  ti_.Iterations = 25;
  ti_.Metric = 2;
  ti_.MessageSize = 0;
  EXPECT_EQ(
      Success(kFooterFull),
      "Total time: 2000.00 ms (2.00 seg) Total message size: 0.00 bytes [0.00 bytes/sec]\n\r");
}

TEST_F(ReportTest, TimeFileHoldsTheRateWhenAsked) {
  Success(kFooterFull);
  EXPECT_FALSE(std::filesystem::exists(kTimeFileName));
  ti_.writeReturnFiles = true;
  Success(kFooterFull);
  EXPECT_EQ(ReadFile(kTimeFileName), "50");
  ti_.Metric = 2;
  ti_.MessageSize = 1024;
  Success(kFooterFull);
  EXPECT_EQ(ReadFile(kTimeFileName), "51200");
}

TEST_F(ReportTest, OutRowCarriesTheRunAndTheVersionTextsOfTheRunsHsm) {
  ASSERT_TRUE(OpenFileOutput("out.csv"));
  char test_case[] = "case1";
  ti_.pszTestCase = test_case;
  Success(kFooterFull);
  CloseFileOutput();
  EXPECT_EQ(
      ReadFile("out.csv"),
      "\"case1\";\"4\";\"25\";\"0\";\"2000.00\";\"50.00\";\"01/01/1970 00:00:00\";"
      "\"01/01/1970 00:00:02\";\"model\";\"fw\";\"serial\";\"hw\";1;\"name\";\"lib\";\"\";\n");
  // The version query went to the run's HSM: its address, port, user and flags.
  const auto opens = FakeLibrary::Get().Opens();
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].auth_type, 16u);
  EXPECT_EQ(opens[0].flags, 1u);
  AUTH_PWD_EX record{};
  ASSERT_EQ(opens[0].record.size(), sizeof record);
  memcpy(&record, opens[0].record.data(), sizeof record);
  EXPECT_STREQ(record.szAddr, "10.0.0.7");
  EXPECT_EQ(record.nPort, 5555);
  EXPECT_STREQ(record.szUserId, "alice");
  EXPECT_EQ(FakeLibrary::Get().Closes().size(), 1u);
}

TEST_F(ReportTest, FailedVersionQueryStillWritesTheRow) {
  FakeLibrary::Get().open_result = QL_ERR_AUTH_FAILED;
  ASSERT_TRUE(OpenFileOutput("out.csv"));
  Success(kFooterFull);
  CloseFileOutput();
  EXPECT_EQ(ReadFile("out.csv"),
            "\"\";\"4\";\"25\";\"0\";\"2000.00\";\"50.00\";\"01/01/1970 00:00:00\";"
            "\"01/01/1970 00:00:02\";\"\";\"\";\"\";\"\";1;\"\";\"\";\"\";\n");
}

TEST_F(ReportTest, FailureReportsTheCodeWithZeroFiguresAndAnEmptyTimeFile) {
  ti_.writeReturnFiles = true;
  ASSERT_TRUE(OpenFileOutput("out.csv"));
  ::testing::internal::CaptureStdout();
  runner_detail::ReportFailure(&ti_, 5001, times_, GetConnectionFlags(&ti_));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "\r\nError during the test!\r\n");
  CloseFileOutput();
  ASSERT_TRUE(std::filesystem::exists(kTimeFileName));
  EXPECT_EQ(ReadFile(kTimeFileName), "");
  EXPECT_TRUE(Contains(ReadFile("out.csv"), "\"4\";\"25\";\"5001\";\"0.00\";\"0.00\";"));
}

}  // namespace
