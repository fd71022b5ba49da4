// Switches a command never reads: warned about when its runner starts, refused by destructive
// commands; --port values that are not ports; input files and hex that cannot be used.
#include "option_usage.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "frontend_test_util.h"
#include "harness/harness.h"
#include "qlutil.h"

namespace {

using frontend_test::Args;
using frontend_test::CaptureStdout;

int g_refused = -1;

// Reads -a and -k, then asks what the runners ask before they start.
int ReadsAAndK(TEST_PARAMETER *p, int n) {
  GetParameterStr(p, n, "-a");
  GetParameterInt(p, n, "-k");
  g_refused = CheckUnreadOptions() ? 1 : 0;
  return kResultSuccess;
}

const TEST_FUNCTION kTable[] = {
    {'p', "reader", ReadsAAndK, "reader"},
    {'j', "wiper", ReadsAAndK, "wiper", kCommandDestructive},
};

struct DriverRun {
  int exit_code;
  std::string err;
};

DriverRun RunWith(const Args &args) {
  g_refused = -1;
  testing::internal::CaptureStderr();
  int rc = 0;
  CaptureStdout([&] { rc = RunQlutil(args.argc(), args.argv(), kTable, 2); });
  return {rc, testing::internal::GetCapturedStderr()};
}

class OptionUsageTest : public frontend_test::ScratchDirTest {};

TEST_F(OptionUsageTest, UnreadSwitchesAreWarnedOnceAndTheCommandRuns) {
  const DriverRun run = RunWith(Args{"-p", "reader", "-a", "h", "-zzz", "1", "-k", "2", "-zzz", "3",
                                     "-out", "o.txt", "-a", "again"});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(g_refused, 0);
  // -a given twice is read; -out is the driver's; -zzz gets one line however often it stands.
  EXPECT_EQ(run.err, "qlutil: -zzz is not an option of -p reader; ignored\n");
}

TEST_F(OptionUsageTest, EverySwitchReadMeansNoLine) {
  const DriverRun run = RunWith(Args{"-p", "reader", "-a", "h", "-k", "1", "--retfiles"});
  EXPECT_EQ(g_refused, 0);
  EXPECT_EQ(run.err, "");
}

TEST_F(OptionUsageTest, DestructiveCommandRefusesAnUnknownSwitch) {
  DriverRun run = RunWith(Args{"-j", "wiper", "-a", "h", "-dryrun"});
  EXPECT_EQ(g_refused, 1);
  EXPECT_EQ(run.err, "qlutil: -dryrun is not an option of -j wiper; ignored\n");
  run = RunWith(Args{"-j", "wiper", "-a", "h"});
  EXPECT_EQ(g_refused, 0);
  EXPECT_EQ(run.err, "");
}

TEST_F(OptionUsageTest, NothingIsTrackedOutsideARun) {
  // Getters on an array the driver did not register mark nothing and the check is silent.
  TEST_PARAMETER p[1] = {{"-x", "1"}};
  EXPECT_EQ(GetParameterInt(p, 1, "-x"), 1);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(CheckUnreadOptions());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// Loads the connection from the words and answers whether it can connect, its port and what was
// said on standard error.
struct LoadedPort {
  bool can_connect;
  int port;
  std::string err;
};

LoadedPort LoadConnection(const std::vector<std::string> &words, bool anonymous) {
  std::vector<const char *> argv{"qlutil"};
  for (const auto &w : words) argv.push_back(w.c_str());
  TEST_PARAMETER *params = nullptr;
  int count = 0;
  ParseParameters(static_cast<int>(argv.size()), argv.data(), &params, &count);
  THREAD_INFO ti{};
  testing::internal::CaptureStderr();
  if (anonymous) {
    LoadAnonymousConnectionParams(&ti, params, count);
  } else {
    LoadLibConnectionParams(&ti, params, count);
  }
  const std::string err = testing::internal::GetCapturedStderr();
  FreeParameters(params);
  return {CheckConnectionFlags(&ti, anonymous), ti.GetPort(), err};
}

TEST(PortOptionTest, OnlyPortsAndMinusOneAreAccepted) {
  struct Case {
    std::vector<std::string> port_words;
    int port;  // 0: refused
  };
  const Case cases[] = {{{}, 4433},           {{"--port", "-1"}, 4433},     {{"--port"}, 4433},
                        {{"--port", "1"}, 1}, {{"--port", "65535"}, 65535}, {{"--port", "-5"}, 0},
                        {{"--port", "0"}, 0}, {{"--port", "65536"}, 0},     {{"--port", "abc"}, 0}};
  for (const Case &c : cases) {
    for (bool anonymous : {false, true}) {
      std::vector<std::string> words = {"-a", "127.0.0.1", "-u", "u", "-w", "p"};
      words.insert(words.end(), c.port_words.begin(), c.port_words.end());
      const LoadedPort got = LoadConnection(words, anonymous);
      const std::string label = (c.port_words.empty() ? "none" : c.port_words.back()) +
                                (anonymous ? " anonymous" : " login");
      EXPECT_EQ(got.can_connect, c.port != 0) << label;
      if (c.port != 0) {
        EXPECT_EQ(got.port, c.port) << label;
        EXPECT_EQ(got.err, "") << label;
      } else {
        EXPECT_NE(got.err.find("--port " + c.port_words.back() + " is not a port number"),
                  std::string::npos)
            << label << ": " << got.err;
      }
    }
  }
}

class InputValueTest : public frontend_test::ScratchDirTest {};

TEST_F(InputValueTest, MissingOrEmptyFilesAndBadHexAreNamed) {
  std::ofstream("empty.bin").close();
  TEST_PARAMETER p[3] = {{"-in", "missing.bin"}, {"-e", "empty.bin"}, {"-x", "12G4"}};
  DBLOB blob{};
  testing::internal::CaptureStderr();
  GetParameterFileContent(p, 3, "-in", &blob);
  EXPECT_EQ(blob.pvData, nullptr);
  GetParameterFileContent(p, 3, "-e", &blob);
  EXPECT_TRUE(GetParameterHex(p, 3, "-x").empty());
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("-in, missing.bin, cannot be read"), std::string::npos) << err;
  EXPECT_NE(err.find("-e, empty.bin, is empty"), std::string::npos) << err;
  EXPECT_NE(err.find("-x is not valid hex"), std::string::npos) << err;
}

}  // namespace
