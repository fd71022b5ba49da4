// A real qlhsmd for tests: a temporary data directory, `qlhsmd init`, and `qlhsmd serve` on a free
// loopback port, stopped and cleaned up at the end.
//
//   #include "hsm_fixture.h"
//
//   TEST(MyE2E, Works) {
//     qltest::HsmProcess hsm;                       // init + serve; throws on failure
//     // connect to hsm.address():hsm.port() as "master" / hsm.master_password()
//   }
//
// Or one daemon for a whole test binary:
//
//   int main(int argc, char **argv) {
//     ::testing::InitGoogleTest(&argc, argv);
//     ::testing::AddGlobalTestEnvironment(new qltest::HsmEnvironment);
//     return RUN_ALL_TESTS();
//   }
//   ... qltest::HsmEnvironment::hsm().port() ...
//
// The library's end-to-end binaries share that main() (e2e_main.cpp, which also finalises the
// library); one that needs other daemon options, or no daemon, says so with an HsmSetup.
//
// The binary is the qlhsmd built with the tests (QLHSMD_BIN), or $QLHSMD when set. The daemon's
// log goes to log_path(); a failed start throws std::runtime_error with the log's tail. Link the
// CMake target `ql_test_support` (it carries no wire messages, so it can sit beside libqlapi).
//
// Identity: each daemon gets a certificate for 127.0.0.1 and localhost issued by a test CA made
// once per process, and the first daemon points QLAPI_TLS_CA_FILE at that CA, so the library and
// every qlutil the test starts verify the daemon without pinning anything in the user's home
// (ca_issued_tls = false keeps the daemon's own self-signed certificate). Every qlhsmd the
// fixture starts gets the unlock secret kTestUnlockSecret in $QLHSMD_UNLOCK.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace qltest {

struct HsmOptions {
  std::string master_password = "12345678";
  // Extra options of `qlhsmd serve` (e.g. {"--max-sessions", "4"}) and of `qlhsmd init`.
  std::vector<std::string> serve_args;
  std::vector<std::string> init_args;
  // scrypt cost of password hashes: low, since tests make many users and measure nothing.
  unsigned kdf_cost = 1024;
  // Run the daemon's test build (qlhsmd_test, QLHSMD_TEST_BIN), which has the fault switches
  // (`serve --test-fault NAME`), instead of the release daemon.
  bool test_build = false;
  // When set: serve this data directory (made elsewhere, e.g. by `qlhsmd restore`) instead of
  // initialising a new one. It is left in place at the end.
  std::string existing_data_dir;
  // A certificate of the test CA (see above) rather than the daemon's self-signed one.
  bool ca_issued_tls = true;
  // The names that certificate is issued for; empty: the daemon's address and "localhost".
  std::vector<std::string> tls_names;
};

// The unlock secret of every daemon the fixture makes.
inline constexpr const char *kTestUnlockSecret = "test-unlock-secret";

// The test CA's certificate (PEM), made on first use; removed at exit.
const std::string &TestCaFile();

// A certificate of the test CA (when `ca` is true; else of a CA made for this call alone) for
// `names` (IP addresses or DNS names), written as PEM to cert_path and key_path.
void IssueTestCertificate(const std::vector<std::string> &names, const std::string &cert_path,
                          const std::string &key_path, bool ca = true);

class HsmProcess {
 public:
  explicit HsmProcess(HsmOptions options = {});
  ~HsmProcess();
  HsmProcess(const HsmProcess &) = delete;
  HsmProcess &operator=(const HsmProcess &) = delete;

  const std::string &address() const { return address_; }  // "127.0.0.1"
  int port() const { return port_; }
  // The UDP port discovery is answered on (the daemon gets `--discovery 0` unless serve_args
  // say otherwise); 0 when discovery is off.
  int discovery_port() const { return discovery_port_; }
  const std::string &data_dir() const { return data_dir_; }
  const std::string &master_password() const { return options_.master_password; }
  const std::string &log_path() const { return log_path_; }
  pid_t pid() const { return pid_; }
  bool running() const { return pid_ > 0; }

  // SIGTERM and wait; returns the exit status (as waitpid gives it), -1 when not running.
  int Stop();
  // SIGKILL and wait: a crash, as far as the store can tell.
  void Kill();
  // Serves the same data directory again (on a new free port).
  void Restart();

 private:
  void Serve();
  HsmOptions options_;
  std::string root_;  // temporary directory holding data/ and qlhsmd.log
  std::string data_dir_;
  std::string log_path_;
  std::string address_ = "127.0.0.1";
  int port_ = 0;
  int discovery_port_ = 0;
  pid_t pid_ = -1;
};

// Path of the qlhsmd binary the tests use; with `test_build`, of the daemon's test build.
std::string QlhsmdPath(bool test_build = false);

// Runs qlhsmd with `args` and waits; returns its exit status (WEXITSTATUS) or -1.
int RunQlhsmd(const std::vector<std::string> &args, const std::string &log_path,
              bool test_build = false);

// One daemon shared by every test of a binary.
class HsmEnvironment : public ::testing::Environment {
 public:
  explicit HsmEnvironment(HsmOptions options = {}) : options_(std::move(options)) {}
  void SetUp() override;
  void TearDown() override;
  static HsmProcess &hsm();

 private:
  HsmOptions options_;
};

// For the shared main() of e2e_main.cpp: a binary defines at most one, at namespace scope.
//   const qltest::HsmSetup kSetup{options};       // the shared daemon gets these options
//   const qltest::HsmSetup kSetup{std::nullopt};  // no shared daemon
class HsmSetup {
 public:
  explicit HsmSetup(std::optional<HsmOptions> options);
  // The binary's setup; null when it defines none (one daemon with the default options).
  static const HsmSetup *Defined();
  const std::optional<HsmOptions> &options() const { return options_; }

 private:
  std::optional<HsmOptions> options_;
};

}  // namespace qltest
