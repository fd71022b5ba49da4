// OATH token blob jobs against a real HSM: oath-check-blob and oath-decrypt-blob, with blobs
// wrapped here by OpenSSL (RFC 5649) under a key imported into the HSM.

#include <openssl/evp.h>

#include <string>
#include <vector>

#include "jobs_test_util.h"
#include "qlapi.h"

namespace jobs_test {
namespace {

class OathJobs : public JobTest {};

const char kKeyHex[] = "00112233445566778899AABBCCDDEEFF0123456789ABCDEFFEDCBA9876543210";

std::string Unhex(const std::string &hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

// An event token record for the seed "12345678901234567890" at counter 0, wrapped under key.
std::string EventBlob(const std::string &key) {
  std::vector<unsigned char> record(44 + QL_OATH_MAX_SEED, 0);
  record[0] = 2;    // event
  record[8] = 6;    // digits
  record[40] = 20;  // seed length
  const std::string seed = "12345678901234567890";
  std::copy(seed.begin(), seed.end(), record.begin() + 44);
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  EVP_CIPHER_CTX_set_flags(ctx, EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
  std::vector<unsigned char> out(record.size() + 16);
  int len = 0, fin = 0;
  const bool ok =
      EVP_EncryptInit_ex(ctx, EVP_aes_256_wrap_pad(), nullptr,
                         reinterpret_cast<const unsigned char *>(key.data()), nullptr) == 1 &&
      EVP_EncryptUpdate(ctx, out.data(), &len, record.data(), static_cast<int>(record.size())) ==
          1 &&
      EVP_EncryptFinal_ex(ctx, out.data() + len, &fin) == 1;
  EVP_CIPHER_CTX_free(ctx);
  EXPECT_TRUE(ok);
  return std::string(out.begin(), out.begin() + len + fin);
}

TEST_F(OathJobs, CheckChainAndBlobContents) {
  MustRun("import-key", {"-kn", "mk", "-bt", "plaintextkey_blob", "-k", "aes256", "-exp", "1",
                         "-inform", "hex", "-in", kKeyHex});
  WriteText(Path("t.bin"), EventBlob(Unhex(kKeyHex)));
  for (const char *otp : {"755224", "287082", "359152"}) {
    const std::string out = MustRun("oath-check-blob", {"-kn", "mk", "-in", Path("t.bin"), "-otp",
                                                        otp, "--out", Path("t.bin")});
    EXPECT_EQ(out.find("One-time password accepted.\r\n"), 0u) << out;
  }
  RunResult r = Job("oath-check-blob", {"-kn", "mk", "-in", Path("t.bin"), "-otp", "359152"});
  EXPECT_NE(r.out.find(ErrorLine("QOATHCheckHOTP", QL_ERR_CHECK_FAILED)), std::string::npos)
      << r.out;
  EXPECT_EQ(r.exitCode, ExitOf(QL_ERR_CHECK_FAILED));

  const std::string record = MustRun("oath-decrypt-blob", {"-kn", "mk", "-in", Path("t.bin")});
  EXPECT_NE(record.find("Type: event\r\n"), std::string::npos) << record;
  EXPECT_NE(record.find("Counter: 3\r\n"), std::string::npos) << record;
  EXPECT_NE(record.find("Seed length: 20\r\n"), std::string::npos) << record;
  const std::string seed =
      MustRun("oath-decrypt-blob", {"-kn", "mk", "-in", Path("t.bin"), "-info", "seed"});
  EXPECT_EQ(seed.substr(0, 42), "3132333435363738393031323334353637383930\r\n");
}

TEST_F(OathJobs, WrongKeyAndChangedBlob) {
  MustRun("import-key", {"-kn", "mk2", "-bt", "plaintextkey_blob", "-k", "aes256", "-inform", "hex",
                         "-in", kKeyHex});
  MustRun("gen-key", {"-k", "aes256", "-kn", "other2"});
  std::string blob = EventBlob(Unhex(kKeyHex));
  WriteText(Path("t.bin"), blob);
  RunResult r = Job("oath-check-blob", {"-kn", "other2", "-in", Path("t.bin"), "-otp", "755224"});
  EXPECT_NE(r.out.find(ErrorLine("QOATHCheckHOTP", QL_ERR_BAD_TAG)), std::string::npos) << r.out;
  blob[5] ^= 1;
  WriteText(Path("changed.bin"), blob);
  r = Job("oath-decrypt-blob", {"-kn", "mk2", "-in", Path("changed.bin")});
  EXPECT_NE(r.out.find(ErrorLine("QOATHGetBlobInfo", QL_ERR_BAD_TAG)), std::string::npos) << r.out;
  r = Job("oath-decrypt-blob", {"-kn", "mk2", "-in", Path("t.bin"), "-info", "seed"});
  EXPECT_NE(r.out.find(ErrorLine("QOATHGetBlobInfo", QL_ERR_NOT_EXPORTABLE)), std::string::npos)
      << r.out;
}

TEST(OathJobHelp, BadOptionsPrintHelp) {
  const std::vector<std::pair<const char *, std::vector<std::string>>> rows = {
      {"oath-check-blob", {"-kn", "k", "-inform", "hex", "-in", "00"}},  // no OTP
      {"oath-check-blob", {"-kn", "k", "-inform", "hex", "-in", "00", "-otp", "12a456"}},
      {"oath-check-blob", {"-inform", "hex", "-in", "00", "-otp", "123456"}},  // no key
      {"oath-decrypt-blob", {"-kn", "k"}},                                     // no blob
      {"oath-decrypt-blob", {"-kn", "k", "-inform", "hex", "-in", "00", "-info", "all"}},
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
