// What qlutil prints, against captures of it: every command's help page and the help screen byte
// for byte, and short runs of the commands that work against a real qlhsmd after masking what
// differs from run to run (rates, times, generated names and secrets).
//
// The runs are listed in data/runs_<group>.txt, one command line a line (the connection options to
// the test's own daemon come first; {DATA} is the folder of the functional tests' data files).
// The commands of a group run in order in one temporary folder, so a later one may read what an
// earlier one wrote. QL_GOLDEN_UPDATE=1 writes data/*.golden again from the binary at hand.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "hsm_fixture.h"
#include "library_session.h"
#include "qlutil.h"

namespace {

namespace fs = std::filesystem;

struct Capture {
  std::string args;  // the command line after the connection options, words joined by spaces
  int exit_code = -1;
  std::string out;
};

bool Updating() {
  const char *value = std::getenv("QL_GOLDEN_UPDATE");
  return value != nullptr && std::string(value) == "1";
}

std::vector<std::string> Words(const std::string &line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

std::string Join(const std::vector<std::string> &words) {
  std::string line;
  for (const std::string &word : words) line += (line.empty() ? "" : " ") + word;
  return line;
}

// Runs qlutil in `cwd` with standard input empty; standard output and the exit code (-1 when it
// had to be killed after two minutes).
Capture RunQlutil(const std::vector<std::string> &args, const fs::path &cwd) {
  Capture capture;
  capture.args = Join(args);
  int out[2];
  if (pipe(out) != 0) return capture;
  const pid_t pid = fork();
  if (pid == 0) {
    if (chdir(cwd.c_str()) != 0) _exit(127);
    const int null_fd = open("/dev/null", O_RDWR);
    dup2(null_fd, 0);
    dup2(null_fd, 2);
    dup2(out[1], 1);
    close(out[0]);
    std::vector<char *> argv;
    argv.push_back(const_cast<char *>(QLUTIL_BIN));
    for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    execv(QLUTIL_BIN, argv.data());
    _exit(127);
  }
  close(out[1]);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
  bool killed = false;
  for (;;) {
    pollfd fd{out[0], POLLIN, 0};
    if (poll(&fd, 1, 200) > 0) {
      char buffer[4096];
      const ssize_t n = read(out[0], buffer, sizeof buffer);
      if (n <= 0) break;
      capture.out.append(buffer, static_cast<size_t>(n));
    }
    if (!killed && std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      killed = true;
    }
  }
  close(out[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  capture.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return capture;
}

// What differs from run to run: decimal figures (rates and their unit, times), long hex and base64
// (generated names, keys, tokens, serials), dates and clock times, and a line holding a bare count
// (the short footer of -print time).
std::string Mask(std::string text) {
  static const std::regex kDateTime(
      "[0-9]{4}-[0-9]{2}-[0-9]{2}[ T][0-9]{2}:[0-9]{2}:[0-9]{2}|[0-9]{2}:[0-9]{2}:[0-9]{2}");
  static const std::regex kDecimal("[0-9]+\\.[0-9]+");
  static const std::regex kRateUnit("#\\.# [KMG]?B/sec");
  static const std::regex kLongHex("\\b[0-9A-Fa-f]{16,}\\b");
  static const std::regex kBase64("[A-Za-z0-9+/]{20,}={1,2}");
  static const std::regex kBareCount("(^|\n)[0-9]+(\r?\n)");
  // The HSM's own figures and identity (-j info): its serial, host, build, load, network and
  // libraries.
  static const std::regex kHsmFigures(
      "((?:Serial number|Hardware|CPU|Memory|Log size|Host|Addresses|OpenSSL|SQLite|Providers) : )"
      "[^\r\n]*|( Name : )[^\r\n]*(\r\n +Library)");
  text = std::regex_replace(text, kHsmFigures, "$1$2<varies>$3");
  text = std::regex_replace(text, kDateTime, "<time>");
  text = std::regex_replace(text, kDecimal, "#.#");
  text = std::regex_replace(text, kRateUnit, "#.# <rate>");
  text = std::regex_replace(text, kBase64, "<base64>");
  text = std::regex_replace(text, kLongHex, "<hex>");
  return std::regex_replace(text, kBareCount, "$1#$2");
}

// The capture file: per command a line ">>> <args>", a line "exit <code> bytes <n>", the n bytes
// of standard output as printed, and a newline.
void WriteCaptures(const fs::path &path, const std::vector<Capture> &captures) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  for (const Capture &c : captures) {
    file << ">>> " << c.args << "\nexit " << c.exit_code << " bytes " << c.out.size() << "\n"
         << c.out << "\n";
  }
}

std::vector<Capture> ReadCaptures(const fs::path &path) {
  std::ifstream file(path, std::ios::binary);
  std::vector<Capture> captures;
  std::string line;
  while (std::getline(file, line)) {
    if (line.rfind(">>> ", 0) != 0) break;
    Capture c;
    c.args = line.substr(4);
    size_t bytes = 0;
    std::string exit_word, bytes_word;
    if (!std::getline(file, line)) break;
    std::istringstream header(line);
    header >> exit_word >> c.exit_code >> bytes_word >> bytes;
    c.out.resize(bytes);
    file.read(c.out.data(), static_cast<std::streamsize>(bytes));
    file.get();  // the newline after the bytes
    captures.push_back(std::move(c));
  }
  return captures;
}

void Compare(const fs::path &golden, const std::vector<Capture> &actual) {
  if (Updating()) {
    WriteCaptures(golden, actual);
    GTEST_SKIP() << "captures written to " << golden;
  }
  const std::vector<Capture> expected = ReadCaptures(golden);
  ASSERT_FALSE(expected.empty()) << golden << " is missing or empty";
  ASSERT_EQ(expected.size(), actual.size()) << "the command list no longer matches " << golden;
  for (size_t i = 0; i < expected.size(); ++i) {
    ASSERT_EQ(expected[i].args, actual[i].args) << golden;
    EXPECT_EQ(expected[i].exit_code, actual[i].exit_code) << actual[i].args << "\n"
                                                          << actual[i].out;
    EXPECT_EQ(expected[i].out, actual[i].out) << actual[i].args;
  }
}

class TempDir {
 public:
  explicit TempDir(const std::string &tag) {
    path_ = fs::temp_directory_path() / ("ql_golden_" + tag + "_" + std::to_string(getpid()));
    fs::remove_all(path_);
    fs::create_directories(path_);
  }
  ~TempDir() { fs::remove_all(path_); }
  const fs::path &path() const { return path_; }

 private:
  fs::path path_;
};

TEST(Golden, HelpScreenAndEveryCommandsHelpPage) {
  TempDir dir("help");
  std::vector<Capture> captures;
  captures.push_back(RunQlutil({}, dir.path()));
  // Run with no options, a command prints its page (or says it is not available here).
  for (int i = 0; i < kCommandTableRows; ++i) {
    const TEST_FUNCTION &row = kCommandTable[i];
    captures.push_back(
        RunQlutil({std::string("-") + row.FunctionType, row.pszFunctionName}, dir.path()));
  }
  Compare(fs::path(GOLDEN_DIR) / "help.golden", captures);
}

// Runs the command lines of data/runs_<group>.txt against a daemon of its own. With
// `leaves_no_objects`, every run must leave the HSM holding exactly the objects it held before.
void RunGroup(const std::string &group, bool leaves_no_objects = false) {
  qltest::HsmProcess hsm;
  TempDir dir(group);
  const std::vector<std::string> conn = {"-a", hsm.address(), "--port", std::to_string(hsm.port()),
                                         "-u", "master",      "-w",     hsm.master_password()};
  std::ifstream list(fs::path(GOLDEN_DIR) / ("runs_" + group + ".txt"));
  ASSERT_TRUE(list.good()) << "runs_" << group << ".txt";
  std::vector<Capture> captures;
  for (std::string line; std::getline(list, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> args = Words(line);
    const std::string shown = Join(args);
    for (std::string &arg : args) {
      const size_t at = arg.find("{DATA}");
      if (at != std::string::npos) arg.replace(at, 6, FUNC_TEST_DATA);
    }
    args.insert(args.begin() + 2, conn.begin(), conn.end());
    const std::vector<std::string> before =
        leaves_no_objects ? qltest::ListObjectNames(hsm) : std::vector<std::string>{};
    Capture capture = RunQlutil(args, dir.path());
    if (leaves_no_objects) {
      EXPECT_EQ(qltest::ListObjectNames(hsm), before) << "objects left behind by " << shown;
    }
    capture.args = shown;
    capture.out = Mask(capture.out);
    captures.push_back(std::move(capture));
  }
  Compare(fs::path(GOLDEN_DIR) / ("runs_" + group + ".golden"), captures);
}

TEST(Golden, PerformanceRuns) {
  RunGroup("perf", true);
}
TEST(Golden, FunctionalAndStressRuns) {
  RunGroup("func");
}
TEST(Golden, JobRuns) {
  RunGroup("jobs");
}

}  // namespace
