#include "hsm_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

extern char **environ;

namespace qltest {
namespace {

std::string Tail(const std::string &path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  std::string s = ss.str();
  return s.size() > 2000 ? s.substr(s.size() - 2000) : s;
}

// Starts `args` with stdout to `stdout_fd` (-1: the log) and stderr appended to `log_path`.
pid_t Spawn(const std::vector<std::string> &args, int stdout_fd, const std::string &log_path) {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 2, log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (stdout_fd >= 0)
    posix_spawn_file_actions_adddup2(&fa, stdout_fd, 1);
  else
    posix_spawn_file_actions_adddup2(&fa, 2, 1);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  std::vector<char *> argv;
  for (const auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&fa);
  return rc == 0 ? pid : -1;
}

int Wait(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

}  // namespace

std::string QlhsmdPath(bool test_build) {
  if (test_build) {
    if (const char *env = std::getenv("QLHSMD_TEST"); env && *env) return env;
#ifdef QLHSMD_TEST_BIN
    return QLHSMD_TEST_BIN;
#else
    return "qlhsmd_test";
#endif
  }
  if (const char *env = std::getenv("QLHSMD"); env && *env) return env;
#ifdef QLHSMD_BIN
  return QLHSMD_BIN;
#else
  return "qlhsmd";
#endif
}

int RunQlhsmd(const std::vector<std::string> &args, const std::string &log_path, bool test_build) {
  std::vector<std::string> full = {QlhsmdPath(test_build)};
  full.insert(full.end(), args.begin(), args.end());
  pid_t pid = Spawn(full, -1, log_path);
  if (pid < 0) return -1;
  int status = Wait(pid);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

HsmProcess::HsmProcess(HsmOptions options) : options_(std::move(options)) {
  std::string tmpl = (std::filesystem::temp_directory_path() / "qlhsmd-test-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
  root_ = tmpl;
  data_dir_ = options_.existing_data_dir.empty() ? root_ + "/data" : options_.existing_data_dir;
  log_path_ = root_ + "/qlhsmd.log";
  if (!options_.existing_data_dir.empty()) {
    Serve();
    return;
  }
  int rc = RunQlhsmd({"init", "--data-dir", data_dir_, "--password", options_.master_password,
                      "--kdf-cost", std::to_string(options_.kdf_cost)},
                     log_path_, options_.test_build);
  if (rc != 0) {
    std::string log = Tail(log_path_);
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
    throw std::runtime_error("qlhsmd init failed (" + std::to_string(rc) + "): " + log);
  }
  Serve();
}

HsmProcess::~HsmProcess() {
  Stop();
  std::error_code ec;
  if (!root_.empty()) std::filesystem::remove_all(root_, ec);
}

void HsmProcess::Serve() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::vector<std::string> args = {QlhsmdPath(options_.test_build),
                                   "serve",
                                   "--data-dir",
                                   data_dir_,
                                   "--listen",
                                   address_ + ":0"};
  args.insert(args.end(), options_.serve_args.begin(), options_.serve_args.end());
  pid_ = Spawn(args, fds[1], log_path_);
  close(fds[1]);
  if (pid_ < 0) {
    close(fds[0]);
    throw std::runtime_error("cannot start " + QlhsmdPath(options_.test_build));
  }
  // Read the "listening on HOST:PORT" line, waiting at most 30 s.
  std::string line;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline) {
    pollfd p{fds[0], POLLIN, 0};
    if (poll(&p, 1, 200) <= 0) continue;
    char buf[256];
    ssize_t n = read(fds[0], buf, sizeof buf);
    if (n <= 0) break;
    line.append(buf, static_cast<size_t>(n));
  }
  close(fds[0]);
  size_t colon = line.rfind(':');
  port_ = 0;
  if (line.rfind("listening on ", 0) == 0 && colon != std::string::npos)
    port_ = std::atoi(line.c_str() + colon + 1);
  if (port_ <= 0) {
    Kill();
    throw std::runtime_error("qlhsmd serve did not start: " + Tail(log_path_));
  }
}

int HsmProcess::Stop() {
  if (pid_ <= 0) return -1;
  kill(pid_, SIGTERM);
  int status = Wait(pid_);
  pid_ = -1;
  return status;
}

void HsmProcess::Kill() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  Wait(pid_);
  pid_ = -1;
}

void HsmProcess::Restart() {
  Stop();
  Serve();
}

namespace {
std::unique_ptr<HsmProcess> g_env_hsm;
}

void HsmEnvironment::SetUp() {
  g_env_hsm = std::make_unique<HsmProcess>(options_);
}
void HsmEnvironment::TearDown() {
  g_env_hsm.reset();
}
HsmProcess &HsmEnvironment::hsm() {
  if (!g_env_hsm) throw std::runtime_error("HsmEnvironment is not set up");
  return *g_env_hsm;
}

}  // namespace qltest
