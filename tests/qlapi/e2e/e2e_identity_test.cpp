// The HSM's identity, checked before any credential leaves the machine: certificates pinned per
// address and port (first use, strict mode, a rogue server on a pinned port), a CA bundle with
// the address; the unlock secret that seals the daemon's master key; and clean refusals of text
// that is not UTF-8.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
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

const qltest::HsmSetup kSetup{std::nullopt};  // each test starts its own daemons

}  // namespace
