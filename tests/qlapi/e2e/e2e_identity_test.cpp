// The HSM's identity, checked before any credential leaves the machine: certificates pinned per
// address and port (first use, strict mode, a rogue server on a pinned port), a CA bundle with
// the address; the unlock secret that seals the daemon's master key; and clean refusals of text
// that is not UTF-8.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/hmac.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "hsm_fixture.h"
#include "known_hsms.h"
#include "password_record.h"
#include "qlapi.h"

namespace {

namespace kh = qlapi::knownhsms;

constexpr uint32_t kNewTls = QL_SESSION_ENCRYPTED | QL_SESSION_BYPASS_CACHE;

std::string ReadText(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// The fingerprint `qlhsmd init` printed into the daemon's log.
std::string PrintedFingerprint(const qltest::HsmProcess &hsm) {
  const std::string log = ReadText(hsm.log_path());
  const std::string label = "TLS certificate SHA-256: ";
  const size_t at = log.find(label);
  return at == std::string::npos ? "" : log.substr(at + label.size(), 64);
}

// Opens and closes a new TLS session as master; the code QOpenSession answered.
int OpenAsMaster(const qltest::HsmProcess &hsm, const std::string &host = "") {
  AUTH_PWD_EX r = qltest::PasswordRecord(hsm);
  if (!host.empty()) qltest::CopyField(r.szAddr, host);
  HSESSIONCTX s = nullptr;
  const int rc = QOpenSession(&s, QL_AUTH_USER_PWD, &r, sizeof r, kNewTls);
  if (s != nullptr) QCloseSession(&s, 8);
  return rc;
}

qltest::HsmOptions SelfSigned() {
  qltest::HsmOptions o;
  o.ca_issued_tls = false;
  return o;
}

// Each test pins into a file of its own and starts with neither a CA bundle nor strict mode.
class Identity : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/qlapi_identity_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    pins_ = dir_ + "/known_hsms";
    kh::SetPathForTesting(pins_);
    unsetenv("QLAPI_TLS_CA_FILE");
    unsetenv("QLAPI_TLS_STRICT");
  }
  void TearDown() override {
    kh::SetPathForTesting("");
    unsetenv("QLAPI_TLS_CA_FILE");
    unsetenv("QLAPI_TLS_STRICT");
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  std::string Pinned(const qltest::HsmProcess &hsm) {
    auto pin = kh::Lookup(pins_, kh::Endpoint(hsm.address(), hsm.port()));
    EXPECT_TRUE(pin.ok());
    return pin.ok() ? pin.value() : "";
  }
  std::string dir_, pins_;
};

// A TLS server with a certificate of its own on a loopback port, counting every byte a client
// sends it after the handshake.
class RogueServer {
 public:
  RogueServer(const std::string &dir, int port) {
    const std::string cert = dir + "/rogue.crt", key = dir + "/rogue.key";
    qltest::IssueTestCertificate({"127.0.0.1"}, cert, key, false);
    ctx_ = SSL_CTX_new(TLS_server_method());
    SSL_CTX_set_min_proto_version(ctx_, TLS1_3_VERSION);
    SSL_CTX_set_num_tickets(ctx_, 0);
    ok_ = SSL_CTX_use_certificate_chain_file(ctx_, cert.c_str()) == 1 &&
          SSL_CTX_use_PrivateKey_file(ctx_, key.c_str(), SSL_FILETYPE_PEM) == 1;
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ok_ = ok_ && bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 && listen(fd_, 4) == 0;
    if (ok_) thread_ = std::thread([this] { Serve(); });
  }
  ~RogueServer() {
    Finish();
    close(fd_);
    SSL_CTX_free(ctx_);
  }
  bool listening() const { return ok_; }
  void Finish() {
    if (thread_.joinable()) thread_.join();
  }
  bool handshake_done() const { return handshake_done_; }
  size_t bytes_received() const { return received_; }

 private:
  void Serve() {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, 20000) != 1) return;
    const int c = accept(fd_, nullptr, nullptr);
    if (c < 0) return;
    timeval tv{20, 0};
    setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    SSL *ssl = SSL_new(ctx_);
    SSL_set_fd(ssl, c);
    if (SSL_accept(ssl) == 1) {
      handshake_done_ = true;
      char buf[4096];
      int n;
      while ((n = SSL_read(ssl, buf, sizeof buf)) > 0) received_ += static_cast<size_t>(n);
    }
    SSL_free(ssl);
    close(c);
    ERR_clear_error();
  }
  SSL_CTX *ctx_ = nullptr;
  int fd_ = -1;
  bool ok_ = false;
  std::thread thread_;
  std::atomic<bool> handshake_done_{false};
  std::atomic<size_t> received_{0};
};

TEST_F(Identity, FirstUsePinsAndARogueServerOnThePinnedPortGetsNoCredential) {
  qltest::HsmProcess hsm(SelfSigned());
  const std::string printed = PrintedFingerprint(hsm);
  ASSERT_EQ(printed.size(), 64u) << ReadText(hsm.log_path());

  EXPECT_FALSE(std::filesystem::exists(pins_));
  ASSERT_EQ(OpenAsMaster(hsm), QL_OK);
  EXPECT_EQ(Pinned(hsm), printed);
  struct stat st {};
  ASSERT_EQ(stat(pins_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(OpenAsMaster(hsm), QL_OK);  // the same HSM again

  // `qlhsmd fingerprint` prints the same value.
  const std::string fp_log = dir_ + "/fingerprint.log";
  ASSERT_EQ(qltest::RunQlhsmd({"fingerprint", "--data-dir", hsm.data_dir()}, fp_log), 0);
  EXPECT_EQ(ReadText(fp_log), printed + "\n");

  // Another server takes over the port with a certificate of its own.
  const int port = hsm.port();
  hsm.Stop();
  RogueServer rogue(dir_, port);
  ASSERT_TRUE(rogue.listening());
  AUTH_PWD_EX r = qltest::PasswordRecord(hsm);
  r.nPort = port;
  HSESSIONCTX s = nullptr;
  EXPECT_EQ(QOpenSession(&s, QL_AUTH_USER_PWD, &r, sizeof r, kNewTls), QL_ERR_HSM_IDENTITY_CHANGED);
  EXPECT_EQ(s, nullptr);
  rogue.Finish();
  EXPECT_TRUE(rogue.handshake_done());
  EXPECT_EQ(rogue.bytes_received(), 0u);
  EXPECT_EQ(kh::Lookup(pins_, kh::Endpoint("127.0.0.1", port)).value(), printed);
  EXPECT_STREQ(QGetReturnCodeString(QL_ERR_HSM_IDENTITY_CHANGED, QL_RC_STR_DESCRIPTION),
               "The HSM's identity changed.");
}

TEST_F(Identity, StrictModeRefusesAnUnknownHsmUntilItIsPinned) {
  qltest::HsmProcess hsm(SelfSigned());
  setenv("QLAPI_TLS_STRICT", "1", 1);
  EXPECT_EQ(OpenAsMaster(hsm), QL_ERR_HSM_IDENTITY_UNKNOWN);
  EXPECT_EQ(Pinned(hsm), "");
  ASSERT_TRUE(
      kh::Pin(pins_, kh::Endpoint(hsm.address(), hsm.port()), PrintedFingerprint(hsm)).ok());
  EXPECT_EQ(OpenAsMaster(hsm), QL_OK);
}

TEST_F(Identity, PlainConnectionsAreNotPinned) {
  qltest::HsmProcess hsm(SelfSigned());
  setenv("QLAPI_TLS_STRICT", "1", 1);
  AUTH_PWD_EX r = qltest::PasswordRecord(hsm);
  HSESSIONCTX s = nullptr;
  EXPECT_EQ(QOpenSession(&s, QL_AUTH_USER_PWD, &r, sizeof r,
                         QL_SESSION_UNENCRYPTED | QL_SESSION_BYPASS_CACHE),
            QL_OK);
  if (s != nullptr) QCloseSession(&s, 8);
  EXPECT_FALSE(std::filesystem::exists(pins_));
}

TEST_F(Identity, ACaBundleVerifiesTheChainAndTheAddress) {
  setenv("QLAPI_TLS_CA_FILE", qltest::TestCaFile().c_str(), 1);
  qltest::HsmProcess issued;  // a certificate of the test CA, given to `qlhsmd init`
  EXPECT_EQ(OpenAsMaster(issued), QL_OK);
  EXPECT_EQ(OpenAsMaster(issued, "localhost"), QL_OK);

  qltest::HsmProcess self_signed(SelfSigned());
  EXPECT_EQ(OpenAsMaster(self_signed), QL_ERR_HSM_IDENTITY_UNVERIFIED);

  qltest::HsmOptions other_name;
  other_name.tls_names = {"hsm.invalid"};
  qltest::HsmProcess misnamed(other_name);
  EXPECT_EQ(OpenAsMaster(misnamed), QL_ERR_HSM_IDENTITY_UNVERIFIED);

  // With a CA bundle nothing is pinned, even for the HSM it refused.
  EXPECT_FALSE(std::filesystem::exists(pins_));
}

TEST_F(Identity, ALoosePinFileIsRefused) {
  qltest::HsmProcess hsm(SelfSigned());
  ASSERT_EQ(OpenAsMaster(hsm), QL_OK);
  ASSERT_EQ(chmod(pins_.c_str(), 0644), 0);
  EXPECT_EQ(OpenAsMaster(hsm), QL_ERR_HSM_IDENTITY_UNVERIFIED);
}

// ---- the unlock secret ------------------------------------------------------------------------

std::string WriteSecretFile(const std::string &path, const std::string &text, mode_t mode) {
  std::ofstream(path, std::ios::binary) << text;
  chmod(path.c_str(), mode);
  return path;
}

TEST_F(Identity, ACopyOfTheDataWithoutItsUnlockSecretDoesNotServe) {
  qltest::HsmProcess hsm(SelfSigned());
  hsm.Stop();
  const std::string copy = dir_ + "/copy";
  std::filesystem::copy(hsm.data_dir(), copy, std::filesystem::copy_options::recursive);

  const std::string log = dir_ + "/serve.log";
  const std::string wrong = WriteSecretFile(dir_ + "/wrong", "not the secret\n", 0600);
  EXPECT_NE(
      qltest::RunQlhsmd(
          {"serve", "--data-dir", copy, "--listen", "127.0.0.1:0", "--unlock-file", wrong}, log),
      0);
  const std::string said = ReadText(log);
  EXPECT_NE(said.find("wrong unlock secret"), std::string::npos) << said;
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;

  // An unlock file others may read is refused before anything else.
  const std::string loose = WriteSecretFile(dir_ + "/loose", qltest::kTestUnlockSecret, 0644);
  EXPECT_NE(
      qltest::RunQlhsmd(
          {"serve", "--data-dir", copy, "--listen", "127.0.0.1:0", "--unlock-file", loose}, log),
      0);

  // With its secret (the fixture's, in the environment) the copy serves the same HSM.
  qltest::HsmOptions same;
  same.ca_issued_tls = false;
  same.existing_data_dir = copy;
  qltest::HsmProcess again(same);
  EXPECT_EQ(OpenAsMaster(again), QL_OK);
}

// ---- text that is not UTF-8 -------------------------------------------------------------------

// Runs `fn` with the process's stderr going to a file; what was written there.
template <typename F>
std::string CapturedStderr(const std::string &path, F fn) {
  fflush(stderr);
  const int saved = dup(2);
  FILE *f = fopen(path.c_str(), "w");
  dup2(fileno(f), 2);
  fn();
  fflush(stderr);
  dup2(saved, 2);
  close(saved);
  fclose(f);
  return ReadText(path);
}

TEST_F(Identity, UserNamesAndPasswordsThatAreNotUtf8AreRefusedSilently) {
  qltest::HsmProcess hsm(SelfSigned());
  ASSERT_EQ(OpenAsMaster(hsm), QL_OK);  // pins first, so the refusals below are the HSM's
  const std::string printed = CapturedStderr(dir_ + "/stderr", [&] {
    AUTH_PWD_EX bad_user = qltest::PasswordRecord(hsm, "mas\xfftr", "whatever");
    HSESSIONCTX s = nullptr;
    EXPECT_EQ(QOpenSession(&s, QL_AUTH_USER_PWD, &bad_user, sizeof bad_user, kNewTls),
              QL_ERR_BAD_UTF8);
    AUTH_PWD_EX bad_pwd = qltest::PasswordRecord(hsm, "master", "\xc3\x28pw");
    EXPECT_EQ(QOpenSession(&s, QL_AUTH_USER_PWD, &bad_pwd, sizeof bad_pwd, kNewTls),
              QL_ERR_BAD_UTF8);

    AUTH_PWD_EX master = qltest::PasswordRecord(hsm);
    ASSERT_EQ(QOpenSession(&s, QL_AUTH_USER_PWD, &master, sizeof master, kNewTls), QL_OK);
    QL_USER_INFO u{};
    qltest::CopyField(u.szUserId,
                      "b\xe9"
                      "b");  // Latin-1, not UTF-8
    qltest::CopyField(u.szPassword, "pw123456");
    EXPECT_EQ(QCreateUser(s, &u), QL_ERR_BAD_UTF8);
    // A password in UTF-8 beyond ASCII is fine.
    qltest::CopyField(u.szUserId, "utf8pw");
    qltest::CopyField(u.szPassword, "p\xc3\xa4ssw\xc3\xb6rd");
    EXPECT_EQ(QCreateUser(s, &u), QL_OK);
    EXPECT_EQ(QRemoveUser(s, "utf8pw"), QL_OK);
    QCloseSession(&s, 8);
  });
  EXPECT_EQ(printed, "");
}

// RFC 4226's value of `counter` for a six-digit SHA-1 token.
std::string Hotp(const unsigned char *seed, size_t len, uint64_t counter) {
  unsigned char msg[8];
  for (int i = 7; i >= 0; --i, counter >>= 8) msg[i] = static_cast<unsigned char>(counter);
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int mac_len = 0;
  HMAC(EVP_sha1(), seed, static_cast<int>(len), msg, sizeof msg, mac, &mac_len);
  const int off = mac[19] & 0xf;
  const uint32_t bin =
      (mac[off] & 0x7fu) << 24 | mac[off + 1] << 16 | mac[off + 2] << 8 | mac[off + 3];
  char digits[7];
  std::snprintf(digits, sizeof digits, "%06u", bin % 1000000);
  return digits;
}

// A user and password login that presents `identity` (PEM key and certificate) as the client
// certificate; QOpenSession's code.
int OpenWithCertificate(const qltest::HsmProcess &hsm, const std::string &user,
                        const std::string &password, const std::string &identity,
                        uint32_t flags = kNewTls) {
  AUTH_PWD_EX r = qltest::PasswordRecord(hsm, user, password);
  r.dwAuthType = QL_STRONG_AUTH_X509;
  r.pbStrongAuth = reinterpret_cast<unsigned char *>(const_cast<char *>(identity.data()));
  r.nStrongAuthLen = static_cast<int32_t>(identity.size());
  HSESSIONCTX s = nullptr;
  const int rc = QOpenSession(&s, QL_AUTH_USER_PWD, &r, sizeof r, flags);
  if (s != nullptr) QCloseSession(&s, QL_CLOSE_PHYSICAL);
  return rc;
}

int OpenAs(const qltest::HsmProcess &hsm, const std::string &user, const std::string &password) {
  AUTH_PWD_EX r = qltest::PasswordRecord(hsm, user, password);
  HSESSIONCTX s = nullptr;
  const int rc = QOpenSession(&s, QL_AUTH_USER_PWD, &r, sizeof r, kNewTls);
  if (s != nullptr) QCloseSession(&s, QL_CLOSE_PHYSICAL);
  return rc;
}

int SetUserParamAs(const qltest::HsmProcess &hsm, const std::string &user,
                   const std::string &password, uint32_t param, const void *data, uint32_t len) {
  AUTH_PWD_EX r = qltest::PasswordRecord(hsm, user, password);
  HSESSIONCTX s = nullptr;
  int rc = QOpenSession(&s, QL_AUTH_USER_PWD, &r, sizeof r, kNewTls);
  if (rc == QL_OK) rc = QSetUserParam(s, param, data, len);
  if (s != nullptr) QCloseSession(&s, QL_CLOSE_PHYSICAL);
  return rc;
}

TEST_F(Identity, ACertificateLoginNeedsThePasswordAndTheBoundCertificate) {
  qltest::HsmProcess hsm;
  for (const char *name : {"alice", "bob"}) {
    AUTH_PWD_EX m = qltest::PasswordRecord(hsm);
    HSESSIONCTX s = nullptr;
    ASSERT_EQ(QOpenSession(&s, QL_AUTH_USER_PWD, &m, sizeof m, kNewTls), QL_OK);
    QL_USER_INFO u{};
    qltest::CopyField(u.szUserId, name);
    qltest::CopyField(u.szPassword, "pw123456");
    u.dwAcl = 0x6;
    EXPECT_EQ(QCreateUser(s, &u), QL_OK);
    QCloseSession(&s, QL_CLOSE_PHYSICAL);
  }
  qltest::IssueTestCertificate({"alice"}, dir_ + "/a.crt", dir_ + "/a.key");
  qltest::IssueTestCertificate({"mallory"}, dir_ + "/m.crt", dir_ + "/m.key");
  const std::string cert = ReadText(dir_ + "/a.crt");
  const std::string alice = ReadText(dir_ + "/a.key") + cert;
  const std::string other = ReadText(dir_ + "/m.key") + ReadText(dir_ + "/m.crt");

  // Before a certificate is bound, a certificate login is refused like a stray OTP.
  EXPECT_EQ(OpenWithCertificate(hsm, "alice", "pw123456", alice), QL_ERR_AUTH_FAILED);
  EXPECT_EQ(SetUserParamAs(hsm, "alice", "pw123456", QL_UP_X509_ASSIGN, "junk", 4),
            QL_ERR_BAD_CERT);
  ASSERT_EQ(SetUserParamAs(hsm, "alice", "pw123456", QL_UP_X509_ASSIGN, cert.data(),
                           static_cast<uint32_t>(cert.size())),
            QL_OK);
  EXPECT_EQ(OpenAs(hsm, "alice", "pw123456"), QL_ERR_AUTH_FAILED);
  EXPECT_EQ(OpenWithCertificate(hsm, "alice", "pw123456", alice), QL_OK);
  EXPECT_EQ(OpenWithCertificate(hsm, "alice", "wrong", alice), QL_ERR_AUTH_FAILED);
  EXPECT_EQ(OpenWithCertificate(hsm, "alice", "pw123456", other), QL_ERR_AUTH_FAILED);
  // Refused in the library, before anything is sent.
  EXPECT_EQ(OpenWithCertificate(hsm, "alice", "pw123456", alice, QL_SESSION_UNENCRYPTED),
            QL_ERR_BAD_AUTH_KIND);
  EXPECT_EQ(OpenWithCertificate(hsm, "alice", "pw123456", ReadText(dir_ + "/m.key") + cert),
            QL_ERR_KEY_CERT_MISMATCH);

  // One second factor per user, whichever comes first: no token for alice, no certificate for
  // bob once he holds a token (he logs in with its first RFC 4226 value to ask).
  const unsigned char seed[20] = {1, 2, 3};
  AUTH_PWD_EX m = qltest::PasswordRecord(hsm);
  HSESSIONCTX master = nullptr;
  ASSERT_EQ(QOpenSession(&master, QL_AUTH_USER_PWD, &m, sizeof m, kNewTls), QL_OK);
  EXPECT_EQ(QAssignToken(master, "alice", 2, seed, sizeof seed, 0, 0, 6),
            QL_ERR_SECOND_FACTOR_EXISTS);
  ASSERT_EQ(QAssignToken(master, "bob", 2, seed, sizeof seed, 0, 0, 6), QL_OK);
  QCloseSession(&master, QL_CLOSE_PHYSICAL);
  std::string otp = Hotp(seed, sizeof seed, 0);
  AUTH_PWD_EX b = qltest::PasswordRecord(hsm, "bob", "pw123456");
  b.dwAuthType = QL_STRONG_AUTH_OTP;
  b.pbStrongAuth = reinterpret_cast<unsigned char *>(otp.data());
  b.nStrongAuthLen = static_cast<int32_t>(otp.size());
  HSESSIONCTX bob = nullptr;
  ASSERT_EQ(QOpenSession(&bob, QL_AUTH_USER_PWD, &b, sizeof b, kNewTls), QL_OK);
  EXPECT_EQ(QSetUserParam(bob, QL_UP_X509_ASSIGN, cert.data(), static_cast<uint32_t>(cert.size())),
            QL_ERR_SECOND_FACTOR_EXISTS);
  QCloseSession(&bob, QL_CLOSE_PHYSICAL);

  // Removed by its holder (twice: nothing to remove is no error), then password alone again.
  AUTH_PWD_EX a = qltest::PasswordRecord(hsm, "alice", "pw123456");
  a.dwAuthType = QL_STRONG_AUTH_X509;
  a.pbStrongAuth = reinterpret_cast<unsigned char *>(const_cast<char *>(alice.data()));
  a.nStrongAuthLen = static_cast<int32_t>(alice.size());
  HSESSIONCTX s = nullptr;
  ASSERT_EQ(QOpenSession(&s, QL_AUTH_USER_PWD, &a, sizeof a, kNewTls), QL_OK);
  EXPECT_EQ(QSetUserParam(s, QL_UP_X509_UNASSIGN, nullptr, 0), QL_OK);
  EXPECT_EQ(QSetUserParam(s, QL_UP_X509_UNASSIGN, nullptr, 0), QL_OK);
  QCloseSession(&s, QL_CLOSE_PHYSICAL);
  EXPECT_EQ(OpenAs(hsm, "alice", "pw123456"), QL_OK);

  // An expired certificate is refused: the HSM's clock runs twenty years ahead.
  ASSERT_EQ(QOpenSession(&master, QL_AUTH_USER_PWD, &m, sizeof m, kNewTls), QL_OK);
  const uint64_t later = static_cast<uint64_t>(time(nullptr)) + 20ull * 365 * 24 * 3600;
  ASSERT_EQ(QAdmOperation(master, QL_ADM_SET_DATE_TIME, &later, sizeof later, nullptr, nullptr, 0),
            QL_OK);
  QCloseSession(&master, QL_CLOSE_PHYSICAL);
  EXPECT_EQ(SetUserParamAs(hsm, "alice", "pw123456", QL_UP_X509_ASSIGN, cert.data(),
                           static_cast<uint32_t>(cert.size())),
            QL_ERR_CERT_EXPIRED);
}

// The SHA-256 of the certificate `openssl s_client` is shown on a new connection, lower-case
// hex.
std::string ServedFingerprint(const qltest::HsmProcess &hsm, const std::string &dir) {
  const std::string cmd = "openssl s_client -connect 127.0.0.1:" + std::to_string(hsm.port()) +
                          " -CAfile " + qltest::TestCaFile() +
                          " -verify_return_error </dev/null 2>/dev/null | openssl x509 "
                          "-outform DER 2>/dev/null | openssl dgst -sha256 -r > " +
                          dir + "/served 2>&1";
  if (std::system(cmd.c_str()) != 0) return "";
  return ReadText(dir + "/served").substr(0, 64);
}

std::string FileFingerprint(const std::string &pem, const std::string &dir) {
  const std::string cmd =
      "openssl x509 -in " + pem + " -outform DER | openssl dgst -sha256 -r > " + dir + "/fp";
  if (std::system(cmd.c_str()) != 0) return "";
  return ReadText(dir + "/fp").substr(0, 64);
}

TEST_F(Identity, ANewTlsBundleServesNewConnectionsAtOnceAndAfterARestart) {
  qltest::HsmProcess hsm;
  unsetenv("QLAPI_TLS_CA_FILE");  // the first daemon of the process sets it: pin instead
  qltest::IssueTestCertificate({"127.0.0.1", "localhost"}, dir_ + "/n.crt", dir_ + "/n.key");
  const std::string bundle = ReadText(dir_ + "/n.key") + ReadText(dir_ + "/n.crt");
  const std::string before = ServedFingerprint(hsm, dir_);
  const std::string wanted = FileFingerprint(dir_ + "/n.crt", dir_);
  ASSERT_EQ(before.size(), 64u);
  ASSERT_NE(before, wanted);

  AUTH_PWD_EX m = qltest::PasswordRecord(hsm);
  HSESSIONCTX open = nullptr;
  ASSERT_EQ(QOpenSession(&open, QL_AUTH_USER_PWD, &m, sizeof m, kNewTls), QL_OK);
  auto set = [&](const std::string &pem) {
    return QAdmOperation(open, QL_ADM_SET_TLS_BUNDLE, pem.data(), static_cast<uint32_t>(pem.size()),
                         nullptr, nullptr, 0);
  };
  // Refusals leave the identity as it was.
  ASSERT_EQ(std::system(("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-521 -nodes "
                         "-keyout " +
                         dir_ + "/w.key -out " + dir_ +
                         "/w.crt -subj /CN=w -days 9 "
                         "2>/dev/null")
                            .c_str()),
            0);
  EXPECT_EQ(set(ReadText(dir_ + "/n.crt")), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(set(ReadText(dir_ + "/n.key")), QL_ERR_BAD_CERT);
  EXPECT_EQ(set(ReadText(dir_ + "/w.key") + ReadText(dir_ + "/n.crt")), QL_ERR_KEY_CERT_MISMATCH);
  EXPECT_EQ(set(ReadText(dir_ + "/w.key") + ReadText(dir_ + "/w.crt")), QL_ERR_BAD_KEY_USAGE);
  EXPECT_EQ(ServedFingerprint(hsm, dir_), before);

  ASSERT_EQ(set(bundle), QL_OK);
  EXPECT_EQ(ServedFingerprint(hsm, dir_), wanted);
  // The connection opened before keeps working; a new library session verifies the new one.
  unsigned char random[8];
  EXPECT_EQ(QGetRandom(open, random, sizeof random), QL_OK);
  QCloseSession(&open, QL_CLOSE_PHYSICAL);
  // A client that pinned the old certificate refuses the new one; one trusting the CA takes it.
  EXPECT_EQ(OpenAsMaster(hsm), QL_ERR_HSM_IDENTITY_CHANGED);
  setenv("QLAPI_TLS_CA_FILE", qltest::TestCaFile().c_str(), 1);
  EXPECT_EQ(OpenAsMaster(hsm), QL_OK);

  hsm.Restart();
  EXPECT_EQ(ServedFingerprint(hsm, dir_), wanted);
  EXPECT_EQ(OpenAsMaster(hsm), QL_OK);
  // What `qlhsmd fingerprint` prints for pinning is the stored certificate's.
  const std::string cmd = std::string(QLHSMD_BIN) + " fingerprint --data-dir " + hsm.data_dir() +
                          " > " + dir_ + "/printed";
  ASSERT_EQ(std::system(cmd.c_str()), 0);
  EXPECT_EQ(ReadText(dir_ + "/printed").substr(0, 64), wanted);
}

const qltest::HsmSetup kSetup{std::nullopt};  // each test starts its own daemons

}  // namespace
