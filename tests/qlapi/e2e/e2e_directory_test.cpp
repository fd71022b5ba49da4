// Directory binding end to end: a slapd of the test's own on a free loopback port, the HSM's
// entry made, replaced, renewed at start and removed, as ldapsearch sees it.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "command.h"
#include "hsm_fixture.h"
#include "library_session.h"
#include "qlapi.h"

namespace {

namespace fs = std::filesystem;

constexpr const char *kSlapd = "/usr/sbin/slapd";
constexpr const char *kAdmin = "cn=admin,dc=test";
constexpr const char *kSecret = "secret";
constexpr const char *kWrongPassword = "Wr0ng-Pa55";

// A free loopback port; with `listening`, a socket that listens on it and never answers.
int FreePort(int *listening = nullptr) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0 ||
      (listening != nullptr && listen(fd, 4) != 0)) {
    close(fd);
    return 0;
  }
  if (listening != nullptr)
    *listening = fd;
  else
    close(fd);
  return ntohs(a.sin_port);
}

// A slapd with only the core schema, one mdb database for dc=test and its root DN.
class Slapd {
 public:
  Slapd() {
    char pattern[] = "/tmp/qlslapdXXXXXX";
    dir_ = mkdtemp(pattern);
    fs::create_directory(dir_ + "/db");
    std::ofstream(dir_ + "/slapd.conf")
        << "include /etc/ldap/schema/core.schema\n"
        << "modulepath /usr/lib/ldap\nmoduleload back_mdb\n"
        << "pidfile " << dir_ << "/slapd.pid\n"
        << "database mdb\nmaxsize 10485760\n"
        << "suffix \"dc=test\"\nrootdn \"" << kAdmin << "\"\n"
        << "rootpw " << kSecret << "\ndirectory " << dir_ << "/db\n";
    uri_ = "ldap://127.0.0.1:" + std::to_string(FreePort());
    pid_ = fork();
    if (pid_ == 0) {
      const std::string conf = dir_ + "/slapd.conf", listen = uri_ + "/", log = dir_ + "/slapd.log";
      freopen(log.c_str(), "w", stderr);
      execl(kSlapd, kSlapd, "-f", conf.c_str(), "-h", listen.c_str(), "-d", "0", nullptr);
      _exit(127);
    }
    // Ready once the base entry goes in.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (Add("dc=test", "objectClass: dcObject\nobjectClass: organization\ndc: test\no: test")) {
      if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("slapd not up");
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
  ~Slapd() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }

  const std::string &uri() const { return uri_; }

  // ldapadd of one entry as the root DN; the exit code.
  int Add(const std::string &dn, const std::string &attributes) const {
    std::ofstream(dir_ + "/add.ldif") << "dn: " << dn << "\n" << attributes << "\n";
    return qltest::RunCommand(Ldap("ldapadd") + " -f " + dir_ + "/add.ldif >/dev/null 2>&1")
        .exit_code;
  }
  // An organizational unit under dc=test, the base of one test's entries.
  std::string Base(const std::string &ou) const {
    const std::string dn = "ou=" + ou + ",dc=test";
    EXPECT_EQ(Add(dn, "objectClass: organizationalUnit\nou: " + ou), 0) << dn;
    return dn;
  }
  // The entries below `base` (not base itself), as ldapsearch prints them.
  std::string Entries(const std::string &base) const {
    return qltest::RunCommand("ldapsearch -x -LLL -o ldif-wrap=no -H " + uri_ + " -b " + base +
                              " -s one 2>&1")
        .out;
  }
  int Delete(const std::string &dn) const {
    return qltest::RunCommand(Ldap("ldapdelete") + " '" + dn + "' >/dev/null 2>&1").exit_code;
  }

 private:
  std::string Ldap(const char *tool) const {
    return std::string(tool) + " -x -H " + uri_ + " -D " + kAdmin + " -w " + kSecret;
  }
  std::string dir_;
  std::string uri_;
  pid_t pid_ = -1;
};

size_t Count(const std::string &text, const std::string &what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

std::string Fingerprint(const qltest::HsmProcess &hsm) {
  std::string out =
      qltest::RunCommand("'" + qltest::QlhsmdPath() + "' fingerprint --data-dir " + hsm.data_dir())
          .out;
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
  return out;
}

class Directory : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (access(kSlapd, X_OK) == 0) slapd_ = new Slapd;
  }
  static void TearDownTestSuite() {
    delete slapd_;
    slapd_ = nullptr;
  }
  void SetUp() override {
    if (slapd_ == nullptr) GTEST_SKIP() << kSlapd << " is not installed";
  }
  static Slapd *slapd_;
};
Slapd *Directory::slapd_ = nullptr;

TEST_F(Directory, BindPublishesReplacesAndUnbindRemoves) {
  qltest::HsmProcess &hsm = qltest::HsmEnvironment::hsm();
  qltest::OpenedSession master;
  const std::string base = slapd_->Base("lib");
  const std::string url = slapd_->uri() + "/" + base;

  ASSERT_EQ(QDSBindHSM(master.get(), url.c_str(), kAdmin, kSecret, 0), QL_OK);
  ASSERT_EQ(QDSBindHSM(master.get(), url.c_str(), kAdmin, kSecret, 0), QL_OK);
  const std::string entries = slapd_->Entries(base);
  EXPECT_EQ(Count(entries, "dn: "), 1u) << entries;
  EXPECT_NE(entries.find("description: address=" + hsm.address()), std::string::npos) << entries;
  EXPECT_NE(entries.find("description: port=" + std::to_string(hsm.port())), std::string::npos)
      << entries;
  const std::string fp = Fingerprint(hsm);
  ASSERT_EQ(fp.size(), 64u);
  EXPECT_NE(entries.find("description: tls-sha256=" + fp), std::string::npos) << entries;
  EXPECT_NE(entries.find("description: version="), std::string::npos) << entries;

  EXPECT_EQ(QDSUnbindHSM(master.get(), 0), QL_OK);
  EXPECT_EQ(Count(slapd_->Entries(base), "dn: "), 0u);
  EXPECT_EQ(QDSUnbindHSM(master.get(), 0), QL_ERR_OBJ_NOT_FOUND);
}

TEST_F(Directory, Refusals) {
  qltest::OpenedSession master;
  const std::string base = slapd_->Base("refused");
  const std::string url = slapd_->uri() + "/" + base;
  const std::string nobody = "ldap://127.0.0.1:" + std::to_string(FreePort()) + "/" + base;
  int silent_fd = -1;
  const std::string silent =
      "ldap://127.0.0.1:" + std::to_string(FreePort(&silent_fd)) + "/" + base;
  struct Case {
    const char *what;
    std::string url;
    const char *dn;
    const char *password;
    uint32_t flags;
    int rc;
  } cases[] = {
      {"wrong password", url, kAdmin, kWrongPassword, 0, QL_ERR_DIRECTORY_BIND_REFUSED},
      {"unknown bind DN", url, "cn=nobody,dc=test", kSecret, 0, QL_ERR_DIRECTORY_BIND_REFUSED},
      {"nothing listening", nobody, kAdmin, kSecret, 0, QL_ERR_DIRECTORY_FAILED},
      {"a directory that never answers", silent, kAdmin, kSecret, 0, QL_ERR_DIRECTORY_FAILED},
      {"base outside the directory", slapd_->uri() + "/dc=elsewhere", kAdmin, kSecret, 0,
       QL_ERR_DIRECTORY_FAILED},
      {"http scheme", "http://127.0.0.1/" + base, kAdmin, kSecret, 0, QL_ERR_BAD_ARGUMENT},
      {"no base DN", slapd_->uri(), kAdmin, kSecret, 0, QL_ERR_BAD_ARGUMENT},
      {"unknown flag", url, kAdmin, kSecret, 0x10, QL_ERR_BAD_FLAGS},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(QDSBindHSM(master.get(), c.url.c_str(), c.dn, c.password, c.flags), c.rc);
  }
  close(silent_fd);
  EXPECT_EQ(Count(slapd_->Entries(base), "dn: "), 0u);
  std::ifstream log(qltest::HsmEnvironment::hsm().log_path());
  const std::string said((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
  EXPECT_NE(said.find("qlhsmd: directory: "), std::string::npos);
  EXPECT_EQ(said.find(kWrongPassword), std::string::npos);
  // Nothing was kept by the failed binds.
  EXPECT_EQ(QDSUnbindHSM(master.get(), 0), QL_ERR_OBJ_NOT_FOUND);

  const std::string user = "ds_plain";
  ASSERT_EQ(qltest::CreateUser(master.get(), user, "user-pw-1", 0x7F), QL_OK);
  {
    qltest::OpenedSession plain(user, "user-pw-1");
    EXPECT_EQ(QDSBindHSM(plain.get(), url.c_str(), kAdmin, kSecret, 0), QL_ERR_ACCESS_DENIED);
    EXPECT_EQ(QDSUnbindHSM(plain.get(), 0), QL_ERR_ACCESS_DENIED);
  }
  EXPECT_EQ(QRemoveUser(master.get(), user.c_str()), QL_OK);
}

TEST_F(Directory, RenewedAtStart) {
  qltest::HsmProcess hsm;
  const std::string base = slapd_->Base("restart");
  const std::string url = slapd_->uri() + "/" + base;
  {
    qltest::OpenedSession master("master", "", hsm);
    ASSERT_EQ(QDSBindHSM(master.get(), url.c_str(), kAdmin, kSecret, 0), QL_OK);
  }
  std::string entries = slapd_->Entries(base);
  const std::string dn = entries.substr(4, entries.find('\n') - 4);
  ASSERT_EQ(slapd_->Delete(dn), 0) << entries;
  ASSERT_EQ(Count(slapd_->Entries(base), "dn: "), 0u);

  hsm.Restart();
  // The renewal runs beside the serving: wait for it, bounded.
  const std::string port = "description: port=" + std::to_string(hsm.port());
  for (int i = 0; i < 100 && entries.find(port) == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    entries = slapd_->Entries(base);
  }
  EXPECT_NE(entries.find(port), std::string::npos) << entries;
  EXPECT_EQ(Count(entries, "dn: "), 1u) << entries;

  qltest::OpenedSession master("master", "", hsm);
  EXPECT_EQ(QDSUnbindHSM(master.get(), 0), QL_OK);
  EXPECT_EQ(Count(slapd_->Entries(base), "dn: "), 0u);
}

#ifdef QLUTIL_BIN
TEST_F(Directory, Jobs) {
  const qltest::HsmProcess &hsm = qltest::HsmEnvironment::hsm();
  const std::string dir = fs::temp_directory_path().string();
  auto qlutil = [&](const std::string &args) {
    return qltest::RunCommand(qltest::QlutilAsMaster(QLUTIL_BIN, dir, hsm, args) + " 2>&1");
  };
  const std::string base = slapd_->Base("jobs");
  const std::string url = slapd_->uri() + "/" + base;
  for (const std::string &missing :
       {"-dn " + std::string(kAdmin) + " -pw secret", "-url " + url + " -pw secret",
        "-url " + url + " -dn " + std::string(kAdmin)}) {
    SCOPED_TRACE(missing);
    const qltest::CommandResult r = qlutil("-j ds-bind " + missing);
    EXPECT_EQ(r.exit_code, 255);
    EXPECT_EQ(r.out.rfind("\r\nDESCRIPTION\r\n", 0), 0u) << r.out;
  }
  EXPECT_EQ(Count(slapd_->Entries(base), "dn: "), 0u);

  qltest::CommandResult r = qlutil("-j ds-bind -url " + url + " -dn " + kAdmin + " -pw " + kSecret);
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(Count(slapd_->Entries(base), "dn: "), 1u);
  r = qlutil("-j ds-bind -url " + url + " -dn " + kAdmin + " -pw wrong");
  EXPECT_EQ(r.exit_code, QL_ERR_DIRECTORY_BIND_REFUSED & 0xFF) << r.out;
  // Destructive: a switch it does not read stops it before anything is sent.
  r = qlutil("-j ds-unbind -force");
  EXPECT_NE(r.exit_code, 0) << r.out;
  EXPECT_EQ(Count(slapd_->Entries(base), "dn: "), 1u);
  r = qlutil("-j ds-unbind");
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(Count(slapd_->Entries(base), "dn: "), 0u);
}
#endif

}  // namespace
