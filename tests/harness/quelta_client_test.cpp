// QueltaClient: how it is set up, what it sends to open and close, and the members that
// combine calls. The library calls go to the stand-in of fake_qlapi.cpp.
#include "quelta_client.h"

#include <gtest/gtest.h>

#include <cstring>

#include "fake_qlapi.h"

namespace {

class QueltaClientTest : public ::testing::Test {
 protected:
  void SetUp() override { FakeLibrary::Get().Reset(); }
  static AUTH_PWD_EX RecordOf(const FakeOpenCall &call) {
    AUTH_PWD_EX record{};
    EXPECT_EQ(call.record.size(), sizeof record);
    memcpy(&record, call.record.data(), sizeof record);
    return record;
  }
};

TEST_F(QueltaClientTest, SessionFlags) {
  struct Case {
    bool lb, cache, encrypted;
    uint32_t flags;
  } cases[] = {{false, false, true, 1},
               {false, false, false, 4},
               {true, false, true, 9},
               {false, true, true, 17},
               {true, true, false, 28}};
  for (const Case &c : cases) {
    EXPECT_EQ(QueltaClient::CalculateSessionFlags(c.lb, c.cache, c.encrypted), c.flags);
  }
  EXPECT_EQ(QueltaClient::CalcKeyAttributes(false, false), 0u);
  EXPECT_EQ(QueltaClient::CalcKeyAttributes(true, false), 1u);
  EXPECT_EQ(QueltaClient::CalcKeyAttributes(false, true), 4u);
  EXPECT_EQ(QueltaClient::CalcKeyAttributes(true, true), 5u);
}

TEST_F(QueltaClientTest, UserConstructorOpensOnPort4433WithItsFlags) {
  QueltaClient client("10.5.5.5", "alice", "pwd", true, false, false);
  EXPECT_EQ(client.GetConnType(), 16u);
  EXPECT_EQ(client.GetSessionFlags(), 4u + 8);
  ASSERT_EQ(client.Connect(), 0);
  EXPECT_TRUE(client.IsConnected());
  const auto opens = FakeLibrary::Get().Opens();
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].auth_type, 16u);
  EXPECT_EQ(opens[0].flags, 12u);
  const AUTH_PWD_EX record = RecordOf(opens[0]);
  EXPECT_STREQ(record.szAddr, "10.5.5.5");
  EXPECT_EQ(record.nPort, 4433);
  EXPECT_STREQ(record.szUserId, "alice");
  EXPECT_STREQ(record.szPassword, "pwd");
}

TEST_F(QueltaClientTest, AnonymousAndTokenConstructors) {
  QueltaClient anonymous("10.6.6.6", false, false, true);
  EXPECT_EQ(anonymous.GetConnType(), 1u);
  uint32_t len = 0;
  anonymous.GetAuthData(&len);
  EXPECT_EQ(len, 180u);

  AUTH_ATOKEN token{};
  strcpy(token.szAddr, "10.7.7.7");
  token.nPort = 4500;
  strcpy(token.stAToken.pcUserName, "bob");
  QueltaClient by_token(token, false, true, true);
  EXPECT_EQ(by_token.GetConnType(), 32u);
  ASSERT_EQ(by_token.Connect(), 0);
  const auto opens = FakeLibrary::Get().Opens();
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].auth_type, 32u);
  EXPECT_EQ(opens[0].flags, 17u);
  ASSERT_EQ(opens[0].record.size(), 164u);
  EXPECT_EQ(memcmp(opens[0].record.data(), &token, sizeof token), 0);
}

TEST_F(QueltaClientTest, RecordByKindIsCopiedOnlyWhenLongEnough) {
  AUTH_PWD_EX pwd{};
  strcpy(pwd.szAddr, "h");
  strcpy(pwd.szUserId, "carol");
  // Too short: nothing copied, yet the kind is taken.
  QueltaClient short_record(16, &pwd, 100, 29);
  EXPECT_EQ(short_record.GetConnType(), 16u);
  EXPECT_EQ(short_record.GetSessionFlags(), 0u) << "flags are not kept";
  short_record.Connect();
  auto opens = FakeLibrary::Get().Opens();
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].record, std::vector<unsigned char>(180, 0));

  QueltaClient full(16, &pwd, sizeof pwd, 29);
  full.Connect();
  opens = FakeLibrary::Get().Opens();
  EXPECT_STREQ(RecordOf(opens[1]).szUserId, "carol");
  EXPECT_EQ(opens[1].flags, 0u);

  AUTH_WIN_CREDENTIAL credential{};
  strcpy(credential.szAddr, "target");
  QueltaClient windows(128, &credential, sizeof credential, 0);
  uint32_t len = 0;
  windows.GetAuthData(&len);
  EXPECT_EQ(len, 132u);

  QueltaClient unknown(64, &pwd, sizeof pwd, 0);
  EXPECT_EQ(unknown.GetConnType(), 0u);
  QueltaClient no_data(16, nullptr, 180, 0);
  EXPECT_EQ(no_data.GetConnType(), 0u);
}

TEST_F(QueltaClientTest, DisconnectFlagsAndTheDestructor) {
  {
    QueltaClient client("h", "u", "p", false, false, true);
    ASSERT_EQ(client.Connect(), 0);
    EXPECT_EQ(client.Disconnect(true), 0);
    EXPECT_FALSE(client.IsConnected());
    ASSERT_EQ(client.Connect(), 0);
  }  // the destructor gives the session back logically
  EXPECT_EQ(FakeLibrary::Get().Closes(), (std::vector<uint32_t>{8, 0}));
}

TEST_F(QueltaClientTest, MovingHandsTheSessionOver) {
  QueltaClient first("h", "u", "p", false, false, true);
  ASSERT_EQ(first.Connect(), 0);
  const HSESSIONCTX session = first.GetSession();
  QueltaClient second(std::move(first));
  EXPECT_FALSE(first.IsConnected());
  EXPECT_EQ(second.GetSession(), session);
  EXPECT_EQ(second.GetConnType(), 16u);
  QueltaClient third;
  third = std::move(second);
  EXPECT_EQ(third.GetSession(), session);
  EXPECT_TRUE(FakeLibrary::Get().Closes().empty()) << "nothing closed by the moves";
  third.Disconnect(false);
  EXPECT_EQ(FakeLibrary::Get().Closes().size(), 1u);
}

TEST_F(QueltaClientTest, CreateUserWithAndWithoutForce) {
  QueltaClient client;
  FakeLibrary::Get().users = {"dave"};
  EXPECT_EQ(client.CreateUser("dave", "pw", 0x10, false), 5013);
  EXPECT_EQ(client.CreateUser("dave", "pw", 0x10, true), 0);
  EXPECT_EQ(FakeLibrary::Get().user_calls,
            (std::vector<std::string>{"create:dave", "create:dave", "remove:dave", "create:dave"}));
  EXPECT_EQ(client.CreateUser("erin", "pw", 0, true), 0);
  EXPECT_EQ(FakeLibrary::Get().user_calls.back(), "create:erin");
}

TEST_F(QueltaClientTest, UserAclUsesThe38ByteRecord) {
  QueltaClient client;
  FakeLibrary::Get().acl_answer = 0x1A5;
  uint32_t acl = 0;
  ASSERT_EQ(client.GetUserAcl("frank", &acl), 0);
  EXPECT_EQ(acl, 0x1A5u) << "the word at offset 34";
  const auto &record = FakeLibrary::Get().user_param_record;
  ASSERT_EQ(record.size(), 38u);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(record.data())), "frank");
  EXPECT_EQ(std::vector<unsigned char>(record.begin() + 5, record.begin() + 34),
            std::vector<unsigned char>(29, 0))
      << "the rest of the name and the password field are zero";
}

}  // namespace
