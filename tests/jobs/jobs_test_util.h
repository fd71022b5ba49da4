#pragma once
// End-to-end support for the job tests: a real qlhsmd (the shared fixture) for the test
// binary's lifetime, the real qlutil binary run
// against it, and a counting listener that proves a command reached no HSM at all.
//
// CTest runs every test case in a process of its own, so each case gets a fresh HSM.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "hsm_fixture.h"

namespace jobs_test {

constexpr const char *kMasterPassword = "24681357";

inline std::string Quote(const std::string &s) {
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

struct RunResult {
  std::string out;
  int exitCode = -999;
};

// Runs a command line through the shell; its standard output and exit status.
inline RunResult RunCommand(const std::string &cmd) {
  const qltest::CommandResult c = qltest::RunCommand(cmd + " 2>/dev/null");
  return {c.out, c.exit_code};
}

// The exit status a handler result becomes (the process keeps its low 8 bits).
inline int ExitOf(int result) {
  return result == 100000 ? 0 : (result & 0xFF);
}

inline std::string ReadText(const std::filesystem::path &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

inline void WriteText(const std::filesystem::path &path, const std::string &text) {
  std::ofstream(path, std::ios::binary) << text;
}

// One qlhsmd for this process (the shared fixture), made on first use.
class Hsm {
 public:
  static Hsm &Get() {
    static Hsm hsm;
    return hsm;
  }
  int port() const { return process_ ? process_->port() : 0; }
  const std::filesystem::path &dir() const { return dir_; }
  bool ok() const { return process_ != nullptr; }
  ~Hsm() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

 private:
  Hsm() {
    char tmpl[] = "/tmp/qljobs_XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return;
    dir_ = tmpl;
    qltest::HsmOptions options;
    options.master_password = kMasterPassword;
    // A low password-hash cost keeps the many logins of a test quick.
    options.kdf_cost = 16;
    try {
      process_ = std::make_unique<qltest::HsmProcess>(options);
    } catch (const std::exception &e) {
      ADD_FAILURE() << e.what();
    }
  }

  std::filesystem::path dir_;
  std::unique_ptr<qltest::HsmProcess> process_;
};

// A loopback listener that only counts the connections it accepts.
class CountingListener {
 public:
  CountingListener() {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd_, 16) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr *>(&addr), &len) != 0) {
      return;
    }
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] {
      while (!stop_) {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, 50) > 0) {
          const int c = accept(fd_, nullptr, nullptr);
          if (c >= 0) {
            ++count_;
            close(c);
          }
        }
      }
    });
  }
  ~CountingListener() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (fd_ >= 0) close(fd_);
  }
  int port() const { return port_; }
  int count() const { return count_; }

 private:
  int fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> count_{0};
  std::thread thread_;
};

// A test with the HSM up and a scratch folder of its own.
class JobTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(Hsm::Get().ok()) << "qlhsmd did not start";
    const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
    scratch_ = Hsm::Get().dir() / (std::string(info->test_suite_name()) + "_" + info->name());
    std::filesystem::create_directories(scratch_);
  }

  std::string Path(const std::string &name) const { return (scratch_ / name).string(); }

  // qlutil with the given arguments, in this test's scratch folder.
  RunResult Qlutil(const std::vector<std::string> &args) const {
    std::string cmd = "cd " + Quote(scratch_.string()) + " && " + Quote(QLUTIL_BIN);
    for (const auto &a : args) cmd += " " + Quote(a);
    return RunCommand(cmd);
  }

  // A job run as the given user.
  RunResult JobAs(const std::string &user, const std::string &password, const std::string &job,
                  std::vector<std::string> options = {}) const {
    std::vector<std::string> args = {
        "-a", "127.0.0.1", "--port", std::to_string(port()), "-u", user, "-w", password, "-j", job};
    args.insert(args.end(), options.begin(), options.end());
    return Qlutil(args);
  }

  RunResult Job(const std::string &job, std::vector<std::string> options = {}) const {
    return JobAs("master", kMasterPassword, job, std::move(options));
  }

  // A job expected to succeed; its output.
  std::string MustRun(const std::string &job, std::vector<std::string> options = {}) const {
    RunResult r = Job(job, std::move(options));
    EXPECT_EQ(r.exitCode, 0) << job << ":\n" << r.out;
    return r.out;
  }

  int port() const { return Hsm::Get().port(); }

  std::filesystem::path scratch_;
};

// The line a job prints for a failed library call.
inline std::string ErrorLine(const std::string &call, int code) {
  return "Error in " + call + ". Err = " + std::to_string(code) + "\r\n";
}

}  // namespace jobs_test
