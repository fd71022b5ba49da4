// Kept secrets, RSA private-key encryption (sign-soluti) and key export for cloud imports
// (byok-export) against a real HSM. Kept secrets: the jobs as a new user runs them (new, split,
// match, remove, recover), the library's refusals, and shares bound to one HSM refused by another.
// Signatures and exports are checked with the openssl command line.

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "library_job_test.h"
#include "library_session.h"

namespace jobs_test {
namespace {

using Share = std::vector<unsigned char>;

constexpr const char *kUserPassword = "keeper-pw-1";

int Split(HSESSIONCTX s, const char *id, uint32_t level, uint32_t auth, uint32_t m, uint32_t n,
          std::vector<Share> *shares) {
  unsigned char *buf = nullptr;
  uint32_t len = 0;
  const int rc = QSKeepSplitSecret(s, id, level, auth, m, n, &buf, &len);
  shares->clear();
  if (rc == 0) {
    for (uint32_t i = 0; i < n; ++i)
      shares->emplace_back(buf + size_t{i} * len, buf + (i + 1) * len);
  }
  QFree(buf);
  return rc;
}

std::vector<unsigned char> Joined(const std::vector<Share> &shares) {
  std::vector<unsigned char> joined;
  for (const Share &s : shares) joined.insert(joined.end(), s.begin(), s.end());
  return joined;
}

int Match(HSESSIONCTX s, const char *id, const std::vector<Share> &shares) {
  const std::vector<unsigned char> j = Joined(shares);
  return QSKeepMatchSecret(s, id, j.data(), static_cast<uint32_t>(shares.size()),
                           static_cast<uint32_t>(shares.empty() ? 0 : shares[0].size()));
}

int Recover(HSESSIONCTX s, const char *id, const std::vector<Share> &shares, uint32_t *outcome) {
  const std::vector<unsigned char> j = Joined(shares);
  return QSKeepRecoverSecret(s, id, j.data(), static_cast<uint32_t>(shares.size()),
                             static_cast<uint32_t>(shares.empty() ? 0 : shares[0].size()), outcome);
}

uint32_t Probe(HSESSIONCTX s, const char *id) {
  uint32_t state = 0xFFFF;
  EXPECT_EQ(QSKeepProbeSecret(s, id, &state), 0) << id;
  return state;
}

// A plain-connection session on the test HSM as another user, closed at the end of its scope.
class UserSession {
 public:
  UserSession(int port, const std::string &user, const std::string &password) {
    AUTH_PWD_EX auth{};
    snprintf(auth.szAddr, sizeof auth.szAddr, "127.0.0.1");
    auth.nPort = port;
    snprintf(auth.szUserId, sizeof auth.szUserId, "%s", user.c_str());
    snprintf(auth.szPassword, sizeof auth.szPassword, "%s", password.c_str());
    rc_ = QOpenSession(&session_, QL_AUTH_USER_PWD, &auth, sizeof auth,
                       QL_SESSION_UNENCRYPTED | QL_SESSION_BYPASS_CACHE);
  }
  ~UserSession() {
    if (session_ != nullptr) QCloseSession(&session_, QL_CLOSE_PHYSICAL);
  }
  HSESSIONCTX get() const { return session_; }
  int rc() const { return rc_; }

 private:
  HSESSIONCTX session_ = nullptr;
  int rc_ = 0;
};

// The "Part x: ..." lines of a job's output.
std::vector<std::string> PartLines(const std::string &out) {
  std::vector<std::string> lines;
  for (size_t at = out.find("Part "); at != std::string::npos; at = out.find("Part ", at + 1))
    lines.push_back(out.substr(at, out.find("\r\n", at) - at));
  return lines;
}

class SkeepJobs : public LibraryJobTest {
 protected:
  // A user with the rights to create, use and remove objects, as a custodian's operator holds.
  void MakeUser(uint32_t acl = 0x7) {
    // Named after the test: the cases may share one HSM when run in one process.
    user_ = std::string("u_") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    user_.resize(std::min<size_t>(user_.size(), 15));  // the login record's limit
    ASSERT_EQ(qltest::CreateUser(session_, user_, kUserPassword, acl), 0);
  }
  RunResult UserJob(const std::string &job, std::vector<std::string> options) const {
    return JobAs(user_, kUserPassword, job, std::move(options));
  }
  // The job's first line (the runner's timing line follows it).
  std::string UserMustRun(const std::string &job, std::vector<std::string> options) const {
    RunResult r = UserJob(job, std::move(options));
    EXPECT_EQ(r.exitCode, 0) << job << ":\n" << r.out;
    return r.out.substr(0, r.out.find("\r\n") + 2);
  }
  std::string user_;
};

TEST_F(SkeepJobs, NewSplitMatchRemoveRecoverAsANewUser) {
  MakeUser();
  const std::vector<std::string> kind = {"--id", "vault1", "--level", "2", "--auth", "1"};
  auto with = [&](std::vector<std::string> extra) {
    std::vector<std::string> all = kind;
    all.insert(all.end(), extra.begin(), extra.end());
    return all;
  };
  EXPECT_EQ(UserMustRun("skeep-probe", {"--id", "vault1"}), "Secret vault1: absent\r\n");
  UserMustRun("skeep-new", kind);
  EXPECT_EQ(UserMustRun("skeep-probe", {"--id", "vault1"}), "Secret vault1: exists\r\n");

  const RunResult split =
      UserJob("skeep-split", with({"-m", "2", "-n", "3", "--out", Path("share")}));
  ASSERT_EQ(split.exitCode, 0) << split.out;
  // The custodians' checksums, computed again from the files without a session.
  const std::string files = Path("share.1") + "," + Path("share.2") + "," + Path("share.3");
  const std::vector<std::string> cks = PartLines(MustRun("skeep-calc-cks", {"--parts", files}));
  EXPECT_EQ(cks.size(), 3u);
  EXPECT_EQ(PartLines(split.out), cks) << split.out;
  EXPECT_EQ(ReadText(Path("share.1")).size(), 24u + 22u + 8u);
  EXPECT_EQ(UserMustRun("skeep-probe", {"--id", "vault1"}), "Secret vault1: exists, split\r\n");

  const std::string two = Path("share.3") + "," + Path("share.1");
  EXPECT_EQ(UserMustRun("skeep-match", {"--id", "vault1", "--parts", two}),
            "Secret vault1 matches the shares.\r\n");
  UserMustRun("skeep-remove", kind);
  EXPECT_EQ(UserMustRun("skeep-probe", {"--id", "vault1"}), "Secret vault1: absent\r\n");
  RunResult r = UserJob("skeep-match", {"--id", "vault1", "--parts", two});
  EXPECT_NE(r.out.find(ErrorLine("SKeepMatchSecret", QL_ERR_OBJ_NOT_FOUND)), std::string::npos)
      << r.out;

  EXPECT_EQ(UserMustRun("skeep-recover",
                        {"--id", "vault1", "--parts", Path("share.2") + "," + Path("share.3")}),
            "Secret vault1 put back.\r\n");
  EXPECT_EQ(UserMustRun("skeep-probe", {"--id", "vault1"}),
            "Secret vault1: exists, split, restored\r\n");
  EXPECT_EQ(UserMustRun("skeep-match", {"--id", "vault1", "--parts", two}),
            "Secret vault1 matches the shares.\r\n");
  EXPECT_EQ(UserMustRun("skeep-recover", {"--id", "vault1", "--parts", files}),
            "Secret vault1 already present and equal.\r\n");
  // The level travels with the shares: the put-back secret removes only with it.
  r = UserJob("skeep-remove", {"--id", "vault1", "--level", "3", "--auth", "1"});
  EXPECT_NE(r.out.find(ErrorLine("SKeepRemoveSecret", QL_ERR_SKEEP_MISMATCH)), std::string::npos)
      << r.out;
  UserMustRun("skeep-remove", kind);
}

TEST_F(SkeepJobs, LibraryRefusals) {
  MakeUser(0x4);  // create only
  HSESSIONCTX s = session_;
  EXPECT_EQ(QSKeepNewSecret(s, "k", 0, 1), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QSKeepNewSecret(s, "k", 4, 1), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QSKeepNewSecret(s, "k", 1, 3), QL_ERR_BAD_ARGUMENT);
  ASSERT_EQ(QSKeepNewSecret(s, "k", 1, 1), 0);
  EXPECT_EQ(QSKeepNewSecret(s, "k", 1, 1), QL_ERR_OBJ_EXISTS);
  EXPECT_EQ(QSKeepNewSecret(s, "k", 1, 2), QL_ERR_OBJ_EXISTS);
  ASSERT_EQ(QSKeepNewSecret(s, "other", 1, 1), 0);

  std::vector<Share> shares, other;
  EXPECT_EQ(Split(s, "k", 2, 1, 2, 3, &shares), QL_ERR_SKEEP_MISMATCH);
  EXPECT_EQ(Split(s, "k", 1, 2, 2, 3, &shares), QL_ERR_SKEEP_MISMATCH);
  EXPECT_EQ(Split(s, "k", 1, 1, 1, 3, &shares), QL_ERR_BAD_LENGTH);
  EXPECT_EQ(Split(s, "absent", 1, 1, 2, 3, &shares), QL_ERR_OBJ_NOT_FOUND);
  ASSERT_EQ(Split(s, "k", 1, 1, 2, 3, &shares), 0);
  ASSERT_EQ(Split(s, "other", 1, 1, 2, 3, &other), 0);
  EXPECT_EQ(shares[0].size(), 16u + 22u + 8u);

  EXPECT_EQ(Match(s, "k", {shares[0]}), QL_ERR_SHARES_TOO_FEW);
  EXPECT_EQ(Match(s, "k", {shares[0], shares[0]}), QL_ERR_SHARES_MISMATCH);
  // Shares of another id are refused by their id check, before any secret is put together.
  EXPECT_EQ(Match(s, "k", {other[0], other[1]}), QL_ERR_SKEEP_MISMATCH);
  for (size_t at : {size_t{0}, size_t{10}, shares[0].size() - 9}) {
    std::vector<Share> damaged = {shares[0], shares[1]};
    damaged[1][at] ^= 0x40;
    EXPECT_EQ(Match(s, "k", damaged), QL_ERR_SHARE_CORRUPT) << "byte " << at;
  }
  EXPECT_EQ(Match(s, "k", {shares[2], shares[0]}), 0);

  // A secret of the same id but drawn again: the old shares no longer match, and recovering
  // them over it changes nothing.
  ASSERT_EQ(QSKeepRemoveSecret(s, "k", 1, 1), 0);
  ASSERT_EQ(QSKeepNewSecret(s, "k", 1, 1), 0);
  std::vector<Share> fresh;
  ASSERT_EQ(Split(s, "k", 1, 1, 2, 2, &fresh), 0);
  EXPECT_EQ(Match(s, "k", {shares[0], shares[1]}), QL_ERR_SKEEP_MISMATCH);
  uint32_t outcome = 0;
  EXPECT_EQ(Recover(s, "k", {shares[0], shares[1]}, &outcome), QL_ERR_SKEEP_MISMATCH);
  EXPECT_EQ(Match(s, "k", fresh), 0);
  EXPECT_EQ(Probe(s, "k"), 3u);

  // Rights: a user that may only create cannot remove, and one without any right cannot use.
  UserSession user(port(), user_, kUserPassword);
  ASSERT_EQ(user.rc(), 0);
  EXPECT_EQ(QSKeepNewSecret(user.get(), "mine", 3, 2), 0);
  EXPECT_EQ(QSKeepRemoveSecret(user.get(), "mine", 3, 2), QL_ERR_ACCESS_DENIED);
  ASSERT_EQ(qltest::CreateUser(session_, "nobody", "nobody-pw", 0), 0);
  UserSession nobody(port(), "nobody", "nobody-pw");
  ASSERT_EQ(nobody.rc(), 0);
  uint32_t state = 0;
  const std::string mine = user_ + "/mine";
  EXPECT_EQ(QSKeepProbeSecret(nobody.get(), mine.c_str(), &state), QL_ERR_ACCESS_DENIED);
  EXPECT_EQ(QSKeepNewSecret(nobody.get(), "x", 1, 1), QL_ERR_ACCESS_DENIED);
  EXPECT_EQ(Probe(s, mine.c_str()), 1u);
}

TEST_F(SkeepJobs, BoundSharesOpenOnlyOnTheirHsm) {
  ASSERT_EQ(QSKeepNewSecret(session_, "bound", 3, 2), 0);
  ASSERT_EQ(QSKeepNewSecret(session_, "plain", 3, 1), 0);
  std::vector<Share> bound, plain;
  ASSERT_EQ(Split(session_, "bound", 3, 2, 2, 3, &bound), 0);
  ASSERT_EQ(Split(session_, "plain", 3, 1, 2, 3, &plain), 0);
  EXPECT_NE(bound[0].size(), plain[0].size());  // wrapped: not a plain share

  qltest::HsmOptions options;
  options.master_password = kMasterPassword;
  options.kdf_cost = 16;
  qltest::HsmProcess other(options);
  UserSession there(other.port(), "master", kMasterPassword);
  ASSERT_EQ(there.rc(), 0);
  uint32_t outcome = 0;
  EXPECT_EQ(Recover(there.get(), "bound", {bound[0], bound[1]}, &outcome), QL_ERR_SHARE_CORRUPT);
  EXPECT_EQ(Probe(there.get(), "bound"), 0u);
  EXPECT_EQ(Recover(there.get(), "plain", {plain[0], plain[2]}, &outcome), 0);
  EXPECT_EQ(outcome, 1u);

  // On their own HSM the bound shares match, and put the secret back with its auth type.
  EXPECT_EQ(Match(session_, "bound", {bound[1], bound[2]}), 0);
  EXPECT_EQ(Match(session_, "plain", {bound[1], bound[2]}), QL_ERR_SKEEP_MISMATCH);
  ASSERT_EQ(QSKeepRemoveSecret(session_, "bound", 3, 2), 0);
  EXPECT_EQ(Recover(session_, "bound", {bound[2], bound[0]}, &outcome), 0);
  EXPECT_EQ(outcome, 1u);
  EXPECT_EQ(QSKeepRemoveSecret(session_, "bound", 3, 1), QL_ERR_SKEEP_MISMATCH);
  EXPECT_EQ(QSKeepRemoveSecret(session_, "bound", 3, 2), 0);
}

TEST_F(SkeepJobs, MissingOptionsPrintTheHelp) {
  WriteText(Path("s.1"), "x");
  for (const auto &[job, options] : std::vector<std::pair<std::string, std::vector<std::string>>>{
           {"skeep-new", {"--id", "a", "--level", "1"}},
           {"skeep-new", {"--id", "a", "--level", "4", "--auth", "1"}},
           {"skeep-remove", {"--level", "1", "--auth", "1"}},
           {"skeep-split", {"--id", "a", "--level", "1", "--auth", "1", "-m", "2"}},
           {"skeep-probe", {}},
           {"skeep-match", {"--id", "a"}},
           {"skeep-recover", {"--parts", Path("s.1")}}}) {
    const RunResult r = Job(job, options);
    EXPECT_EQ(r.exitCode, 255) << job;
    EXPECT_NE(r.out.find("EXAMPLE"), std::string::npos) << job << ":\n" << r.out;
  }
}

// --- sign-soluti and byok-export ---

// A key of the HSM's export in the given blob form.
std::vector<unsigned char> Export(HKEYCTX key, uint32_t blob) {
  std::vector<unsigned char> out(8192);
  uint32_t len = static_cast<uint32_t>(out.size());
  EXPECT_EQ(QExportKey(key, nullptr, blob, 0, out.data(), &len), 0) << blob;
  out.resize(len);
  return out;
}

std::string AsText(const std::vector<unsigned char> &b) {
  return std::string(b.begin(), b.end());
}

int ObjectCount(HSESSIONCTX s) {
  int count = 0;
  EXPECT_EQ(QListObjs(
                s,
                [](void *p, const char *name, int last) {
                  if (!last && name != nullptr) ++*static_cast<int *>(p);
                  return 0;
                },
                &count),
            0);
  return count;
}

class SignAndExportJobs : public LibraryJobTest {
 protected:
  RunResult Shell(const std::string &cmd) const {
    return RunCommand("cd " + Quote(scratch_.string()) + " && " + cmd);
  }
  void MustShell(const std::string &cmd) const {
    const RunResult r = Shell(cmd);
    ASSERT_EQ(r.exitCode, 0) << cmd << "\n" << r.out;
  }
  HKEYCTX Generate(const char *name, uint32_t alg, uint32_t flags) {
    HKEYCTX key = nullptr;
    EXPECT_EQ(QGenerateKey(session_, name, alg, flags, &key), 0) << name;
    return key;
  }
};

TEST_F(SignAndExportJobs, SignSolutiVerifiesWithOpenssl) {
  HKEYCTX key = Generate("signer", QL_ALG_RSA2048, 0);
  WriteText(Path("signer.der"), AsText(Export(key, QL_PUBLICKEY_BLOB)));
  WriteText(Path("doc.txt"), "a document to sign\n");
  for (const char *h : {"sha1", "sha256", "sha384", "sha512"}) {
    const std::string sig = Path(std::string("doc.") + h + ".sig");
    MustRun("sign-soluti", {"-kn", "signer", "-h", h, "-in", Path("doc.txt"), "--out", sig});
    MustShell(std::string("openssl dgst -") + h + " -binary doc.txt > doc.dgst");
    // pkeyutl rebuilds the DigestInfo of -pkeyopt digest and compares it whole.
    const RunResult r = Shell(
        "openssl pkeyutl -verify -pubin -keyform DER -inkey signer.der "
        "-in doc.dgst -sigfile " +
        Quote(sig) + " -pkeyopt digest:" + h);
    EXPECT_EQ(r.exitCode, 0) << h << ": " << r.out;
    EXPECT_NE(r.out.find("Signature Verified Successfully"), std::string::npos) << r.out;
  }

  // A public key cannot; a value longer than the padding allows is refused.
  const std::vector<unsigned char> spki = Export(key, QL_PUBLICKEY_BLOB);
  HKEYCTX pub = nullptr;
  ASSERT_EQ(
      QImportKey(session_, "signer_pub", nullptr, spki.data(), static_cast<uint32_t>(spki.size()),
                 QL_PUBLICKEY_BLOB, QL_ALG_RSA2048 | QL_ALG_PUBLIC_KEY_BIT, 0, &pub),
      0);
  RunResult r = Job("sign-soluti", {"-kn", "signer_pub", "-h", "sha256", "-in", Path("doc.txt")});
  EXPECT_NE(r.out.find(ErrorLine("QEncrypt", QL_ERR_BAD_KEY_USAGE)), std::string::npos) << r.out;
  std::vector<unsigned char> buf(256, 0x30);
  uint32_t len = 256 - 10;
  EXPECT_EQ(QEncrypt(key, nullptr, 1, QL_ENCRYPT_RSA_PRIVATE, buf.data(), &len, 256),
            QL_ERR_BAD_LENGTH);
  len = 256 - 11;
  EXPECT_EQ(QEncrypt(key, nullptr, 1, QL_ENCRYPT_RSA_PRIVATE, buf.data(), &len, 256), 0);
  EXPECT_EQ(len, 256u);
  QDestroyKey(&pub, 0);
  QDestroyKey(&key, 0);
}

TEST_F(SignAndExportJobs, ByokUnwrapsWithOpenssl) {
  MustShell(
      "openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out kek.pem 2>/dev/null"
      " && openssl pkey -in kek.pem -pubout -out kek_pub.pem");
  HKEYCTX aes = Generate("data_key", QL_ALG_AES256, QL_KEY_EXPORTABLE);
  HKEYCTX rsa = Generate("app_key", QL_ALG_RSA2048, QL_KEY_EXPORTABLE);
  const std::string raw = AsText(Export(aes, QL_PLAINTEXTKEY_BLOB));
  const std::string pkcs8 = AsText(Export(rsa, QL_PRIVATEKEY_BLOB));
  const int before = ObjectCount(session_);
  const std::string oaep =
      "openssl pkeyutl -decrypt -inkey kek.pem -pkeyopt rsa_padding_mode:oaep "
      "-pkeyopt rsa_oaep_md:sha256 -pkeyopt rsa_mgf1_md:sha256";

  struct Case {
    const char *key;
    const char *type;
    const char *label;  // null: none given
    const std::string &expected;
  };
  for (const Case &c :
       {Case{"data_key", "1", "cloud-label", raw}, Case{"app_key", "1", nullptr, pkcs8},
        Case{"data_key", "2", nullptr, raw}}) {
    std::vector<std::string> options = {"-kn",    c.key,  "--pub", Path("kek_pub.pem"),
                                        "--type", c.type, "--out", Path("out.bin")};
    std::string label_opt;
    if (c.label != nullptr) {
      options.insert(options.end(), {"--label", c.label});
      label_opt = " -pkeyopt rsa_oaep_label:" + HexOf(std::string(c.label));
    }
    MustRun("byok-export", options);
    const std::string out = ReadText(Path("out.bin"));
    ASSERT_GE(out.size(), 256u) << c.key;
    WriteText(Path("head.bin"), out.substr(0, 256));
    MustShell(oaep + label_opt + " -in head.bin -out head.plain");
    if (std::string(c.type) == "2") {
      EXPECT_EQ(out.size(), 256u);
      EXPECT_EQ(ReadText(Path("head.plain")), c.expected) << c.key;
      continue;
    }
    const std::string aes_key = ReadText(Path("head.plain"));
    ASSERT_EQ(aes_key.size(), 32u) << c.key;
    WriteText(Path("tail.bin"), out.substr(256));
    MustShell("openssl enc -d -id-aes256-wrap-pad -iv A65959A6 -K " + HexOf(aes_key) +
              " -in tail.bin -out tail.plain");
    EXPECT_EQ(ReadText(Path("tail.plain")), c.expected) << c.key << " type " << c.type;
  }
  // The temporary KEK went away every time.
  EXPECT_EQ(ObjectCount(session_), before);

  // Refusals: a key made without the exportable flag, an RSA key by RSA-OAEP alone, a short KEK.
  HKEYCTX fixed = Generate("fixed_key", QL_ALG_AES256, 0);
  RunResult r = Job("byok-export", {"-kn", "fixed_key", "--pub", Path("kek_pub.pem")});
  EXPECT_NE(r.out.find(ErrorLine("ByokExport", QL_ERR_NOT_EXPORTABLE)), std::string::npos) << r.out;
  r = Job("byok-export", {"-kn", "app_key", "--pub", Path("kek_pub.pem"), "--type", "2"});
  EXPECT_NE(r.out.find(ErrorLine("ByokExport", QL_ERR_BAD_KEY_USAGE)), std::string::npos) << r.out;
  MustShell(
      "openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 2>/dev/null"
      " | openssl pkey -pubout -outform DER -out short.der");
  r = Job("byok-export", {"-kn", "data_key", "--pub", Path("short.der")});
  EXPECT_NE(r.out.find(ErrorLine("ByokExport", QL_ERR_BAD_KEY_USAGE)), std::string::npos) << r.out;
  EXPECT_EQ(ObjectCount(session_), before + 1);  // fixed_key only
  QDestroyKey(&fixed, 0);
  QDestroyKey(&rsa, 0);
  QDestroyKey(&aes, 0);
}

TEST_F(SignAndExportJobs, MissingOptionsPrintTheHelp) {
  WriteText(Path("d"), "data");
  for (const auto &[job, options] : std::vector<std::pair<std::string, std::vector<std::string>>>{
           {"sign-soluti", {"-kn", "k", "-in", Path("d")}},
           {"sign-soluti", {"-kn", "k", "-h", "md5", "-in", Path("d")}},
           {"sign-soluti", {"-h", "sha256", "-in", Path("d")}},
           {"byok-export", {"-kn", "k"}},
           {"byok-export", {"-kn", "k", "--pub", Path("d"), "--type", "3"}},
           {"byok-export", {"--pub", Path("d")}}}) {
    const RunResult r = Job(job, options);
    EXPECT_EQ(r.exitCode, 255) << job;
    EXPECT_NE(r.out.find("EXAMPLE"), std::string::npos) << job << ":\n" << r.out;
  }
}

}  // namespace
}  // namespace jobs_test
