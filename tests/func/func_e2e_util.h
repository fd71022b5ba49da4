// Helpers of the -f/-s end-to-end tests: running the qlutil binary (with its standard input
// under the test's control), a shared daemon, daemons with a test fault, and what the HSM holds.
#pragma once

#include <sys/types.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "hsm_fixture.h"

namespace functest {

struct RunResult {
  int exit_code = -1;  // WEXITSTATUS, or -1 when killed
  std::string out;     // standard output
};

// A running qlutil: arguments after the program name; it runs in a fresh temporary folder.
class QlutilProcess {
 public:
  explicit QlutilProcess(const std::vector<std::string> &args, bool stdin_pipe = true);
  ~QlutilProcess();
  QlutilProcess(const QlutilProcess &) = delete;
  QlutilProcess &operator=(const QlutilProcess &) = delete;

  // Reads standard output until it holds `text` (true) or the time is up / the output ends.
  bool WaitForOutput(const std::string &text, int timeout_ms);
  // True while the process has not ended.
  bool Running();
  void WriteStdin(const std::string &text);
  void CloseStdin();
  // Waits for the end (killing it after timeout_ms) and reads the rest of its output.
  RunResult Finish(int timeout_ms);
  const std::string &cwd() const { return cwd_; }

 private:
  void ReadAvailable(int timeout_ms);
  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  int status_ = -1;
  bool ended_ = false;
  std::string output_;
  std::string cwd_;
};

// Runs qlutil to its end with standard input closed.
RunResult RunQlutil(const std::vector<std::string> &args, int timeout_ms = 120000);

// The connection options for a daemon, as master.
std::vector<std::string> Conn(const qltest::HsmProcess &hsm);
// args + Conn(hsm).
std::vector<std::string> With(const qltest::HsmProcess &hsm, std::vector<std::string> args);

// One daemon shared by the tests of this binary.
qltest::HsmProcess &SharedHsm();

// A daemon's test build started with `qlhsmd_test serve --test-fault <fault>`; null, with a test
// failure, when it does not start.
std::unique_ptr<qltest::HsmProcess> StartFaultyHsm(const std::string &fault);

// What the HSM holds, as master: user names, and master's objects ("<listing failed>" when the
// listing fails).
std::set<std::string> ListUsers(const qltest::HsmProcess &hsm);
std::set<std::string> ListObjects(const qltest::HsmProcess &hsm);

// The lines of a text, split at "\n" (each keeps a trailing "\r").
std::vector<std::string> Lines(const std::string &text);

}  // namespace functest
