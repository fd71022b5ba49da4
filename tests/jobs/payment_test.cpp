// Payment jobs against a real HSM: gen-cvv.

#include <string>

#include "jobs_test_util.h"

namespace jobs_test {
namespace {

class PaymentJobs : public JobTest {
 protected:
  // A key of known bytes, stored as `name`.
  void ImportKey(const std::string &name, const std::string &alg, const std::string &bytes) {
    WriteText(Path(name + ".bin"), bytes);
    MustRun("import-key",
            {"-kn", name, "-bt", "plaintextkey_blob", "-k", alg, "-in", Path(name + ".bin")});
  }
};

const std::string kCvkA("\x01\x23\x45\x67\x89\xAB\xCD\xEF", 8);
const std::string kCvkB("\xFE\xDC\xBA\x98\x76\x54\x32\x10", 8);

TEST_F(PaymentJobs, GenCvvPrintsThePublishedValue) {
  ImportKey("cvk", "3des112", kCvkA + kCvkB);
  const std::string card[] = {"--pan", "4123456789012345", "--exp", "8701"};
  RunResult r = Job("gen-cvv", {"-kn", "cvk", card[0], card[1], card[2], card[3], "--sc", "101"});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  EXPECT_EQ(r.out.rfind("CVV: 561\r\n", 0), 0u) << r.out;
  // The same card's CVV2 differs.
  r = Job("gen-cvv", {"-kn", "cvk", card[0], card[1], card[2], card[3], "--sc", "000"});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  EXPECT_EQ(r.out.rfind("CVV: ", 0), 0u) << r.out;
  EXPECT_EQ(r.out.find("CVV: 561"), std::string::npos) << r.out;
}

TEST_F(PaymentJobs, GenCvvRefusals) {
  ImportKey("aes", "aes128", kCvkA + kCvkB);
  RunResult r =
      Job("gen-cvv", {"-kn", "aes", "--pan", "4123456789012345", "--exp", "8701", "--sc", "101"});
  EXPECT_NE(r.out.find(ErrorLine("QGenerateCVV", 5014)), std::string::npos) << r.out;
  EXPECT_NE(r.exitCode, 0);
  r = Job("gen-cvv", {"-kn", "aes", "--pan", "41234", "--exp", "8701", "--sc", "101"});
  EXPECT_NE(r.out.find(ErrorLine("QGenerateCVV", 1001)), std::string::npos) << r.out;
  // A missing option prints the help page and answers -1.
  r = Job("gen-cvv", {"-kn", "aes", "--pan", "4123456789012345", "--exp", "8701"});
  EXPECT_EQ(r.exitCode, 255) << r.out;
  EXPECT_NE(r.out.find("\r\nDESCRIPTION\r\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("--sc"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace jobs_test
