// OATH jobs against a real HSM: tokens of users (assign-token, unassign-token, oath-resync, with
// logins by one-time password through the library), and oath-check-blob and oath-decrypt-blob,
// with blobs wrapped here by OpenSSL (RFC 5649) under a key imported into the HSM.

#include <openssl/evp.h>

#include <cstring>
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

// A login of `user` (password "pw123456") with a one-time password; QOpenSession's code.
int OtpLogin(int port, const char *user, const char *otp) {
  AUTH_PWD_EX r;
  std::memset(&r, 0, sizeof r);
  std::strcpy(r.szAddr, "127.0.0.1");
  r.nPort = port;
  std::strcpy(r.szUserId, user);
  std::strcpy(r.szPassword, "pw123456");
  r.dwAuthType = QL_STRONG_AUTH_OTP;
  r.pbStrongAuth = reinterpret_cast<unsigned char *>(const_cast<char *>(otp));
  r.nStrongAuthLen = static_cast<int32_t>(std::strlen(otp));
  HSESSIONCTX h = nullptr;
  const int rc = QOpenSession(&h, QL_AUTH_USER_PWD, &r, sizeof r,
                              QL_SESSION_ENCRYPTED | QL_SESSION_BYPASS_CACHE);
  if (rc == QL_OK) QCloseSession(&h, QL_CLOSE_PHYSICAL);
  return rc;
}

// The text after `label` up to the line's end.
std::string LineValue(const std::string &out, const std::string &label) {
  const size_t at = out.find(label);
  if (at == std::string::npos) return {};
  const size_t from = at + label.size();
  return out.substr(from, out.find("\r\n", from) - from);
}

// RFC 4648 base32 (with padding) back to bytes; empty for a malformed text.
std::string FromBase32(const std::string &text) {
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
  std::string out;
  uint32_t buffer = 0;
  int bits = 0;
  for (char c : text) {
    if (c == '=') break;
    const size_t v = alphabet.find(c);
    if (v == std::string::npos) return {};
    buffer = (buffer << 5) | static_cast<uint32_t>(v);
    bits += 5;
    if (bits >= 8) {
      out += static_cast<char>((buffer >> (bits - 8)) & 0xff);
      bits -= 8;
    }
  }
  return out;
}

TEST_F(OathJobs, UserTokenAssignResyncUnassign) {
  MustRun("create-user", {"-un", "otpjob", "-pwd", "pw123456"});
  const std::string seed_hex = "3132333435363738393031323334353637383930";
  EXPECT_EQ(MustRun("assign-token", {"-un", "otpjob", "-seed", seed_hex})
                .find("Token assigned to user otpjob.\r\n"),
            0u);
  RunResult r = Job("assign-token", {"-un", "otpjob", "-seed", seed_hex});
  EXPECT_NE(r.out.find(ErrorLine("QAssignToken", QL_ERR_TOKEN_EXISTS)), std::string::npos) << r.out;
  EXPECT_EQ(OtpLogin(port(), "otpjob", "755224"), QL_OK);
  r = Job("oath-resync", {"-un", "otpjob", "-otp1", "162583", "-otp2", "287922"});
  EXPECT_NE(r.out.find(ErrorLine("QOATHResync", QL_ERR_CHECK_FAILED)), std::string::npos) << r.out;
  EXPECT_EQ(MustRun("oath-resync", {"-un", "otpjob", "-otp1", "287922", "-otp2", "162583"})
                .find("Token of user otpjob resynchronised.\r\n"),
            0u);
  EXPECT_EQ(OtpLogin(port(), "otpjob", "399871"), QL_OK);
  EXPECT_EQ(
      MustRun("unassign-token", {"-un", "otpjob"}).find("Token removed from user otpjob.\r\n"), 0u);
  r = Job("unassign-token", {"-un", "otpjob"});
  EXPECT_NE(r.out.find(ErrorLine("QUnassignToken", QL_ERR_NO_TOKEN)), std::string::npos) << r.out;
  r = Job("assign-token", {"-un", "otpnobody"});
  EXPECT_NE(r.out.find(ErrorLine("QAssignToken", QL_ERR_USER_NOT_FOUND)), std::string::npos)
      << r.out;

  // A random seed, printed once in hex and base32: both are the seed the logins use.
  const std::string out =
      MustRun("assign-token", {"-un", "otpjob", "-digits", "8", "-hash", "sha256"});
  const std::string hex = LineValue(out, "Seed (hex): ");
  ASSERT_EQ(hex.size(), 40u) << out;
  const std::string seed = Unhex(hex);
  EXPECT_EQ(FromBase32(LineValue(out, "Seed (base32): ")), seed) << out;
  char otp[9];
  ASSERT_EQ(QGenerateHOTPOffline(reinterpret_cast<const unsigned char *>(seed.data()), 20,
                                 2 | QL_OATH_SHA256, 0, 0, 0, 8, otp),
            QL_OK);
  EXPECT_EQ(OtpLogin(port(), "otpjob", otp), QL_OK);
  MustRun("remove-user", {"-un", "otpjob"});
}

TEST(OathJobHelp, BadOptionsPrintHelp) {
  const std::vector<std::pair<const char *, std::vector<std::string>>> rows = {
      {"oath-check-blob", {"-kn", "k", "-inform", "hex", "-in", "00"}},  // no OTP
      {"oath-check-blob", {"-kn", "k", "-inform", "hex", "-in", "00", "-otp", "12a456"}},
      {"oath-check-blob", {"-inform", "hex", "-in", "00", "-otp", "123456"}},   // no key
      {"oath-decrypt-blob", {"-kn", "k"}},                                      // no blob
      {"assign-token", {"-seed", "3132333435363738393031323334353637383930"}},  // no user
      {"assign-token", {"-un", "u", "-oathtype", "daily"}},
      {"assign-token", {"-un", "u", "-hash", "md5"}},
      {"assign-token", {"-un", "u", "-seed", "31zz"}},
      {"assign-token", {"-un", "u", "-digits", "six"}},
      {"unassign-token", {}},
      {"oath-resync", {"-un", "u", "-otp1", "755224"}},  // no second OTP
      {"oath-resync", {"-un", "u", "-otp1", "75522a", "-otp2", "287082"}},
      {"oath-resync", {"-otp1", "755224", "-otp2", "287082"}},  // no user
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
