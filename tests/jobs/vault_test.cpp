// Vault jobs against a real HSM: svault-gen-token and svault-get-data, their refusals and help
// pages; and the -f svault-gen-token run.

#include <string>
#include <vector>

#include "jobs_test_util.h"
#include "qlapi.h"

namespace jobs_test {
namespace {

class VaultJobs : public JobTest {};

// The value after "<label>: " on its line.
std::string Field(const std::string &out, const std::string &label) {
  const size_t at = out.find(label + ": ");
  if (at == std::string::npos) return "";
  const size_t from = at + label.size() + 2;
  return out.substr(from, out.find("\r\n", from) - from);
}

TEST_F(VaultJobs, TokenAndBlobRoundTrip) {
  MustRun("gen-key", {"-k", "aes256", "-kn", "vk"});
  const std::string secret = "4111 1111 1111 1111";
  const std::string out = MustRun(
      "svault-gen-token", {"-kn", "vk", "-cks", "pan", "-secret", secret, "--out", Path("t.bin")});
  const std::string token = Field(out, "Token");
  ASSERT_EQ(token.size(), secret.size()) << out;
  EXPECT_EQ(token.substr(0, 7), "4111 11");
  EXPECT_EQ(token.substr(15), "1111");
  EXPECT_EQ(out.find("Blob: "), std::string::npos) << "the blob went to the file";
  EXPECT_EQ(MustRun("svault-get-data", {"-kn", "vk", "-in", Path("t.bin"), "-op", "secret"})
                .substr(0, secret.size() + 2),
            secret + "\r\n");
  EXPECT_EQ(MustRun("svault-get-data", {"-kn", "vk", "-in", Path("t.bin"), "-op", "token"})
                .substr(0, token.size() + 2),
            token + "\r\n");
  const std::string masked =
      MustRun("svault-get-data", {"-kn", "vk", "-in", Path("t.bin"), "-op", "secret", "-mask"});
  EXPECT_EQ(masked.substr(0, secret.size()), "4111 11** **** 1111");

  // Without --out the blob is printed in hex, and reads back as hex.
  const std::string hex_out = MustRun(
      "svault-gen-token",
      {"-kn", "vk", "-masktype", "secret", "-rep", "base26", "-type", "tkr2", "-secret", "abc"});
  const std::string blob = Field(hex_out, "Blob");
  ASSERT_FALSE(blob.empty()) << hex_out;
  EXPECT_EQ(Field(hex_out, "Token").size(), 32u);
  EXPECT_EQ(
      MustRun("svault-get-data", {"-kn", "vk", "-inform", "hex", "-in", blob, "-op", "secret"})
          .substr(0, 5),
      "abc\r\n");
}

TEST_F(VaultJobs, Refusals) {
  MustRun("gen-key", {"-k", "aes128", "-kn", "vk1"});
  MustRun("gen-key", {"-k", "aes128", "-kn", "vk2"});
  MustRun("gen-key", {"-k", "3des168", "-kn", "vdes"});
  MustRun("svault-gen-token", {"-kn", "vk1", "-secret", "12345678", "--out", Path("t.bin")});
  RunResult r = Job("svault-get-data", {"-kn", "vk2", "-in", Path("t.bin"), "-op", "secret"});
  EXPECT_NE(r.out.find(ErrorLine("QSVaultGetData", QL_ERR_BAD_TAG)), std::string::npos) << r.out;
  EXPECT_EQ(r.exitCode, ExitOf(QL_ERR_BAD_TAG));
  std::string blob = ReadText(Path("t.bin"));
  blob[blob.size() / 2] ^= 0x20;
  WriteText(Path("changed.bin"), blob);
  r = Job("svault-get-data", {"-kn", "vk1", "-in", Path("changed.bin"), "-op", "token"});
  EXPECT_NE(r.out.find(ErrorLine("QSVaultGetData", QL_ERR_BAD_TAG)), std::string::npos) << r.out;
  r = Job("svault-gen-token", {"-kn", "vdes", "-secret", "12345678"});
  EXPECT_NE(r.out.find(ErrorLine("QSVaultGenToken", QL_ERR_BAD_KEY_USAGE)), std::string::npos)
      << r.out;
  r = Job("svault-gen-token", {"-kn", "vk1", "-cks", "cpf", "-secret", "12345678"});
  EXPECT_NE(r.out.find(ErrorLine("QSVaultGenToken", QL_ERR_BAD_ARGUMENT)), std::string::npos)
      << r.out;
  r = Job("svault-gen-token", {"-kn", "nokey", "-secret", "12345678"});
  EXPECT_NE(r.out.find(ErrorLine("QSVaultGenToken", QL_ERR_OBJ_NOT_FOUND)), std::string::npos)
      << r.out;
}

TEST_F(VaultJobs, FunctionalRunCountsCollisions) {
  const RunResult r =
      Qlutil({"-a", "127.0.0.1", "--port", std::to_string(port()), "-u", "master", "-w",
              kMasterPassword, "-f", "svault-gen-token", "-t", "2", "-i", "5", "-cks", "pan"});
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_NE(r.out.find("Total collisions: "), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Collisions rate: "), std::string::npos) << r.out;
}

// Missing or wrong options print the help page and answer -1 before any connection.
TEST(VaultJobHelp, BadOptionsPrintHelp) {
  const std::vector<std::pair<const char *, std::vector<std::string>>> rows = {
      {"svault-gen-token", {"-kn", "k"}},                                    // no secret
      {"svault-gen-token", {"-secret", "1234"}},                             // no key
      {"svault-gen-token", {"-kn", "k", "-secret", "1", "-cks", "visa"}},    // unknown kind
      {"svault-gen-token", {"-kn", "k", "-secret", "1", "-rep", "base11"}},  // unknown base
      {"svault-get-data", {"-kn", "k", "-inform", "hex", "-in", "00"}},      // no -op
      {"svault-get-data", {"-kn", "k", "-op", "secret"}},                    // no blob
      {"svault-get-data", {"-kn", "k", "-op", "pan", "-inform", "hex", "-in", "00"}},
  };
  for (const auto &[job, options] : rows) {
    CountingListener hsm;
    std::string cmd = Quote(QLUTIL_BIN) + " -a 127.0.0.1 --port " + std::to_string(hsm.port()) +
                      " -u master -w 24681357 -j " + job;
    for (const auto &o : options) cmd += " " + Quote(o);
    const RunResult r = RunCommand(cmd);
    EXPECT_EQ(r.exitCode, 255) << cmd << "\n" << r.out;
    EXPECT_NE(r.out.find("\r\nOPTIONS\r\n"), std::string::npos) << cmd;
    EXPECT_EQ(hsm.count(), 0) << cmd;
  }
}

}  // namespace
}  // namespace jobs_test
