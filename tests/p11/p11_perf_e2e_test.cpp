// The four p11-* performance tests run by the real qlutil against SoftHSM2, on a token made in
// a temporary folder for this test program: exit codes, footers, the messages of a missing
// module, of a module that lacks names, of a failing C_Initialize and of a wrong PIN, the usage
// pages, and a token left as empty as it was found.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "dloadlib.h"
#include "loadpkcs11.h"

namespace {

const std::string kUserPin = "24681357";
const std::string kLongPin = "2468135724681357abcd";
const std::string kModule = P11_SOFTHSM_MODULE;

struct RunResult {
  int exit_code;
  std::string out;  // standard output only
};

RunResult RunCommand(const std::string &command) {
  RunResult result{-1000, ""};
  FILE *pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return result;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) result.out.append(buffer, n);
  const int status = pclose(pipe);
  if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
  return result;
}

// The footers of the performance runner: operations or bytes per second, or the bare figure
// of -print time.
const std::regex kOpsFooter(
    R"(Total time: \d+\.\d\d ms \(\d+\.\d\d seg\) \[\d+\.\d\d op/sec\]\n\r)");
const std::regex kBytesFooter(
    R"(Total time: \d+\.\d\d ms \(\d+\.\d\d seg\) Total message size: \d+\.\d\d (bytes|KB|MB|GB) )"
    R"(\[\d+\.\d\d (bytes|KB|MB|GB)/sec\]\n\r)");
const std::regex kTimeOnlyFooter(R"(\d+\n\r)");

// The exit status of a handler's -1 (usage page printed).
constexpr int kUsageExit = 255;

class P11PerfTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (kModule.empty() || std::string(P11_SOFTHSM_UTIL).empty()) return;
    char pattern[] = "/tmp/qlutil_p11_XXXXXX";
    if (mkdtemp(pattern) == nullptr) return;
    folder_ = pattern;
    std::filesystem::create_directory(folder_ / "tokens");
    const std::string conf = (folder_ / "softhsm2.conf").string();
    std::ofstream(conf) << "directories.tokendir = " << (folder_ / "tokens").string() << "\n"
                        << "objectstore.backend = file\n"
                        << "log.level = ERROR\n";
    setenv("SOFTHSM2_CONF", conf.c_str(), 1);
    const RunResult init =
        RunCommand(std::string(P11_SOFTHSM_UTIL) +
                   " --init-token --free --label t --so-pin 1234 --pin " + kUserPin);
    slot_ = SlotOf(init.out);
    // A second token whose PIN is longer than the 16 characters of the login record.
    long_pin_slot_ =
        SlotOf(RunCommand(std::string(P11_SOFTHSM_UTIL) +
                          " --init-token --free --label long --so-pin 1234 --pin " + kLongPin)
                   .out);
  }

  static void TearDownTestSuite() {
    if (!folder_.empty()) std::filesystem::remove_all(folder_);
    unsetenv("SOFTHSM2_CONF");
  }

  void SetUp() override {
    if (kModule.empty()) GTEST_SKIP() << "SoftHSM2 is not installed";
    ASSERT_FALSE(slot_.empty()) << "the token could not be made";
  }

  // qlutil with the connection options and the module; the PIN is -w.
  static RunResult Qlutil(const std::string &args, const std::string &pin = kUserPin,
                          const std::string &module = kModule, const std::string &env = "") {
    return RunCommand(env + " " + QLUTIL_BIN + " -a 127.0.0.1 -u master -w " + pin + " -p11 " +
                      module + " -slot " + slot_ + " " + args);
  }

  static std::string SlotOf(const std::string &init_output) {
    std::smatch match;
    if (!std::regex_search(init_output, match, std::regex(R"(reassigned to slot (\d+))")))
      return {};
    return match[1];
  }

  static std::filesystem::path folder_;
  static std::string slot_;
  static std::string long_pin_slot_;
};

std::filesystem::path P11PerfTest::folder_;
std::string P11PerfTest::slot_;
std::string P11PerfTest::long_pin_slot_;

struct SuccessCase {
  const char *args;
  const std::regex *footer;
};

TEST_F(P11PerfTest, EveryMemberRunsAndPrintsItsFooter) {
  const SuccessCase cases[] = {
      {"-p p11-sign-hash -t 2 -i 20 -h ckm_sha256 -k p11rsa1024", &kOpsFooter},
      {"-p p11-sign-hash -t 2 -i 20 -h ckm_sha_1 -k p11rsa2048", &kOpsFooter},
      {"-p p11-sign-hash -t 2 -i 20 -h ckm_md5 -k p11rsa1024", &kOpsFooter},
      {"-p p11-sign-hash -t 2 -i 20 -h ckm_rsa_pkcs -k p11rsa1024", &kOpsFooter},
      {"-p p11-sign-hash -t 2 -i 20 -h ckm_rsa_x509 -k p11rsa1024", &kOpsFooter},
      {"-p p11-sign-hash -t 2 -i 20 -h ckm_rsa_x509 -k p11rsa512", &kOpsFooter},
      {"-p p11-sign-hash -t 2 -i 20 -h ckm_sha256 -k p11ecc_secp256r1", &kOpsFooter},
      {"-p p11-sign-hash -t 2 -i 20 -h ckm_sha384 -k p11ecc_secp384r1", &kOpsFooter},
      {"-p p11-sign-hash -t 2 -i 20 -h ckm_sha512 -k p11ecc_secp521r1", &kOpsFooter},
      {"-p p11-sign-hash -t 2 -i 20 -h ckm_ecdsa_sha1 -k p11ecc_secp256r1", &kOpsFooter},
      {"-p p11-sign-hash -t 4 -i 50 -h ckm_sha256 -k p11ecc_secp256r1", &kOpsFooter},
      {"-p p11-enc-dec -t 2 -i 20 -k p11aes256 -m 1024", &kBytesFooter},
      {"-p p11-enc-dec -t 2 -i 20 -k p11aes128 -m 20000", &kBytesFooter},
      {"-p p11-enc-dec -t 2 -i 20 -k p11des3 -m 100 -ops 1", &kOpsFooter},
      {"-p p11-gen-key-pair -t 2 -i 3 -k p11rsa1024", &kOpsFooter},
      {"-p p11-gen-key-pair -t 2 -i 20 -k p11ecc_secp256r1", &kOpsFooter},
      {"-p p11-gen-key -t 2 -i 20 -k p11aes192", &kOpsFooter},
      {"-p p11-gen-key -t 2 -i 20 -k p11des2", &kOpsFooter},
      {"-p p11-sign-hash -t 2 -i 20 -h ckm_sha256 -k p11rsa1024 -print time", &kTimeOnlyFooter},
      {"-p p11-enc-dec -t 2 -i 20 -k p11aes256 -m 1024 -print time", &kTimeOnlyFooter},
      {"-p p11-gen-key -t 1 -i 0 -k p11aes256", &kOpsFooter},
  };
  for (const SuccessCase &c : cases) {
    SCOPED_TRACE(c.args);
    const RunResult r = Qlutil(c.args);
    EXPECT_EQ(r.exit_code, 0) << r.out;
    EXPECT_TRUE(std::regex_match(r.out, *c.footer)) << r.out;
  }
}

struct FailureCase {
  const char *args;
  const char *first_line;  // the test's own message, exactly
  int code;
};

TEST_F(P11PerfTest, WrongPinFailsInEachThreadInitWithTheModulesCode) {
  const FailureCase cases[] = {
      {"-p p11-sign-hash -t 2 -i 5 -h ckm_sha256 -k p11rsa1024",
       "[PerfP11SignHashThreadInit] Fail in C_Login. rc = 160\r\n", 160},
      {"-p p11-enc-dec -t 2 -i 5 -k p11aes256 -m 64",
       "[PerfP11EncThreadInit] Fail in C_Login. rc = 160\r\n", 160},
      {"-p p11-gen-key-pair -t 2 -i 5 -k p11ecc_secp256r1",
       "[PerfP11GenKeyPairThreadInit] Fail in C_Login. rc = 160\r\n", 160},
      {"-p p11-gen-key -t 2 -i 5 -k p11aes256",
       "[PerfP11GenKeyThreadInit] Fail in C_Login. rc = 160\r\n", 160},
  };
  for (const FailureCase &c : cases) {
    SCOPED_TRACE(c.args);
    const RunResult r = Qlutil(c.args, "13572468");
    EXPECT_EQ(r.exit_code, c.code);
    EXPECT_EQ(r.out.rfind(std::string(c.first_line) + "Failed to initialize test thread: 160\n", 0),
              0u)
        << r.out;
  }
}

TEST_F(P11PerfTest, PinLongerThanTheLoginRecordIsPassedWhole) {
  ASSERT_FALSE(long_pin_slot_.empty());
  const RunResult r =
      RunCommand(std::string(QLUTIL_BIN) + " -a 127.0.0.1 -u master -w " + kLongPin + " -p11 " +
                 kModule + " -slot " + long_pin_slot_ + " -p p11-gen-key -t 2 -i 5 -k p11aes256");
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_TRUE(std::regex_match(r.out, kOpsFooter)) << r.out;
}

TEST_F(P11PerfTest, SlotWithoutTokenFailsToOpenTheSession) {
  const RunResult r =
      RunCommand(std::string(QLUTIL_BIN) + " -a 127.0.0.1 -u master -w 24681357 -p11 " + kModule +
                 " -slot 4294967295 -p p11-gen-key -t 1 -i 1 -k p11aes256");
  EXPECT_EQ(r.exit_code, 3);  // CKR_SLOT_ID_INVALID
  EXPECT_EQ(r.out.rfind("[PerfP11GenKeyThreadInit] Fail in C_OpenSession. rc = 3\r\n", 0), 0u)
      << r.out;
}

TEST_F(P11PerfTest, ModuleThatCannotBeLoadedFailsInTestInit) {
  const FailureCase cases[] = {
      {"-p p11-sign-hash -t 1 -i 1 -h ckm_sha256 -k p11rsa1024",
       "[PerfP11SignHashTestInit] Failed to load symbols P11_LoadSymbols. Return NULL\r\n", 5},
      {"-p p11-enc-dec -t 1 -i 1 -k p11aes256 -m 64",
       "[PerfP11EncTestInit] Failed to load symbols P11_LoadSymbols. Return NULL\r\n", 5},
      {"-p p11-gen-key-pair -t 1 -i 1 -k p11rsa1024",
       "[PerfP11GenKeyPairTestInit] Failed to load symbols P11_LoadSymbols. Return NULL\r\n", 5},
      {"-p p11-gen-key -t 1 -i 1 -k p11aes256",
       "[PerfP11GenKeyTestInit] Failed to load symbols P11_LoadSymbols. Return NULL\r\n", 5},
  };
  const std::string missing = (folder_ / "no_such_module.so").string();
  for (const FailureCase &c : cases) {
    SCOPED_TRACE(c.args);
    const RunResult r = Qlutil(c.args, kUserPin, missing);
    EXPECT_EQ(r.exit_code, c.code);
    // No thread ran: the message and the runner's line, nothing else.
    EXPECT_EQ(r.out, std::string(c.first_line) + "Failed to initialize test: 5\n");
  }
}

TEST_F(P11PerfTest, ModuleLackingNamesIsRefusedBeforeItIsInitialised) {
  const RunResult r = Qlutil("-p p11-sign-hash -t 1 -i 1 -h ckm_sha256 -k p11rsa1024", kUserPin,
                             P11_PARTIAL_MODULE);
  EXPECT_EQ(r.exit_code, 84);  // CKR_FUNCTION_NOT_SUPPORTED
  EXPECT_EQ(r.out,
            "[PerfP11SignHashTestInit] Fail in C_Finalize: not exported by the module. rc = 84\r\n"
            "Failed to initialize test: 84\n");
}

// The module is initialised for threads that share it, with the system's own locking; it has
// no token, so the run goes as far as the first C_OpenSession.
TEST_F(P11PerfTest, ModuleIsInitialisedForOsLocking) {
  const RunResult r = Qlutil("-p p11-gen-key -t 1 -i 1 -k p11aes256", kUserPin, P11_LOCKING_MODULE);
  EXPECT_EQ(r.exit_code, 224);  // CKR_TOKEN_NOT_PRESENT
  EXPECT_EQ(r.out.rfind("[PerfP11GenKeyThreadInit] Fail in C_OpenSession. rc = 224\r\n"
                        "Failed to initialize test thread: 224\n",
                        0),
            0u)
      << r.out;
}

TEST_F(P11PerfTest, FailingInitializeIsReportedWithItsCode) {
  // SoftHSM2 refuses to initialise without a readable configuration.
  const RunResult r = Qlutil("-p p11-sign-hash -t 1 -i 1 -h ckm_sha256 -k p11rsa1024", kUserPin,
                             kModule, "SOFTHSM2_CONF=" + (folder_ / "missing.conf").string());
  EXPECT_EQ(r.exit_code, 5);  // CKR_GENERAL_ERROR
  EXPECT_EQ(r.out,
            "[PerfP11SignHashTestInit] Fail in C_Initialize. rc = 5\r\n"
            "Failed to initialize test: 5\n");
}

TEST_F(P11PerfTest, BadOrMissingOptionsPrintTheUsagePage) {
  const std::string base = std::string(QLUTIL_BIN) + " -a 127.0.0.1 -u master -w 24681357 ";
  const std::string module = "-p11 " + kModule + " -slot " + slot_ + " ";
  const std::string cases[] = {
      // p11-sign-hash: each option missing, words of the wrong kind, pairs that do not go together
      module + "-p p11-sign-hash -i 1 -h ckm_sha256 -k p11rsa1024",
      module + "-p p11-sign-hash -t 1 -i 1 -k p11rsa1024",
      module + "-p p11-sign-hash -t 1 -i 1 -h ckm_sha256",
      "-slot " + slot_ + " -p p11-sign-hash -t 1 -i 1 -h ckm_sha256 -k p11rsa1024",
      "-p11 " + kModule + " -p p11-sign-hash -t 1 -i 1 -h ckm_sha256 -k p11rsa1024",
      "-p11 " + kModule + " -slot x1 -p p11-sign-hash -t 1 -i 1 -h ckm_sha256 -k p11rsa1024",
      module + "-p p11-sign-hash -t 1 -i 1 -h sha256 -k p11rsa1024",
      module + "-p p11-sign-hash -t 1 -i 1 -h md5 -k p11rsa1024",
      module + "-p p11-sign-hash -t 1 -i 1 -h ckm_sha256 -k rsa1024",
      module + "-p p11-sign-hash -t 1 -i 1 -h ckm_sha256 -k p11aes256",
      module + "-p p11-sign-hash -t 1 -i 1 -h ckm_md5 -k p11ecc_secp256r1",
      module + "-p p11-sign-hash -t 1 -i 1 -h ckm_rsa_pkcs -k p11ecc_secp256r1",
      module + "-p p11-sign-hash -t 1 -i 1 -h ckm_ecdsa_sha1 -k p11rsa1024",
      module + "-p p11-sign-hash -t 1 -i 1 -h ckm_sha256_hmac -k p11rsa1024",
      // p11-enc-dec
      module + "-p p11-enc-dec -t 1 -i 1 -k p11aes256",
      module + "-p p11-enc-dec -t 1 -i 1 -k p11aes256 -m 0",
      module + "-p p11-enc-dec -t 1 -i 1 -k p11rsa1024 -m 64",
      module + "-p p11-enc-dec -t 1 -i 1 -k aes256 -m 64",
      // p11-gen-key-pair and p11-gen-key
      module + "-p p11-gen-key-pair -t 1 -i 1 -k p11aes256",
      module + "-p p11-gen-key-pair -t 1 -i 1",
      module + "-p p11-gen-key -t 1 -i 1 -k p11rsa1024",
      module + "-p p11-gen-key -t 1 -i 1 -k des",
  };
  for (const std::string &args : cases) {
    SCOPED_TRACE(args);
    const RunResult r = RunCommand(base + args);
    EXPECT_EQ(r.exit_code, kUsageExit);
    EXPECT_EQ(r.out.rfind("\r\nDESCRIPTION\r\n     PKCS#11 ", 0), 0u) << r.out;
    const size_t options = r.out.find("\r\nOPTIONS\r\n");
    const size_t example = r.out.find("\r\nEXAMPLE\r\n");
    EXPECT_NE(options, std::string::npos);
    EXPECT_NE(example, std::string::npos);
    EXPECT_LT(options, example);
    EXPECT_NE(r.out.find("     -p11    ", options), std::string::npos);
    EXPECT_NE(r.out.find("     -slot   ", options), std::string::npos);
    EXPECT_NE(r.out.find("-w 24681357 -p p11-", example), std::string::npos);
  }
}

TEST_F(P11PerfTest, SignHelpDocumentsTheMechanismMapping) {
  const RunResult r = RunCommand(std::string(QLUTIL_BIN) + " -p p11-sign-hash");
  EXPECT_EQ(r.exit_code, kUsageExit);
  for (const char *line : {
           "                   ckm_sha256      CKM_SHA256_RSA_PKCS or CKM_ECDSA_SHA256\r\n",
           "                   ckm_rsa_pkcs    CKM_RSA_PKCS over the digest in its\r\n",
           "                   ckm_rsa_x509    CKM_RSA_X_509 over that DigestInfo in a\r\n",
           "                   p11ecc_secp256r1 p11ecc_secp384r1 p11ecc_secp521r1\r\n",
       }) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line;
  }
}

// The keys of every run are session objects: the token holds nothing afterwards.
TEST_F(P11PerfTest, RunsLeaveNoObjectOnTheToken) {
  for (const char *args : {"-p p11-sign-hash -t 2 -i 5 -h ckm_sha256 -k p11rsa1024",
                           "-p p11-enc-dec -t 2 -i 5 -k p11aes256 -m 64",
                           "-p p11-gen-key-pair -t 2 -i 5 -k p11ecc_secp256r1",
                           "-p p11-gen-key -t 2 -i 5 -k p11aes256"}) {
    ASSERT_EQ(Qlutil(args).exit_code, 0) << args;
  }
  DL_PKCS11_FUNCTIONS f{};
  void *module = P11_LoadSymbols(kModule.c_str(), &f);
  ASSERT_NE(module, nullptr);
  ASSERT_EQ(f.C_Initialize(nullptr), CKR_OK);
  CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
  const CK_SLOT_ID slot = std::stoul(slot_);
  ASSERT_EQ(f.C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);
  std::string pin = kUserPin;
  ASSERT_EQ(f.C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR *>(pin.data()), pin.size()),
            CKR_OK);
  ASSERT_EQ(f.C_FindObjectsInit(session, nullptr, 0), CKR_OK);
  CK_OBJECT_HANDLE found[8];
  CK_ULONG count = 99;
  EXPECT_EQ(f.C_FindObjects(session, found, 8, &count), CKR_OK);
  EXPECT_EQ(count, 0u);
  f.C_FindObjectsFinal(session);
  f.C_CloseSession(session);
  f.C_Finalize(nullptr);
  EXPECT_EQ(P11_UnloadSymbols(module), 0);
}

}  // namespace
