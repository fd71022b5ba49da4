#pragma once
// Helpers shared by the front-end tests: stdout capture, a scratch working directory, argument
// vectors, and the help screen as the command list defines it.

#include <gtest/gtest.h>
#ifdef _WIN32
#include <process.h>
#define getpid _getpid
#else
#include <unistd.h>
#endif

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "qlutil.h"

namespace frontend_test {

// Everything the callable writes to standard output.
inline std::string CaptureStdout(const std::function<void()> &fn) {
  fflush(stdout);
  testing::internal::CaptureStdout();
  fn();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

inline std::string ReadFile(const std::filesystem::path &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// Runs the test in a fresh temporary directory (the driver writes its result files into the
// current directory) and goes back afterwards.
class ScratchDirTest : public testing::Test {
 protected:
  void SetUp() override {
    old_ = std::filesystem::current_path();
    const auto *info = testing::UnitTest::GetInstance()->current_test_info();
    dir_ = std::filesystem::temp_directory_path() /
           (std::string("qlutil_frontend_") + info->test_suite_name() + "_" + info->name() + "_" +
            std::to_string(::getpid()));
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
    std::filesystem::current_path(dir_);
  }
  void TearDown() override {
    std::filesystem::current_path(old_);
    std::filesystem::remove_all(dir_);
  }
  std::filesystem::path old_;
  std::filesystem::path dir_;
};

// An argument vector that owns its strings; argv[0] is the program name.
class Args {
 public:
  Args(std::initializer_list<std::string> args) : strings_(args) {
    strings_.insert(strings_.begin(), "qlutil");
  }
  int argc() const { return static_cast<int>(strings_.size()); }
  // Valid until the next call or the end of this object.
  const char *const *argv() const {
    ptrs_.clear();
    for (const auto &s : strings_) ptrs_.push_back(s.c_str());
    ptrs_.push_back(nullptr);
    return ptrs_.data();
  }

 private:
  std::vector<std::string> strings_;
  mutable std::vector<const char *> ptrs_;
};

// The lines the help screen opens with.
inline std::string HelpIntro() {
  return "Command invocation:\r\n"
         "     -f      Functional test command - see list below\r\n"
         "     -p      Performance test command - see list below\r\n"
         "     -s      Stress test command - see list below\r\n"
         "     -j      Utility command - see list below\r\n";
}

inline std::string Banner() {
  return "QUELTA utility tools - Version: 4.10.0.0\n\r"
         "-------------------------------------------------------\r\n";
}

inline const char *Heading(char kind) {
  switch (kind) {
    case 'f':
      return "\r\n\r\nFunctional tests (-f command):\r\n";
    case 'p':
      return "\r\n\r\nPerformance tests (-p command):\r\n";
    case 's':
      return "\r\n\r\nStress tests (-s command):\r\n";
    case 'j':
      return "\r\n\r\nUtility functions (-j command:):\r\n";
  }
  return "";
}

// Command names by kind, in table order, as the command list gives them.
inline const std::vector<std::pair<char, std::vector<std::string>>> &CommandNames() {
  static const std::vector<std::pair<char, std::vector<std::string>>> names = {
      {'p',
       {"sign-hash",
        "batch-sign",
        "sign-hashed-data",
        "verify-hash",
        "spb-encode",
        "spb-decode",
        "sign-xml",
        "pix-sign",
        "pix-verify",
        "pix-dict-sign",
        "pix-dict-verify",
        "pix-jws-sign",
        "pix-jws-check",
        "pix-request",
        "verify-xml",
        "encrypt",
        "decrypt",
        "generate-cvv",
        "verify-cvv",
        "generate-pin",
        "verify-pin-block",
        "pin-block-translate",
        "generate-dukpt",
        "generate-ecdh",
        "hash",
        "gen-key",
        "list-keys",
        "gen-key-material",
        "p11-sign-hash",
        "p11-enc-dec",
        "p11-gen-key-pair",
        "p11-gen-key",
        "oath-sa-auth",
        "pkcs7-sign",
        "svault-gen-token",
        "svault-get-data",
        "nop",
        "export-tr31",
        "import-tr31",
        "bchain-sign-hash",
        "mofn-split",
        "mofn-recover",
        "csp-key-gen",
        "csp-enc",
        "csp-dec",
        "csp-sign",
        "csp-verify",
        "csp-import-key",
        "csp-export-key",
        "csp-hash"}},
      {'f',
       {"sign-hash", "enc-dec", "gen-ver-cvv", "wrap-unwrap", "nop", "acl", "xml", "cnt",
        "keep-alive", "pkcs12", "pin-block-translate", "svault-gen-token", "csp-hash",
        "csp-sign-hash", "csp-enc-dec", "csp-wrap-unwrap", "spb-enc", "spb-dec"}},
      {'s', {"user", "create-user", "create-user-ptl", "session", "session-opening"}},
      {'j',
       {"remove",
        "info",
        "p11-info",
        "obj-info",
        "clean-log",
        "get-log",
        "follow-log",
        "backup",
        "gen-key",
        "block-obj",
        "unblock-obj",
        "gen-ecdh",
        "rename-obj",
        "export-key",
        "read-file",
        "write-file",
        "import-key",
        "import-pkcs8",
        "create-user",
        "remove-user",
        "block-user",
        "unblock-user",
        "assign-token",
        "unassign-token",
        "oath-resync",
        "issue-atoken",
        "revoke-atoken",
        "list-atoken",
        "assign-x509",
        "unassign-x509",
        "set-tls-bundle",
        "get-tls-cert",
        "cross-check",
        "net-tool",
        "push-upack",
        "list-obj",
        "get-atoken-count",
        "run-atoken-gc",
        "gen-rand",
        "encrypt",
        "decrypt",
        "sign-hash",
        "verify-hash",
        "import-pkcs12",
        "export-pkcs12",
        "export-pkcs8",
        "gen-pkcs10",
        "set-date-time",
        "set-user-sys-perm",
        "set-user-part-perm",
        "gen-map",
        "remove-map",
        "repl-update",
        "repl-node-message",
        "spb-import-cert",
        "spb-import-pkcs12",
        "spb-activate-cert",
        "spb-gen-key",
        "spb-gen-csr",
        "spb-encode",
        "spb-decode",
        "spb-dump-message",
        "oath-check-blob",
        "oath-decrypt-blob",
        "cert-encoding-conv",
        "pkcs7-sign",
        "log-cache",
        "probe",
        "pix-sign",
        "pix-verify",
        "pix-dict-sign",
        "pix-dict-verify",
        "pix-jws-sign",
        "pix-jws-check",
        "pix-request",
        "gen-cvv",
        "hash",
        "svault-gen-token",
        "svault-get-data",
        "ds-bind",
        "ds-unbind",
        "export-tr31",
        "import-tr31",
        "sign-soluti",
        "eftd-authorize",
        "eftd-deauthorize",
        "eftd-info",
        "eftd-reset",
        "eftd-set-conf",
        "bchain-sign",
        "bchain-verify",
        "bchain-recover-pbk",
        "bchain-hash",
        "bchain-create-xprv",
        "bchain-create-ckd",
        "bchain-key-info",
        "bchain-get-pbk",
        "bchain-get-addr",
        "bchain-exp-pk",
        "bchain-imp-pk",
        "mofn-split",
        "mofn-recover",
        "get-obj-meta",
        "byok-export",
        "skeep-new",
        "skeep-remove",
        "skeep-split",
        "skeep-probe",
        "skeep-calc-cks",
        "skeep-match",
        "skeep-recover",
        "get-metadata-json",
        "set-metadata-json",
        "list-users",
        "set-pwd",
        "find-hsm",
        "cert-assign-key",
        "cert-sign",
        "cert-info",
        "cng-register",
        "cng-unregister"}}};
  return names;
}

// The help screen of the full command list: names in fields of 20, four to a line, a heading
// at each change of kind, an empty line pair at the end.
inline std::string ExpectedFullHelp() {
  std::string s = HelpIntro();
  for (const auto &[kind, names] : CommandNames()) {
    s += Heading(kind);
    int column = 0;
    for (const auto &name : names) {
      std::string field = name;
      if (field.size() < 20) field.append(20 - field.size(), ' ');
      s += field;
      if (++column == 4) {
        s += "\r\n";
        column = 0;
      }
    }
  }
  return s + "\r\n\r\n";
}

}  // namespace frontend_test
