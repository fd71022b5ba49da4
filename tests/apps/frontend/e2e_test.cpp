// The built qlutil binary, run in a scratch directory: output bytes and exit codes.

#ifndef _WIN32  // runs the binary through a POSIX shell

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "frontend_test_util.h"

using frontend_test::ReadFile;

namespace {

struct RunResult {
  std::string out;
  int exitCode = -999;
};

std::string Quote(const std::string &s) {
  std::string q = "'";
  for (char c : s) {
    if (c == '\'') {
      q += "'\\''";
    } else {
      q += c;
    }
  }
  return q + "'";
}

class QlutilBinaryTest : public frontend_test::ScratchDirTest {
 protected:
  RunResult RunQlutilBinary(const std::vector<std::string> &args) {
    std::string cmd = Quote(QLUTIL_BIN);
    for (const auto &a : args) cmd += " " + Quote(a);
    cmd += " 2>/dev/null";
    RunResult r;
    FILE *pipe = popen(cmd.c_str(), "r");
    if (pipe == nullptr) {
      ADD_FAILURE() << "popen failed";
      return r;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) r.out.append(buf, n);
    const int status = pclose(pipe);
    r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1000;
    return r;
  }
};

TEST_F(QlutilBinaryTest, WrongOrUnknownCommandsPrintBannerAndHelp) {
  const RunResult help = RunQlutilBinary({});
  EXPECT_EQ(help.exitCode, 255);
  EXPECT_EQ(help.out.rfind(frontend_test::Banner(), 0), 0u) << help.out;
  for (const std::vector<std::string> &args : {std::vector<std::string>{"foo", "bar"},
                                               {"-j"},
                                               {"-j", "no-such"},
                                               {"-P", "nop"},
                                               {"-pp", "nop"}}) {
    const RunResult r = RunQlutilBinary(args);
    EXPECT_EQ(r.exitCode, 255);
    EXPECT_EQ(r.out, help.out);
  }
  EXPECT_FALSE(std::filesystem::exists("qlutil_result"));
}

TEST_F(QlutilBinaryTest, RetfilesLeavesTheExitCode) {
  RunResult r = RunQlutilBinary({"-j", "no-such", "--retfiles"});
  EXPECT_EQ(r.exitCode, 255);
  EXPECT_EQ(ReadFile("qlutil_result"), "-1");
}

TEST_F(QlutilBinaryTest, WindowsOnlyRowsSaySo) {
  const RunResult r = RunQlutilBinary({"-j", "cert-info", "--retfiles"});
  EXPECT_EQ(r.out, "Available on Windows only: -j cert-info\r\n");
  EXPECT_EQ(r.exitCode, 50);
  EXPECT_EQ(ReadFile("qlutil_result"), "50");
}

TEST_F(QlutilBinaryTest, FirstTypeSwitchWins) {
  // -f csp-hash is answered (Windows only here), not -p nop.
  const RunResult r = RunQlutilBinary({"-x", "1", "-f", "csp-hash", "-p", "nop"});
  EXPECT_EQ(r.out, "Available on Windows only: -f csp-hash\r\n");
  EXPECT_EQ(r.exitCode, 50);
}

TEST_F(QlutilBinaryTest, KnownCommandWithoutOptionsDoesNotPrintGlobalHelp) {
  // Whatever -p nop answers without options (its usage page, or a pending line), it is not the
  // global help screen, and it does not succeed.
  const RunResult r = RunQlutilBinary({"-p", "nop", "--retfiles"});
  EXPECT_NE(r.exitCode, 0);
  EXPECT_EQ(r.out.find("Command invocation:"), std::string::npos);
  EXPECT_EQ(ReadFile("qlutil_result"), std::to_string(r.exitCode == 255 ? -1 : r.exitCode));
}

}  // namespace

#endif  // _WIN32
