// The -p performance tests run by the real qlutil against a real qlhsmd, beyond what the golden
// runs compare: the messages and codes of failing runs, the -out row and the --retfiles files,
// --kn keys that survive, and an HSM that holds after every run exactly the objects it held
// before.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"
#include "hsm_fixture.h"
#include "library_session.h"

namespace {

const char *const kMasterPassword = "24681357";

using RunResult = qltest::CommandResult;

const std::regex kOpsFooter(
    R"(Total time: \d+\.\d\d ms \(\d+\.\d\d seg\) \[\d+\.\d\d op/sec\]\n\r)");

// The process exit status of a handler result (POSIX keeps the low 8 bits).
int ExitStatusOf(int code) {
  return code & 0xFF;
}

std::string QlutilPath() {
  const char *env = std::getenv("QLUTIL");
  return env != nullptr && env[0] != '\0' ? env : QLUTIL_BIN;
}

// ---------------------------------------------------------------------------------------------

class PerfE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("ql_perf_e2e_" + std::to_string(getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // qlutil in the test's folder, connected to the shared daemon as master.
  RunResult Run(const std::string &args, const std::string &password = kMasterPassword,
                const qltest::HsmProcess &hsm = qltest::HsmEnvironment::hsm()) {
    const qltest::CommandResult r = qltest::RunCommand(
        qltest::QlutilAsMaster(QlutilPath(), dir_.string(), hsm, args, password));
    return r;
  }

  // Run, and check that the HSM holds afterwards what it held before.
  RunResult RunClean(const std::string &args, const std::string &password = kMasterPassword) {
    const std::vector<std::string> before = qltest::ListObjectNames();
    RunResult result = Run(args, password);
    EXPECT_EQ(qltest::ListObjectNames(), before) << "objects left behind by: " << args << "\n"
                                                 << result.out;
    return result;
  }

  std::string Read(const char *name) {
    std::ifstream in(dir_ / name, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }

  std::filesystem::path dir_;
};

TEST_F(PerfE2E, WrongPasswordPrintsTheConnectMessageAndExitsWithTheLibraryCode) {
  struct Case {
    const char *args;
    const char *first_line;
  };
  const Case cases[] = {
      {"-p sign-hash -t 2 -i 5 -h sha256 -k rsa1024",
       "[PerfSignHashThreadInit] Fail in ConnectEx. rc = 5001\r\n"},
      {"-p sign-hash -t 2 -i 5 -h sha256 -k rsa1024 --tg",
       "[PerfSignHashInit] Fail in ConnectEx. rc = 5001\r\n"},
      {"-p batch-sign -t 2 -i 5 -h sha256 -k rsa1024 -bc 2",
       "[PerfBatchSignThreadInit] Fail in ConnectEx. rc = 5001\r\n"},
      {"-p encrypt -t 2 -i 5 -k aes256 -m 100",
       "[PerfEncryptThreadInit] Fail in ConnectEx. rc = 5001\r\n"},
      {"-p decrypt -t 2 -i 5 -k aes256 -m 100",
       "[PerfDecryptThreadInit] Fail in ConnectEx. rc = 5001\r\n"},
      {"-p hash -t 2 -i 5 -h sha256", "[PerfHashThreadInit] Fail in ConnectEx. rc = 5001\r\n"},
      {"-p spb-encode -t 1 -i 5 -m 100", "[InstallSPBCerts] Fail in ConnectEx. rc = 5001\r\n"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.args);
    const RunResult r = RunClean(std::string(c.args) + " --retfiles", "wrongpass");
    EXPECT_EQ(r.exit_code, ExitStatusOf(QL_ERR_AUTH_FAILED)) << r.out;
    EXPECT_EQ(r.out.substr(0, r.out.find('\n') + 1), c.first_line) << r.out;
    EXPECT_EQ(Read("qlutil_result"), "5001");
  }
}

TEST_F(PerfE2E, ThreadsSetUpBeforeAFailingOneLeaveNoKeyBehind) {
  // One session at a time: the second thread cannot connect once the first holds its session
  // and its temporary key.
  qltest::HsmOptions options;
  options.master_password = kMasterPassword;
  options.serve_args = {"--max-sessions", "1"};
  qltest::HsmProcess hsm(options);
  const RunResult r =
      Run("-p sign-hashed-data -t 2 -i 5 -h sha256 -k rsa1024", kMasterPassword, hsm);
  EXPECT_NE(r.exit_code, 0) << r.out;
  EXPECT_EQ(r.out.rfind("[PerfSignHashedDataThreadInit] Fail in ConnectEx. rc = ", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("\r\nError during the test!\r\n"), std::string::npos) << r.out;
  EXPECT_EQ(qltest::ListObjectNames(hsm), std::vector<std::string>{}) << r.out;
}

TEST_F(PerfE2E, KeyNamedWithKnIsUsedAndSurvives) {
  const char *name = "qlutil_perf_kn_rsa";
  {
    qltest::LibrarySession s;
    ASSERT_EQ(QGenerateKey(s.get(), name, QL_ALG_RSA1024, QL_KEY_EXPORTABLE, nullptr), 0);
  }
  const RunResult r = RunClean(std::string("-p sign-hash -t 2 -i 5 -h sha256 --kn ") + name);
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_TRUE(std::regex_match(r.out, kOpsFooter)) << r.out;
  qltest::LibrarySession s;
  HKEYCTX key = nullptr;
  EXPECT_EQ(QGetUserKey(s.get(), name, 0, &key), 0) << "the --kn key was removed";
  if (key != nullptr) QDestroyKey(&key, QL_DESTROY_REMOVE);
}

TEST_F(PerfE2E, KeyThatCannotSignFailsInTheSizeQuery) {
  const char *name = "qlutil_perf_kn_aes";
  int expected = 0;
  {
    qltest::LibrarySession s;
    ASSERT_EQ(QGenerateKey(s.get(), name, QL_ALG_AES256, QL_KEY_EXPORTABLE, nullptr), 0);
    HKEYCTX key = nullptr;
    HHASHCTX hash = nullptr;
    ASSERT_EQ(QGetUserKey(s.get(), name, 0, &key), 0);
    ASSERT_EQ(QCreateHash(s.get(), QL_ALG_SHA256, nullptr, 0, &hash), 0);
    const unsigned char data[64] = {};
    ASSERT_EQ(QHashData(hash, data, sizeof(data), 0), 0);
    uint32_t len = 0;
    expected = QSignHash(hash, key, 0, nullptr, &len);
    QDestroyHash(&hash);
    QDestroyKey(&key, 0);
  }
  ASSERT_NE(expected, 0);
  ASSERT_NE(expected, QL_ERR_BUFFER_TOO_SMALL);
  const RunResult r =
      RunClean(std::string("-p sign-hash -t 1 -i 5 -h sha256 --kn ") + name + " --retfiles");
  EXPECT_EQ(r.out.substr(0, r.out.find('\n') + 1),
            "[PerfSignHashThreadInit] Fail in QSignHash. rc = " + std::to_string(expected) + "\r\n")
      << r.out;
  EXPECT_EQ(r.exit_code, ExitStatusOf(expected)) << r.out;
  EXPECT_EQ(Read("qlutil_result"), std::to_string(expected));
  qltest::LibrarySession s;
  EXPECT_EQ(QRemoveObj(s.get(), name), 0) << "the --kn key was removed by the test";
}

// The -out row: "tc";"threads";"iterations";"result";...
std::vector<std::string> RowFields(const std::string &row) {
  std::vector<std::string> fields;
  const std::regex field(R"re("([^"]*)";)re");
  for (auto it = std::sregex_iterator(row.begin(), row.end(), field); it != std::sregex_iterator();
       ++it) {
    fields.push_back((*it)[1]);
  }
  return fields;
}

TEST_F(PerfE2E, OutRowsAndResultFiles) {
  RunResult ok = RunClean("-p hash -t 2 -i 7 -h sha256 -tc 12 -out rows.csv --retfiles");
  ASSERT_EQ(ok.exit_code, 0) << ok.out;
  RunResult failed =
      RunClean("-p hash -t 3 -i 4 -h sha256 -tc 13 -out rows.csv --retfiles", "wrongpass");
  ASSERT_EQ(failed.exit_code, ExitStatusOf(QL_ERR_AUTH_FAILED)) << failed.out;
  EXPECT_EQ(Read("qlutil_result"), "5001");
  EXPECT_EQ(Read("qlutil_time"), "") << "a failed run leaves an empty time file";

  std::istringstream rows(Read("rows.csv"));
  std::string first, second;
  std::getline(rows, first);
  std::getline(rows, second);
  const std::vector<std::string> a = RowFields(first), b = RowFields(second);
  ASSERT_GE(a.size(), 4u) << first;
  ASSERT_GE(b.size(), 4u) << second;
  EXPECT_EQ(std::vector<std::string>(a.begin(), a.begin() + 4),
            (std::vector<std::string>{"12", "2", "7", "0"}));
  EXPECT_EQ(std::vector<std::string>(b.begin(), b.begin() + 4),
            (std::vector<std::string>{"13", "3", "4", "5001"}));
}

TEST_F(PerfE2E, BatchSignRowCountsEverySignature) {
  const RunResult r =
      RunClean("-p batch-sign -t 2 -i 3 -h sha256 -k rsa1024 -bc 5 -tc 1 -out rows.csv");
  ASSERT_EQ(r.exit_code, 0) << r.out;
  const std::vector<std::string> fields = RowFields(Read("rows.csv"));
  ASSERT_GE(fields.size(), 4u);
  EXPECT_EQ(fields[2], "15") << "iterations times the batch count";
}

// Key material and ECDH are served: their members run for real, with no probe to excuse them,
// and leave the HSM as they found it.
TEST_F(PerfE2E, KeyMaterialAndEcdhRunForReal) {
  const char *const runs[] = {
      "-p gen-key-material -t 2 -i 5 -k aes256",
      "-p gen-key-material -t 2 -i 3 -k 3des168",
      "-p gen-key-material -t 2 -i 2 -k rsa1024",
      "-p gen-key-material -t 1 -i 3 -k ecc_secp256r1",
      "-p generate-ecdh -t 2 -i 5",
      "-p generate-ecdh -t 2 -i 5 -op ql_gen_key_kdf_raw_secret",
      "-p generate-ecdh -t 2 -i 5 -alg x25519 -ng",
      "-p generate-ecdh -t 2 -i 3 -alg ecc_secp384r1 -algt aes128 -kdflen 16 -del 0",
      "-p generate-ecdh -t 1 -i 3 -alg ecc_brainpool_p256r1 -algt 3des168 -kdflen 24",
  };
  for (const char *args : runs) {
    SCOPED_TRACE(args);
    const RunResult r = RunClean(std::string(args) + " --retfiles");
    EXPECT_EQ(r.exit_code, 0) << r.out;
    EXPECT_TRUE(std::regex_match(r.out, kOpsFooter)) << r.out;
    EXPECT_EQ(Read("qlutil_result"), "0");
  }
}

// The HSM's refusals reach the loop's message: a peer key of another curve, a derived length
// that is not the kept key's.
TEST_F(PerfE2E, EcdhRefusalsAreReportedFromTheLoop) {
  struct Case {
    const char *args;
    int code;
  };
  const Case cases[] = {
      {"-p generate-ecdh -t 1 -i 3 -alg ecc_secp256r1 -alg2 ecc_secp384r1", QL_ERR_BAD_KEY_USAGE},
      {"-p generate-ecdh -t 1 -i 3 -algt aes128", QL_ERR_BAD_LENGTH},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.args);
    const RunResult r = RunClean(std::string(c.args) + " --retfiles");
    EXPECT_EQ(r.exit_code, ExitStatusOf(c.code)) << r.out;
    EXPECT_EQ(r.out.rfind("[PerfGenerateECDHThread] Fail in QGenEcdhKey rc = " +
                              std::to_string(c.code) + ". Iteration = ",
                          0),
              0u)
        << r.out;
    EXPECT_EQ(Read("qlutil_result"), std::to_string(c.code));
  }
}

// Logins by one-time password: each thread's user gets a token, logs in with the next value
// of its event counter or of the current second, and is removed at the end. A time run sleeps a
// step between logins, since a step's value is accepted once.
TEST_F(PerfE2E, OathLoginsRunForReal) {
  const std::vector<std::string> users = qltest::ListUserNames();
  const char *const runs[] = {
      "-p oath-sa-auth -t 2 -i 12",
      "-p oath-sa-auth -t 2 -i 4 -oathsc 0 -oathtls 0",
      "-p oath-sa-auth -t 1 -i 3 -oathtype time -timestep 1 -sleep 1000",
  };
  for (const char *args : runs) {
    SCOPED_TRACE(args);
    const RunResult r = RunClean(std::string(args) + " --retfiles");
    EXPECT_EQ(r.exit_code, 0) << r.out;
    EXPECT_TRUE(std::regex_match(r.out, kOpsFooter)) << r.out;
    EXPECT_EQ(Read("qlutil_result"), "0");
    EXPECT_EQ(qltest::ListUserNames(), users) << "test users left behind";
  }
}

}  // namespace

int main(int argc, char **argv) {
  ::testing::InitGoogleTest(&argc, argv);
  qltest::HsmOptions options;
  options.master_password = kMasterPassword;
  ::testing::AddGlobalTestEnvironment(new qltest::HsmEnvironment(options));
  return RUN_ALL_TESTS();
}

TEST_F(PerfE2E, SpbRunsInstallTheDefaultObjectsOnlyWithoutBothIspbs) {
  // Without --si or --di the default objects are installed and removed again (RunClean).
  for (const char *args :
       {"-p spb-encode -t 1 -i 2 -m 1", "-p spb-encode -t 2 -i 2 -m 32768 --v3",
        "-p spb-encode -t 1 -i 2 -m 100000 --gen01 --c3 1F --c4 9", "-p spb-decode -t 1 -i 2 -m 16",
        "-p spb-decode -t 2 -i 2 -m 100000 --v3", "-p spb-decode -t 1 -i 2 -m 32768 --v3 --pad"}) {
    SCOPED_TRACE(args);
    const RunResult r = RunClean(args);
    EXPECT_EQ(r.exit_code, 0) << r.out;
    EXPECT_TRUE(std::regex_match(r.out, kOpsFooter)) << r.out;
  }
  // With both given nothing is installed: ISPBs without certificates fail the first message.
  const RunResult r = RunClean("-p spb-encode -t 1 -i 2 -m 10 --si 44444444 --di 55555555");
  EXPECT_EQ(r.exit_code, ExitStatusOf(QL_ERR_SPB_NO_CERT)) << r.out;
  EXPECT_EQ(r.out.substr(0, r.out.find('\n') + 1),
            "[PerfSPBEncodeThread] Fail in QSPBEncodeInit rc = 5101. Iteration = 1\r\n");
  // -m is mandatory: the help, and -1.
  const RunResult help = RunClean("-p spb-decode -t 1 -i 1");
  EXPECT_EQ(help.exit_code, ExitStatusOf(-1));
  EXPECT_EQ(help.out.rfind("\r\nDESCRIPTION\r\n", 0), 0u) << help.out;
}
