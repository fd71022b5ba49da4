// Payment jobs against a real HSM: gen-cvv, export-tr31, import-tr31 and the EFT daemon's jobs.

#include <cstring>
#include <string>
#include <utility>
#include <vector>

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

// The worked version D block under its AES-256 KBPK.
const std::string kKbpkD(
    "\x88\xE1\xAB\x2A\x2E\x3D\xD3\x8C\x1F\xA0\x39\xA5\x36\x50\x0C\xC8\xA8\x7A\xB9\xD6\x2D\xC9\x2C"
    "\x01\x05\x8F\xA7\x9F\x44\x65\x7D\xE6",
    32);
const char *kBlockD =
    "D0112P0AE00E0000B82679114F470F540165EDFBF7E250FCEA43F810D215F8D207E2E417C07156A27E8E31DA05F7"
    "425509593D03A457DC34";

std::string FirstLine(const std::string &out) {
  return out.substr(0, out.find("\r\n"));
}

TEST_F(PaymentJobs, Tr31BlocksGoOutAndComeBack) {
  ImportKey("kbpk", "aes256", kKbpkD);
  RunResult r =
      Job("import-tr31", {"--kbpk", "kbpk", "-kn", "t31", "-inform", "text", "-in", kBlockD});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  EXPECT_EQ(FirstLine(r.out), "Key t31 imported.");
  // Printed: a new block with the attributes the key kept.
  r = Job("export-tr31", {"--kbpk", "kbpk", "-kn", "t31"});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  const std::string block = FirstLine(r.out);
  EXPECT_EQ(block.substr(0, 16), std::string(kBlockD, 16)) << r.out;
  EXPECT_EQ(block.size(), std::strlen(kBlockD)) << r.out;
  EXPECT_NE(block, kBlockD);  // fresh padding
  // Into a file with other attributes, then imported from that file.
  r = Job("export-tr31", {"--kbpk", "kbpk", "-kn", "t31", "--tr31-usage", "k0", "--tr31-mode", "e",
                          "--tr31-exp", "non-exportable", "--out", Path("k0.tr31")});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  r = Job("import-tr31", {"--kbpk", "kbpk", "-kn", "t31_k0", "-in", Path("k0.tr31")});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  // The block said N: the imported key goes no further.
  r = Job("export-tr31", {"--kbpk", "kbpk", "-kn", "t31_k0"});
  EXPECT_NE(r.out.find(ErrorLine("QEFTExportTR31", 5016)), std::string::npos) << r.out;
  EXPECT_NE(r.exitCode, 0);
}

TEST_F(PaymentJobs, Tr31Refusals) {
  ImportKey("kbpk2", "aes256", kKbpkD);
  std::string tampered = kBlockD;
  tampered[20] = tampered[20] == '0' ? '1' : '0';
  RunResult r =
      Job("import-tr31", {"--kbpk", "kbpk2", "-kn", "t31x", "-inform", "text", "-in", tampered});
  EXPECT_NE(r.out.find(ErrorLine("QEFTImportTR31", 5010)), std::string::npos) << r.out;
  EXPECT_NE(r.exitCode, 0);
  // Missing or unknown options print the help page and answer -1.
  for (const std::vector<std::string> &bad :
       {std::vector<std::string>{"-kn", "t31x", "-inform", "text", "-in", kBlockD},
        std::vector<std::string>{"--kbpk", "kbpk2", "-kn", "t31x", "-inform", "hex", "-in", "x"}}) {
    r = Job("import-tr31", bad);
    EXPECT_EQ(r.exitCode, 255) << r.out;
    EXPECT_NE(r.out.find("\r\nDESCRIPTION\r\n"), std::string::npos) << r.out;
  }
  r = Job("export-tr31", {"--kbpk", "kbpk2", "-kn", "t31x", "--tr31-usage", "zz"});
  EXPECT_EQ(r.exitCode, 255) << r.out;
  EXPECT_NE(r.out.find("--tr31-usage"), std::string::npos) << r.out;
}

// The value printed on the row `name` of eftd-info ("name : value").
std::string Row(const std::string &out, const std::string &name) {
  const size_t at = out.find(name + " : ");
  if (at == std::string::npos) return "";
  const size_t from = at + name.size() + 3;
  return out.substr(from, out.find('\r', from) - from);
}

TEST_F(PaymentJobs, EftdJobsAuthorizeConfigureAndReset) {
  RunResult r = Job("eftd-info");
  ASSERT_EQ(r.exitCode, 0) << r.out;
  for (const char *section : {"Configuration", "Authorization", "Counters"})
    EXPECT_NE(r.out.find(section), std::string::npos) << r.out;
  const std::string formats = Row(r.out, "Formats");
  EXPECT_EQ(Row(r.out, "Activities"), "none") << r.out;

  MustRun("eftd-authorize", {"--act", "pin-format1", "--min", "5"});
  r = Job("eftd-info");
  EXPECT_EQ(Row(r.out, "Activities"), "pin-format1") << r.out;
  EXPECT_EQ(Row(r.out, "By"), "master") << r.out;
  MustRun("eftd-deauthorize");
  EXPECT_EQ(Row(Job("eftd-info").out, "Activities"), "none");

  MustRun("eftd-set-conf", {"--formats", "0,3,4", "--auth-req", "all"});
  r = Job("eftd-info");
  EXPECT_EQ(Row(r.out, "Formats"), "0,3,4") << r.out;
  EXPECT_EQ(Row(r.out, "Needs auth"), "clear-pin,pin-format1") << r.out;
  MustRun("eftd-authorize", {"--act", "all"});
  MustRun("eftd-reset");
  r = Job("eftd-info");
  EXPECT_EQ(Row(r.out, "Activities"), "none") << r.out;
  EXPECT_EQ(Row(r.out, "Formats"), "0,3,4") << r.out;  // the configuration stays
  EXPECT_EQ(Row(r.out, "import-tr31"), "0 ok, 0 failed") << r.out;
  MustRun("eftd-set-conf", {"--formats", formats, "--auth-req", "pin-format1"});

  // Refused by the command line: help and -1, nothing sent.
  for (const auto &[job, options] :
       {std::pair<std::string, std::vector<std::string>>{"eftd-set-conf", {}},
        {"eftd-set-conf", {"--formats", "0,2"}},
        {"eftd-set-conf", {"--dectab", "12345"}},
        {"eftd-authorize", {"--act", "all", "--min", "721"}},
        {"eftd-authorize", {}},
        {"eftd-deauthorize", {"--act", "none"}}}) {
    r = Job(job, options);
    EXPECT_EQ(r.exitCode, 255) << job << r.out;
    EXPECT_NE(r.out.find("\r\nDESCRIPTION\r\n"), std::string::npos) << r.out;
  }
}

}  // namespace
}  // namespace jobs_test
