// The PKI service in-process, against a PKI the openssl command makes: typed certificate, chain
// and CRL objects, path validation at the HSM's own time, PKCS#12 import all or nothing, export
// and the key-certificate link.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "test_util.h"

namespace qlhsm::testing {
namespace {

namespace fs = std::filesystem;

// A CA with a long-lived leaf, a revoked leaf, a CRL valid for one day, a foreign CA with its own
// leaf, PKCS#12 files of the leaf (default and legacy 3DES) and a PKCS#12 of an EC key.
class PkiServiceTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = fs::temp_directory_path() / ("qlhsm_pki_service_" + std::to_string(getpid()));
    fs::create_directories(dir_);
    const std::string script = R"(set -e
exec >/dev/null 2>&1
printf '[ca]\ndefault_ca = d\n[d]\ndatabase = index.txt\ncrlnumber = crlnumber\ndefault_md = sha256\ndefault_crl_days = 1\n' > ca.cnf
: > index.txt
echo 01 > crlnumber
openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -subj "/CN=Test CA" -days 3650
openssl req -newkey rsa:2048 -nodes -keyout leaf.key -out leaf.csr -subj "/CN=leaf"
openssl x509 -req -in leaf.csr -CA ca.pem -CAkey ca.key -set_serial 10 -out leaf.pem -days 365
openssl req -newkey rsa:2048 -nodes -keyout gone.key -out gone.csr -subj "/CN=gone"
openssl x509 -req -in gone.csr -CA ca.pem -CAkey ca.key -set_serial 11 -out gone.pem -days 365
openssl ca -config ca.cnf -keyfile ca.key -cert ca.pem -revoke gone.pem
openssl ca -config ca.cnf -keyfile ca.key -cert ca.pem -gencrl -out crl.pem
openssl req -x509 -newkey rsa:2048 -nodes -keyout other.key -out other.pem -subj "/CN=Other" -days 30
openssl x509 -in leaf.pem -outform DER -out leaf.der
openssl pkcs12 -export -inkey leaf.key -in leaf.pem -passout pass:secret -out leaf.pfx
openssl pkcs12 -export -inkey leaf.key -in leaf.pem -passout pass:secret -certpbe PBE-SHA1-3DES -keypbe PBE-SHA1-3DES -macalg sha1 -out leaf3des.pfx
openssl pkcs12 -export -inkey other.key -in other.pem -passout pass:secret -out other.pfx
)";
    std::ofstream(dir_ / "make.sh") << script;
    const std::string cmd = "cd '" + dir_.string() + "' && sh make.sh";
    ASSERT_EQ(std::system(cmd.c_str()), 0) << "the openssl command could not make the test PKI";
  }
  static void TearDownTestSuite() { fs::remove_all(dir_); }

  static secure::Bytes File(const char *name) {
    std::ifstream in(dir_ / name, std::ios::binary);
    return secure::Bytes(std::istreambuf_iterator<char>(in), {});
  }
  static secure::Bytes Cat(const char *a, const char *b) {
    secure::Bytes out = File(a);
    const secure::Bytes more = File(b);
    out.insert(out.end(), more.begin(), more.end());
    return out;
  }

  PkiServiceTest() {
    EXPECT_TRUE(pki().WriteTyped(s(), "ca", File("ca.pem"), false).ok());
    EXPECT_TRUE(pki().WriteTyped(s(), "crl", File("crl.pem"), false).ok());
  }

  qlhsm::PkiService &pki() { return f_.engine->pki(); }
  sessions::Session &s() { return *f_.master; }
  int TypeOf(const char *name) {
    Result<objects::ObjectInfo> info = f_.engine->objects().OpenObject(s(), name);
    return info.ok() ? info->type : -1;
  }
  void MoveClock(int64_t seconds) {
    const uint64_t t = static_cast<uint64_t>(f_.engine->Now() + seconds);
    secure::Bytes le(8);
    for (int i = 0; i < 8; ++i) le[i] = static_cast<uint8_t>(t >> (8 * i));
    ASSERT_TRUE(f_.engine->system().SetDateTime(s(), le).ok());
  }
  Code Validate(const char *leaf, const char *crl) {
    return pki().ValidateCertificate(s(), File(leaf), "ca", crl).code();
  }
  Pkcs12Import Pfx(const char *file, const char *key, const char *cert, const char *pwd) {
    Pkcs12Import in;
    in.pfx = File(file);
    in.password = pwd;
    in.key_name = key;
    in.cert_name = cert;
    return in;
  }

  static fs::path dir_;
  EngineFixture f_;
};
fs::path PkiServiceTest::dir_;

TEST_F(PkiServiceTest, TypedWritesKeepEachKindAsDer) {
  EXPECT_EQ(TypeOf("ca"), QL_OBJ_X509);
  EXPECT_EQ(TypeOf("crl"), QL_OBJ_CRL);
  ASSERT_TRUE(pki().WriteTyped(s(), "chain", Cat("ca.pem", "leaf.pem"), false).ok());
  EXPECT_EQ(TypeOf("chain"), QL_OBJ_PKCS7);
  ASSERT_TRUE(pki().WriteTyped(s(), "leaf", File("leaf.pem"), false).ok());
  Result<FileChunk> read = f_.engine->objects().ReadFile(s(), "leaf", 0, 1 << 16);
  ASSERT_TRUE(read.ok());
  EXPECT_EQ(read->data, File("leaf.der"));
  // The same certificate given as DER is the same object.
  ASSERT_TRUE(pki().WriteTyped(s(), "leaf2", File("leaf.der"), false).ok());
  EXPECT_EQ(f_.engine->objects().ReadFile(s(), "leaf2", 0, 1 << 16)->data, File("leaf.der"));
  EXPECT_EQ(pki().WriteTyped(s(), "junk", File("leaf.key"), false).code(), Code::kBadCert);
  EXPECT_EQ(pki().WriteTyped(s(), "leaf", File("other.pem"), false).code(), Code::kObjectExists);
  // Replacing works over the same kind only.
  EXPECT_TRUE(pki().WriteTyped(s(), "leaf", File("other.pem"), true).ok());
  EXPECT_EQ(pki().WriteTyped(s(), "leaf", File("crl.pem"), true).code(), Code::kObjectExists);
  // A certificate is no key: its export as a certificate works, a key's does not.
  EXPECT_EQ(pki().ExportCertificate(s(), KeyArg{0, "crl"}).value(),
            f_.engine->objects().ReadFile(s(), "crl", 0, 1 << 16)->data);
  ASSERT_TRUE(f_.engine->keys().GenerateKey(s(), "aes", QL_ALG_AES128, 0, false).ok());
  EXPECT_EQ(pki().ExportCertificate(s(), KeyArg{0, "aes"}).status().code(), Code::kBadKeyUsage);
}

TEST_F(PkiServiceTest, ValidationFollowsTheHsmClock) {
  EXPECT_EQ(Validate("leaf.pem", ""), Code::kOk);
  EXPECT_EQ(Validate("leaf.der", "crl"), Code::kOk);
  EXPECT_EQ(Validate("gone.pem", ""), Code::kOk);
  EXPECT_EQ(Validate("gone.pem", "crl"), Code::kCertRevoked);
  EXPECT_EQ(Validate("other.pem", ""), Code::kCertUntrusted);
  EXPECT_EQ(Validate("leaf.key", ""), Code::kBadCert);
  // A CRL in a file object and a chain in a file object serve as well.
  ASSERT_TRUE(f_.engine->objects().WriteFile(s(), "crlfile", File("crl.pem")).ok());
  EXPECT_EQ(Validate("gone.pem", "crlfile"), Code::kCertRevoked);
  EXPECT_EQ(pki().ValidateCertificate(s(), File("leaf.pem"), "nothing", "").code(),
            Code::kObjectNotFound);
  // Two days on the CRL is stale; a year on the leaf has expired.
  MoveClock(2 * 86400);
  EXPECT_EQ(Validate("leaf.pem", ""), Code::kOk);
  EXPECT_EQ(Validate("leaf.pem", "crl"), Code::kCertUntrusted);
  MoveClock(400 * 86400);
  EXPECT_EQ(Validate("leaf.pem", ""), Code::kCertExpired);
}

TEST_F(PkiServiceTest, Pkcs12ImportIsAllOrNothing) {
  // The certificate's name taken: neither object is written.
  ASSERT_TRUE(f_.engine->objects().WriteFile(s(), "taken", File("ca.pem")).ok());
  EXPECT_EQ(pki().ImportPkcs12(s(), Pfx("leaf.pfx", "k", "taken", "secret")).code(),
            Code::kObjectExists);
  EXPECT_EQ(TypeOf("k"), -1);
  EXPECT_EQ(pki().ImportPkcs12(s(), Pfx("leaf.pfx", "k", "c", "wrong")).code(), Code::kBadPassword);
  EXPECT_EQ(TypeOf("k"), -1);
  EXPECT_EQ(TypeOf("c"), -1);
  for (const char *file : {"leaf.pfx", "leaf3des.pfx"}) {
    SCOPED_TRACE(file);
    const std::string key = std::string(file) + "-k", cert = std::string(file) + "-c";
    ASSERT_TRUE(pki().ImportPkcs12(s(), Pfx(file, key.c_str(), cert.c_str(), "secret")).ok());
    EXPECT_EQ(TypeOf(key.c_str()), QL_ALG_RSA2048);
    EXPECT_EQ(f_.engine->objects().ReadFile(s(), cert, 0, 1 << 16)->data, File("leaf.der"));
  }
  // Without a certificate name only the key is kept.
  ASSERT_TRUE(pki().ImportPkcs12(s(), Pfx("other.pfx", "o", "", "secret")).ok());
  EXPECT_EQ(TypeOf("o"), QL_ALG_RSA2048);
  // A user without the create right learns nothing.
  ASSERT_TRUE(f_.engine->users().CreateUser(s(), "reader", "password1", ACL_OBJ_READ).ok());
  auto reader = f_.LoginAs("reader", "password1");
  EXPECT_EQ(pki().ImportPkcs12(*reader, Pfx("leaf.pfx", "r", "rc", "secret")).code(),
            Code::kAccessDenied);
}

TEST_F(PkiServiceTest, ExportAndLinkNeedTheMatchingCertificate) {
  Pkcs12Import in = Pfx("leaf.pfx", "k", "c", "secret");
  in.flags = QL_KEY_EXPORTABLE;
  ASSERT_TRUE(pki().ImportPkcs12(s(), in).ok());
  ASSERT_TRUE(pki().ImportPkcs12(s(), Pfx("other.pfx", "locked", "oc", "secret")).ok());
  Result<secure::Bytes> pfx = pki().ExportPkcs12(s(), "k", "c", "again");
  ASSERT_TRUE(pfx.ok());
  // What was exported imports again under its new password.
  Pkcs12Import back;
  back.pfx = *pfx;
  back.password = "again";
  back.key_name = "k2";
  back.cert_name = "c2";
  EXPECT_TRUE(pki().ImportPkcs12(s(), back).ok());
  EXPECT_EQ(pki().ExportPkcs12(s(), "k", "c", "").status().code(), Code::kBadArgument);
  EXPECT_EQ(pki().ExportPkcs12(s(), "locked", "oc", "x").status().code(), Code::kNotExportable);
  EXPECT_EQ(pki().ExportPkcs12(s(), "k", "oc", "x").status().code(), Code::kKeyCertMismatch);
  EXPECT_EQ(pki().AssociateKey(s(), "k", "oc").code(), Code::kKeyCertMismatch);
  ASSERT_TRUE(pki().AssociateKey(s(), "k", "c").ok());
  auto key_records = pki().ReadRecords(s(), "k");
  auto cert_records = pki().ReadRecords(s(), "c");
  ASSERT_TRUE(key_records.ok());
  ASSERT_TRUE(cert_records.ok());
  auto find = [](const std::vector<objects::ObjectStore::Record> &rs, uint32_t id) {
    for (const auto &r : rs)
      if (r.id == id) return r.value;
    return secure::Bytes{};
  };
  EXPECT_EQ(find(*key_records, QL_META_ID).size(), 20u);
  EXPECT_EQ(find(*key_records, QL_META_ID), find(*cert_records, QL_META_ID));
  EXPECT_EQ(find(*key_records, QL_META_LABEL), find(*cert_records, QL_META_LABEL));
  // Records written through the p11 service never reach the engine's own (the key's
  // certificate), which its reads do not show either.
  const size_t engine_records = key_records->size() - 2;
  ASSERT_GT(engine_records, 0u);
  auto &p11 = f_.engine->p11();
  const secure::Bytes label = {'x'};
  EXPECT_EQ(p11.ManageRecords(s(), "k", 2, {{0x10000, label}}).status().code(), Code::kBadArgument);
  ASSERT_TRUE(p11.ManageRecords(s(), "k", 2, {{QL_META_LABEL, label}}).ok());
  EXPECT_EQ(p11.ManageRecords(s(), "k", 1, {})->size(), 1u);
  key_records = pki().ReadRecords(s(), "k");
  EXPECT_EQ(key_records->size(), engine_records + 1);
  EXPECT_EQ(find(*key_records, QL_META_LABEL), label);
  ASSERT_TRUE(p11.ManageRecords(s(), "k", 4, {}).ok());
  EXPECT_EQ(pki().ReadRecords(s(), "k")->size(), engine_records);
  EXPECT_EQ(find(*pki().ReadRecords(s(), "c"), QL_META_ID).size(), 20u);
  // Records go with their object.
  ASSERT_TRUE(f_.engine->objects().RemoveObject(s(), "c").ok());
  ASSERT_TRUE(f_.engine->objects().WriteFile(s(), "c", File("ca.pem")).ok());
  EXPECT_TRUE(pki().ReadRecords(s(), "c")->empty());
}

TEST_F(PkiServiceTest, SignatureUnderAValidatedSigner) {
  ASSERT_TRUE(pki().ImportPkcs12(s(), Pfx("leaf.pfx", "signer", "", "secret")).ok());
  ASSERT_TRUE(pki().WriteTyped(s(), "chain", Cat("leaf.pem", "ca.pem"), false).ok());
  const secure::Bytes digest(32, 0x5A);
  Result<secure::Bytes> sig =
      f_.engine->keys().SignHash(s(), KeyArg{0, "signer"}, QL_ALG_SHA256, digest, 0, 512);
  ASSERT_TRUE(sig.ok());
  CertSignatureCheck in;
  in.certificate = File("leaf.pem");
  in.chain_name = "ca";
  in.hash_algorithm = QL_ALG_SHA256;
  in.digest = digest;
  in.signature = sig.value();
  EXPECT_EQ(pki().VerifyWithCertificate(s(), in).code(), Code::kOk);
  in.crl_name = "crl";
  EXPECT_EQ(pki().VerifyWithCertificate(s(), in).code(), Code::kOk);
  CertSignatureCheck bad = in;
  bad.signature.back() ^= 1;
  EXPECT_EQ(pki().VerifyWithCertificate(s(), bad).code(), Code::kBadSignature);
  bad = in;
  bad.certificate = File("gone.pem");
  EXPECT_EQ(pki().VerifyWithCertificate(s(), bad).code(), Code::kCertRevoked);

  // By issuer and serial: the chain must hold the signer.
  CertSignatureCheck by_serial = in;
  by_serial.certificate.clear();
  by_serial.issuer = "CN=Test CA";
  by_serial.serial = secure::Bytes{10};
  by_serial.chain_name = "chain";
  EXPECT_EQ(pki().VerifyWithCertificate(s(), by_serial).code(), Code::kOk);
  by_serial.serial = secure::Bytes{11};
  EXPECT_EQ(pki().VerifyWithCertificate(s(), by_serial).code(), Code::kCertUntrusted);
  by_serial.serial = secure::Bytes{10};
  by_serial.chain_name = "ca";
  EXPECT_EQ(pki().VerifyWithCertificate(s(), by_serial).code(), Code::kCertUntrusted);

  // Arguments, then the right (before existence), then existence.
  bad = in;
  bad.digest.clear();
  EXPECT_EQ(pki().VerifyWithCertificate(s(), bad).code(), Code::kBadArgument);
  bad = in;
  bad.chain_name = "nothing";
  EXPECT_EQ(pki().VerifyWithCertificate(s(), bad).code(), Code::kObjectNotFound);
  ASSERT_TRUE(f_.engine->users().CreateUser(s(), "norights", "password1", 0).ok());
  auto none = f_.LoginAs("norights", "password1");
  EXPECT_EQ(pki().VerifyWithCertificate(*none, bad).code(), Code::kAccessDenied);
  EXPECT_EQ(pki().VerifyWithCertificate(*none, in).code(), Code::kAccessDenied);
}

TEST_F(PkiServiceTest, JwsX5cFollowsTheKeysRecordedCertificate) {
  ASSERT_TRUE(pki().ImportPkcs12(s(), Pfx("leaf.pfx", "jk", "jc", "secret")).ok());
  const secure::Bytes payload = {'{', '}'};
  const uint32_t x5c = 1;
  EXPECT_EQ(pki().SignJws(s(), "jk", "{\"alg\":\"RS256\"}", payload, x5c).status().code(),
            Code::kBadArgument);
  ASSERT_TRUE(pki().AssociateKey(s(), "jk", "jc").ok());
  Result<secure::Bytes> jws = pki().SignJws(s(), "jk", "{\"alg\":\"RS256\"}", payload, x5c);
  ASSERT_TRUE(jws.ok());
  const std::string text(jws->begin(), jws->end());
  EXPECT_EQ(pki().CheckJws(s(), "ca", "crl", text, 0).code(), Code::kOk);
  // The association names the certificate object: another certificate under that name is not
  // the key's, and a removed one is missing.
  ASSERT_TRUE(f_.engine->objects().RemoveObject(s(), "jc").ok());
  EXPECT_EQ(pki().SignJws(s(), "jk", "{\"alg\":\"RS256\"}", payload, x5c).status().code(),
            Code::kObjectNotFound);
  ASSERT_TRUE(pki().WriteTyped(s(), "jc", File("other.pem"), false).ok());
  EXPECT_EQ(pki().SignJws(s(), "jk", "{\"alg\":\"RS256\"}", payload, x5c).status().code(),
            Code::kKeyCertMismatch);
  EXPECT_TRUE(pki().SignJws(s(), "jk", "{\"alg\":\"RS256\"}", payload, 0).ok());
  // A missing chain or CRL object.
  EXPECT_EQ(pki().CheckJws(s(), "nochain", "", text, 0).code(), Code::kObjectNotFound);
  EXPECT_EQ(pki().CheckJws(s(), "ca", "nocrl", text, 0).code(), Code::kObjectNotFound);
}

}  // namespace
}  // namespace qlhsm::testing
