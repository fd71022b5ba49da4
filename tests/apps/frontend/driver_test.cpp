// The driver run with tables of fake handlers: exit codes, help, result and output files, and
// the exception guard.

#include <gtest/gtest.h>

#ifndef _WIN32
#include <fcntl.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "Output.h"
#include "frontend_test_util.h"
#include "qlutil.h"

using frontend_test::Args;
using frontend_test::CaptureStdout;
using frontend_test::ReadFile;

namespace {

struct Seen {
  int calls = 0;
  int nParameters = -1;
  std::string firstSwitch;
  bool outputOpen = false;
  int footer = 0;
};
Seen g_seen;

int Record(TEST_PARAMETER *p, int n) {
  ++g_seen.calls;
  g_seen.nParameters = n;
  g_seen.firstSwitch = n > 0 ? p[0].szParameter : "";
  g_seen.outputOpen = IsFileOutputOpen();
  g_seen.footer = GetFooterFormat();
  ScreenOutput("handler ran\r\n");
  return kResultSuccess;
}
int AskHelp(TEST_PARAMETER *, int) {
  ScreenOutput("own text\r\n");
  return kResultShowHelp;
}
int Usage(TEST_PARAMETER *, int) {
  ScreenOutput("usage page\r\n");
  return kResultUsage;
}
int Fails(TEST_PARAMETER *, int) {
  return 5004;
}
int Throws(TEST_PARAMETER *, int) {
  throw std::runtime_error("boom");
}
int Segfaults(TEST_PARAMETER *, int) {
  raise(SIGSEGV);
  return 1;
}
int AbortsOnThread(TEST_PARAMETER *, int) {
  std::thread t([] { raise(SIGFPE); });
  t.join();
  return 1;
}
int WritesFileLine(TEST_PARAMETER *, int) {
  FileOutput("tc7", 1, 0, 0, 100000, 1.5, 2.25, 2, 3, "127.0.0.1", "u", "p", 0, 4433, "%d ops", 42);
  return kResultSuccess;
}

const TEST_FUNCTION kFakeTable[] = {
    {'p', "ok", Record, "records its call"},
    {'p', "help", AskHelp, "asks for help"},
    {'p', "usage", Usage, "prints its usage"},
    {'f', "fail", Fails, "fails"},
    {'f', "throw", Throws, "throws"},
    {'s', "segv", Segfaults, "faults"},
    {'s', "thread-fault", AbortsOnThread, "faults on a thread"},
    {'j', "fileline", WritesFileLine, "writes a result line"},
};
constexpr int kFakeRows = static_cast<int>(std::size(kFakeTable));

std::string ExpectedHelp() {
  std::string s = frontend_test::Banner() + frontend_test::HelpIntro();
  s += "\r\n\r\nPerformance tests (-p command):\r\n"
       "ok                  help                usage               "
       "\r\n\r\nFunctional tests (-f command):\r\n"
       "fail                throw               "
       "\r\n\r\nStress tests (-s command):\r\n"
       "segv                thread-fault        "
       "\r\n\r\nUtility functions (-j command:):\r\n"
       "fileline            "
       "\r\n\r\n";
  return s;
}

class DriverTest : public frontend_test::ScratchDirTest {
 protected:
  int Run(const Args &args, std::string *out) {
    int rc = 0;
    *out = CaptureStdout([&] { rc = RunQlutil(args.argc(), args.argv(), kFakeTable, kFakeRows); });
    return rc;
  }
  bool ResultFileExists() const { return std::filesystem::exists(kResultFileName); }
  std::string ResultFile() const { return ReadFile(kResultFileName); }
};

TEST_F(DriverTest, SuccessMapsToZeroAndPrintsNoHelp) {
  g_seen = {};
  std::string out;
  EXPECT_EQ(Run(Args{"-t", "2", "-p", "ok", "--retfiles"}, &out), 0);
  EXPECT_EQ(out, "handler ran\r\n");
  EXPECT_EQ(g_seen.calls, 1);
  EXPECT_EQ(g_seen.nParameters, 3);
  EXPECT_EQ(g_seen.firstSwitch, "-t");
  EXPECT_FALSE(g_seen.outputOpen);
  EXPECT_EQ(g_seen.footer, kFooterFull);
  EXPECT_EQ(ResultFile(), "0");
}

TEST_F(DriverTest, HelpRequestedByHandler) {
  std::string out;
  EXPECT_EQ(Run(Args{"-p", "help", "--retfiles", "x"}, &out), 100001);
  EXPECT_EQ(out, "own text\r\n" + ExpectedHelp());
  EXPECT_EQ(ResultFile(), "100001");
}

TEST_F(DriverTest, UsageAndFailureCodesPassThrough) {
  std::string out;
  EXPECT_EQ(Run(Args{"-p", "usage", "--retfiles"}, &out), -1);
  EXPECT_EQ(out, "usage page\r\n");
  EXPECT_EQ(ResultFile(), "-1");
  EXPECT_EQ(Run(Args{"-f", "fail", "--retfiles"}, &out), 5004);
  EXPECT_EQ(out, "");
  EXPECT_EQ(ResultFile(), "5004");
}

TEST_F(DriverTest, NothingToRunPrintsBannerAndHelp) {
  const Args cases[] = {
      Args{},           Args{"foo", "bar"}, Args{"-j"},        Args{"-j", "no-such"},
      Args{"-P", "ok"}, Args{"-pp", "ok"},  Args{"--retfiles"}};
  for (const Args &args : cases) {
    std::string out;
    EXPECT_EQ(Run(args, &out), -1);
    EXPECT_EQ(out, ExpectedHelp());
  }
  EXPECT_EQ(ResultFile(), "-1");  // the last case asked for the result file
}

TEST_F(DriverTest, NoResultFileWithoutRetfiles) {
  std::string out;
  Run(Args{"-p", "ok"}, &out);
  Run(Args{"-p", "no-such"}, &out);
  EXPECT_FALSE(ResultFileExists());
}

TEST_F(DriverTest, FirstTypeSwitchWins) {
  g_seen = {};
  std::string out;
  EXPECT_EQ(Run(Args{"-x", "1", "-p", "ok", "-f", "fail"}, &out), 0);
  EXPECT_EQ(g_seen.calls, 1);
  EXPECT_EQ(Run(Args{"-f", "fail", "-p", "ok"}, &out), 5004);
}

TEST_F(DriverTest, PrintOptionSelectsFooter) {
  const std::pair<Args, int> cases[] = {
      {Args{"-p", "ok", "-print", "time"}, kFooterTimeOnly},
      {Args{"-p", "ok", "-print", "timestamp"}, kFooterTimeOnly},
      {Args{"-p", "ok", "-print", "TIME"}, kFooterFull},
      {Args{"-p", "ok", "-print", "tim"}, kFooterFull},
      {Args{"-p", "ok", "-print"}, kFooterFull},
      {Args{"-p", "ok", "-print", "NULL"}, kFooterFull},
      {Args{"-p", "ok"}, kFooterFull},
  };
  for (const auto &[args, footer] : cases) {
    g_seen = {};
    std::string out;
    Run(args, &out);
    EXPECT_EQ(g_seen.footer, footer);
  }
}

TEST_F(DriverTest, OutputFileIsOpenedForAppendingAndClosed) {
  { std::ofstream("results.csv") << "earlier line\n"; }
  g_seen = {};
  std::string out;
  EXPECT_EQ(Run(Args{"-p", "ok", "-out", "results.csv"}, &out), 0);
  EXPECT_TRUE(g_seen.outputOpen);
  EXPECT_FALSE(IsFileOutputOpen());
  EXPECT_EQ(Run(Args{"-j", "fileline", "-out", "results.csv"}, &out), 0);
  EXPECT_EQ(Run(Args{"-j", "fileline", "-out", "results.csv"}, &out), 0);
  const std::string text = ReadFile("results.csv");
  EXPECT_EQ(text.rfind("earlier line\n\"tc7\";\"2\";\"3\";\"100000\";\"1.50\";\"2.25\";", 0), 0u);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
  EXPECT_NE(text.find(";1;\"\";\"\";\"42 ops\";\n"), std::string::npos);

  // "NULL" is no file at all; an unopenable path leaves file output off silently.
  g_seen = {};
  EXPECT_EQ(Run(Args{"-p", "ok", "-out", "NULL"}, &out), 0);
  EXPECT_FALSE(g_seen.outputOpen);
  EXPECT_FALSE(std::filesystem::exists("NULL"));
  EXPECT_EQ(Run(Args{"-p", "ok", "-out", "no/such/dir/x.csv"}, &out), 0);
  EXPECT_EQ(out, "handler ran\r\n");
  EXPECT_FALSE(g_seen.outputOpen);
}

TEST_F(DriverTest, CppExceptionIsCaught) {
  std::string out;
  EXPECT_EQ(Run(Args{"-f", "throw", "--retfiles"}, &out), 0);  // nothing assigned the result
  EXPECT_EQ(out, "*** Exception ***\r\n");
  EXPECT_FALSE(ResultFileExists());
}

#ifndef _WIN32
// A fault ends the process through the signal guard: the exception line, exit code 0 (the
// handler never returned), no result file. The child runs in a directory of its own and writes
// its stdout to a file there, which the parent reads. (The death-test child re-runs the test
// body, so the directory is named by the test alone.)
void RunFaulting(const std::filesystem::path &dir, const char *kind, const char *name) {
  std::filesystem::current_path(dir);
  const int fd = open("child.out", O_WRONLY | O_CREAT | O_TRUNC, 0600);
  dup2(fd, STDOUT_FILENO);
  close(fd);
  const Args args{kind, name, "--retfiles"};
  RunQlutil(args.argc(), args.argv(), kFakeTable, kFakeRows);
}

void ExpectFaultCaught(const char *kind, const char *name) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto *info = testing::UnitTest::GetInstance()->current_test_info();
  const std::filesystem::path dir = std::filesystem::temp_directory_path() /
                                    (std::string("qlutil_frontend_death_") + info->name());
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  EXPECT_EXIT(RunFaulting(dir, kind, name), testing::ExitedWithCode(0), "");
  EXPECT_EQ(ReadFile(dir / "child.out"), "*** Exception ***\r\n");
  EXPECT_FALSE(std::filesystem::exists(dir / kResultFileName));
  std::filesystem::remove_all(dir);
}

TEST(DriverDeathTest, FaultInHandler) {
  ExpectFaultCaught("-s", "segv");
}

TEST(DriverDeathTest, FaultOnAnotherThread) {
  ExpectFaultCaught("-s", "thread-fault");
}

TEST_F(DriverTest, GuardRestoresPreviousSignalHandlers) {
  struct sigaction before {};
  sigaction(SIGSEGV, nullptr, &before);
  std::string out;
  Run(Args{"-p", "ok"}, &out);
  struct sigaction after {};
  sigaction(SIGSEGV, nullptr, &after);
  EXPECT_EQ(before.sa_handler, after.sa_handler);
}
#endif  // _WIN32

}  // namespace
