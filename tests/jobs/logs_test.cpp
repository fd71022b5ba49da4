// The log jobs against a real HSM of their own whose log pages are small, so that a few jobs fill
// several pages, the closed ones compressed: get-log, clean-log, log-cache, and the cluster jobs
// a single HSM refuses.

#include <algorithm>
#include <string>
#include <vector>

#include "jobs_test_util.h"

namespace jobs_test {
namespace {

class LogJobs : public ::testing::Test {
 protected:
  void SetUp() override {
    qltest::HsmOptions options;
    options.master_password = kMasterPassword;
    options.kdf_cost = 16;
    options.serve_args = {"--audit-page-size", "256"};
    hsm_ = std::make_unique<qltest::HsmProcess>(options);
  }

  RunResult JobAs(const std::string &user, const std::string &password, const std::string &job,
                  std::vector<std::string> options = {}) const {
    std::string cmd = Quote(QLUTIL_BIN);
    for (const std::string &a : {std::string("-a"), std::string("127.0.0.1"), std::string("--port"),
                                 std::to_string(hsm_->port()), std::string("-u"), user,
                                 std::string("-w"), password, std::string("-j"), job})
      cmd += " " + Quote(a);
    for (const auto &o : options) cmd += " " + Quote(o);
    return RunCommand(cmd);
  }
  RunResult Job(const std::string &job, std::vector<std::string> options = {}) const {
    return JobAs("master", kMasterPassword, job, std::move(options));
  }
  std::string MustRun(const std::string &job, std::vector<std::string> options = {}) const {
    RunResult r = Job(job, std::move(options));
    EXPECT_EQ(r.exitCode, 0) << job << ":\n" << r.out;
    return r.out;
  }
  // A file beside the daemon's store, removed with it.
  std::string Path(const std::string &name) const { return hsm_->data_dir() + "/" + name; }

  // The lines get-log printed to the screen: all before the blank line of its summary.
  static std::vector<std::string> Lines(const std::string &out) {
    std::vector<std::string> lines;
    if (out.rfind("\r\n", 0) == 0) return lines;  // the summary alone: no line
    const std::string text = out.substr(0, out.find("\r\n\r\n") + 2);
    size_t at = 0;
    for (size_t end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2)
      lines.push_back(text.substr(at, end - at));
    return lines;
  }

  std::unique_ptr<qltest::HsmProcess> hsm_;
};

TEST_F(LogJobs, GetLogForwardsAndBackwardsAcrossCompressedPages) {
  for (int i = 0; i < 12; ++i)
    MustRun("create-user", {"-un", "u" + std::to_string(i), "-pwd", "12345678"});
  // A run of signatures: each is a line.
  MustRun("gen-key", {"-k", "ecc_secp256r1", "-kn", "logsig", "-exp", "0", "-tmp", "0"});
  WriteText(Path("data.txt"), "signed\n");
  for (int i = 0; i < 3; ++i)
    MustRun("sign-hash", {"-kn", "logsig", "-h", "sha256", "-in", Path("data.txt"), "--out",
                          Path("sig" + std::to_string(i))});
  const std::vector<std::string> forwards = Lines(MustRun("get-log", {"-raw"}));
  const std::vector<std::string> backwards = Lines(MustRun("get-log", {"-raw", "-rev"}));
  ASSERT_GT(forwards.size(), 12u);
  // Newest first is the same lines reversed, after the lines the second run added (its login).
  ASSERT_GE(backwards.size(), forwards.size());
  EXPECT_TRUE(std::equal(forwards.begin(), forwards.end(), backwards.rbegin()));
  int next = 0;
  for (const std::string &line : forwards)
    if (line.find("master create-user u" + std::to_string(next) + " 0") != std::string::npos)
      ++next;
  EXPECT_EQ(next, 12) << "every creation, in order, across pages";
  EXPECT_GE(std::count_if(forwards.begin(), forwards.end(),
                          [](const std::string &line) {
                            return line.find("master sign ") != std::string::npos &&
                                   line.find("logsig 0") != std::string::npos;
                          }),
            3)
      << "a line per signature (a size query signs too)";
  const std::string formatted = MustRun("get-log");
  EXPECT_NE(formatted.find(" UTC  master  create-user u3  ok\r\n"), std::string::npos) << formatted;

  // A date range and the last days: today's lines are in, a range of another year has none.
  EXPECT_GE(Lines(MustRun("get-log", {"-raw", "-days", "1"})).size(), forwards.size());
  EXPECT_TRUE(
      Lines(MustRun("get-log", {"-raw", "-from", "2001-01-01", "-to", "2001-12-31"})).empty());

  // To a file: the lines land there and the screen says how many.
  const std::string file = Path("log.txt");
  const std::string out = MustRun("get-log", {"-raw", "--out", file});
  EXPECT_NE(out.find(" lines written to " + file), std::string::npos) << out;
  EXPECT_NE(ReadText(file).find("master create-user u11 0\n"), std::string::npos);
}

TEST_F(LogJobs, RightsAndOptions) {
  MustRun("create-user", {"-un", "plain", "-pwd", "12345678"});
  RunResult r = JobAs("plain", "12345678", "get-log");
  EXPECT_EQ(r.exitCode, ExitOf(5002));
  EXPECT_NE(r.out.find(ErrorLine("QGetStatLogSize", 5002)), std::string::npos) << r.out;
  r = JobAs("plain", "12345678", "clean-log");
  EXPECT_EQ(r.exitCode, ExitOf(5002));
  EXPECT_NE(r.out.find(ErrorLine("QTruncateLog", 5002)), std::string::npos) << r.out;
  r = JobAs("plain", "12345678", "log-cache", {"-cache", "0"});
  EXPECT_NE(r.out.find(ErrorLine("QAdmOperation", 5002)), std::string::npos) << r.out;

  // Options that do not hold print the help and reach no HSM.
  for (const std::vector<std::string> &bad :
       {std::vector<std::string>{"-days", "2", "-from", "2026-01-01"},
        {"-from", "yesterday"},
        {"-from", "2026-02-01", "-to", "2026-01-01"},
        {"-days", "0"}}) {
    r = Job("get-log", bad);
    EXPECT_EQ(r.exitCode, ExitOf(-1)) << bad[0];
    EXPECT_NE(r.out.find("\r\nEXAMPLE\r\n"), std::string::npos) << r.out;
  }
  r = Job("log-cache", {"-cache", "on"});
  EXPECT_EQ(r.exitCode, ExitOf(-1));
  // A destructive job refuses a switch it does not know.
  r = Job("clean-log", {"-dryrun"});
  EXPECT_NE(r.exitCode, 0);
  EXPECT_NE(Lines(MustRun("get-log", {"-raw"})).size(), 1u) << "the log was not emptied";
}

TEST_F(LogJobs, CleanLogLeavesOnlyItsOwnLine) {
  for (int i = 0; i < 6; ++i)
    MustRun("create-user", {"-un", "u" + std::to_string(i), "-pwd", "12345678"});
  EXPECT_NE(MustRun("clean-log").find("HSM log emptied.\r\n"), std::string::npos);
  // The truncation is the first line; only the reading run's own login follows it.
  const std::vector<std::string> lines = Lines(MustRun("get-log", {"-raw"}));
  ASSERT_FALSE(lines.empty());
  EXPECT_NE(lines[0].find(" master truncate-log - 0"), std::string::npos) << lines[0];
  for (size_t i = 1; i < lines.size(); ++i)
    EXPECT_EQ(lines[i].find("truncate-log"), std::string::npos) << lines[i];
  for (const std::string &line : lines)
    EXPECT_EQ(line.find("create-user"), std::string::npos) << line;
}

TEST_F(LogJobs, LogCacheShowsTheStateItLeaves) {
  const auto starts = [](const std::string &out, const std::string &head) {
    return out.rfind(head, 0) == 0;
  };
  EXPECT_TRUE(starts(MustRun("log-cache"), "Log cache: on\r\n"));
  EXPECT_TRUE(starts(MustRun("log-cache", {"-cache", "0"}), "Log cache: off\r\n"));
  EXPECT_TRUE(starts(MustRun("log-cache"), "Log cache: off\r\n"));
  EXPECT_TRUE(starts(MustRun("log-cache", {"-cache", "1"}), "Log cache: on\r\n"));
}

// qlutil running in the background, its standard output read through a pipe.
class Background {
 public:
  explicit Background(const std::vector<std::string> &args) {
    int fds[2];
    if (pipe(fds) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(fds[1], 1);
      close(fds[0]);
      close(fds[1]);
      std::vector<char *> argv;
      argv.push_back(const_cast<char *>(QLUTIL_BIN));
      for (const auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
      argv.push_back(nullptr);
      execv(QLUTIL_BIN, argv.data());
      _exit(127);
    }
    close(fds[1]);
    fd_ = fds[0];
  }
  ~Background() {
    if (pid_ > 0 && !reaped_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (fd_ >= 0) close(fd_);
  }
  // Reads until `text` appears in the output or the output ends. True when it appeared.
  bool WaitFor(const std::string &text) {
    // A generous bound so that a broken follow fails the test instead of hanging it.
    for (int rounds = 0; rounds < 600 && out_.find(text) == std::string::npos; ++rounds) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      char buf[4096];
      const ssize_t n = read(fd_, buf, sizeof buf);
      if (n <= 0) break;
      out_.append(buf, static_cast<size_t>(n));
    }
    return out_.find(text) != std::string::npos;
  }
  // Sends the signal and answers the exit code.
  int Stop(int sig) {
    kill(pid_, sig);
    int status = 0;
    waitpid(pid_, &status, 0);
    reaped_ = true;
    WaitFor("\x01");  // the rest of the output, up to its end
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1000;
  }
  int Wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    reaped_ = true;
    WaitFor("\x01");
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1000;
  }
  const std::string &out() const { return out_; }

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  bool reaped_ = false;
  std::string out_;
};

TEST_F(LogJobs, FollowLogShowsALineWrittenAfterItStartedAndCtrlCEndsIt) {
  const std::vector<std::string> conn = {"-a", "127.0.0.1", "--port", std::to_string(hsm_->port())};
  std::vector<std::string> args = conn;
  for (const char *a : {"-u", "master", "-w", kMasterPassword, "-j", "follow-log", "-raw"})
    args.push_back(a);
  Background follower(args);
  // The follow's own line says it has started.
  ASSERT_TRUE(follower.WaitFor(" master log-follow - 0\r\n")) << follower.out();
  MustRun("create-user", {"-un", "watched", "-pwd", "12345678"});
  EXPECT_TRUE(follower.WaitFor("master create-user watched 0\r\n")) << follower.out();
  EXPECT_EQ(follower.Stop(SIGINT), 0) << follower.out();
  EXPECT_EQ(follower.out().find("Error in"), std::string::npos) << follower.out();

  // Without the log right the HSM refuses the follow and the job ends at once.
  MustRun("create-user", {"-un", "plain", "-pwd", "12345678"});
  args = conn;
  for (const char *a : {"-u", "plain", "-w", "12345678", "-j", "follow-log"}) args.push_back(a);
  Background refused(args);
  EXPECT_EQ(refused.Wait(), ExitOf(5002));
  EXPECT_NE(refused.out().find(ErrorLine("QGetLogEvents", 5002)), std::string::npos)
      << refused.out();
}

TEST_F(LogJobs, InfoShowsTheLogCacheAndTheAllowList) {
  MustRun("log-cache", {"-cache", "0"});
  const std::string out = MustRun("info");
  EXPECT_NE(out.find(" Log cache : off\r\n"), std::string::npos) << out;
  EXPECT_NE(out.find(" Allow-list : (none: every address)\r\n"), std::string::npos) << out;
  MustRun("create-user", {"-un", "plain", "-pwd", "12345678"});
  const RunResult r = JobAs("plain", "12345678", "info");
  EXPECT_EQ(r.exitCode, 0) << r.out;
  const size_t at = r.out.find(" Allow-list : ");
  ASSERT_NE(at, std::string::npos) << r.out;
  EXPECT_NE(r.out.find("(5002)\r\n", at), std::string::npos) << r.out;
}

TEST_F(LogJobs, ClusterJobsSayTheHsmIsNotInACluster) {
  RunResult r = Job("repl-update");
  EXPECT_EQ(r.exitCode, ExitOf(5050));
  EXPECT_NE(r.out.find(ErrorLine("QAdmOperation", 5050)), std::string::npos) << r.out;
  r = Job("repl-node-message", {"-op", "rnm_probe"});
  EXPECT_EQ(r.exitCode, ExitOf(5050));
  EXPECT_NE(r.out.find(ErrorLine("QAdmOperation", 5050)), std::string::npos) << r.out;
  r = Job("repl-node-message");
  EXPECT_EQ(r.exitCode, ExitOf(-1));
}

}  // namespace
}  // namespace jobs_test
