// Key jobs against a real HSM: gen-key, export-key, import-key, sign-hash with the exported key
// checked by OpenSSL here, PKCS#8 both ways, ECDH.

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

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

class KeyJobs : public JobTest {
 protected:
  // The openssl command in this test's scratch folder; its exit status and output.
  RunResult OpenSsl(const std::string &args) const {
    return RunCommand("cd " + Quote(scratch_.string()) + " && openssl " + args);
  }
  std::string Hex(const Bytes &b) const {
    static const char *digits = "0123456789abcdef";
    std::string h;
    for (unsigned char c : b) h += {digits[c >> 4], digits[c & 15]};
    return h;
  }
};

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

// PKCS#8 files made by the openssl command, encrypted (PBES2) and plain, are imported and sign;
// the command itself verifies the signatures with the public key it derives from its own file.
TEST_F(KeyJobs, ImportPkcs8MadeByTheOpensslCommand) {
  ASSERT_EQ(OpenSsl("genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ec.pem").exitCode,
            0);
  ASSERT_EQ(OpenSsl("pkcs8 -topk8 -in ec.pem -outform DER -v2 aes-256-cbc -passout pass:p8secret "
                    "-out ec_enc.p8")
                .exitCode,
            0);
  ASSERT_EQ(OpenSsl("pkcs8 -topk8 -in ec.pem -outform DER -nocrypt -out ec_plain.p8").exitCode, 0);
  ASSERT_EQ(OpenSsl("pkey -in ec.pem -pubout -out ec_pub.pem").exitCode, 0);
  WriteText(Path("d.txt"), "signed with a key the openssl command made");
  struct Case {
    const char *name;
    std::vector<std::string> options;
  };
  const Case cases[] = {{"p8enc", {"-in", Path("ec_enc.p8"), "-pwd", "p8secret"}},
                        {"p8plain", {"-in", Path("ec_plain.p8")}}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> options = {"-kn", c.name};
    options.insert(options.end(), c.options.begin(), c.options.end());
    MustRun("import-pkcs8", options);
    const std::string sig = std::string(c.name) + ".sig";
    MustRun("sign-hash", {"-kn", c.name, "-h", "sha256", "-in", Path("d.txt"), "--out", Path(sig)});
    const RunResult v = OpenSsl("dgst -sha256 -verify ec_pub.pem -signature " + sig + " d.txt");
    EXPECT_EQ(v.exitCode, 0) << v.out;
    EXPECT_NE(v.out.find("Verified OK"), std::string::npos) << v.out;
  }
  // The encrypted file without its password, or with a wrong one, is refused.
  for (const std::vector<std::string> &bad :
       {std::vector<std::string>{"-kn", "p8x", "-in", Path("ec_enc.p8")},
        std::vector<std::string>{"-kn", "p8y", "-in", Path("ec_enc.p8"), "-pwd", "wrong"}}) {
    const RunResult r = Job("import-pkcs8", bad);
    EXPECT_NE(r.exitCode, 0) << r.out;
    EXPECT_NE(r.out.find("Error in QPKCS8ImportKey. Err = "), std::string::npos) << r.out;
  }
}

// Keys the HSM exports as PKCS#8, encrypted and plain, are read by `openssl pkey`, which derives
// from them the same public key the HSM exports.
TEST_F(KeyJobs, ExportPkcs8ReadByOpensslPkey) {
  MustRun("gen-key", {"-k", "rsa2048", "-kn", "p8rsa", "-exp", "1"});
  MustRun("export-key", {"-kn", "p8rsa", "-bt", "publickey_blob", "--out", Path("hsm_pub.der")});
  ASSERT_EQ(OpenSsl("pkey -pubin -inform DER -in hsm_pub.der -out hsm_pub.pem").exitCode, 0);
  const std::string hsm_pub = ReadText(Path("hsm_pub.pem"));
  ASSERT_NE(hsm_pub.find("BEGIN PUBLIC KEY"), std::string::npos);

  MustRun("export-pkcs8", {"-kn", "p8rsa", "-pwd", "p8secret", "--out", Path("enc.p8")});
  MustRun("export-pkcs8", {"-kn", "p8rsa", "--out", Path("plain.p8")});
  ASSERT_EQ(OpenSsl("pkey -inform DER -in enc.p8 -passin pass:p8secret -pubout -out enc_pub.pem")
                .exitCode,
            0);
  EXPECT_EQ(ReadText(Path("enc_pub.pem")), hsm_pub);
  ASSERT_EQ(OpenSsl("pkey -inform DER -in plain.p8 -pubout -out plain_pub.pem").exitCode, 0);
  EXPECT_EQ(ReadText(Path("plain_pub.pem")), hsm_pub);
  // The encrypted form really is encrypted: a wrong password does not open it, and its ASN.1
  // names PBES2 with AES-256-CBC.
  EXPECT_NE(OpenSsl("pkey -inform DER -in enc.p8 -passin pass:wrong -noout").exitCode, 0);
  const RunResult asn1 = OpenSsl("asn1parse -inform DER -in enc.p8");
  EXPECT_NE(asn1.out.find("PBES2"), std::string::npos) << asn1.out;
  EXPECT_NE(asn1.out.find("aes-256-cbc"), std::string::npos) << asn1.out;
  EXPECT_EQ(OpenSsl("pkey -inform DER -in plain.p8 -passin pass:x -noout").exitCode, 0);
}

mode_t ModeOf(const std::string &path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? (st.st_mode & 0777) : 0;
}

TEST_F(KeyJobs, ExportedSecretsAreForTheirOwnerOnly) {
  MustRun("gen-key", {"-k", "aes256", "-kn", "sec", "-exp", "1"});
  MustRun("export-key", {"-kn", "sec", "-bt", "plaintextkey_blob", "--out", Path("sec.bin")});
  EXPECT_EQ(ModeOf(Path("sec.bin")), 0600u);
  // A file that was readable by others before is narrowed when a secret replaces its content.
  WriteText(Path("loose.bin"), "old");
  chmod(Path("loose.bin").c_str(), 0644);
  MustRun("export-key", {"-kn", "sec", "-bt", "plaintextkey_blob", "--out", Path("loose.bin")});
  EXPECT_EQ(ModeOf(Path("loose.bin")), 0600u);
  EXPECT_EQ(ReadBytes(Path("loose.bin")), ReadBytes(Path("sec.bin")));

  MustRun("gen-key", {"-k", "rsa2048", "-kn", "secrsa", "-exp", "1"});
  MustRun("export-pkcs8", {"-kn", "secrsa", "--out", Path("plain8.p8")});
  EXPECT_EQ(ModeOf(Path("plain8.p8")), 0600u);
}

// X25519: every key exchanged only as exported public keys; the openssl command derives the same
// secret outside the HSM, and the same X9.63 key from it.
TEST_F(KeyJobs, GenEcdhX25519AndX963MatchTheOpensslCommand) {
  MustRun("gen-key", {"-k", "x25519", "-kn", "xk"});
  MustRun("export-key", {"-kn", "xk", "-bt", "publickey_blob", "--out", Path("xk.der")});
  ASSERT_EQ(OpenSsl("genpkey -algorithm X25519 -out peer.pem").exitCode, 0);
  ASSERT_EQ(OpenSsl("pkey -in peer.pem -pubout -outform DER -out peer.der").exitCode, 0);
  ASSERT_EQ(
      OpenSsl("pkeyutl -derive -inkey peer.pem -peerkey xk.der -peerform DER -out z.bin").exitCode,
      0);
  const Bytes z = ReadBytes(Path("z.bin"));
  ASSERT_EQ(z.size(), 32u);

  MustRun("gen-ecdh", {"-kn", "xk", "-pub", Path("peer.der"), "-kdf", "ql_gen_key_kdf_raw_secret",
                       "--out", Path("z_hsm.bin")});
  EXPECT_EQ(ReadBytes(Path("z_hsm.bin")), z);

  ASSERT_EQ(OpenSsl("kdf -keylen 32 -kdfopt digest:SHA256 -kdfopt hexkey:" + Hex(z) +
                    " -kdfopt hexinfo:0a0b -binary -out k.bin X963KDF")
                .exitCode,
            0);
  const std::string out = MustRun(
      "gen-ecdh", {"-kn", "xk", "-pub", Path("peer.der"), "-kdf", "ql_gen_key_x9_63_sha256", "-len",
                   "32", "-si", "0a0b", "-tkn", "agreed", "-k", "aes256", "-exp", "1"});
  EXPECT_NE(out.find("Key agreed created.\r\n"), std::string::npos) << out;
  MustRun("export-key", {"-kn", "agreed", "-bt", "plaintextkey_blob", "--out", Path("k_hsm.bin")});
  EXPECT_EQ(ReadBytes(Path("k_hsm.bin")), ReadBytes(Path("k.bin")));

  // A peer of another curve, and a key name taken, are the HSM's refusals.
  ASSERT_EQ(OpenSsl("genpkey -algorithm X448 -out p448.pem").exitCode, 0);
  ASSERT_EQ(OpenSsl("pkey -in p448.pem -pubout -outform DER -out p448.der").exitCode, 0);
  RunResult r =
      Job("gen-ecdh", {"-kn", "xk", "-pub", Path("p448.der"), "-kdf", "ql_gen_key_kdf_raw_secret"});
  EXPECT_EQ(r.exitCode, ExitOf(5014));
  EXPECT_NE(r.out.find(ErrorLine("QGenEcdhKey", 5014)), std::string::npos) << r.out;
  r = Job("gen-ecdh", {"-kn", "xk", "-pub", Path("peer.der"), "-kdf", "ql_gen_key_x9_63_sha256",
                       "-len", "32", "-tkn", "agreed", "-k", "aes256"});
  EXPECT_EQ(r.exitCode, ExitOf(5022));
  EXPECT_NE(r.out.find(ErrorLine("QGenEcdhKey", 5022)), std::string::npos) << r.out;
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
