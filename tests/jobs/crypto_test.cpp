// Cryptographic jobs against a real HSM: gen-rand, hash, sign-hash and verify-hash input forms,
// encrypt and decrypt.

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <memory>
#include <string>

#include "jobs_test_util.h"

namespace jobs_test {
namespace {

class CryptoJobs : public JobTest {};

// The output's first line (the job's result, before the runner's footer).
std::string FirstLine(const std::string &out) {
  return out.substr(0, out.find("\r\n"));
}

TEST_F(CryptoJobs, GenRand) {
  const std::string a = FirstLine(MustRun("gen-rand", {"-len", "16"}));
  const std::string b = FirstLine(MustRun("gen-rand", {"-len", "16"}));
  EXPECT_EQ(a.size(), 32u);
  EXPECT_EQ(a.find_first_not_of("0123456789ABCDEF"), std::string::npos) << a;
  EXPECT_NE(a, b);
  MustRun("gen-rand", {"-len", "1000", "--out", Path("r.bin")});
  EXPECT_EQ(ReadText(Path("r.bin")).size(), 1000u);
}

TEST_F(CryptoJobs, HashKnownAnswers) {
  // FIPS 180-2 "abc".
  EXPECT_EQ(FirstLine(MustRun("hash", {"-h", "sha256", "-inform", "hex", "-in", "616263"})),
            "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
  WriteText(Path("abc.txt"), "abc");
  EXPECT_EQ(FirstLine(MustRun("hash", {"-h", "sha1", "-in", Path("abc.txt")})),
            "A9993E364706816ABA3E25717850C26C9CD0D89D");
}

TEST_F(CryptoJobs, CmacWithAnHsmKeyMatchesOpenSsl) {
  // The key's secret comes back through an export, so the MAC can be checked here.
  MustRun("gen-key", {"-k", "aes256", "-kn", "mac", "-exp", "1"});
  RunResult r = Job("hash", {"-h", "cmac_aes", "-kn", "mac", "-inform", "hex", "-in", "616263"});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  MustRun("export-key", {"-kn", "mac", "-bt", "plaintextkey_blob", "--out", Path("k.bin")});
  const std::string key = ReadText(Path("k.bin"));
  ASSERT_EQ(key.size(), 32u);
  std::unique_ptr<EVP_MAC, decltype(&EVP_MAC_free)> mac(EVP_MAC_fetch(nullptr, "CMAC", nullptr),
                                                        &EVP_MAC_free);
  std::unique_ptr<EVP_MAC_CTX, decltype(&EVP_MAC_CTX_free)> ctx(EVP_MAC_CTX_new(mac.get()),
                                                                &EVP_MAC_CTX_free);
  OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string("cipher", const_cast<char *>("AES-256-CBC"), 0),
      OSSL_PARAM_construct_end()};
  unsigned char out[16];
  size_t len = 0;
  ASSERT_EQ(
      EVP_MAC_init(ctx.get(), reinterpret_cast<const unsigned char *>(key.data()), 32, params), 1);
  ASSERT_EQ(EVP_MAC_update(ctx.get(), reinterpret_cast<const unsigned char *>("abc"), 3), 1);
  ASSERT_EQ(EVP_MAC_final(ctx.get(), out, &len, sizeof out), 1);
  std::string hex;
  for (size_t i = 0; i < len; ++i) {
    char two[3];
    snprintf(two, sizeof two, "%02X", out[i]);
    hex += two;
  }
  EXPECT_EQ(FirstLine(r.out), hex);
}

TEST_F(CryptoJobs, SignHashInputForms) {
  MustRun("gen-key", {"-k", "ecc_secp256r1", "-kn", "ec"});
  WriteText(Path("d.txt"), "abc");
  // The data as a file, then its SHA-256 given directly: both verify against the same data.
  MustRun("sign-hash", {"-kn", "ec", "-h", "sha256", "-in", Path("d.txt"), "--out", Path("1.sig")});
  MustRun("sign-hash", {"-kn", "ec", "-h", "sha256", "-inform", "hash_hex", "-in",
                        "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD", "--out",
                        Path("2.sig")});
  for (const char *sig : {"1.sig", "2.sig"}) {
    RunResult r = Job("verify-hash", {"-kn", "ec", "-h", "sha256", "-inform", "hex", "-in",
                                      "616263", "-sig", Path(sig)});
    EXPECT_EQ(r.exitCode, 0) << sig << r.out;
    EXPECT_NE(r.out.find("Signature verified.\r\n"), std::string::npos);
  }
  // Other data: the HSM says the signature does not verify.
  RunResult r = Job("verify-hash", {"-kn", "ec", "-h", "sha256", "-inform", "hex", "-in", "616264",
                                    "-sig", Path("1.sig")});
  EXPECT_EQ(r.exitCode, ExitOf(5017));
  EXPECT_NE(r.out.find(ErrorLine("QVerifySignature", 5017)), std::string::npos) << r.out;
  // A missing key.
  r = Job("sign-hash", {"-kn", "nosuch", "-h", "sha256", "-inform", "hex", "-in", "00"});
  EXPECT_EQ(r.exitCode, ExitOf(5004));
  EXPECT_NE(r.out.find(ErrorLine("QGetUserKey", 5004)), std::string::npos) << r.out;
}

TEST_F(CryptoJobs, EncryptDecryptAgainstOpenSsl) {
  MustRun("gen-key", {"-k", "aes128", "-kn", "aes", "-exp", "1"});
  const std::string key_hex =
      FirstLine(MustRun("export-key", {"-kn", "aes", "-bt", "plaintextkey_blob"}));
  ASSERT_EQ(key_hex.size(), 32u);
  const RunResult enc = Job("encrypt", {"-kn", "aes", "-m", "ecb", "-pad", "no_padding", "-inform",
                                        "hex", "-in", "00112233445566778899AABBCCDDEEFF"});
  ASSERT_EQ(enc.exitCode, 0) << enc.out;
  const std::string out = FirstLine(enc.out);
  // The same block through OpenSSL with the exported key.
  unsigned char key[16];
  for (int i = 0; i < 16; ++i)
    key[i] = static_cast<unsigned char>(std::stoi(key_hex.substr(2 * i, 2), nullptr, 16));
  const unsigned char block[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                   0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
  unsigned char expect[32];
  int len = 0;
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                      &EVP_CIPHER_CTX_free);
  ASSERT_EQ(EVP_EncryptInit_ex(ctx.get(), EVP_aes_128_ecb(), nullptr, key, nullptr), 1);
  EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
  ASSERT_EQ(EVP_EncryptUpdate(ctx.get(), expect, &len, block, 16), 1);
  std::string hex;
  for (int i = 0; i < 16; ++i) {
    char two[3];
    snprintf(two, sizeof two, "%02X", expect[i]);
    hex += two;
  }
  EXPECT_EQ(out, hex);
  EXPECT_EQ(FirstLine(MustRun("decrypt", {"-kn", "aes", "-m", "ecb", "-pad", "no_padding",
                                          "-inform", "hex", "-in", out})),
            "00112233445566778899AABBCCDDEEFF");
  // A bad padding on decryption.
  RunResult r = Job("decrypt", {"-kn", "aes", "-m", "ecb", "-pad", "pkcs5_padding", "-inform",
                                "hex", "-in", out});
  EXPECT_EQ(r.exitCode, ExitOf(5024));
  EXPECT_NE(r.out.find(ErrorLine("QDecrypt", 5024)), std::string::npos) << r.out;
}

}  // namespace
}  // namespace jobs_test
