// The -f members end to end. Members the HSM serves must pass; members that check a result must
// fail, with their mismatch line and a non-zero exit code, against a daemon started with a test
// fault; members whose service the HSM does not offer yet must say so with its code.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "func_e2e_util.h"
#include "qlapi.h"

using namespace functest;

namespace {

int ExitCodeOf(int code) {
  return code & 0xFF;
}

bool Contains(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

TEST(FuncSignHash, PassesWithAndWithoutSessionReuse) {
  for (const char *reuse : {"1", "0"}) {
    RunResult r =
        RunQlutil(With(SharedHsm(), {"-f", "sign-hash", "-t", "2", "-i", "3", "-h", "sha256", "-k",
                                     "rsa1024", "-r", reuse, "-ignoreerror", "0"}));
    EXPECT_EQ(r.exit_code, 0) << r.out;
    EXPECT_TRUE(Contains(r.out, "Total time: ")) << r.out;
    EXPECT_FALSE(Contains(r.out, "Fail in")) << r.out;
  }
}

TEST(FuncSignHash, FailsOnFlippedSignatures) {
  auto hsm = StartFaultyHsm("sign-bitflip");
  ASSERT_NE(hsm, nullptr);
  RunResult r = RunQlutil(With(*hsm, {"-f", "sign-hash", "-t", "1", "-i", "3", "-h", "sha256", "-k",
                                      "rsa1024", "-ignoreerror", "0"}));
  EXPECT_EQ(r.exit_code, ExitCodeOf(QL_ERR_BAD_SIGNATURE)) << r.out;
  EXPECT_TRUE(Contains(r.out,
                       "[PerfSignHashThread] [0] Fail in QVerifySignature rc = 5017. "
                       "Iteration = 1\r\n"))
      << r.out;
  EXPECT_TRUE(Contains(r.out, "\r\nError during the test!\r\n")) << r.out;
  // The default goes on after a failure: every operation is reported and the run passes.
  r = RunQlutil(
      With(*hsm, {"-f", "sign-hash", "-t", "1", "-i", "2", "-h", "sha256", "-k", "rsa1024"}));
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_TRUE(Contains(r.out, "rc = 5017. Iteration = 2\r\n")) << r.out;
}

TEST(FuncNop, PassesAndAFailureStopsOnlyWithIgnoreErrorZero) {
  RunResult r = RunQlutil(With(SharedHsm(), {"-f", "nop", "-t", "2", "-i", "3"}));
  EXPECT_EQ(r.exit_code, 0) << r.out;
  // A wrong password: every connection fails.
  std::vector<std::string> bad = {"-f",     "nop",
                                  "-t",     "1",
                                  "-i",     "2",
                                  "-a",     SharedHsm().address(),
                                  "--port", std::to_string(SharedHsm().port()),
                                  "-u",     "master",
                                  "-w",     "wrongpassword"};
  std::vector<std::string> stop = bad;
  stop.insert(stop.end(), {"-ignoreerror", "0"});
  r = RunQlutil(stop);
  EXPECT_EQ(r.exit_code, ExitCodeOf(QL_ERR_AUTH_FAILED)) << r.out;
  EXPECT_TRUE(Contains(r.out, "Error in ConnectEx. Err = 5001 [Thread 0 / Iteration 1]\r\n"))
      << r.out;
  EXPECT_FALSE(Contains(r.out, "Iteration 2]")) << r.out;
  r = RunQlutil(bad);
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_TRUE(Contains(r.out, "Error in ConnectEx. Err = 5001 [Thread 0 / Iteration 2]\r\n"))
      << r.out;
}

TEST(FuncCnt, UnknownInterfacesAreNotTestedAndABadOneFails) {
  RunResult r = RunQlutil(With(SharedHsm(), {"-f", "cnt", "-t", "1", "-i", "1"}));
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_TRUE(Contains(r.out, "[0] Interface: 1. Address: 127.0.0.1. ConnectEx OK\r\n")) << r.out;
  for (const char *n : {"2", "3", "4"}) {
    EXPECT_TRUE(Contains(
        r.out, std::string("[0] Interface: ") + n + " not tested. IP address unknown.\r\n"))
        << r.out;
  }
  // The daemon listens on 127.0.0.1 only: 127.0.0.2 refuses the connection.
  r = RunQlutil(With(SharedHsm(), {"-f", "cnt", "-t", "1", "-i", "1", "-a3", "127.0.0.2"}));
  EXPECT_NE(r.exit_code, 0) << r.out;
  EXPECT_TRUE(Contains(r.out, "[0] Interface: 3. Address 127.0.0.2. Error in ConnectEx. Err = "))
      << r.out;
}

TEST(FuncEncDec, PassesAndFailsOnCorruptDecryption) {
  RunResult r = RunQlutil(With(SharedHsm(), {"-f", "enc-dec", "-t", "2", "-i", "2", "-k", "aes128",
                                             "-mo", "cbc", "-pa", "pkcs5_padding", "-m", "1000"}));
  EXPECT_EQ(r.exit_code, 0) << r.out;
  auto hsm = StartFaultyHsm("decrypt-corrupt");
  ASSERT_NE(hsm, nullptr);
  r = RunQlutil(With(*hsm, {"-f", "enc-dec", "-t", "1", "-i", "1", "-k", "aes128", "-mo", "cbc",
                            "-pa", "pkcs5_padding", "-m", "1000"}));
  EXPECT_NE(r.exit_code, 0) << r.out;
  EXPECT_TRUE(Contains(r.out,
                       "[FuncEncDecThread][0] [o:1/i:1] ERROR: Decrypted result does not "
                       "match with the original file!\r\n"))
      << r.out;
}

TEST(FuncWrapUnwrap, PassesLeavesNoWrappingKeyAndFailsOnCorruptDecryption) {
  const auto before = ListObjects(SharedHsm());
  RunResult r = RunQlutil(With(SharedHsm(), {"-f", "wrap-unwrap", "-t", "2", "-i", "2", "-k",
                                             "aes128", "-mo", "cbc", "-pa", "pkcs5_padding"}));
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(ListObjects(SharedHsm()), before);
  auto hsm = StartFaultyHsm("decrypt-corrupt");
  ASSERT_NE(hsm, nullptr);
  r = RunQlutil(With(*hsm, {"-f", "wrap-unwrap", "-t", "1", "-i", "1", "-k", "aes128", "-mo", "cbc",
                            "-pa", "pkcs5_padding"}));
  EXPECT_NE(r.exit_code, 0) << r.out;
  EXPECT_TRUE(
      Contains(r.out, "[WrapUnwrapThread][0] Deciphered data do not match the original.\r\n"))
      << r.out;
}

// The payment members against their known answers: the CVV pair as 3des112 (A|B) and 3des168
// (A|B|A), and PIN blocks between formats 0, 1, 3 and 4 with the format 1 refusal.
TEST(FuncPayment, CvvAndPinBlockKnownAnswersPass) {
  for (const char *alg : {"3des112", "3des168"}) {
    RunResult r =
        RunQlutil(With(SharedHsm(), {"-f", "gen-ver-cvv", "-t", "2", "-i", "2", "-k", alg}));
    EXPECT_EQ(r.exit_code, 0) << alg << "\n" << r.out;
  }
  RunResult r = RunQlutil(With(SharedHsm(), {"-f", "pin-block-translate", "-t", "2", "-i", "2"}));
  EXPECT_EQ(r.exit_code, 0) << r.out;
  // Without the key algorithm the CVV test prints its help and answers -1.
  r = RunQlutil(With(SharedHsm(), {"-f", "gen-ver-cvv", "-t", "1", "-i", "1"}));
  EXPECT_EQ(r.exit_code, 255) << r.out;
  EXPECT_TRUE(Contains(r.out, "3des112 or 3des168")) << r.out;
}

// Members whose HSM service comes later: they pass once it is served; until then they fail with
// the HSM's "not supported" code in their own line, never with a success.
struct LaterCase {
  std::vector<std::string> args;
  std::string not_supported_line;
};

TEST(FuncLaterServices, PassOrReportNotSupported) {
  std::string pfx_path = std::string(testing::TempDir()) + "func_e2e_test.p12";
  {
    std::ifstream in(std::string(FUNC_TEST_DATA) + "/test_pkcs12.b64");
    std::stringstream text;
    text << in.rdbuf();
    const std::string b64 = text.str();
    unsigned char der[8192];
    uint32_t len = sizeof der;
    ASSERT_EQ(QBase642ByteArray(b64.c_str(), static_cast<uint32_t>(b64.size()), der, &len), 0);
    std::ofstream out(pfx_path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(der), len);
  }
  const LaterCase cases[] = {
      {{"-f", "xml", "-t", "1", "-i", "1", "-h", "sha256"},
       "[FuncSignXMLThread] Fail in QSignXml. rc = 5007\r\n"},
      {{"-f", "svault-gen-token", "-t", "1", "-i", "2"},
       "[FuncSVaultGenTokenThread] Fail in QSVaultGenToken. rc = 5007\r\n"},
  };
  for (const LaterCase &c : cases) {
    RunResult r = RunQlutil(With(SharedHsm(), c.args));
    if (r.exit_code == 0) continue;  // served and passing
    EXPECT_EQ(r.exit_code, ExitCodeOf(QL_ERR_NOT_SUPPORTED)) << c.args[1] << "\n" << r.out;
    EXPECT_TRUE(Contains(r.out, c.not_supported_line)) << c.args[1] << "\n" << r.out;
  }
  // PKCS#12 imports are served: the file imports under its password and is refused under
  // another one, with the test's own line.
  RunResult r = RunQlutil(
      With(SharedHsm(), {"-f", "pkcs12", "-t", "2", "-i", "2", "-f", pfx_path, "-p", "24681357"}));
  EXPECT_EQ(r.exit_code, 0) << r.out;
  r = RunQlutil(
      With(SharedHsm(), {"-f", "pkcs12", "-t", "1", "-i", "1", "-f", pfx_path, "-p", "wrong"}));
  EXPECT_EQ(r.exit_code, ExitCodeOf(QL_ERR_BAD_PASSWORD)) << r.out;
  EXPECT_TRUE(Contains(r.out, "[FuncSignXMLThread] Fail in QImportPKCS12. rc = 5085\r\n")) << r.out;
  remove(pfx_path.c_str());
}

}  // namespace
