// libqlapi against a qlhsmd guarding its network: the address allow-list through
// QIPFilterOperation, plain connections refused with their code, and an idle session's expiry.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "hsm_fixture.h"
#include "password_record.h"
#include "qlapi.h"

namespace {

using qltest::HsmOptions;
using qltest::HsmProcess;

HSESSIONCTX Open(const HsmProcess &hsm, uint32_t flags, int *code,
                 const std::string &user = "master", const std::string &pwd = "") {
  AUTH_PWD_EX r = qltest::PasswordRecord(hsm, user, pwd.empty() ? hsm.master_password() : pwd);
  HSESSIONCTX s = nullptr;
  *code = QOpenSession(&s, QL_AUTH_USER_PWD, &r, sizeof r, flags);
  return s;
}

struct Listed {
  std::vector<std::string> rules;
  int lasts = 0;
};

int Collect(void *param, const char *name, int last) {
  auto *l = static_cast<Listed *>(param);
  if (last)
    ++l->lasts;
  else
    l->rules.push_back(name);
  return 0;
}

Listed List(HSESSIONCTX s, int *code) {
  Listed l;
  *code = QIPFilterOperation(s, QL_IPF_LIST, nullptr, Collect, &l);
  return l;
}

TEST(NetworkE2E, AllowListThroughTheLibrary) {
  HsmProcess hsm;
  int code = 0;
  HSESSIONCTX s = Open(hsm, QL_SESSION_ENCRYPTED, &code);
  ASSERT_EQ(code, QL_OK);
  Listed l = List(s, &code);
  EXPECT_EQ(code, QL_OK);
  EXPECT_TRUE(l.rules.empty());
  EXPECT_EQ(l.lasts, 1);

  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_ADD, "198.51.100.7/24", nullptr, nullptr), QL_OK);
  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_ADD, "198.51.100.0/24", nullptr, nullptr),
            QL_ERR_OBJ_EXISTS);
  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_ADD, "2001:db8::/48", nullptr, nullptr), QL_OK);
  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_ADD, "not-an-address", nullptr, nullptr),
            QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_ADD, nullptr, nullptr, nullptr), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_LIST, nullptr, nullptr, nullptr), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QIPFilterOperation(s, 7, "198.51.100.0/24", nullptr, nullptr), QL_ERR_BAD_ARGUMENT);
  l = List(s, &code);
  EXPECT_EQ(code, QL_OK);
  EXPECT_EQ(l.rules, (std::vector<std::string>{"198.51.100.0/24", "2001:db8::/48"}));

  // The list allows loopback whatever it holds: this machine's sessions go on.
  int again = 0;
  HSESSIONCTX other = Open(hsm, QL_SESSION_UNENCRYPTED, &again);
  EXPECT_EQ(again, QL_OK);
  QCloseSession(&other, 0);

  // Without the operator right: neither reading nor changing.
  QL_USER_INFO u{};
  std::snprintf(u.szUserId, sizeof u.szUserId, "%s", "netuser");
  std::snprintf(u.szPassword, sizeof u.szPassword, "%s", "pw123456");
  u.dwAcl = ACL_USR_LIST;
  ASSERT_EQ(QCreateUser(s, &u), QL_OK);
  HSESSIONCTX weak = Open(hsm, QL_SESSION_ENCRYPTED, &code, "netuser", "pw123456");
  ASSERT_EQ(code, QL_OK);
  List(weak, &code);
  EXPECT_EQ(code, QL_ERR_ACCESS_DENIED);
  EXPECT_EQ(QIPFilterOperation(weak, QL_IPF_REMOVE, "198.51.100.0/24", nullptr, nullptr),
            QL_ERR_ACCESS_DENIED);
  QCloseSession(&weak, 0);

  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_REMOVE, "198.51.100.0/24", nullptr, nullptr), QL_OK);
  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_REMOVE, "198.51.100.0/24", nullptr, nullptr),
            QL_ERR_OBJ_NOT_FOUND);
  l = List(s, &code);
  EXPECT_EQ(l.rules, (std::vector<std::string>{"2001:db8::/48"}));
  QCloseSession(&s, 0);
}

TEST(NetworkE2E, PlainRefusedWithItsCodeTlsServed) {
  HsmOptions opts;
  opts.serve_args = {"--plain", "off"};
  HsmProcess hsm(opts);
  int code = 0;
  HSESSIONCTX s = Open(hsm, QL_SESSION_UNENCRYPTED, &code);
  EXPECT_EQ(code, QL_ERR_ADDRESS_REFUSED);
  EXPECT_EQ(s, nullptr);
  s = Open(hsm, QL_SESSION_ENCRYPTED, &code);
  EXPECT_EQ(code, QL_OK);
  QCloseSession(&s, 0);
}

TEST(NetworkE2E, AnIdleSessionExpiresAndKeepAliveKeepsOneAlive) {
  HsmOptions opts;
  opts.serve_args = {"--idle-timeout-ms", "600", "--login-timeout-ms", "10000"};
  HsmProcess hsm(opts);
  int code = 0;
  HSESSIONCTX idle = Open(hsm, QL_SESSION_UNENCRYPTED, &code);
  ASSERT_EQ(code, QL_OK);
  HSESSIONCTX kept = Open(hsm, QL_SESSION_UNENCRYPTED, &code);
  ASSERT_EQ(code, QL_OK);
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
  while (std::chrono::steady_clock::now() < until) {
    ASSERT_EQ(QAdmOperation(kept, QL_ADM_KEEPALIVE, nullptr, 0, nullptr, nullptr, 0), QL_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
  }
  unsigned char buf[8];
  EXPECT_EQ(QGetRandom(kept, buf, sizeof buf), QL_OK);
  EXPECT_EQ(QGetRandom(idle, buf, sizeof buf), QL_ERR_SESSION_EXPIRED);
  QCloseSession(&idle, 0);
  QCloseSession(&kept, 0);
}

const qltest::HsmSetup kSetup{std::nullopt};  // each test starts its own daemons

}  // namespace
