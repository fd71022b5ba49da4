// The engine's hardening rules: who may remove whom, the last administrator, sessions that end
// when what they logged in with changes, what anonymous sessions may do, UTF-8 names and
// passwords.
#include <gtest/gtest.h>

#include "test_util.h"

namespace qlhsm {
namespace {

using testing::EngineFixture;
using testing::kMasterPassword;

constexpr const char *kPwd = "24681357";

struct Fixture : EngineFixture {
  std::unique_ptr<sessions::Session> User(const std::string &name, uint32_t mask) {
    EXPECT_TRUE(engine->users().CreateUser(*master, name, kPwd, mask).ok());
    return LoginAs(name, kPwd);
  }
  UsersService &users() { return engine->users(); }
};

TEST(Removal, AUserCreatorRemovesOnlyUsersWithinItsOwnBits) {
  Fixture f;
  auto creator = f.User("creator", 0x10 | 0x2);
  ASSERT_TRUE(f.users().CreateUser(*f.master, "reader", kPwd, 0x2).ok());
  ASSERT_TRUE(f.users().CreateUser(*f.master, "lister", kPwd, 0x40).ok());
  EXPECT_EQ(f.users().RemoveUser(*creator, "lister").code(), Code::kAccessDenied);
  EXPECT_EQ(f.users().RemoveUser(*creator, kMasterUser).code(), Code::kAccessDenied);
  EXPECT_EQ(f.users().RemoveUser(*creator, "ghost").code(), Code::kUserNotFound);
  EXPECT_TRUE(f.users().RemoveUser(*creator, "reader").ok());
  // An operator removes whoever it likes, the last administrator aside.
  EXPECT_TRUE(f.users().RemoveUser(*f.master, "lister").ok());
}

TEST(LastAdministrator, CannotBeRemovedBlockedOrDemoted) {
  Fixture f;
  EXPECT_EQ(f.users().RemoveUser(*f.master, kMasterUser).code(), Code::kLastAdministrator);
  EXPECT_EQ(f.users().SetUserBlocked(*f.master, kMasterUser, true).code(),
            Code::kLastAdministrator);
  EXPECT_EQ(f.users().SetUserMask(*f.master, kMasterUser, 0x7F).code(), Code::kLastAdministrator);
  EXPECT_TRUE(f.users().SetUserMask(*f.master, kMasterUser, 0x80).ok());

  // A blocked second operator is no administrator to fall back on.
  auto second = f.User("second", 0x80);
  ASSERT_TRUE(f.users().SetUserBlocked(*f.master, "second", true).ok());
  EXPECT_EQ(f.users().RemoveUser(*f.master, kMasterUser).code(), Code::kLastAdministrator);
  ASSERT_TRUE(f.users().SetUserBlocked(*f.master, "second", false).ok());
  auto again = f.LoginAs("second", kPwd);
  EXPECT_TRUE(f.users().RemoveUser(*again, kMasterUser).ok());
  EXPECT_EQ(f.users().SetUserMask(*again, "second", 0).code(), Code::kLastAdministrator);
}

TEST(Revocation, BlockRemovalAndPasswordChangeEndSessions) {
  Fixture f;
  auto one = f.User("one", 0x2);
  auto other = f.LoginAs("one", kPwd);
  // The session that changes its own password goes on; the user's other sessions end.
  ASSERT_TRUE(f.users().SetUserPassword(*one, "one", "new-pass").ok());
  EXPECT_TRUE(f.engine->system().KeepAlive(*one).ok());
  EXPECT_EQ(f.engine->system().KeepAlive(*other).code(), Code::kSessionRevoked);
  // A password changed by an operator ends every session of the user.
  ASSERT_TRUE(f.users().SetUserPassword(*f.master, "one", kPwd).ok());
  EXPECT_EQ(f.engine->objects().ListObjects(*one).status().code(), Code::kSessionRevoked);

  auto two = f.User("two", 0x2);
  ASSERT_TRUE(f.users().SetUserBlocked(*f.master, "two", true).ok());
  EXPECT_EQ(f.engine->system().KeepAlive(*two).code(), Code::kSessionRevoked);
  // Unblocking lets the user log in again; the session of before stays ended.
  ASSERT_TRUE(f.users().SetUserBlocked(*f.master, "two", false).ok());
  EXPECT_EQ(f.engine->system().KeepAlive(*two).code(), Code::kSessionRevoked);
  auto three = f.User("three", 0);
  ASSERT_TRUE(f.users().RemoveUser(*f.master, "three").ok());
  // A new user of the same name is not the old session's user.
  ASSERT_TRUE(f.users().CreateUser(*f.master, "three", kPwd, 0).ok());
  EXPECT_EQ(f.engine->system().KeepAlive(*three).code(), Code::kSessionRevoked);
  // A mask change is no revocation: it applies from the next request.
  auto four = f.User("four", 0x40);
  ASSERT_TRUE(f.users().SetUserMask(*f.master, "four", 0).ok());
  EXPECT_EQ(f.users().ListUsers(*four).status().code(), Code::kAccessDenied);
}

TEST(Revocation, ARevokedTokenEndsItsSessionsOnly) {
  Fixture f;
  auto key = f.users().IssueToken(*f.master, 0);
  auto kept = f.users().IssueToken(*f.master, 0);
  ASSERT_TRUE(key.ok() && kept.ok());
  auto by_token = f.engine->NewSession();
  auto by_kept = f.engine->NewSession();
  ASSERT_TRUE(f.users().LoginToken(*by_token, kMasterUser, *key).ok());
  ASSERT_TRUE(f.users().LoginToken(*by_kept, kMasterUser, *kept).ok());
  ASSERT_TRUE(f.users().RevokeToken(*f.master, "", *key).ok());
  EXPECT_EQ(f.engine->system().KeepAlive(*by_token).code(), Code::kSessionRevoked);
  EXPECT_TRUE(f.engine->system().KeepAlive(*by_kept).ok());
  EXPECT_TRUE(f.engine->system().KeepAlive(*f.master).ok());
}

TEST(Anonymous, ReadsPublicInformationOnly) {
  Fixture f;
  auto anon = f.engine->NewSession();
  ASSERT_TRUE(f.users().LoginAnonymous(*anon).ok());
  EXPECT_TRUE(f.engine->system().GetHsmInfo(*anon).ok());
  EXPECT_TRUE(f.engine->system().KeepAlive(*anon).ok());
  EXPECT_EQ(f.engine->system().GetRandom(*anon, 16)->size(), 16u);
  EXPECT_TRUE(f.engine->system().Administer(*anon, QL_ADM_PROBE, {}).ok());
  const Code denied = Code::kAccessDenied;
  EXPECT_EQ(f.engine->keys().GenerateKey(*anon, "", QL_ALG_RSA1024, 0, true).status().code(),
            denied);
  EXPECT_EQ(f.engine->keys().GenerateKeyMaterial(*anon, QL_ALG_AES128, 0).status().code(), denied);
  EXPECT_EQ(f.engine->hashes().CreateHash(*anon, QL_ALG_SHA256, {}).status().code(), denied);
  EXPECT_EQ(f.engine->objects().ListObjects(*anon).status().code(), denied);
  EXPECT_EQ(f.users().IssueToken(*anon, 0).status().code(), denied);
  EXPECT_EQ(f.users().TokenCount(*anon).status().code(), denied);
  EXPECT_EQ(f.users().ListUsers(*anon).status().code(), denied);
  EXPECT_EQ(f.engine->objects().OpenObject(*anon, "master/x").status().code(), denied);
}

TEST(Utf8, NamesAndPasswordsAreUtf8) {
  Fixture f;
  EXPECT_EQ(f.users().CreateUser(*f.master, "bad\xff", kPwd, 0).code(), Code::kBadUtf8);
  EXPECT_EQ(f.users().CreateUser(*f.master, "fine", "pw\xc3", 0).code(), Code::kBadUtf8);
  EXPECT_EQ(f.users().SetUserPassword(*f.master, kMasterUser, "\xed\xa0\x80x").code(),
            Code::kBadUtf8);
  auto s = f.engine->NewSession();
  EXPECT_EQ(f.users().LogIn(*s, QL_AUTH_USER_PWD, kMasterUser, "\xc0\xaf", {}).status().code(),
            Code::kBadUtf8);
  EXPECT_TRUE(f.users().LogIn(*s, QL_AUTH_USER_PWD, kMasterUser, kMasterPassword, {}).ok());
}

}  // namespace
}  // namespace qlhsm
