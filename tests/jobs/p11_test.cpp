// What PKCS#11 modules see of the HSM, against a real HSM: metadata records written, merged and
// removed through the library and shown by obj-info; map objects (gen-map, remove-map) and their
// refusals; the token information (p11-info, anonymous); a CMS signature co-signed by a second
// identity, which the openssl command verifies with both signers.

#include <cstring>
#include <string>
#include <vector>

#include "library_job_test.h"

namespace jobs_test {
namespace {

// A DER Name holding CN=a.
const std::vector<unsigned char> kNameDer = {0x30, 0x0C, 0x31, 0x0A, 0x30, 0x08, 0x06,
                                             0x03, 0x55, 0x04, 0x03, 0x0C, 0x01, 0x61};

class P11Jobs : public LibraryJobTest {
 protected:
  RunResult OpenSsl(const std::string &args) const {
    return RunCommand("cd " + Quote(scratch_.string()) + " && openssl " + args);
  }
  // A self-signed RSA identity imported as key `key` and certificate `cert`.
  void ImportIdentity(const std::string &key, const std::string &cert, const std::string &cn) {
    ASSERT_EQ(OpenSsl("req -x509 -newkey rsa:2048 -nodes -keyout " + key + ".key -out " + cert +
                      ".pem -subj /CN=" + cn + " -days 30")
                  .exitCode,
              0);
    ASSERT_EQ(OpenSsl("pkcs12 -export -inkey " + key + ".key -in " + cert +
                      ".pem -passout pass:pw -out " + key + ".pfx")
                  .exitCode,
              0);
    MustRun("import-pkcs12", {"-kn", key, "-c", cert, "-in", Path(key + ".pfx"), "-pwd", "pw"});
  }
  void CreateUser(const std::string &name, const std::string &acl) {
    MustRun("create-user", {"-un", name, "-pwd", "12345678", "-acl", acl});
  }
};

// Owns a metadata record of the library.
struct Meta {
  HOBJMETACTX h = nullptr;
  Meta() { EXPECT_EQ(QCreateObjMetadata(&h, 0), 0); }
  ~Meta() { QDestroyObjMetadata(&h, 0); }
  int Set(uint32_t id, const std::string &v) const {
    return QSetObjMetadata(h, id, v.data(), static_cast<uint32_t>(v.size()), 0);
  }
  // The value of `id`, or "<code>" when it cannot be read.
  std::string Get(uint32_t id) const {
    uint32_t len = 0;
    int rc = QGetObjMetadata(h, id, nullptr, &len, 0);
    if (rc != QL_ERR_BUFFER_TOO_SMALL) return "<" + std::to_string(rc) + ">";
    std::string v(len, '\0');
    rc = QGetObjMetadata(h, id, v.data(), &len, 0);
    return rc == 0 ? v : "<" + std::to_string(rc) + ">";
  }
};

int CollectLine(void *param, const char *line, int last) {
  if (!last) static_cast<std::vector<std::string> *>(param)->push_back(line);
  return 0;
}

TEST_F(P11Jobs, MetadataRecordsAreCheckedWrittenMergedAndRemoved) {
  MustRun("gen-key", {"-k", "rsa1024", "-kn", "k"});
  Meta in;
  // Values are checked when set: dates that exist, one whole DER name, text without NUL.
  EXPECT_EQ(in.Set(QL_META_START_DATE, "20240229"), 0);
  for (const char *bad : {"20230229", "20241301", "2024010", "2024-1-1", "00000101"})
    EXPECT_EQ(in.Set(QL_META_END_DATE, bad), QL_ERR_BAD_ARGUMENT) << bad;
  const std::string der(kNameDer.begin(), kNameDer.end());
  EXPECT_EQ(in.Set(QL_META_SUBJECT, der), 0);
  EXPECT_EQ(in.Set(QL_META_SUBJECT, der + '\0'), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(in.Set(QL_META_SUBJECT, "CN=a"), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(in.Set(QL_META_LABEL, std::string("a\0b", 3)), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(in.Set(QL_META_LABEL, ""), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(in.Set(99, "x"), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(in.Set(QL_META_LABEL, "alpha"), 0);
  EXPECT_EQ(in.Set(QL_META_APPLICATION, "app1"), 0);
  EXPECT_EQ(in.Get(QL_META_ID), "<" + std::to_string(QL_ERR_OBJ_NOT_FOUND) + ">");

  ASSERT_EQ(QManageObjMetadata(session_, 2, "k", in.h, nullptr, 0), 0);
  Meta out;
  ASSERT_EQ(QManageObjMetadata(session_, 1, "k", nullptr, out.h, 0), 0);
  EXPECT_EQ(out.Get(QL_META_LABEL), "alpha");
  EXPECT_EQ(out.Get(QL_META_SUBJECT), der);
  EXPECT_EQ(out.Get(QL_META_START_DATE), "20240229");

  // Update merges by id; write replaces everything; remove takes the ids given, or all.
  Meta merge;
  ASSERT_EQ(merge.Set(QL_META_LABEL, "beta"), 0);
  ASSERT_EQ(merge.Set(QL_META_END_DATE, "20251231"), 0);
  ASSERT_EQ(QManageObjMetadata(session_, 3, "k", merge.h, nullptr, 0), 0);
  ASSERT_EQ(QManageObjMetadata(session_, 1, "k", nullptr, out.h, 0), 0);
  EXPECT_EQ(out.Get(QL_META_LABEL), "beta");
  EXPECT_EQ(out.Get(QL_META_APPLICATION), "app1");
  EXPECT_EQ(out.Get(QL_META_END_DATE), "20251231");

  const std::string info = MustRun("obj-info", {"-kn", "k"});
  EXPECT_NE(info.find("Meta label : beta\r\n"), std::string::npos) << info;
  EXPECT_NE(info.find("Meta subject : " + HexOf(kNameDer) + "\r\n"), std::string::npos) << info;

  Meta drop;
  ASSERT_EQ(drop.Set(QL_META_APPLICATION, "x"), 0);
  ASSERT_EQ(QManageObjMetadata(session_, 4, "k", drop.h, nullptr, 0), 0);
  ASSERT_EQ(QManageObjMetadata(session_, 1, "k", nullptr, out.h, 0), 0);
  EXPECT_EQ(out.Get(QL_META_APPLICATION), "<" + std::to_string(QL_ERR_OBJ_NOT_FOUND) + ">");
  EXPECT_EQ(out.Get(QL_META_LABEL), "beta");

  Meta only;
  ASSERT_EQ(only.Set(QL_META_ID, std::string("\x01\x00\x02", 3)), 0);
  ASSERT_EQ(QManageObjMetadata(session_, 2, "k", only.h, nullptr, 0), 0);
  ASSERT_EQ(QManageObjMetadata(session_, 1, "k", nullptr, out.h, 0), 0);
  EXPECT_EQ(out.Get(QL_META_ID), std::string("\x01\x00\x02", 3));
  EXPECT_EQ(out.Get(QL_META_LABEL), "<" + std::to_string(QL_ERR_OBJ_NOT_FOUND) + ">");
  ASSERT_EQ(QManageObjMetadata(session_, 4, "k", nullptr, nullptr, 0), 0);
  ASSERT_EQ(QManageObjMetadata(session_, 1, "k", nullptr, out.h, 0), 0);
  EXPECT_EQ(out.Get(QL_META_ID), "<" + std::to_string(QL_ERR_OBJ_NOT_FOUND) + ">");

  // Each id the type list names takes a value of its type.
  std::vector<std::string> types;
  ASSERT_EQ(QGetObjMetadataTypeInfoList(session_, &CollectLine, &types), 0);
  ASSERT_FALSE(types.empty());
  for (const std::string &line : types) {
    unsigned id = 0;
    char name[32] = {}, kind[16] = {};
    ASSERT_EQ(sscanf(line.c_str(), "%u %31s %15s", &id, name, kind), 3) << line;
    const std::string value = strcmp(kind, "date") == 0  ? "20200101"
                              : strcmp(kind, "der") == 0 ? der
                                                         : "v";
    EXPECT_EQ(in.Set(id, value), 0) << line;
  }

  // Rights: reading needs a use right, changing the update right; a right before existence.
  Meta any;
  ASSERT_EQ(any.Set(QL_META_LABEL, "x"), 0);
  EXPECT_EQ(QManageObjMetadata(session_, 1, "nosuch", nullptr, out.h, 0), QL_ERR_OBJ_NOT_FOUND);
  EXPECT_EQ(QManageObjMetadata(session_, 5, "k", any.h, nullptr, 0), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QManageObjMetadata(session_, 1, "k", nullptr, nullptr, 0), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QManageObjMetadata(session_, 3, "k", any.h, nullptr, 1), QL_ERR_BAD_FLAGS);
  CreateUser("reader", "0x2");
  CreateUser("writer", "0x8");
  struct Case {
    const char *user;
    uint32_t op;
    const char *object;
    int rc;
  };
  for (const Case &c :
       {Case{"reader", 1, "master/k", 0}, Case{"reader", 3, "master/k", 5002},
        Case{"reader", 3, "master/nosuch", 5002}, Case{"writer", 3, "master/k", 0},
        Case{"writer", 1, "master/k", 5002}, Case{"writer", 4, "master/nosuch", 5004}}) {
    AUTH_PWD_EX auth{};
    snprintf(auth.szAddr, sizeof auth.szAddr, "127.0.0.1");
    auth.nPort = port();
    snprintf(auth.szUserId, sizeof auth.szUserId, "%s", c.user);
    snprintf(auth.szPassword, sizeof auth.szPassword, "12345678");
    HSESSIONCTX s = nullptr;
    ASSERT_EQ(QOpenSession(&s, QL_AUTH_USER_PWD, &auth, sizeof auth,
                           QL_SESSION_UNENCRYPTED | QL_SESSION_BYPASS_CACHE),
              0);
    EXPECT_EQ(QManageObjMetadata(s, c.op, c.object, any.h, out.h, 0), c.rc)
        << c.user << " " << c.op << " " << c.object;
    QCloseSession(&s, QL_CLOSE_PHYSICAL);
  }
}

TEST_F(P11Jobs, MapsNameObjectsOfTheirKind) {
  ImportIdentity("k", "c", "mapped");
  MustRun("gen-key", {"-k", "aes256", "-kn", "sym"});
  MustRun("gen-map", {"-name", "m", "-kn", "k", "-pk", "k", "-c", "c"});
  QL_PKCS11_MAP map{};
  ASSERT_EQ(QGetPkcs11Map(session_, "m", &map), 0);
  EXPECT_STREQ(map.szPrivateKey, "k");
  EXPECT_STREQ(map.szPublicKey, "k");
  EXPECT_STREQ(map.szCertificate, "c");
  std::string info = MustRun("obj-info", {"-kn", "m"});
  EXPECT_NE(info.find("Type : map\r\n"), std::string::npos) << info;
  EXPECT_NE(info.find("Private key : k\r\n"), std::string::npos) << info;
  EXPECT_NE(info.find("Certificate : c\r\n"), std::string::npos) << info;
  info = MustRun("obj-info", {"-kn", "c"});
  EXPECT_NE(info.find("Subject : CN=mapped\r\n"), std::string::npos) << info;
  EXPECT_NE(info.find("Issuer : CN=mapped\r\n"), std::string::npos) << info;

  struct Case {
    std::vector<std::string> options;
    int rc;
  };
  for (const Case &c :
       {Case{{"-name", "m2", "-kn", "nosuch"}, 5004}, Case{{"-name", "m2", "-kn", "c"}, 5014},
        Case{{"-name", "m2", "-kn", "sym"}, 5014}, Case{{"-name", "m2", "-pk", "sym"}, 5014},
        Case{{"-name", "m2", "-c", "k"}, 5014}, Case{{"-name", "m", "-c", "c"}, 5022}}) {
    const RunResult r = Job("gen-map", c.options);
    EXPECT_EQ(r.exitCode, ExitOf(c.rc)) << c.options[3];
    EXPECT_NE(r.out.find(ErrorLine("QGenerateMapObj", c.rc)), std::string::npos) << r.out;
  }
  EXPECT_EQ(QGetPkcs11Map(session_, "m2", &map), QL_ERR_OBJ_NOT_FOUND);
  EXPECT_EQ(QGetPkcs11Map(session_, "k", &map), QL_ERR_BAD_KEY_USAGE);

  // Creating needs 0x4, removing 0x1; remove-map removes maps only.
  CreateUser("reader", "0x2");
  RunResult r = JobAs("reader", "12345678", "gen-map", {"-name", "m3", "-c", "master/c"});
  EXPECT_NE(r.out.find(ErrorLine("QGenerateMapObj", 5002)), std::string::npos) << r.out;
  r = JobAs("reader", "12345678", "remove-map", {"-name", "master/m"});
  EXPECT_NE(r.out.find(ErrorLine("QRemoveMapObj", 5002)), std::string::npos) << r.out;
  r = Job("remove-map", {"-name", "k"});
  EXPECT_NE(r.out.find(ErrorLine("QRemoveMapObj", 5014)), std::string::npos) << r.out;
  MustRun("obj-info", {"-kn", "k"});
  MustRun("remove-map", {"-name", "m"});
  r = Job("remove-map", {"-name", "m"});
  EXPECT_NE(r.out.find(ErrorLine("QRemoveMapObj", 5004)), std::string::npos) << r.out;
  MustRun("obj-info", {"-kn", "c"});
}

TEST_F(P11Jobs, TokenInformationForAnyone) {
  const RunResult r =
      Qlutil({"-a", "127.0.0.1", "--port", std::to_string(port()), "-j", "p11-info"});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  EXPECT_NE(r.out.find("Cryptoki version : 2.40\r\n"), std::string::npos) << r.out;
  // The engine's real RSA key sizes, in bits.
  unsigned min = 0, max = 0;
  const size_t at = r.out.find("CKM_RSA_PKCS_KEY_PAIR_GEN ");
  ASSERT_NE(at, std::string::npos) << r.out;
  ASSERT_EQ(sscanf(r.out.c_str() + at, "CKM_RSA_PKCS_KEY_PAIR_GEN %u %u", &min, &max), 2);
  EXPECT_LE(min, 1024u);
  EXPECT_GE(max, 4096u);

  HP11INFOCTX info = nullptr;
  EXPECT_EQ(QGetHSMP11Info(session_, &info, 1), QL_ERR_BAD_FLAGS);
  ASSERT_EQ(QGetHSMP11Info(session_, &info, 0), 0);
  uint32_t len = 0;
  ASSERT_EQ(QGetHSMP11InfoAttr(info, QL_P11_INFO_TOKEN_SERIAL, nullptr, &len),
            QL_ERR_BUFFER_TOO_SMALL);
  std::string serial(len, 'x');
  ASSERT_EQ(QGetHSMP11InfoAttr(info, QL_P11_INFO_TOKEN_SERIAL, serial.data(), &len), 0);
  ASSERT_FALSE(serial.empty());
  EXPECT_EQ(serial.back(), '\0');
  EXPECT_GT(serial.size(), 1u);
  uint64_t sessions = 0;
  len = sizeof sessions;
  ASSERT_EQ(QGetHSMP11InfoAttr(info, QL_P11_INFO_SESSION_COUNT, &sessions, &len), 0);
  EXPECT_GE(sessions, 1u);  // this test's own
  uint64_t total = 0, free_bytes = 0;
  len = sizeof total;
  ASSERT_EQ(QGetHSMP11InfoAttr(info, QL_P11_INFO_TOTAL_PRIVATE_MEMORY, &total, &len), 0);
  len = sizeof free_bytes;
  ASSERT_EQ(QGetHSMP11InfoAttr(info, QL_P11_INFO_FREE_PRIVATE_MEMORY, &free_bytes, &len), 0);
  EXPECT_GT(total, 0u);
  EXPECT_LE(free_bytes, total);
  len = 64;
  unsigned char buf[64];
  EXPECT_EQ(QGetHSMP11InfoAttr(info, 0, buf, &len), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QDestroyHSMP11Info(&info), 0);
  EXPECT_EQ(info, nullptr);
}

TEST_F(P11Jobs, CosignedSignatureHasTwoSigners) {
  ImportIdentity("k1", "c1", "first");
  ImportIdentity("k2", "c2", "second");
  WriteText(Path("d.txt"), "This is some sample content.");
  MustRun("pkcs7-sign",
          {"-filein", Path("d.txt"), "-kn", "k1", "-keycert", "c1", "--out", Path("one.p7s")});
  MustRun("pkcs7-sign", {"-filein", Path("one.p7s"), "-kn", "k2", "-keycert", "c2",
                         "-p7attr_cosign", "--out", Path("two.p7s")});
  WriteText(Path("both.pem"), ReadText(Path("c1.pem")) + ReadText(Path("c2.pem")));
  const RunResult v = OpenSsl(
      "cms -verify -inform DER -in two.p7s -CAfile both.pem -signer signers.pem -out v.txt");
  EXPECT_EQ(v.exitCode, 0) << v.out;
  EXPECT_EQ(ReadText(Path("v.txt")), "This is some sample content.");
  const std::string signers = ReadText(Path("signers.pem"));
  size_t count = 0;
  for (size_t at = signers.find("BEGIN CERTIFICATE"); at != std::string::npos;
       at = signers.find("BEGIN CERTIFICATE", at + 1))
    ++count;
  EXPECT_EQ(count, 2u);
  // Only a SignedData is co-signed.
  const RunResult r = Job("pkcs7-sign", {"-filein", Path("d.txt"), "-kn", "k2", "-keycert", "c2",
                                         "-p7attr_cosign", "--out", Path("bad.p7s")});
  EXPECT_NE(r.out.find(ErrorLine("QPKCS7Sign", QL_ERR_BAD_ARGUMENT)), std::string::npos) << r.out;
}

TEST_F(P11Jobs, MissingOptionsShowTheHelpAndReachNoHsm) {
  CountingListener listener;
  const std::string port = std::to_string(listener.port());
  const std::vector<std::vector<std::string>> cases = {
      {"-u", "master", "-w", kMasterPassword, "-j", "gen-map", "-kn", "k"},
      {"-u", "master", "-w", kMasterPassword, "-j", "gen-map", "-name", "m"},
      {"-u", "master", "-w", kMasterPassword, "-j", "remove-map"},
      {"-u", "master", "-w", kMasterPassword, "-j", "obj-info"},
      {"-j", "gen-map", "-name", "m", "-kn", "k"},
      {"-j", "p11-info"},
  };
  for (const std::vector<std::string> &args : cases) {
    std::vector<std::string> full = {"--port", port};
    // The last case has no address: p11-info needs only that.
    if (args.size() > 2) full.insert(full.end(), {"-a", "127.0.0.1"});
    full.insert(full.end(), args.begin(), args.end());
    const RunResult r = Qlutil(full);
    EXPECT_EQ(r.exitCode, 255) << r.out;
    EXPECT_NE(r.out.find("DESCRIPTION"), std::string::npos) << r.out;
  }
  EXPECT_EQ(listener.count(), 0);
}

}  // namespace
}  // namespace jobs_test
