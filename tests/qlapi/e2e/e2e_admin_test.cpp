// Update packages: CMS SignedData made by the openssl command, applied once by the HSM that was
// told at init which certificate signs them, and refused (changing nothing) when another key
// signed them, a byte was changed, the manifest is malformed or the version is not newer.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "hsm_fixture.h"
#include "password_record.h"
#include "qlapi.h"

namespace {

constexpr uint32_t kNewTls = QL_SESSION_ENCRYPTED | QL_SESSION_BYPASS_CACHE;

class UpdatePackages : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/qlapi_upack_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    for (const std::string who : {"signer", "other"})
      ASSERT_EQ(Shell("openssl req -x509 -newkey rsa:2048 -nodes -keyout " + who + ".key -out " +
                      who + ".crt -subj /CN=" + who + " -days 30"),
                0);
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  int Shell(const std::string &cmd) const {
    return std::system(("cd " + dir_ + " && " + cmd + " >/dev/null 2>&1").c_str());
  }
  // The manifest signed by `who` as DER.
  std::string Package(const std::string &manifest, const std::string &who = "signer") const {
    std::ofstream(dir_ + "/m.json") << manifest;
    EXPECT_EQ(Shell("openssl cms -sign -binary -nodetach -in m.json -signer " + who +
                    ".crt -inkey " + who + ".key -outform DER -out p.der"),
              0);
    std::ifstream in(dir_ + "/p.der", std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  std::string dir_;
};

int Push(HSESSIONCTX s, const std::string &package) {
  return QUPackPush(s, reinterpret_cast<const unsigned char *>(package.data()),
                    static_cast<uint32_t>(package.size()), 0);
}

int CollectRule(void *rules, const char *rule, int last) {
  if (!last && rule != nullptr) static_cast<std::vector<std::string> *>(rules)->push_back(rule);
  return 0;
}

std::vector<std::string> Rules(HSESSIONCTX s) {
  std::vector<std::string> rules;
  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_LIST, nullptr, CollectRule, &rules), QL_OK);
  return rules;
}

uint32_t LogCache(HSESSIONCTX s) {
  uint32_t state = 9;
  uint32_t len = sizeof state;
  EXPECT_EQ(QAdmOperation(s, QL_ADM_LOG_CACHE, nullptr, 0, &state, &len, 0), QL_OK);
  return state;
}

TEST_F(UpdatePackages, AppliedOnceAndOnlyWhenTheTrustedKeySignedAWellFormedNewerOne) {
  qltest::HsmOptions o;
  o.init_args = {"--upack-trust", dir_ + "/signer.crt"};
  qltest::HsmProcess hsm(o);
  AUTH_PWD_EX m = qltest::PasswordRecord(hsm);
  HSESSIONCTX s = nullptr;
  ASSERT_EQ(QOpenSession(&s, QL_AUTH_USER_PWD, &m, sizeof m, kNewTls), QL_OK);
  EXPECT_EQ(LogCache(s), 1u);  // on by default

  const std::string first = Package(
      R"({"version": 1, "ip_allow": ["10.1.2.0/24", "192.0.2.7"],
          "log_cache": {"enabled": false, "page_size": 8192}, "limits": {"max_sessions": 512}})");
  ASSERT_EQ(Push(s, first), QL_OK);
  std::vector<std::string> modules;
  ASSERT_EQ(QListLoadedModules(s, CollectRule, &modules), QL_OK);
  EXPECT_EQ(modules.back(), "update-package:1");
  EXPECT_EQ(Rules(s), (std::vector<std::string>{"10.1.2.0/24", "192.0.2.7"}));
  EXPECT_EQ(LogCache(s), 0u);
  EXPECT_EQ(Push(s, first), QL_ERR_UPACK_REFUSED);  // not newer

  std::string tampered = Package(R"({"version": 2, "ip_allow": []})");
  const size_t at = tampered.find("\"ip_allow\": []");
  ASSERT_NE(at, std::string::npos);
  tampered[at + 13] = ' ';
  for (const std::string &refused :
       {Package(R"({"version": 2, "ip_allow": []})", "other"), tampered,
        Package(R"({"version": 2, "ip_allow": [], "firmware": "x"})"),
        Package(R"({"version": 2, "limits": {"max_sessions": 0}})"),
        Package(R"({"version": 2, "ip_allow": ["not an address"]})"),
        Package(R"({"ip_allow": []})"), std::string("not a package")}) {
    EXPECT_EQ(Push(s, refused), QL_ERR_UPACK_REFUSED);
  }
  EXPECT_EQ(Rules(s), (std::vector<std::string>{"10.1.2.0/24", "192.0.2.7"}));

  // A newer one applies, and what it leaves out stays as it was.
  ASSERT_EQ(Push(s, Package(R"({"version": 7, "ip_allow": []})")), QL_OK);
  EXPECT_TRUE(Rules(s).empty());
  EXPECT_EQ(LogCache(s), 0u);
  QCloseSession(&s, QL_CLOSE_PHYSICAL);

  // Kept across a restart: the version too.
  hsm.Restart();
  m = qltest::PasswordRecord(hsm);
  ASSERT_EQ(QOpenSession(&s, QL_AUTH_USER_PWD, &m, sizeof m, kNewTls), QL_OK);
  EXPECT_EQ(Push(s, Package(R"({"version": 7})")), QL_ERR_UPACK_REFUSED);
  EXPECT_EQ(LogCache(s), 0u);
  QCloseSession(&s, QL_CLOSE_PHYSICAL);
}

TEST_F(UpdatePackages, AnHsmTrustingNoSignerRefusesEveryPackage) {
  qltest::HsmProcess hsm;
  AUTH_PWD_EX m = qltest::PasswordRecord(hsm);
  HSESSIONCTX s = nullptr;
  ASSERT_EQ(QOpenSession(&s, QL_AUTH_USER_PWD, &m, sizeof m, kNewTls), QL_OK);
  EXPECT_EQ(Push(s, Package(R"({"version": 1})")), QL_ERR_UPACK_REFUSED);
  QCloseSession(&s, QL_CLOSE_PHYSICAL);
}

const qltest::HsmSetup kSetup{std::nullopt};  // each test starts its own daemon

}  // namespace
