// Signing-identity jobs against a real HSM, with the openssl command on the other side:
// PKCS#12 files it makes are imported and sign, the HSM's exports are read by it, and
// certificates written as typed objects read back as its DER.

#include <string>
#include <vector>

#include "jobs_test_util.h"
#include "qlapi.h"

namespace jobs_test {
namespace {

class PkiJobs : public JobTest {
 protected:
  void SetUp() override {
    JobTest::SetUp();
    ASSERT_EQ(OpenSsl("req -x509 -newkey rsa:2048 -nodes -keyout rsa.key -out rsa.pem "
                      "-subj /CN=rsa -days 30")
                  .exitCode,
              0);
    ASSERT_EQ(OpenSsl("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
                      "-keyout ec.key -out ec.pem -subj /CN=ec -days 30")
                  .exitCode,
              0);
  }
  RunResult OpenSsl(const std::string &args) const {
    return RunCommand("cd " + Quote(scratch_.string()) + " && openssl " + args);
  }
  // The key's signature over data made in the HSM verifies with the certificate's public key.
  void ExpectSignsFor(const std::string &key, const std::string &cert_pem) {
    WriteText(Path("d.txt"), "signed by an imported identity");
    MustRun("sign-hash",
            {"-kn", key, "-h", "sha256", "-in", Path("d.txt"), "--out", Path(key + ".sig")});
    ASSERT_EQ(OpenSsl("x509 -in " + cert_pem + " -pubkey -noout -out " + key + ".pub").exitCode, 0);
    const RunResult v =
        OpenSsl("dgst -sha256 -verify " + key + ".pub -signature " + key + ".sig d.txt");
    EXPECT_NE(v.out.find("Verified OK"), std::string::npos) << v.out;
  }
};

TEST_F(PkiJobs, ImportsWhatTheOpensslCommandExports) {
  ASSERT_EQ(
      OpenSsl("pkcs12 -export -inkey rsa.key -in rsa.pem -passout pass:s3cret -out a.pfx").exitCode,
      0);
  ASSERT_EQ(OpenSsl("pkcs12 -export -inkey rsa.key -in rsa.pem -passout pass:s3cret "
                    "-certpbe PBE-SHA1-3DES -keypbe PBE-SHA1-3DES -macalg sha1 -out b.pfx")
                .exitCode,
            0);
  ASSERT_EQ(
      OpenSsl("pkcs12 -export -inkey ec.key -in ec.pem -passout pass:s3cret -out e.pfx").exitCode,
      0);
  ASSERT_EQ(OpenSsl("x509 -in rsa.pem -outform DER -out rsa.der").exitCode, 0);
  struct Case {
    const char *pfx, *key, *cert, *pem;
  };
  for (const Case &c : {Case{"a.pfx", "ka", "ca", "rsa.pem"}, Case{"b.pfx", "kb", "cb", "rsa.pem"},
                        Case{"e.pfx", "ke", "ce", "ec.pem"}}) {
    SCOPED_TRACE(c.pfx);
    const std::string out = MustRun(
        "import-pkcs12", {"-kn", c.key, "-c", c.cert, "-in", Path(c.pfx), "-pwd", "s3cret"});
    EXPECT_NE(out.find("imported"), std::string::npos) << out;
    ExpectSignsFor(c.key, c.pem);
  }
  // The certificate reads back as the openssl command's DER.
  MustRun("read-file", {"-kn", "ca", "--out", Path("back.der")});
  EXPECT_EQ(ReadText(Path("back.der")), ReadText(Path("rsa.der")));
}

TEST_F(PkiJobs, ImportRefusalsWriteNothing) {
  ASSERT_EQ(
      OpenSsl("pkcs12 -export -inkey rsa.key -in rsa.pem -passout pass:s3cret -out a.pfx").exitCode,
      0);
  RunResult r =
      Job("import-pkcs12", {"-kn", "k", "-c", "c", "-in", Path("a.pfx"), "-pwd", "wrong"});
  EXPECT_EQ(r.exitCode, ExitOf(5085));
  EXPECT_NE(r.out.find(ErrorLine("QImportPKCS12Buffer", 5085)), std::string::npos) << r.out;
  // The certificate's name is taken: the key is not written either, so its name stays free.
  WriteText(Path("x.bin"), "x");
  MustRun("write-file", {"-kn", "taken", "-in", Path("x.bin")});
  r = Job("import-pkcs12", {"-kn", "k", "-c", "taken", "-in", Path("a.pfx"), "-pwd", "s3cret"});
  EXPECT_NE(r.out.find(ErrorLine("QImportPKCS12Buffer", 5022)), std::string::npos) << r.out;
  MustRun("import-pkcs12", {"-kn", "k", "-c", "c", "-in", Path("a.pfx"), "-pwd", "s3cret"});
  // A user without the create right.
  MustRun("create-user", {"-un", "reader", "-pwd", "12345678", "-acl", "0x2"});
  r = JobAs("reader", "12345678", "import-pkcs12",
            {"-kn", "r", "-in", Path("a.pfx"), "-pwd", "s3cret"});
  EXPECT_NE(r.out.find(ErrorLine("QImportPKCS12Buffer", 5002)), std::string::npos) << r.out;
}

TEST_F(PkiJobs, ExportsReadByTheOpensslCommand) {
  ASSERT_EQ(
      OpenSsl("pkcs12 -export -inkey rsa.key -in rsa.pem -passout pass:s3cret -out a.pfx").exitCode,
      0);
  ASSERT_EQ(
      OpenSsl("pkcs12 -export -inkey ec.key -in ec.pem -passout pass:s3cret -out e.pfx").exitCode,
      0);
  MustRun("import-pkcs12",
          {"-kn", "k", "-c", "c", "-in", Path("a.pfx"), "-pwd", "s3cret", "-exp", "1"});
  MustRun("import-pkcs12", {"-kn", "locked", "-c", "lc", "-in", Path("e.pfx"), "-pwd", "s3cret"});
  MustRun("export-pkcs12", {"-kn", "k", "-c", "c", "-pwd", "outpass", "--out", Path("o.pfx")});
  // The command reports the file's protection on its error stream, passed on through cat.
  const std::string protection =
      OpenSsl("pkcs12 -info -noout -in o.pfx -passin pass:outpass 2>&1 | cat").out;
  EXPECT_NE(protection.find("MAC: sha256"), std::string::npos) << protection;
  EXPECT_NE(protection.find("AES-256-CBC"), std::string::npos) << protection;
  // The file holds the same key and certificate.
  ASSERT_EQ(
      OpenSsl("pkcs12 -in o.pfx -passin pass:outpass -nokeys -clcerts -out o_cert.pem").exitCode,
      0);
  EXPECT_EQ(OpenSsl("x509 -in o_cert.pem -noout -fingerprint").out,
            OpenSsl("x509 -in rsa.pem -noout -fingerprint").out);
  RunResult r = Job("export-pkcs12", {"-kn", "locked", "-c", "lc", "-pwd", "outpass"});
  EXPECT_NE(r.out.find(ErrorLine("QExportPKCS12", 5016)), std::string::npos) << r.out;
  r = Job("export-pkcs12", {"-kn", "k", "-c", "lc", "-pwd", "outpass"});
  EXPECT_NE(r.out.find(ErrorLine("QExportPKCS12", 5084)), std::string::npos) << r.out;
}

TEST_F(PkiJobs, TypedWritesStoreCertificatesChainsAndCrls) {
  ASSERT_EQ(OpenSsl("x509 -in rsa.pem -outform DER -out rsa.der").exitCode, 0);
  WriteText(Path("chain.pem"), ReadText(Path("rsa.pem")) + ReadText(Path("ec.pem")));
  MustRun("write-file", {"-kn", "cert", "-in", Path("rsa.pem"), "-typed"});
  MustRun("write-file", {"-kn", "chain", "-in", Path("chain.pem"), "-typed"});
  MustRun("read-file", {"-kn", "cert", "--out", Path("cert.der")});
  EXPECT_EQ(ReadText(Path("cert.der")), ReadText(Path("rsa.der")));
  MustRun("read-file", {"-kn", "chain", "--out", Path("chain.p7")});
  const RunResult p7 = OpenSsl("pkcs7 -inform DER -in chain.p7 -print_certs");
  EXPECT_NE(p7.out.find("subject=CN = rsa"), std::string::npos) << p7.out;
  EXPECT_NE(p7.out.find("subject=CN = ec"), std::string::npos) << p7.out;
  const RunResult r = Job("write-file", {"-kn", "junk", "-in", Path("rsa.key"), "-typed"});
  EXPECT_EQ(r.exitCode, ExitOf(5080));
  EXPECT_NE(r.out.find(ErrorLine("QWriteFileBuffer", 5080)), std::string::npos) << r.out;
}

TEST_F(PkiJobs, CertificateFieldsAndEncodingsInTheLibrary) {
  ASSERT_EQ(OpenSsl("x509 -in rsa.pem -outform DER -out rsa.der").exitCode, 0);
  const std::string der = ReadText(Path("rsa.der"));
  const auto *bytes = reinterpret_cast<const unsigned char *>(der.data());
  QL_CERT_INFO info{};
  ASSERT_EQ(QCert2CertInfo(bytes, static_cast<uint32_t>(der.size()), &info), 0);
  EXPECT_STREQ(info.szSubject, "CN=rsa");
  EXPECT_STREQ(info.szIssuer, "CN=rsa");
  EXPECT_EQ(info.dwKeyAlgId, static_cast<uint32_t>(QL_ALG_RSA2048));
  EXPECT_EQ(info.qwNotAfter - info.qwNotBefore, 30u * 86400);
  EXPECT_EQ(OpenSsl("x509 -in rsa.pem -noout -serial").out,
            "serial=" + std::string(info.szSerial) + "\n");
  const std::string ec = ReadText(Path("ec.pem"));
  ASSERT_EQ(QCert2CertInfo(reinterpret_cast<const unsigned char *>(ec.data()),
                           static_cast<uint32_t>(ec.size()), &info),
            0);
  EXPECT_EQ(info.dwKeyAlgId, static_cast<uint32_t>(QL_ALG_ECC_SECP256R1));
  EXPECT_EQ(QCert2CertInfo(bytes, 10, &info), QL_ERR_BAD_CERT);
  // A subject longer than its field.
  std::string subject;
  for (int i = 0; i < 10; ++i) subject += "/OU=" + std::string(60, static_cast<char>('a' + i));
  ASSERT_EQ(OpenSsl("req -x509 -key rsa.key -out long.pem -days 1 -subj " + subject).exitCode, 0);
  const std::string long_pem = ReadText(Path("long.pem"));
  EXPECT_EQ(QCert2CertInfo(reinterpret_cast<const unsigned char *>(long_pem.data()),
                           static_cast<uint32_t>(long_pem.size()), &info),
            QL_ERR_BAD_LENGTH);

  // cert-encoding-conv needs no HSM: PEM to DER gives the openssl command's DER, and back.
  const RunResult to_der =
      Qlutil({"-j", "cert-encoding-conv", "-in", "rsa.pem", "--outform", "der", "--out", "c.der"});
  EXPECT_EQ(to_der.exitCode, 0) << to_der.out;
  EXPECT_EQ(ReadText(Path("c.der")), der);
  const RunResult to_pem = Qlutil({"-j", "cert-encoding-conv", "-in", "c.der", "--outform", "pem"});
  EXPECT_EQ(to_pem.exitCode, 0) << to_pem.out;
  EXPECT_EQ(to_pem.out, ReadText(Path("rsa.pem")));
  const RunResult bad = Qlutil({"-j", "cert-encoding-conv", "-in", "rsa.key", "--outform", "pem"});
  EXPECT_NE(bad.out.find(ErrorLine("QCertEncodingConvert", QL_ERR_BAD_CERT)), std::string::npos)
      << bad.out;
  EXPECT_EQ(Qlutil({"-j", "cert-encoding-conv", "-in", "rsa.pem", "--outform", "txt"}).exitCode,
            255);
}

TEST_F(PkiJobs, RequestsVerifyAndEqualTheOpensslCommands) {
  MustRun("gen-key", {"-k", "rsa2048", "-kn", "rk", "-exp", "1"});
  MustRun("export-pkcs8", {"-kn", "rk", "--out", Path("rk.p8")});
  ASSERT_EQ(OpenSsl("pkey -inform DER -in rk.p8 -out rk.pem").exitCode, 0);
  MustRun("gen-pkcs10", {"-kn", "rk", "--subject", "CN=alice,O=Acme", "-of", "p10_csr_der", "--out",
                         Path("hsm.csr")});
  ASSERT_EQ(OpenSsl("req -new -key rk.pem -subj /O=Acme/CN=alice -sha256 -outform DER "
                    "-out ossl.csr")
                .exitCode,
            0);
  EXPECT_EQ(ReadText(Path("hsm.csr")), ReadText(Path("ossl.csr")));
  for (const char *alg : {"ecc_secp256r1", "ed25519"}) {
    SCOPED_TRACE(alg);
    MustRun("gen-key", {"-k", alg, "-kn", alg});
    const std::string pem =
        MustRun("gen-pkcs10", {"-kn", alg, "--subject", "CN=device\\, one,C=BR"});
    EXPECT_EQ(pem.rfind("-----BEGIN CERTIFICATE REQUEST-----", 0), 0u) << pem;
    WriteText(Path("r.pem"), pem);
    const RunResult v = OpenSsl("req -verify -in r.pem -noout -subject");
    EXPECT_EQ(v.exitCode, 0) << v.out;
    EXPECT_NE(v.out.find("device, one"), std::string::npos) << v.out;
  }
  const RunResult bad = Job("gen-pkcs10", {"-kn", "rk", "--subject", "XX=1"});
  EXPECT_NE(bad.out.find("Error in QGeneratePKCS10CSR. Err = "), std::string::npos) << bad.out;
}

TEST_F(PkiJobs, CmsSignaturesVerifyWithTheOpensslCommand) {
  ASSERT_EQ(
      OpenSsl("pkcs12 -export -inkey rsa.key -in rsa.pem -passout pass:s3cret -out a.pfx").exitCode,
      0);
  MustRun("import-pkcs12", {"-kn", "k", "-c", "c", "-in", Path("a.pfx"), "-pwd", "s3cret"});
  MustRun("write-file", {"-kn", "chain", "-in", Path("ec.pem"), "-typed"});
  WriteText(Path("d.txt"), "This is some sample content.");
  MustRun("pkcs7-sign", {"-filein", Path("d.txt"), "-kn", "k", "-keycert", "c", "-certchain",
                         "chain", "--out", Path("s.p7s")});
  RunResult v = OpenSsl("cms -verify -inform DER -in s.p7s -CAfile rsa.pem -out v.txt");
  EXPECT_EQ(v.exitCode, 0) << v.out;
  EXPECT_EQ(ReadText(Path("v.txt")), "This is some sample content.");
  // The chain's certificate travels with the signature.
  v = OpenSsl("cms -cmsout -inform DER -in s.p7s -print -noout");
  EXPECT_NE(v.out.find("CN=ec"), std::string::npos);
  EXPECT_NE(v.out.find("messageDigest"), std::string::npos);
  // Detached, no attributes, SHA-1.
  MustRun("pkcs7-sign", {"-filein", Path("d.txt"), "-kn", "k", "-keycert", "c", "-h", "sha1",
                         "-p7attr_detached", "-p7attr_noattr", "--out", Path("d.p7s")});
  v = OpenSsl(
      "cms -verify -inform DER -in d.p7s -content d.txt -CAfile rsa.pem -out /dev/null 2>&1");
  EXPECT_EQ(v.exitCode, 0) << v.out;
  v = OpenSsl("cms -cmsout -inform DER -in d.p7s -print -noout");
  EXPECT_EQ(v.out.find("messageDigest"), std::string::npos) << v.out;
  EXPECT_NE(v.out.find("sha1"), std::string::npos) << v.out;
  // A certificate that is not the key's.
  MustRun("write-file", {"-kn", "ecc", "-in", Path("ec.pem"), "-typed"});
  const RunResult r = Job("pkcs7-sign", {"-filein", Path("d.txt"), "-kn", "k", "-keycert", "ecc"});
  EXPECT_NE(r.out.find(ErrorLine("QPKCS7Sign", 5084)), std::string::npos) << r.out;
}

TEST_F(PkiJobs, TlsCertificateAndItsFingerprint) {
  const RunResult r = Qlutil({"-a", "127.0.0.1", "--port", std::to_string(port()), "-j",
                              "get-tls-cert", "--out", Path("hsm.pem")});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  const RunResult v = OpenSsl("x509 -in hsm.pem -noout -subject");
  EXPECT_EQ(v.exitCode, 0) << v.out;
  const RunResult fp = OpenSsl("x509 -in hsm.pem -outform DER | openssl dgst -sha256 -r");
  ASSERT_GE(fp.out.size(), 64u);
  const std::string line =
      "127.0.0.1:" + std::to_string(port()) + " " + fp.out.substr(0, 64) + "\r\n";
  EXPECT_NE(r.out.find(line), std::string::npos) << r.out;
  // DER on the console: hex, then the same line.
  const RunResult der = Qlutil({"-a", "127.0.0.1", "--port", std::to_string(port()), "-j",
                                "get-tls-cert", "--outform", "der"});
  EXPECT_EQ(der.exitCode, 0) << der.out;
  EXPECT_NE(der.out.find(fp.out.substr(0, 64)), std::string::npos) << der.out;
}

// A certificate of the same test CA for the same address: later connections still verify.
TEST_F(PkiJobs, ANewTlsBundleIsWhatGetTlsCertShowsNext) {
  qltest::IssueTestCertificate({"127.0.0.1", "localhost"}, Path("n.crt"), Path("n.key"));
  WriteText(Path("bundle.pem"), ReadText(Path("n.key")) + ReadText(Path("n.crt")));
  EXPECT_NE(MustRun("set-tls-bundle", {"-in", Path("bundle.pem")}).find("TLS bundle set.\r\n"),
            std::string::npos);
  const RunResult fp = OpenSsl("x509 -in n.crt -outform DER | openssl dgst -sha256 -r");
  ASSERT_GE(fp.out.size(), 64u);
  EXPECT_NE(MustRun("get-tls-cert").find(fp.out.substr(0, 64)), std::string::npos);
  // The key alone is refused with the code of a missing certificate.
  const RunResult r = Job("set-tls-bundle", {"-in", Path("n.key")});
  EXPECT_EQ(r.exitCode, ExitOf(5080));
  EXPECT_NE(r.out.find(ErrorLine("QAdmOperation", 5080)), std::string::npos) << r.out;
}

TEST_F(PkiJobs, MissingOptionsShowTheHelpAndReachNoHsm) {
  const std::vector<std::vector<std::string>> cases = {
      {"-j", "import-pkcs12", "-kn", "k", "-pwd", "x"},
      {"-j", "import-pkcs12", "-in", "a.pfx", "-pwd", "x"},
      {"-j", "export-pkcs12", "-kn", "k", "-pwd", "x"},
      {"-j", "export-pkcs12", "-kn", "k", "-c", "c"},
      {"-j", "gen-pkcs10", "-kn", "k"},
      {"-j", "gen-pkcs10", "-kn", "k", "--subject", "CN=a", "-of", "p10_csr_txt"},
      {"-j", "pkcs7-sign", "-kn", "k", "-keycert", "c"},
      {"-j", "pkcs7-sign", "-filein", "d.txt", "-keycert", "c"},
      {"-j", "get-tls-cert", "--outform", "txt"},
      {"-j", "set-tls-bundle", "-in", ""},
  };
  CountingListener listener;
  for (std::vector<std::string> args : cases) {
    SCOPED_TRACE(args[1] + " " + args[2]);
    std::vector<std::string> full = {"-a", "127.0.0.1", "--port", std::to_string(listener.port()),
                                     "-u", "master",    "-w",     kMasterPassword};
    full.insert(full.end(), args.begin(), args.end());
    const RunResult r = Qlutil(full);
    EXPECT_EQ(r.exitCode, 255);
    EXPECT_NE(r.out.find("DESCRIPTION"), std::string::npos) << r.out;
  }
  EXPECT_EQ(listener.count(), 0);
}

}  // namespace
}  // namespace jobs_test
