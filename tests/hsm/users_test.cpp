#include <gtest/gtest.h>

#include "engine/users/tokens.h"
#include "engine/users/user_directory.h"
#include "test_util.h"

namespace qlhsm::users {
namespace {

using qlhsm::testing::FastKdf;
using qlhsm::testing::TempDir;

class UsersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto s = store::Store::Open(dir.path(), true);
    ASSERT_TRUE(s.ok());
    store = std::move(s.value());
    users = std::make_unique<UserDirectory>(*store, FastKdf());
    ASSERT_TRUE(users->Load().ok());
  }
  TempDir dir;
  std::unique_ptr<store::Store> store;
  std::unique_ptr<UserDirectory> users;
};

TEST(UserNames, Validity) {
  struct Case {
    const char *name;
    bool valid;
  } cases[] = {{"a", true},
               {"master", true},
               {"1234567890123456", true},
               {"12345678901234567", false},
               {"", false},
               {"a b", false},
               {"own/obj", false},
               {"tab\t", false},
               {"USER_01.x-y", true}};
  for (const Case &c : cases) EXPECT_EQ(ValidUserName(c.name), c.valid) << c.name;
}

// RFC 4231, test case 2; a second call must find the keyed state untouched by the first.
TEST(LoginMemoryMac, KnownAnswerOnEveryCall) {
  const secure::HmacSha256Key key(secure::Bytes{'J', 'e', 'f', 'e'});
  ASSERT_TRUE(key.ok());
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(secure::Hex(key.Mac("what do ya want for nothing?")),
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  }
}

TEST_F(UsersTest, CreateAuthenticateAndTellFailuresApart) {
  EXPECT_EQ(users->Create("bad name", "pw", 0).code(), Code::kBadName);
  EXPECT_EQ(users->Create("seventeen_chars_x", "pw", 0).code(), Code::kUserNameTooLong);
  EXPECT_EQ(users->Create("alice", "", 0).code(), Code::kBadArgument);
  ASSERT_TRUE(users->Create("alice", "secret1", 0x42).ok());
  EXPECT_EQ(users->Create("alice", "other", 0).code(), Code::kUserExists);

  auto ok = users->Authenticate("alice", "secret1");
  ASSERT_TRUE(ok.ok());
  EXPECT_EQ(ok->mask, 0x42u);
  EXPECT_EQ(users->Authenticate("alice", "secret2").status().code(), Code::kAuthFailed);
  EXPECT_EQ(users->Authenticate("nobody", "secret1").status().code(), Code::kAuthFailed);

  ASSERT_TRUE(users->SetBlocked("alice", true).ok());
  EXPECT_EQ(users->Authenticate("alice", "secret1").status().code(), Code::kUserBlocked);
  // A wrong password on a blocked user says nothing about the block.
  EXPECT_EQ(users->Authenticate("alice", "nope").status().code(), Code::kAuthFailed);
  ASSERT_TRUE(users->SetBlocked("alice", false).ok());
  EXPECT_TRUE(users->Authenticate("alice", "secret1").ok());
}

TEST_F(UsersTest, RememberedLoginIsForgottenWhenThePasswordChanges) {
  ASSERT_TRUE(users->Create("bob", "first", 0).ok());
  ASSERT_TRUE(users->Authenticate("bob", "first").ok());  // now remembered
  ASSERT_TRUE(users->Authenticate("bob", "first").ok());  // served from memory
  ASSERT_TRUE(users->SetPassword("bob", "second").ok());
  EXPECT_EQ(users->Authenticate("bob", "first").status().code(), Code::kAuthFailed);
  EXPECT_TRUE(users->Authenticate("bob", "second").ok());
}

TEST_F(UsersTest, RememberedLoginSeesABlockAndAMaskChange) {
  ASSERT_TRUE(users->Create("carol", "pw", 1).ok());
  ASSERT_TRUE(users->Authenticate("carol", "pw").ok());
  ASSERT_TRUE(users->SetMask("carol", 0x80).ok());
  auto info = users->Authenticate("carol", "pw");
  ASSERT_TRUE(info.ok());
  EXPECT_EQ(info->mask, 0x80u);
  ASSERT_TRUE(users->SetBlocked("carol", true).ok());
  EXPECT_EQ(users->Authenticate("carol", "pw").status().code(), Code::kUserBlocked);
}

TEST_F(UsersTest, ChangesOfMissingUsersAndReload) {
  EXPECT_EQ(users->Remove("ghost").code(), Code::kUserNotFound);
  EXPECT_EQ(users->SetMask("ghost", 1).code(), Code::kUserNotFound);
  EXPECT_EQ(users->SetPassword("ghost", "x").code(), Code::kUserNotFound);
  EXPECT_EQ(users->SetBlocked("ghost", true).code(), Code::kUserNotFound);
  ASSERT_TRUE(users->Create("b", "pw", 3).ok());
  ASSERT_TRUE(users->Create("a", "pw", 4).ok());
  ASSERT_TRUE(users->Create("gone", "pw", 4).ok());
  ASSERT_TRUE(users->Remove("gone").ok());
  ASSERT_TRUE(users->SetBlocked("b", true).ok());

  UserDirectory again(*store, FastKdf());
  ASSERT_TRUE(again.Load().ok());
  EXPECT_EQ(again.List(), (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(again.Find("b")->blocked);
  EXPECT_EQ(again.Find("a")->mask, 4u);
  EXPECT_EQ(again.Find("gone").status().code(), Code::kUserNotFound);
  EXPECT_TRUE(again.Authenticate("a", "pw").ok());
}

TEST_F(UsersTest, PasswordHashesAreSaltedAndNotThePassword) {
  ASSERT_TRUE(users->Create("u1", "samepass", 0).ok());
  ASSERT_TRUE(users->Create("u2", "samepass", 0).ok());
  auto hashes = store->Locked([](store::Connection &c) {
    std::vector<std::string> out;
    auto st = c.Prepare("SELECT password_hash FROM users ORDER BY name");
    while (st->Step().value()) out.push_back(st->Text(0));
    return out;
  });
  ASSERT_EQ(hashes.size(), 2u);
  EXPECT_NE(hashes[0], hashes[1]);
  for (const auto &h : hashes) {
    EXPECT_EQ(h.find("samepass"), std::string::npos);
    EXPECT_EQ(h.rfind("scrypt$", 0), 0u);
  }
}

TEST_F(UsersTest, TokensIssueVerifyRevokeAndCollect) {
  ASSERT_TRUE(users->Create("tok", "pw", 0).ok());
  TokenStore tokens(*store);
  auto key = tokens.Issue("tok", 0);
  ASSERT_TRUE(key.ok());
  EXPECT_EQ(key->size(), kTokenKeyLen);
  EXPECT_TRUE(tokens.Verify("tok", *key).value());
  EXPECT_FALSE(tokens.Verify("other", *key).value());
  secure::Bytes wrong = *key;
  wrong[0] ^= 1;
  EXPECT_FALSE(tokens.Verify("tok", wrong).value());
  EXPECT_FALSE(tokens.Verify("tok", secure::Bytes(3)).value());

  auto expired = tokens.Issue("tok", 4102444800);  // 2100-01-01
  ASSERT_TRUE(expired.ok());
  // Push the expiry into the past rather than waiting.
  ASSERT_TRUE(store
                  ->Locked([](store::Connection &c) {
                    return c.Exec("UPDATE tokens SET expires = 1 WHERE expires != 0");
                  })
                  .ok());
  EXPECT_FALSE(tokens.Verify("tok", *expired).value());
  EXPECT_EQ(tokens.Count().value(), 2);
  EXPECT_EQ(tokens.CollectGarbage().value(), 1);
  EXPECT_EQ(tokens.Count().value(), 1);

  auto list = tokens.List("tok");
  ASSERT_TRUE(list.ok());
  ASSERT_EQ(list->size(), 1u);
  secure::Bytes id = secure::Sha256(*key);
  id.resize(8);
  EXPECT_EQ((*list)[0].key_id, id);
  EXPECT_EQ((*list)[0].expires, 0);
  EXPECT_GT((*list)[0].issued, 0);
  EXPECT_EQ(tokens.Revoke("tok", wrong).code(), Code::kObjectNotFound);
  EXPECT_TRUE(tokens.Revoke("tok", *key).ok());
  EXPECT_FALSE(tokens.Verify("tok", *key).value());

  // Removing a user removes its tokens.
  auto k2 = tokens.Issue("tok", 0);
  ASSERT_TRUE(users->Remove("tok").ok());
  EXPECT_EQ(tokens.Count().value(), 0);
}

}  // namespace
}  // namespace qlhsm::users
