// QueltaClient against a real qlhsmd: user creation with and without force, the access mask read
// back through the 38-byte user record, and object lookups.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "hsm_fixture.h"
#include "quelta_client.h"

namespace {

QueltaClient MasterClient() {
  qltest::HsmProcess &hsm = qltest::HsmEnvironment::hsm();
  AUTH_PWD_EX auth{};
  snprintf(auth.szAddr, sizeof auth.szAddr, "%s", hsm.address().c_str());
  auth.nPort = hsm.port();
  snprintf(auth.szUserId, sizeof auth.szUserId, "master");
  snprintf(auth.szPassword, sizeof auth.szPassword, "%s", hsm.master_password().c_str());
  return QueltaClient(QL_AUTH_USER_PWD, &auth, sizeof auth, 0);
}

TEST(FacadeE2E, UsersAndTheirAccessMask) {
  QueltaClient client = MasterClient();
  ASSERT_EQ(client.Connect(), 0);
  ASSERT_EQ(client.CreateUser("facade1", "pw123456", ACL_USR_LIST | ACL_OBJ_READ, false), 0);
  EXPECT_EQ(client.CreateUser("facade1", "pw123456", ACL_OBJ_READ, false), 5013);
  uint32_t acl = 0;
  ASSERT_EQ(client.GetUserAcl("facade1", &acl), 0);
  EXPECT_EQ(acl, static_cast<uint32_t>(ACL_USR_LIST | ACL_OBJ_READ));
  // Forced: removed and made again with the new mask.
  ASSERT_EQ(client.CreateUser("facade1", "pw123456", ACL_OBJ_CREATE, true), 0);
  ASSERT_EQ(client.GetUserAcl("facade1", &acl), 0);
  EXPECT_EQ(acl, static_cast<uint32_t>(ACL_OBJ_CREATE));
  std::vector<std::string> users;
  ASSERT_EQ(client.ListUsers(&users), 0);
  EXPECT_NE(std::find(users.begin(), users.end(), "facade1"), users.end());
  EXPECT_EQ(client.RemoveUser("facade1"), 0);
  EXPECT_EQ(client.GetUserAcl("facade1", &acl), 5020);
  EXPECT_EQ(client.Disconnect(true), 0);
  EXPECT_FALSE(client.IsConnected());
}

TEST(FacadeE2E, ObjectsByName) {
  QueltaClient client = MasterClient();
  ASSERT_EQ(client.Connect(), 0);
  EXPECT_EQ(client.HasKey("facade_missing_key"), 5004);
  ASSERT_EQ(client.GenerateKey("facade_key", QL_ALG_AES256, true, false), 0);
  EXPECT_EQ(client.HasKey("facade_key"), 0);
  uint32_t type = 0;
  ASSERT_EQ(client.GetObjType("facade_key", &type), 0);
  EXPECT_EQ(type, static_cast<uint32_t>(QL_ALG_AES256));
  ByteVector key;
  ASSERT_EQ(client.ExportPlaintextKey("facade_key", &key), 0);
  EXPECT_EQ(key.size(), 32u);
  EXPECT_EQ(client.RemoveObject("facade_key"), 0);
  EXPECT_EQ(client.HasKey("facade_key"), 5004);
}

}  // namespace
