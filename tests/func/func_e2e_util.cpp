#include "func_e2e_util.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

#include "library_session.h"
#include "qlapi.h"

namespace functest {

namespace {

std::string MakeTempDir() {
  std::string pattern = testing::TempDir() + "qlutil_func_XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  return pattern;
}

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

QlutilProcess::QlutilProcess(const std::vector<std::string> &args, bool stdin_pipe) {
  cwd_ = MakeTempDir();
  int in_pipe[2] = {-1, -1};
  int out_pipe[2];
  if ((stdin_pipe && pipe(in_pipe) != 0) || pipe(out_pipe) != 0) throw std::runtime_error("pipe");
  // Everything the child needs is made before fork: the child only calls async-signal-safe
  // functions.
  std::string bin = QLUTIL_BIN;
  std::vector<std::string> copy = args;
  std::vector<char *> argv;
  argv.push_back(bin.data());
  for (std::string &a : copy) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork");
  if (pid_ == 0) {
    if (stdin_pipe) {
      dup2(in_pipe[0], 0);
    } else {
      int null_fd = open("/dev/null", O_RDONLY);
      dup2(null_fd, 0);
    }
    dup2(out_pipe[1], 1);
    int err = open("/dev/null", O_WRONLY);
    dup2(err, 2);
    if (chdir(cwd_.c_str()) != 0) _exit(127);
    for (int fd = 3; fd < 256; ++fd) close(fd);
    execv(bin.c_str(), argv.data());
    _exit(127);
  }
  if (stdin_pipe) {
    close(in_pipe[0]);
    in_ = in_pipe[1];
  }
  close(out_pipe[1]);
  out_ = out_pipe[0];
  signal(SIGPIPE, SIG_IGN);
}

QlutilProcess::~QlutilProcess() {
  if (!ended_ && pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status_, 0);
  }
  if (in_ >= 0) close(in_);
  if (out_ >= 0) close(out_);
  std::string cmd = "rm -rf '" + cwd_ + "'";
  if (system(cmd.c_str()) != 0) {
  }
}

void QlutilProcess::ReadAvailable(int timeout_ms) {
  if (out_ < 0) return;
  pollfd p{out_, POLLIN, 0};
  if (poll(&p, 1, timeout_ms) <= 0) return;
  char buffer[4096];
  const ssize_t n = read(out_, buffer, sizeof buffer);
  if (n > 0) {
    output_.append(buffer, static_cast<size_t>(n));
  } else {
    close(out_);
    out_ = -1;
  }
}

bool QlutilProcess::WaitForOutput(const std::string &text, int timeout_ms) {
  const int64_t end = NowMs() + timeout_ms;
  while (output_.find(text) == std::string::npos) {
    const int64_t left = end - NowMs();
    if (left <= 0 || out_ < 0) return output_.find(text) != std::string::npos;
    ReadAvailable(static_cast<int>(left));
  }
  return true;
}

bool QlutilProcess::Running() {
  if (ended_) return false;
  const pid_t r = waitpid(pid_, &status_, WNOHANG);
  if (r == pid_) ended_ = true;
  return !ended_;
}

void QlutilProcess::WriteStdin(const std::string &text) {
  if (in_ >= 0 && write(in_, text.data(), text.size()) < 0) CloseStdin();
}

void QlutilProcess::CloseStdin() {
  if (in_ >= 0) close(in_);
  in_ = -1;
}

RunResult QlutilProcess::Finish(int timeout_ms) {
  const int64_t end = NowMs() + timeout_ms;
  while (out_ >= 0 && NowMs() < end) ReadAvailable(static_cast<int>(end - NowMs()));
  while (Running() && NowMs() < end) usleep(10000);
  RunResult r;
  if (!ended_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status_, 0);
    ended_ = true;
    ADD_FAILURE() << "qlutil did not end within " << timeout_ms << " ms; output:\n" << output_;
  } else if (WIFEXITED(status_)) {
    r.exit_code = WEXITSTATUS(status_);
  }
  r.out = output_;
  return r;
}

RunResult RunQlutil(const std::vector<std::string> &args, int timeout_ms) {
  QlutilProcess p(args, false);
  return p.Finish(timeout_ms);
}

std::vector<std::string> Conn(const qltest::HsmProcess &hsm) {
  return {"-a", hsm.address(), "--port", std::to_string(hsm.port()),
          "-u", "master",      "-w",     hsm.master_password()};
}

std::vector<std::string> With(const qltest::HsmProcess &hsm, std::vector<std::string> args) {
  for (const std::string &a : Conn(hsm)) args.push_back(a);
  return args;
}

qltest::HsmProcess &SharedHsm() {
  static std::unique_ptr<qltest::HsmProcess> hsm = std::make_unique<qltest::HsmProcess>();
  return *hsm;
}

std::unique_ptr<qltest::HsmProcess> StartFaultyHsm(const std::string &fault) {
  qltest::HsmOptions options;
  options.test_build = true;
  options.serve_args = {"--test-fault", fault};
  try {
    return std::make_unique<qltest::HsmProcess>(options);
  } catch (const std::exception &e) {
    ADD_FAILURE() << "qlhsmd_test with --test-fault " << fault << " did not start: " << e.what();
    return nullptr;
  }
}

std::set<std::string> ListUsers(const qltest::HsmProcess &hsm) {
  const std::vector<std::string> names = qltest::ListUserNames(hsm);
  return {names.begin(), names.end()};
}

std::set<std::string> ListObjects(const qltest::HsmProcess &hsm) {
  const std::vector<std::string> names = qltest::ListObjectNames(hsm);
  return {names.begin(), names.end()};
}

std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t nl = text.find('\n', start);
    if (nl == std::string::npos) nl = text.size();
    lines.push_back(text.substr(start, nl - start));
    start = nl + 1;
  }
  // The runners' footer ends "\n\r": its carriage return is the end of that line, not a line.
  if (!lines.empty() && lines.back() == "\r") lines.pop_back();
  return lines;
}

}  // namespace functest
