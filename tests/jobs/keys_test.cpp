// Key jobs against a real HSM: gen-key, export-key, import-key, sign-hash with the exported key
// checked by OpenSSL here, PKCS#8 both ways, ECDH.

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

#include "jobs_test_util.h"

namespace jobs_test {
namespace {

using PKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Bytes = std::vector<unsigned char>;

Bytes ReadBytes(const std::string &path) {
  const std::string text = ReadText(path);
  return Bytes(text.begin(), text.end());
}

PKey LoadPublicDer(const Bytes &der) {
  const unsigned char *p = der.data();
  return PKey(d2i_PUBKEY(nullptr, &p, static_cast<long>(der.size())), &EVP_PKEY_free);
}

bool VerifySha256(EVP_PKEY *key, const std::string &data, const Bytes &signature) {
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  return EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
         EVP_DigestVerify(ctx.get(), signature.data(), signature.size(),
                          reinterpret_cast<const unsigned char *>(data.data()), data.size()) == 1;
}

PKey GenerateRsa(int bits) {
  return PKey(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(bits)),
              &EVP_PKEY_free);
}

class KeyJobs : public JobTest {};

TEST_F(KeyJobs, GenKeySignExportVerifiedByOpenSsl) {
  MustRun("gen-key", {"-k", "rsa2048", "-kn", "myrsa", "-exp", "0", "-tmp", "0"});
  const std::string data = "the quick brown fox\n";
  WriteText(Path("data.txt"), data);
  MustRun("sign-hash",
          {"-kn", "myrsa", "-h", "sha256", "-in", Path("data.txt"), "--out", Path("data.sig")});
  MustRun("export-key", {"-kn", "myrsa", "-bt", "publickey_blob", "--out", Path("pub.der")});
  PKey pub = LoadPublicDer(ReadBytes(Path("pub.der")));
  ASSERT_TRUE(pub) << "the exported key is not a SubjectPublicKeyInfo";
  EXPECT_EQ(EVP_PKEY_get_bits(pub.get()), 2048);
  const Bytes signature = ReadBytes(Path("data.sig"));
  EXPECT_TRUE(VerifySha256(pub.get(), data, signature));
  EXPECT_FALSE(VerifySha256(pub.get(), data + "x", signature));
  // The HSM agrees, with its own key and with the exported public key.
  EXPECT_NE(MustRun("verify-hash", {"-kn", "myrsa", "-h", "sha256", "-in", Path("data.txt"), "-sig",
                                    Path("data.sig")})
                .find("Signature verified.\r\n"),
            std::string::npos);
  MustRun("verify-hash", {"-pub", Path("pub.der"), "-k", "rsa2048", "-h", "sha256", "-in",
                          Path("data.txt"), "-sig", Path("data.sig")});
  // The private part of a key made without -exp 1 stays in the HSM.
  const RunResult r = Job("export-key", {"-kn", "myrsa", "-bt", "privatekey_blob"});
  EXPECT_NE(r.exitCode, 0);
  EXPECT_NE(r.out.find("Error in QExportKey. Err = "), std::string::npos) << r.out;
}

TEST_F(KeyJobs, GenKeyTemporaryWithoutName) {
  const RunResult r = Job("gen-key", {"-k", "aes128", "-tmp", "1"});
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_EQ(r.out.find("Error"), std::string::npos);
  // Released at the end of the routine: no object stays.
  EXPECT_EQ(MustRun("list-obj").rfind("Name\nTotal time", 0), 0u);
}

TEST_F(KeyJobs, GenKeyRefusals) {
  MustRun("gen-key", {"-k", "aes256", "-kn", "taken"});
  RunResult r = Job("gen-key", {"-k", "aes256", "-kn", "taken"});
  EXPECT_EQ(r.exitCode, ExitOf(5022));
  EXPECT_NE(r.out.find(ErrorLine("QGenerateKey", 5022)), std::string::npos) << r.out;
  MustRun("create-user", {"-un", "nocreate", "-pwd", "12345678", "-acl", "0x3"});
  r = JobAs("nocreate", "12345678", "gen-key", {"-k", "aes256", "-kn", "k"});
  EXPECT_EQ(r.exitCode, ExitOf(5002));
  EXPECT_NE(r.out.find(ErrorLine("QGenerateKey", 5002)), std::string::npos) << r.out;
}

TEST_F(KeyJobs, ExportImportRoundTripThroughCiphers) {
  MustRun("gen-key", {"-k", "aes256", "-kn", "orig", "-exp", "1"});
  MustRun("export-key", {"-kn", "orig", "-bt", "plaintextkey_blob", "--out", Path("aes.bin")});
  EXPECT_EQ(ReadBytes(Path("aes.bin")).size(), 32u);
  MustRun("import-key", {"-kn", "copy", "-bt", "plaintextkey_blob", "-k", "aes256", "-in",
                         Path("aes.bin"), "-exp", "1"});
  // The copy holds the same secret.
  MustRun("export-key", {"-kn", "copy", "-bt", "plaintextkey_blob", "--out", Path("copy.bin")});
  EXPECT_EQ(ReadBytes(Path("copy.bin")), ReadBytes(Path("aes.bin")));
  // A name that is taken.
  const RunResult r = Job("import-key", {"-kn", "copy", "-bt", "plaintextkey_blob", "-k", "aes256",
                                         "-in", Path("aes.bin")});
  EXPECT_EQ(r.exitCode, ExitOf(5022));
  EXPECT_NE(r.out.find(ErrorLine("QImportKey", 5022)), std::string::npos) << r.out;
  const std::string iv = "000102030405060708090A0B0C0D0E0F";
  WriteText(Path("plain.txt"), "sixteen byte msg and more");
  const RunResult enc = Job("encrypt", {"-kn", "orig", "-m", "cbc", "-pad", "pkcs5_padding", "-iv",
                                        iv, "-in", Path("plain.txt"), "--out", Path("enc.bin")});
  SKIP_IF_NOT_SERVED(enc, "QSetKeyParam");
  SKIP_IF_NOT_SERVED(enc, "QEncrypt");
  ASSERT_EQ(enc.exitCode, 0) << enc.out;
  EXPECT_EQ(ReadBytes(Path("enc.bin")).size(), 32u);
  MustRun("decrypt", {"-kn", "copy", "-m", "cbc", "-pad", "pkcs5_padding", "-iv", iv, "-in",
                      Path("enc.bin"), "--out", Path("dec.txt")});
  EXPECT_EQ(ReadText(Path("dec.txt")), "sixteen byte msg and more");
}

TEST_F(KeyJobs, ImportPkcs8MadeByOpenSsl) {
  PKey key = GenerateRsa(2048);
  ASSERT_TRUE(key);
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_file(Path("key.p8").c_str(), "wb"),
                                                &BIO_free);
  ASSERT_EQ(i2d_PKCS8PrivateKey_bio(bio.get(), key.get(), EVP_aes_256_cbc(), nullptr, 0, nullptr,
                                    const_cast<char *>("p8secret")),
            1);
  bio.reset();
  RunResult r = Job("import-pkcs8", {"-kn", "p8key", "-in", Path("key.p8"), "-pwd", "p8secret"});
  SKIP_IF_NOT_SERVED(r, "QPKCS8ImportKey");
  ASSERT_EQ(r.exitCode, 0) << r.out;
  const std::string data = "signed by an imported key";
  WriteText(Path("d.txt"), data);
  MustRun("sign-hash",
          {"-kn", "p8key", "-h", "sha256", "-in", Path("d.txt"), "--out", Path("d.sig")});
  EXPECT_TRUE(VerifySha256(key.get(), data, ReadBytes(Path("d.sig"))));
  // A wrong password is refused.
  r = Job("import-pkcs8", {"-kn", "p8key2", "-in", Path("key.p8"), "-pwd", "wrong"});
  EXPECT_NE(r.exitCode, 0);
  EXPECT_NE(r.out.find("Error in QPKCS8ImportKey. Err = "), std::string::npos) << r.out;
}

TEST_F(KeyJobs, ExportPkcs8ReadByOpenSsl) {
  MustRun("gen-key", {"-k", "rsa2048", "-kn", "p8out", "-exp", "1"});
  RunResult r = Job("export-pkcs8", {"-kn", "p8out", "-pwd", "p8secret", "--out", Path("o.p8")});
  SKIP_IF_NOT_SERVED(r, "QPKCS8ExportKey");
  ASSERT_EQ(r.exitCode, 0) << r.out;
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_file(Path("o.p8").c_str(), "rb"),
                                                &BIO_free);
  PKey key(d2i_PKCS8PrivateKey_bio(bio.get(), nullptr, nullptr, const_cast<char *>("p8secret")),
           &EVP_PKEY_free);
  ASSERT_TRUE(key) << "OpenSSL cannot read the exported PKCS#8";
  EXPECT_EQ(EVP_PKEY_get_bits(key.get()), 2048);
  // The key OpenSSL read is the HSM's: it verifies the HSM's signature.
  WriteText(Path("d.txt"), "x");
  MustRun("sign-hash",
          {"-kn", "p8out", "-h", "sha256", "-in", Path("d.txt"), "--out", Path("d.sig")});
  EXPECT_TRUE(VerifySha256(key.get(), "x", ReadBytes(Path("d.sig"))));
  // A key made without -exp 1 is not exported.
  MustRun("gen-key", {"-k", "rsa1024", "-kn", "locked"});
  r = Job("export-pkcs8", {"-kn", "locked", "-pwd", "p8secret"});
  EXPECT_NE(r.exitCode, 0);
  EXPECT_NE(r.out.find("Error in QPKCS8ExportKey. Err = "), std::string::npos) << r.out;
}

TEST_F(KeyJobs, GenEcdhRawSecretMatchesOpenSsl) {
  MustRun("gen-key", {"-k", "ecc_secp256r1", "-kn", "ec"});
  MustRun("export-key", {"-kn", "ec", "-bt", "publickey_blob", "--out", Path("ec.der")});
  PKey peer(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), &EVP_PKEY_free);
  ASSERT_TRUE(peer);
  unsigned char *der = nullptr;
  const int der_len = i2d_PUBKEY(peer.get(), &der);
  ASSERT_GT(der_len, 0);
  WriteText(Path("peer.der"), std::string(reinterpret_cast<char *>(der), der_len));
  OPENSSL_free(der);
  const RunResult r = Job("gen-ecdh", {"-kn", "ec", "-pub", Path("peer.der"), "-kdf",
                                       "ql_gen_key_kdf_raw_secret", "--out", Path("z.bin")});
  SKIP_IF_NOT_SERVED(r, "QGenEcdhKey");
  ASSERT_EQ(r.exitCode, 0) << r.out;
  PKey hsm_pub = LoadPublicDer(ReadBytes(Path("ec.der")));
  ASSERT_TRUE(hsm_pub);
  std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(
      EVP_PKEY_CTX_new(peer.get(), nullptr), &EVP_PKEY_CTX_free);
  size_t len = 0;
  ASSERT_EQ(EVP_PKEY_derive_init(ctx.get()), 1);
  ASSERT_EQ(EVP_PKEY_derive_set_peer(ctx.get(), hsm_pub.get()), 1);
  ASSERT_EQ(EVP_PKEY_derive(ctx.get(), nullptr, &len), 1);
  Bytes z(len);
  ASSERT_EQ(EVP_PKEY_derive(ctx.get(), z.data(), &len), 1);
  EXPECT_EQ(ReadBytes(Path("z.bin")), z);
}

}  // namespace
}  // namespace jobs_test
