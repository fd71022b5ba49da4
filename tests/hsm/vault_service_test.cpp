// The vault service in-process: its refusals in the guard's order, rights, and what a token and
// its blob hold.
#include <gtest/gtest.h>

#include <string>

#include "test_util.h"

namespace qlhsm {
namespace {

using testing::EngineFixture;

constexpr const char *kUserPwd = "24681357";

struct Fixture : EngineFixture {
  Fixture() {
    EXPECT_TRUE(engine->users().CreateUser(*master, "tested", kUserPwd, 0).ok());
    EXPECT_TRUE(engine->keys().GenerateKey(*master, "vk", QL_ALG_AES256, 0, false).ok());
  }
  std::unique_ptr<sessions::Session> As(uint32_t mask) {
    EXPECT_TRUE(engine->users().SetUserMask(*master, "tested", mask).ok());
    return LoginAs("tested", kUserPwd);
  }
  VaultService &vault() { return engine->vault(); }
};

KeyArg Named(const char *name) {
  return KeyArg{0, name};
}

VaultTokenArgs Pan(const std::string &secret) {
  VaultTokenArgs a;
  a.type = 1;
  a.mask_type = 3;
  a.secret = secret;
  return a;
}

TEST(VaultService, ArgumentsThenRightThenExistence) {
  Fixture f;
  auto none = f.As(0);
  VaultTokenArgs bad_base = Pan("4111111111111111");
  bad_base.representation = 11;
  // Arguments come first: a caller without rights still learns its argument is wrong.
  EXPECT_EQ(f.vault().GenToken(*none, Named("master/vk"), bad_base).status().code(),
            Code::kBadArgument);
  EXPECT_EQ(f.vault().GetData(*none, Named("master/vk"), 3, {1}, 0).status().code(),
            Code::kBadArgument);
  EXPECT_EQ(f.vault().GetData(*none, Named("master/vk"), 1, {1}, 2).status().code(),
            Code::kBadFlags);
  // Then the right, before existence.
  EXPECT_EQ(
      f.vault().GenToken(*none, Named("master/ghost"), Pan("4111111111111111")).status().code(),
      Code::kAccessDenied);
  auto user = f.As(ACL_OBJ_READ);
  EXPECT_EQ(
      f.vault().GenToken(*user, Named("master/ghost"), Pan("4111111111111111")).status().code(),
      Code::kObjectNotFound);
  // The use right is any of delete, read and create; update alone is not enough.
  for (uint32_t mask : {0x1u, 0x2u, 0x4u, 0x8u}) {
    auto s = f.As(mask);
    EXPECT_EQ(f.vault().GenToken(*s, Named("master/vk"), Pan("4111111111111111")).ok(), mask != 0x8)
        << mask;
  }
}

TEST(VaultService, BlobsOpenOnlyUnderTheirKeyAndABlockedKeyIsRefused) {
  Fixture f;
  ASSERT_TRUE(f.engine->keys().GenerateKey(*f.master, "vk2", QL_ALG_AES128, 0, false).ok());
  Result<VaultToken> t = f.vault().GenToken(*f.master, Named("vk"), Pan("5500000000000004"));
  ASSERT_TRUE(t.ok());
  Result<std::string> secret = f.vault().GetData(*f.master, Named("vk"), 1, t->blob, 0);
  ASSERT_TRUE(secret.ok());
  EXPECT_EQ(*secret, "5500000000000004");
  EXPECT_EQ(f.vault().GetData(*f.master, Named("vk2"), 1, t->blob, 0).status().code(),
            Code::kBadTag);

  ParamValue blocked;
  blocked.has_number = true;
  blocked.number = 1;
  ASSERT_TRUE(f.engine->keys().SetKeyParam(*f.master, Named("vk"), QKP_BLOCKED, blocked).ok());
  EXPECT_EQ(f.vault().GetData(*f.master, Named("vk"), 1, t->blob, 0).status().code(),
            Code::kObjectBlocked);
  EXPECT_EQ(f.vault().GenToken(*f.master, Named("vk"), Pan("5500000000000004")).status().code(),
            Code::kObjectBlocked);
}

TEST(VaultService, KeyedTokensDependOnKeyAndSecretOnly) {
  Fixture f;
  ASSERT_TRUE(f.engine->keys().GenerateKey(*f.master, "vk2", QL_ALG_AES256, 0, false).ok());
  VaultTokenArgs a = Pan("4111111111111111");
  a.checksum = 1;
  Result<VaultToken> t1 = f.vault().GenToken(*f.master, Named("vk"), a);
  // Another session and another user with the use right get the same token.
  auto user = f.As(ACL_OBJ_READ);
  Result<VaultToken> t2 = f.vault().GenToken(*user, Named("master/vk"), a);
  Result<VaultToken> t3 = f.vault().GenToken(*f.master, Named("vk2"), a);
  ASSERT_TRUE(t1.ok() && t2.ok() && t3.ok());
  EXPECT_EQ(t1->token, t2->token);
  EXPECT_NE(t1->token, t3->token);
  // Blobs are sealed afresh each time, even for one token.
  EXPECT_NE(t1->blob, t2->blob);
}

}  // namespace
}  // namespace qlhsm
