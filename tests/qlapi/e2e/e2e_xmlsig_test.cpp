// XML signatures and PIX messages through the library against a real qlhsmd, checked by the
// xmlsec1 and openssl tools: signatures they accept and make, refusals with their codes
// (malformed documents, tampering, a revoked signer, no rights), and the qlutil commands.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"
#include "hsm_fixture.h"
#include "library_session.h"
#include "qlapi.h"

namespace {

namespace fs = std::filesystem;

constexpr const char *kDocument =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<inv:Invoice xmlns:inv=\"urn:test:invoice\" xmlns:x=\"urn:test:unused\">\n"
    "  <inv:Seller>Example Supplies</inv:Seller>\n"
    "  <inv:Body Id=\"b1\"><inv:Total Currency=\"BRL\">45.00</inv:Total></inv:Body>\n"
    "</inv:Invoice>\n";

constexpr const char *kPixMessage =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
    "<envelope xmlns=\"https://www.bcb.gov.br/pi/pacs.008/1.0\">"
    "<AppHdr><Fr><FIId><FinInstnId><Othr><Id>11111111</Id></Othr></FinInstnId></FIId></Fr>"
    "<BizMsgIdr>M1111111100000000000000000000001</BizMsgIdr><Sgntr/></AppHdr>"
    "<Document><FIToFICstmrCdtTrf><GrpHdr><NbOfTxs>1</NbOfTxs></GrpHdr></FIToFICstmrCdtTrf>"
    "</Document></envelope>";

constexpr const char *kDictMessage =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
    "<CreateEntryRequest><Entry><Key>+5561988887777</Key><KeyType>PHONE</KeyType>"
    "</Entry></CreateEntryRequest>";

// A template xmlsec1 fills: enveloped, Exclusive C14N, RSA-SHA256, the certificate in KeyInfo.
constexpr const char *kXmlsecTemplate =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<doc xmlns=\"urn:test:doc\"><item>signed by xmlsec1</item>"
    "<Signature xmlns=\"http://www.w3.org/2000/09/xmldsig#\"><SignedInfo>"
    "<CanonicalizationMethod Algorithm=\"http://www.w3.org/2001/10/xml-exc-c14n#\"/>"
    "<SignatureMethod Algorithm=\"http://www.w3.org/2001/04/xmldsig-more#rsa-sha256\"/>"
    "<Reference URI=\"\"><Transforms>"
    "<Transform Algorithm=\"http://www.w3.org/2000/09/xmldsig#enveloped-signature\"/>"
    "<Transform Algorithm=\"http://www.w3.org/2001/10/xml-exc-c14n#\"/></Transforms>"
    "<DigestMethod Algorithm=\"http://www.w3.org/2001/04/xmlenc#sha256\"/><DigestValue/>"
    "</Reference></SignedInfo><SignatureValue/><KeyInfo><X509Data/></KeyInfo></Signature>"
    "</doc>\n";

// A test CA, a signer, a revoked signer, an ECDSA signer, a CRL naming the revoked one, and a
// chain of the CA and the two RSA signers.
constexpr const char *kMakeIdentities = R"(set -e
openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -subj /CN=xmltest-CA \
  -days 30 -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign
n=16
for c in leaf revoked; do
  openssl req -newkey rsa:2048 -nodes -keyout $c.key -out $c.csr -subj /CN=$c
  openssl x509 -req -in $c.csr -CA ca.pem -CAkey ca.key -set_serial $n -days 30 -out $c.pem
  openssl pkcs12 -export -inkey $c.key -in $c.pem -passout pass:pw -out $c.p12
  n=$((n+16))
done
openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout ec.key -out ec.csr \
  -subj /CN=ec
openssl x509 -req -in ec.csr -CA ca.pem -CAkey ca.key -set_serial 64 -days 30 -out ec.pem
openssl pkcs12 -export -inkey ec.key -in ec.pem -passout pass:pw -out ec.p12
printf '[ca]\ndefault_ca=d\n[d]\ndatabase=index.txt\ncrlnumber=crlnumber\n' > ca.cnf
printf 'default_md=sha256\ndefault_crl_days=30\n' >> ca.cnf
touch index.txt; echo 01 > crlnumber
openssl ca -config ca.cnf -revoke revoked.pem -keyfile ca.key -cert ca.pem
openssl ca -config ca.cnf -gencrl -keyfile ca.key -cert ca.pem -out crl.pem
cat leaf.pem revoked.pem ca.pem > chain.pem
)";

// Checks a namespace-free PIX message independently: each reference's digest recomputed with
// xmllint --exc-c14n over the element it names (KeyInfo, the AppHdr without its Signature, the
// Document), and SignedInfo's canonical form written for openssl dgst to check the value.
constexpr const char *kCheckPix = R"(import base64, hashlib, re, subprocess, sys
doc = open(sys.argv[1]).read()
def c14n(fragment):
    return subprocess.run(['xmllint', '--exc-c14n', '-'], input=fragment.encode(),
                          capture_output=True, check=True).stdout
def element(name, text):
    return re.search(r'<%s[ >].*?</%s>' % (name, name), text, re.S).group(0)
ds = 'xmlns="http://www.w3.org/2000/09/xmldsig#"'
sig = element('Signature', doc)
key_info = element('KeyInfo', sig).replace('<KeyInfo', '<KeyInfo ' + ds, 1)
header = element('AppHdr', doc).replace(sig, '')
want = [base64.b64encode(hashlib.sha256(c14n(x)).digest()).decode()
        for x in (key_info, header, element('Document', doc))]
got = re.findall(r'<DigestValue>([^<]*)</DigestValue>', sig)
sys.exit('digests %s, recomputed %s' % (got, want)) if got != want else None
signed_info = element('SignedInfo', sig).replace('<SignedInfo', '<SignedInfo ' + ds, 1)
open('si.c14n', 'wb').write(c14n(signed_info))
value = re.search(r'<SignatureValue>([^<]*)</SignatureValue>', sig).group(1)
open('sig.bin', 'wb').write(base64.b64decode(value))
)";

std::string Unique(const char *what) {
  return std::string("xs_") + what + "_" + std::to_string(getpid());
}

class XmlSig : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = fs::temp_directory_path() / ("ql_xmlsig_" + std::to_string(getpid()));
    fs::create_directories(dir_);
    std::ofstream(dir_ / "mk.sh") << kMakeIdentities;
    ASSERT_EQ(Sh("sh mk.sh"), 0);
    qltest::OpenedSession s;
    for (const char *who : {"leaf", "revoked", "ec"}) {
      const std::string key = Unique(who), cert = key + "_cert";
      ASSERT_EQ(QImportPKCS12(s.get(), Path(std::string(who) + ".p12").c_str(), "pw", key.c_str(),
                              cert.c_str(), 0),
                0);
    }
    ASSERT_EQ(QWriteFile(s.get(), Path("chain.pem").c_str(), Unique("chain").c_str(),
                         QL_WRITE_FILE_TYPED),
              0);
    ASSERT_EQ(
        QWriteFile(s.get(), Path("crl.pem").c_str(), Unique("crl").c_str(), QL_WRITE_FILE_TYPED),
        0);
  }
  static void TearDownTestSuite() {
    qltest::OpenedSession s;
    for (const char *name : {"leaf", "revoked", "ec", "chain", "crl"}) {
      QRemoveObj(s.get(), Unique(name).c_str());
      QRemoveObj(s.get(), (Unique(name) + "_cert").c_str());
    }
    fs::remove_all(dir_);
  }

  static std::string Path(const std::string &name) { return (dir_ / name).string(); }
  static int Sh(const std::string &command) {
    const std::string line = "cd '" + dir_.string() + "' && (" + command + ") >/dev/null 2>&1";
    return std::system(line.c_str());
  }
  static void Write(const std::string &name, const std::string &data) {
    std::ofstream(Path(name), std::ios::binary) << data;
  }
  static std::string Read(const std::string &name) {
    std::ifstream in(Path(name), std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }

  HSESSIONCTX s() const { return session_.get(); }

  // QSignXml (or a PIX signing call) of `doc`; the output, or "" with the code in *rc.
  std::string SignXml(const std::string &doc, const char *filter = nullptr,
                      uint32_t hash = QL_ALG_SHA256, const char *who = "leaf", int *rc = nullptr,
                      HSESSIONCTX session = nullptr) const {
    unsigned char *out = nullptr;
    uint32_t len = 0;
    const std::string key = Unique(who), cert = key + "_cert";
    const int code = QSignXml(session ? session : s(), hash, key.c_str(), cert.c_str(), filter,
                              reinterpret_cast<const unsigned char *>(doc.data()),
                              static_cast<uint32_t>(doc.size()), &out, &len, 0);
    if (rc) *rc = code;
    std::string signed_doc = code == 0 ? std::string(reinterpret_cast<char *>(out), len) : "";
    QFree(out);
    return signed_doc;
  }
  int VerifyXml(const std::string &doc, const char *filter = nullptr, bool crl = false,
                HSESSIONCTX session = nullptr) const {
    return QVerifySignedXmlEx(session ? session : s(), Unique("chain").c_str(),
                              crl ? Unique("crl").c_str() : nullptr, filter,
                              reinterpret_cast<const unsigned char *>(doc.data()),
                              static_cast<uint32_t>(doc.size()), 0);
  }
  std::string SignPix(const std::string &doc, bool dict, uint32_t flags = 0) const {
    unsigned char *out = nullptr;
    uint32_t len = 0;
    const std::string key = Unique("leaf"), cert = key + "_cert";
    const auto *in = reinterpret_cast<const unsigned char *>(doc.data());
    const auto in_len = static_cast<uint32_t>(doc.size());
    const int rc = dict
                       ? QPIXDictSign(s(), key.c_str(), cert.c_str(), in, in_len, &out, &len, flags)
                       : QPIXSign(s(), key.c_str(), cert.c_str(), in, in_len, &out, &len, flags);
    EXPECT_EQ(rc, 0);
    std::string signed_doc = rc == 0 ? std::string(reinterpret_cast<char *>(out), len) : "";
    QFree(out);
    return signed_doc;
  }
  int VerifyPix(const std::string &doc, bool dict, uint32_t flags = 0) const {
    const auto *in = reinterpret_cast<const unsigned char *>(doc.data());
    const auto len = static_cast<uint32_t>(doc.size());
    const std::string chain = Unique("chain");
    return dict ? QPIXDictVerify(s(), chain.c_str(), nullptr, in, len, flags)
                : QPIXVerify(s(), chain.c_str(), nullptr, in, len, flags);
  }

  qltest::OpenedSession session_;
  static fs::path dir_;
};

fs::path XmlSig::dir_;

// The text between <tag> and </tag> (its first occurrence), whitespace removed.
std::string Between(const std::string &doc, const std::string &tag) {
  const size_t open = doc.find("<" + tag + ">");
  const size_t close = doc.find("</" + tag + ">");
  if (open == std::string::npos || close == std::string::npos) return {};
  std::string out;
  for (char c : doc.substr(open + tag.size() + 2, close - open - tag.size() - 2))
    if (!std::isspace(static_cast<unsigned char>(c))) out += c;
  return out;
}

std::string Replace(std::string doc, const std::string &from, const std::string &to) {
  const size_t at = doc.find(from);
  if (at != std::string::npos) doc.replace(at, from.size(), to);
  return doc;
}

TEST_F(XmlSig, Xmlsec1AcceptsEverySignatureHashAndRefusesATamperedByte) {
  const struct {
    const char *who;
    uint32_t hash;
    const char *method;
  } cases[] = {
      {"leaf", QL_ALG_SHA1, "xmldsig#rsa-sha1"},  {"leaf", QL_ALG_SHA256, "more#rsa-sha256"},
      {"leaf", QL_ALG_SHA384, "more#rsa-sha384"}, {"leaf", QL_ALG_SHA512, "more#rsa-sha512"},
      {"ec", QL_ALG_SHA256, "more#ecdsa-sha256"}, {"ec", QL_ALG_SHA512, "more#ecdsa-sha512"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.who) + " " + c.method);
    const std::string signed_doc = SignXml(kDocument, nullptr, c.hash, c.who);
    ASSERT_FALSE(signed_doc.empty());
    EXPECT_NE(signed_doc.find(c.method), std::string::npos) << signed_doc;
    Write("signed.xml", signed_doc);
    // The chain object holds only the RSA signers; xmlsec1 and the HSM need the CA alone.
    EXPECT_EQ(Sh("xmlsec1 --verify --trusted-pem ca.pem signed.xml"), 0) << signed_doc;
    EXPECT_EQ(VerifyXml(signed_doc), 0);
    const std::string tampered = Replace(signed_doc, "45.00", "46.00");
    ASSERT_NE(tampered, signed_doc);
    Write("tampered.xml", tampered);
    EXPECT_NE(Sh("xmlsec1 --verify --trusted-pem ca.pem tampered.xml"), 0);
    EXPECT_EQ(VerifyXml(tampered), QL_ERR_BAD_SIGNATURE);
  }
  int rc = 0;
  SignXml(kDocument, nullptr, QL_ALG_MD5, "leaf", &rc);
  EXPECT_EQ(rc, QL_ERR_BAD_ALGORITHM);
}

TEST_F(XmlSig, SameSignatureValueAsXmlsec1AndXmlsec1SignaturesVerify) {
  // Our output with its values emptied is a template: xmlsec1 with the same key must compute
  // the same digest and, PKCS#1 v1.5 being deterministic, the same value.
  const std::string ours = SignXml(kDocument);
  ASSERT_FALSE(ours.empty());
  std::string tmpl = Replace(ours, "<DigestValue>" + Between(ours, "DigestValue"), "<DigestValue>");
  tmpl = Replace(tmpl, "<SignatureValue>" + Between(ours, "SignatureValue"), "<SignatureValue>");
  Write("tmpl.xml", tmpl);
  ASSERT_EQ(Sh("xmlsec1 --sign --privkey-pem leaf.key,leaf.pem --output theirs.xml tmpl.xml"), 0)
      << tmpl;
  EXPECT_EQ(Between(Read("theirs.xml"), "SignatureValue"), Between(ours, "SignatureValue"));

  Write("doc_tmpl.xml", kXmlsecTemplate);
  ASSERT_EQ(Sh("xmlsec1 --sign --privkey-pem leaf.key,leaf.pem --output by_xmlsec.xml "
               "doc_tmpl.xml"),
            0);
  EXPECT_EQ(VerifyXml(Read("by_xmlsec.xml")), 0) << Read("by_xmlsec.xml");
}

TEST_F(XmlSig, AFilteredElementIsSignedByItsId) {
  const std::string signed_doc = SignXml(kDocument, "Body");
  ASSERT_FALSE(signed_doc.empty());
  EXPECT_NE(signed_doc.find("URI=\"#b1\""), std::string::npos) << signed_doc;
  Write("filtered.xml", signed_doc);
  EXPECT_EQ(
      Sh("xmlsec1 --verify --trusted-pem ca.pem --id-attr:Id urn:test:invoice:Body filtered.xml"),
      0);
  EXPECT_EQ(VerifyXml(signed_doc, "Body"), 0);
  // Outside the signed element the document may change; inside it may not.
  EXPECT_EQ(VerifyXml(Replace(signed_doc, "Example", "Other")), 0);
  EXPECT_EQ(VerifyXml(Replace(signed_doc, "BRL", "USD")), QL_ERR_BAD_SIGNATURE);
  // No signature references the seller; an element without an Id cannot be signed.
  EXPECT_EQ(VerifyXml(signed_doc, "Seller"), QL_ERR_BAD_XML);
  int rc = 0;
  SignXml(kDocument, "Seller", QL_ALG_SHA256, "leaf", &rc);
  EXPECT_EQ(rc, QL_ERR_BAD_XML);
}

TEST_F(XmlSig, RefusedDocumentsSignersAndUsers) {
  const std::string signed_doc = SignXml(kDocument);
  const struct {
    const char *what;
    std::string doc;
  } bad[] = {
      {"doctype", "<!DOCTYPE d [<!ENTITY e \"x\">]><d>&e;</d>"},
      {"duplicate ids", "<d><a Id=\"x\"/><b Id=\"x\"/></d>"},
      {"malformed", "<d><a></d>"},
      {"empty", ""},
  };
  for (const auto &b : bad) {
    SCOPED_TRACE(b.what);
    int rc = 0;
    SignXml(b.doc, nullptr, QL_ALG_SHA256, "leaf", &rc);
    EXPECT_EQ(rc, b.doc.empty() ? QL_ERR_BAD_ARGUMENT : QL_ERR_BAD_XML);
    EXPECT_EQ(VerifyXml(b.doc), b.doc.empty() ? QL_ERR_BAD_ARGUMENT : QL_ERR_BAD_XML);
  }
  EXPECT_EQ(VerifyXml(kDocument), QL_ERR_BAD_XML) << "no Signature";
  // A copied signature makes the document's Ids collide.
  EXPECT_EQ(VerifyXml(Replace(signed_doc, "<inv:Seller>", "<inv:Seller Id=\"b1\">")),
            QL_ERR_BAD_XML);

  // The revoked signer passes without the CRL and is refused with it.
  const std::string by_revoked = SignXml(kDocument, nullptr, QL_ALG_SHA256, "revoked");
  ASSERT_FALSE(by_revoked.empty());
  EXPECT_EQ(VerifyXml(by_revoked), 0);
  EXPECT_EQ(VerifyXml(by_revoked, nullptr, true), QL_ERR_CERT_REVOKED);
  EXPECT_EQ(VerifyXml(signed_doc, nullptr, true), 0);

  // A user without a use right is refused before anything is looked up.
  const std::string user = Unique("user");
  ASSERT_EQ(qltest::CreateUser(s(), user, "user-pw-1", 0), 0);
  {
    qltest::OpenedSession as(user, "user-pw-1");
    int rc = 0;
    const std::string owner = std::string("master/");
    unsigned char *out = nullptr;
    uint32_t len = 0;
    const std::string key = owner + Unique("leaf"), cert = key + "_cert";
    rc = QSignXml(as.get(), QL_ALG_SHA256, key.c_str(), cert.c_str(), nullptr,
                  reinterpret_cast<const unsigned char *>(kDocument), std::strlen(kDocument), &out,
                  &len, 0);
    EXPECT_EQ(rc, QL_ERR_ACCESS_DENIED);
    const std::string chain = owner + Unique("chain");
    EXPECT_EQ(QVerifySignedXmlEx(as.get(), chain.c_str(), nullptr, nullptr,
                                 reinterpret_cast<const unsigned char *>(signed_doc.data()),
                                 static_cast<uint32_t>(signed_doc.size()), 0),
              QL_ERR_ACCESS_DENIED);
  }
  EXPECT_EQ(QRemoveUser(s(), user.c_str()), 0);
}

TEST_F(XmlSig, PixMessagesSignAndVerify) {
  // DICT: one enveloped signature that xmlsec1 checks, the signer named by issuer and serial.
  const std::string dict = SignPix(kDictMessage, true);
  ASSERT_FALSE(dict.empty());
  EXPECT_NE(dict.find("<X509SerialNumber>16</X509SerialNumber>"), std::string::npos) << dict;
  Write("dict.xml", dict);
  EXPECT_EQ(Sh("xmlsec1 --verify --trusted-pem ca.pem --untrusted-pem leaf.pem dict.xml"), 0);
  EXPECT_EQ(VerifyPix(dict, true), 0);
  const std::string tampered_dict = Replace(dict, "PHONE", "EMAIL");
  Write("dict_bad.xml", tampered_dict);
  EXPECT_NE(Sh("xmlsec1 --verify --trusted-pem ca.pem --untrusted-pem leaf.pem dict_bad.xml"), 0);
  EXPECT_EQ(VerifyPix(tampered_dict, true), QL_ERR_BAD_SIGNATURE);

  // ISO 20022: the signature in AppHdr/Sgntr covers KeyInfo, the header and the Document.
  const std::string msg = SignPix(kPixMessage, false);
  ASSERT_FALSE(msg.empty());
  EXPECT_LT(msg.find("<Sgntr><Signature"), msg.find("</AppHdr>")) << msg;
  EXPECT_EQ(VerifyPix(msg, false), 0);
  EXPECT_EQ(VerifyPix(Replace(msg, "<NbOfTxs>1", "<NbOfTxs>2"), false), QL_ERR_BAD_SIGNATURE);
  EXPECT_EQ(VerifyPix(Replace(msg, "<Id>11111111", "<Id>11111112"), false), QL_ERR_BAD_SIGNATURE);
  // With the namespace removed the message is signed and checked without it.
  const std::string bare = SignPix(kPixMessage, false, QL_PIX_REMOVE_NS);
  EXPECT_EQ(bare.find("pacs.008"), std::string::npos) << bare;
  EXPECT_EQ(VerifyPix(bare, false, QL_PIX_REMOVE_NS), 0);
  Write("bare.xml", bare);
  Write("check_pix.py", kCheckPix);
  EXPECT_EQ(Sh("/usr/bin/python3 check_pix.py bare.xml && openssl x509 -in leaf.pem -pubkey "
               "-noout > pub.pem && openssl dgst -sha256 -verify pub.pem -signature sig.bin "
               "si.c14n"),
            0)
      << bare;
  EXPECT_EQ(VerifyPix(msg, false, 2), QL_ERR_BAD_FLAGS);
}

#ifdef QLUTIL_BIN
using CommandRun = qltest::CommandResult;

CommandRun Qlutil(const std::string &dir, const std::string &args) {
  const qltest::CommandResult c = qltest::RunCommand(
      qltest::QlutilAsMaster(QLUTIL_BIN, dir, qltest::HsmEnvironment::hsm(), args));
  return c;
}

TEST_F(XmlSig, PixJobs) {
  const std::string dir = dir_.string();
  Write("m.xml", kDictMessage);
  for (const char *job : {"pix-sign -kn k -x m.xml", "pix-dict-sign -c c -x m.xml",
                          "pix-verify -x m.xml", "pix-dict-verify --chain c"}) {
    SCOPED_TRACE(job);
    const CommandRun r = Qlutil(dir, std::string("-j ") + job);
    EXPECT_EQ(r.exit_code, 255);
    EXPECT_EQ(r.out.rfind("\r\nDESCRIPTION\r\n", 0), 0u) << r.out;
  }
  Write("dict.xml", kDictMessage);
  Write("pacs.xml", kPixMessage);
  const std::string key = Unique("leaf"), signer = " -kn " + key + " -c " + key + "_cert";
  const std::string chain = " --chain " + Unique("chain");
  for (const char *kind : {"pix", "pix-dict"}) {
    SCOPED_TRACE(kind);
    const std::string in = std::strcmp(kind, "pix") == 0 ? "pacs.xml --rns" : "dict.xml";
    CommandRun r =
        Qlutil(dir, std::string("-j ") + kind + "-sign" + signer + " -x " + in + " --out out.xml");
    ASSERT_EQ(r.exit_code, 0) << r.out;
    r = Qlutil(dir, std::string("-j ") + kind + "-verify" + chain + " -x out.xml" +
                        (std::strcmp(kind, "pix") == 0 ? " --rns" : ""));
    EXPECT_EQ(r.exit_code, 0) << r.out;
    const bool pix = std::strcmp(kind, "pix") == 0;
    Write("bad.xml", pix ? Replace(Read("out.xml"), "<NbOfTxs>1", "<NbOfTxs>2")
                         : Replace(Read("out.xml"), "PHONE", "EMAIL"));
    r = Qlutil(dir, std::string("-j ") + kind + "-verify" + chain + " -x bad.xml");
    EXPECT_EQ(r.exit_code, QL_ERR_BAD_SIGNATURE & 0xFF) << r.out;
    EXPECT_NE(r.out.find("Err = 5017"), std::string::npos) << r.out;
  }
}

TEST_F(XmlSig, PerformanceAndFunctionalCommandsLeaveNoObjects) {
  const std::vector<std::string> before = qltest::ListObjectNames(qltest::HsmEnvironment::hsm());
  for (const char *command :
       {"-p sign-xml -t 2 -i 2 -h sha256", "-p verify-xml -t 2 -i 2 -h sha384",
        "-p sign-xml -t 1 -i 1 -h sha256 -ft body", "-p pix-sign -t 1 -i 2",
        "-p pix-verify -t 1 -i 2 --rns", "-p pix-dict-sign -t 1 -i 2",
        "-p pix-dict-verify -t 1 -i 2", "-f xml -t 2 -i 2 -h sha256"}) {
    SCOPED_TRACE(command);
    const CommandRun r = Qlutil(dir_.string(), command);
    EXPECT_EQ(r.exit_code, 0) << r.out;
  }
  EXPECT_EQ(qltest::ListObjectNames(qltest::HsmEnvironment::hsm()), before);
}
#endif

}  // namespace
