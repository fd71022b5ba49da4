// -p nop against a real qlhsmd: the statistics file and summary from real samples, the -out row
// with the HSM's version texts, and a failed login's footer, time file and exit code.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"
#include "hsm_fixture.h"
#include "qlapi.h"

namespace {

using RunResult = qltest::CommandResult;

class NopE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("ql_nop_e2e_" + std::to_string(getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // Runs qlutil in the test's directory with the connection to the shared daemon first.
  RunResult Run(const std::vector<std::string> &args, const std::string &password = "") {
    std::string words;
    for (const std::string &arg : args) words += " '" + arg + "'";
    const qltest::CommandResult r = qltest::RunCommand(qltest::QlutilAsMaster(
        QLUTIL_BIN, dir_.string(), qltest::HsmEnvironment::hsm(), words, password));
    return r;
  }
  std::string Read(const char *name) {
    std::ifstream in(dir_ / name, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }
  bool Exists(const char *name) { return std::filesystem::exists(dir_ / name); }

  std::filesystem::path dir_;
};

std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST_F(NopE2E, StatisticsFileAndSummaryFromRealSamples) {
  // New connections (-sc 0) keep the run long enough for many 10 ms samples.
  RunResult run = Run({"-p", "nop", "-t", "2", "-i", "150", "-sc", "0", "--stats_file", "stats.csv",
                       "--stats_print", "--stats_interval", "10"});
  ASSERT_EQ(run.exit_code, 0) << run.out;
  const std::vector<std::string> lines = Lines(Read("stats.csv"));
  ASSERT_GE(lines.size(), 2u) << run.out;
  EXPECT_EQ(lines[0], "session_count,cpu_usage,memory_usage");
  const std::regex sample("[0-9.e+]+,[0-9.e+]+,[0-9.e+]+");
  double memory = 0;
  for (size_t i = 1; i < lines.size(); ++i) {
    EXPECT_TRUE(std::regex_match(lines[i], sample)) << lines[i];
    memory += std::stod(lines[i].substr(lines[i].rfind(',') + 1));
  }
  EXPECT_GT(memory, 0) << "the HSM reports its memory in use";
  const std::string samples = "\nSamples: " + std::to_string(lines.size() - 1) + "\n";
  EXPECT_NE(run.out.find(samples + "Statistics sampling interval: 10ms\nCPU avg: "),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find(" op/sec]\n\r"), std::string::npos) << run.out;
}

TEST_F(NopE2E, OutRowCarriesTheHsmsVersionTexts) {
  qltest::HsmProcess &hsm = qltest::HsmEnvironment::hsm();
  // The texts as the library reports them for this HSM.
  AUTH_PWD_EX auth{};
  snprintf(auth.szAddr, sizeof auth.szAddr, "%s", hsm.address().c_str());
  auth.nPort = hsm.port();
  snprintf(auth.szUserId, sizeof auth.szUserId, "master");
  snprintf(auth.szPassword, sizeof auth.szPassword, "%s", hsm.master_password().c_str());
  ASSERT_EQ(QInitialize(0), 0);
  HSESSIONCTX session = nullptr;
  ASSERT_EQ(QOpenSession(&session, QL_AUTH_USER_PWD, &auth, sizeof auth, 0), 0);
  QL_HSM_INFO info{};
  ASSERT_EQ(QGetHsmInfo(session, &info), 0);
  QCloseSession(&session, QL_CLOSE_PHYSICAL);
  QFinalize();
  ASSERT_NE(info.szModel[0], '\0');

  RunResult run = Run({"-p", "nop", "-t", "1", "-i", "3", "-out", "out.csv", "-tc", "tc7"});
  ASSERT_EQ(run.exit_code, 0) << run.out;
  const std::string expected_tail = std::string("\"") + info.szModel + "\";\"" +
                                    info.szFirmwareVersion + "\";\"" + info.szSerialNumber +
                                    "\";\"" + info.szHardwareVersion + "\";1;\"" + info.szHsmName +
                                    "\";\"" + info.szLibraryVersion + "\";\"\";\n";
  const std::string row = Read("out.csv");
  EXPECT_EQ(row.rfind("\"tc7\";\"1\";\"3\";\"0\";", 0), 0u) << row;
  ASSERT_GE(row.size(), expected_tail.size());
  EXPECT_EQ(row.substr(row.size() - expected_tail.size()), expected_tail) << row;
}

TEST_F(NopE2E, WrongPasswordGivesTheErrorFooterAnEmptyTimeFileAndTheLibraryCode) {
  RunResult run = Run({"-p", "nop", "-t", "2", "-i", "5", "--retfiles"}, "wrong-password");
  EXPECT_EQ(run.exit_code, QL_ERR_AUTH_FAILED % 256) << run.out;
  EXPECT_NE(run.out.find("[PerfNopThread] Fail in ConnectEx. rc = " +
                         std::to_string(QL_ERR_AUTH_FAILED) + "\r\n"),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("\r\nError during the test!\r\n"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("op/sec"), std::string::npos) << run.out;
  ASSERT_TRUE(Exists("qlutil_time"));
  EXPECT_EQ(Read("qlutil_time"), "");
  EXPECT_EQ(Read("qlutil_result"), std::to_string(QL_ERR_AUTH_FAILED));
}

TEST_F(NopE2E, ShortFooterAndTimeFile) {
  RunResult run = Run({"-p", "nop", "-t", "2", "-i", "10", "-print", "time", "--retfiles"});
  ASSERT_EQ(run.exit_code, 0) << run.out;
  EXPECT_TRUE(std::regex_search(run.out, std::regex("(^|\n)[0-9]+\n\r$"))) << run.out;
  EXPECT_TRUE(std::regex_match(Read("qlutil_time"), std::regex("[0-9]+")));
  EXPECT_EQ(Read("qlutil_result"), "0");
}

}  // namespace

int main(int argc, char **argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new qltest::HsmEnvironment);
  return RUN_ALL_TESTS();
}
