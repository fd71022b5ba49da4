// Certificates, requests, CMS and PKCS#12 against the openssl command: it makes the CA, the
// certificates and the CRL, and checks what this library makes.
#include "crypto/pki.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "crypto/algorithms.h"
#include "test_util.h"

namespace qlhsm::crypto::pki {
namespace {

namespace fs = std::filesystem;

Bytes ReadAll(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

void WriteAll(const fs::path &path, ByteView data) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char *>(data.data()),
             static_cast<std::streamsize>(data.size()));
}

// A CA, a leaf it issued, one more it issued and revoked, a CRL naming that one, and a leaf
// key for signing: all made by the openssl command in a scratch folder.
class PkiTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = fs::temp_directory_path() / ("qlhsm_pki_" + std::to_string(getpid()));
    fs::create_directories(dir_);
    const std::string script = R"(set -e
exec >/dev/null 2>&1
cat > ca.cnf <<'CNF'
[ca]
default_ca = ca_default
[ca_default]
database = index.txt
crlnumber = crlnumber
default_md = sha256
default_crl_days = 30
CNF
: > index.txt
echo 01 > crlnumber
openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -subj "/CN=Test CA" -days 3650
openssl req -newkey rsa:2048 -nodes -keyout leaf.key -out leaf.csr -subj "/O=Acme/CN=leaf"
openssl x509 -req -in leaf.csr -CA ca.pem -CAkey ca.key -set_serial 10 -out leaf.pem -days 30
openssl req -newkey rsa:2048 -nodes -keyout gone.key -out gone.csr -subj "/CN=gone"
openssl x509 -req -in gone.csr -CA ca.pem -CAkey ca.key -set_serial 11 -out gone.pem -days 30
openssl ca -config ca.cnf -keyfile ca.key -cert ca.pem -revoke gone.pem
openssl ca -config ca.cnf -keyfile ca.key -cert ca.pem -gencrl -out crl.pem
openssl req -x509 -newkey rsa:2048 -nodes -keyout other.key -out other.pem -subj "/CN=Other CA" -days 30
)";
    std::ofstream(dir_ / "make.sh") << script;
    const std::string cmd = "cd '" + dir_.string() + "' && sh make.sh";
    ASSERT_EQ(std::system(cmd.c_str()), 0) << "the openssl command could not make the test PKI";
  }
  static void TearDownTestSuite() { fs::remove_all(dir_); }

  static Bytes Cert(const char *name) { return (*ReadCertificates(ReadAll(dir_ / name)))[0]; }
  static KeyPtr LoadKey(const char *name) {
    const Bytes pem = ReadAll(dir_ / name);
    BIO *bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    EVP_PKEY *pkey = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    return testing::KeyFromPkey(pkey, alg::kRsa2048);
  }
  static bool Openssl(const std::string &args) {
    const std::string cmd = "cd '" + dir_.string() + "' && openssl " + args + " >/dev/null 2>&1";
    return std::system(cmd.c_str()) == 0;
  }

  static fs::path dir_;
};
fs::path PkiTest::dir_;

TEST_F(PkiTest, ReadsCertificatesInEveryForm) {
  const Bytes pem = ReadAll(dir_ / "ca.pem");
  Result<std::vector<Bytes>> one = ReadCertificates(pem);
  ASSERT_TRUE(one.ok());
  ASSERT_EQ(one->size(), 1u);
  EXPECT_EQ(*ReadCertificates((*one)[0]), *one);  // DER in, the same DER out
  Bytes two = pem;
  const Bytes leaf = ReadAll(dir_ / "leaf.pem");
  two.insert(two.end(), leaf.begin(), leaf.end());
  EXPECT_EQ(ReadCertificates(two)->size(), 2u);
  Result<Bytes> bundle = MakeCertificateBundle(*ReadCertificates(two));
  ASSERT_TRUE(bundle.ok());
  EXPECT_EQ(*ReadCertificates(*bundle), *ReadCertificates(two));
  EXPECT_EQ(ReadCertificates(testing::Text("not a certificate")).code(), Code::kBadData);
  EXPECT_TRUE(ReadCrl(ReadAll(dir_ / "crl.pem")).ok());
  EXPECT_EQ(ReadCrl(pem).code(), Code::kBadData);
  EXPECT_EQ(*CertificateSubject(Cert("leaf.pem")), "CN=leaf,O=Acme");
  EXPECT_EQ(*CertificateIssuer(Cert("leaf.pem")), "CN=Test CA");
}

TEST_F(PkiTest, PathValidationAsOpensslVerifySeesIt) {
  const std::vector<Bytes> chain = {Cert("ca.pem")};
  const Bytes crl = *ReadCrl(ReadAll(dir_ / "crl.pem"));
  const time_t now = time(nullptr);
  EXPECT_EQ(ValidatePath(Cert("leaf.pem"), chain, crl, now)->problem, PathProblem::kNone);
  EXPECT_EQ(ValidatePath(Cert("gone.pem"), chain, std::nullopt, now)->problem, PathProblem::kNone);
  EXPECT_EQ(ValidatePath(Cert("gone.pem"), chain, crl, now)->problem, PathProblem::kRevoked);
  EXPECT_EQ(ValidatePath(Cert("leaf.pem"), chain, std::nullopt, now + 60L * 86400)->problem,
            PathProblem::kExpired);
  EXPECT_EQ(ValidatePath(Cert("leaf.pem"), {Cert("other.pem")}, std::nullopt, now)->problem,
            PathProblem::kUntrusted);
  // The CRL is good for 30 days: past them, with a leaf still valid, it is stale.
  EXPECT_EQ(ValidatePath(Cert("ca.pem"), chain, crl, now + 40L * 86400)->problem,
            PathProblem::kUntrusted);
  EXPECT_EQ(ValidatePath(testing::Text("junk"), chain, crl, now).code(), Code::kBadData);
  EXPECT_TRUE(Openssl("verify -CAfile ca.pem -crl_check -CRLfile crl.pem leaf.pem"));
  EXPECT_FALSE(Openssl("verify -CAfile ca.pem -crl_check -CRLfile crl.pem gone.pem"));
}

TEST_F(PkiTest, RequestMatchesOpensslReqByteForByte) {
  KeyPtr key = LoadKey("leaf.key");
  Result<Bytes> req = MakeRequest(*key, "CN=alice,O=Acme Corp,C=BR", "SHA256");
  ASSERT_TRUE(req.ok()) << CodeName(req.code());
  ASSERT_TRUE(Openssl(
      "req -new -key leaf.key -subj '/C=BR/O=Acme Corp/CN=alice' -sha256 -outform DER -out r.der"));
  EXPECT_EQ(*req, ReadAll(dir_ / "r.der"));
  WriteAll(dir_ / "ours.der", *req);
  EXPECT_TRUE(Openssl("req -in ours.der -inform DER -verify -noout"));
  EXPECT_EQ(MakeRequest(*key, "CN=alice,,", "SHA256").code(), Code::kBadArgument);
  EXPECT_EQ(MakeRequest(*key, "XX=alice", "SHA256").code(), Code::kBadArgument);
  // Escaped commas stay in the value.
  Result<Bytes> escaped = ParseDistinguishedName("CN=Smith\\, John,O=Acme");
  ASSERT_TRUE(escaped.ok());
}

TEST_F(PkiTest, CmsSignaturesVerifyWithOpensslCms) {
  KeyPtr key = LoadKey("leaf.key");
  const Bytes content = testing::Text("This is some sample content.");
  WriteAll(dir_ / "content.txt", content);
  for (uint32_t flags : {0u, kCmsNoAttributes, kCmsDetached | kCmsBinary}) {
    Result<Bytes> sig = CmsSign(*key, Cert("leaf.pem"), {Cert("ca.pem")}, content, flags, "SHA256");
    ASSERT_TRUE(sig.ok()) << flags;
    WriteAll(dir_ / "sig.der", *sig);
    const std::string detached = (flags & kCmsDetached) ? " -content content.txt" : "";
    EXPECT_TRUE(Openssl("cms -verify -binary -inform DER -in sig.der -CAfile ca.pem -out out.txt" +
                        detached))
        << flags;
    EXPECT_EQ(ReadAll(dir_ / "out.txt"), content) << flags;
  }
  EXPECT_EQ(CmsSign(*LoadKey("gone.key"), Cert("leaf.pem"), {}, content, 0, "SHA256").code(),
            Code::kKeyCannotDo);
}

TEST_F(PkiTest, CosignAddsASignerThatOpensslVerifies) {
  KeyPtr first = LoadKey("leaf.key");
  KeyPtr second = LoadKey("gone.key");
  const Bytes content = testing::Text("This is some sample content.");
  WriteAll(dir_ / "content.txt", content);
  for (uint32_t shape : {kCmsBinary, kCmsDetached | kCmsBinary}) {
    Result<Bytes> one = CmsSign(*first, Cert("leaf.pem"), {}, content, shape, "SHA256");
    ASSERT_TRUE(one.ok());
    Result<Bytes> two =
        CmsSign(*second, Cert("gone.pem"), {Cert("ca.pem")}, *one, kCmsCosign, "SHA256");
    ASSERT_TRUE(two.ok()) << shape;
    WriteAll(dir_ / "two.der", *two);
    const std::string detached = (shape & kCmsDetached) ? " -content content.txt" : "";
    ASSERT_TRUE(
        Openssl("cms -verify -binary -inform DER -in two.der -CAfile ca.pem -out out.txt "
                "-signer signers.pem" +
                detached))
        << shape;
    EXPECT_EQ(ReadAll(dir_ / "out.txt"), content);
    const Bytes signers = ReadAll(dir_ / "signers.pem");
    const std::string text(signers.begin(), signers.end());
    size_t count = 0;
    for (size_t at = text.find("BEGIN CERTIFICATE"); at != std::string::npos;
         at = text.find("BEGIN CERTIFICATE", at + 1))
      ++count;
    EXPECT_EQ(count, 2u) << shape;
  }
  Result<Bytes> one = CmsSign(*first, Cert("leaf.pem"), {}, content, 0, "SHA256");
  ASSERT_TRUE(one.ok());
  // Only a SignedData is co-signed, with signed attributes, beside a signer of its digest.
  EXPECT_EQ(CmsSign(*second, Cert("gone.pem"), {}, content, kCmsCosign, "SHA256").code(),
            Code::kBadData);
  EXPECT_EQ(
      CmsSign(*second, Cert("gone.pem"), {}, *one, kCmsCosign | kCmsNoAttributes, "SHA256").code(),
      Code::kBadArgument);
  EXPECT_EQ(CmsSign(*second, Cert("gone.pem"), {}, *one, kCmsCosign, "SHA384").code(),
            Code::kBadArgument);
}

TEST_F(PkiTest, Pkcs12RoundTripsThroughOpenssl) {
  KeyPtr key = LoadKey("leaf.key");
  Result<Bytes> p12 = MakePkcs12(*key, Cert("leaf.pem"), "s3cret");
  ASSERT_TRUE(p12.ok());
  WriteAll(dir_ / "ours.p12", *p12);
  EXPECT_TRUE(Openssl("pkcs12 -in ours.p12 -info -noout -passin pass:s3cret"));
  EXPECT_FALSE(Openssl("pkcs12 -in ours.p12 -info -noout -passin pass:wrong"));
  ASSERT_TRUE(
      Openssl("pkcs12 -export -inkey leaf.key -in leaf.pem -out theirs.p12 -passout pass:pw"));
  ASSERT_TRUE(
      Openssl("pkcs12 -export -inkey leaf.key -in leaf.pem -out old.p12 -passout pass:pw "
              "-keypbe PBE-SHA1-3DES -certpbe PBE-SHA1-3DES -macalg sha1"));
  for (const char *file : {"theirs.p12", "old.p12"}) {
    Result<Pkcs12Contents> read = ReadPkcs12(ReadAll(dir_ / file), "pw");
    ASSERT_TRUE(read.ok()) << file;
    EXPECT_EQ(read->certificate, Cert("leaf.pem"));
    KeyPtr back = *Key::FromPkcs8(alg::kRsa2048, read->private_key_pkcs8, true);
    EXPECT_TRUE(KeyMatchesCertificate(*back, Cert("leaf.pem")));
    EXPECT_EQ(ReadPkcs12(ReadAll(dir_ / file), "nope").code(), Code::kBadTag);
  }
  EXPECT_EQ(MakePkcs12(*key, Cert("leaf.pem"), "").code(), Code::kBadArgument);
  EXPECT_EQ(MakePkcs12(*key, Cert("ca.pem"), "pw").code(), Code::kKeyCannotDo);
  EXPECT_FALSE(KeyMatchesCertificate(*key, Cert("ca.pem")));
}

}  // namespace
}  // namespace qlhsm::crypto::pki
