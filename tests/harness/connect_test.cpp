// The common options of THREAD_INFO and the connection set-up: loaders, precedence, flags,
// tokens, the checks and what Connect hands to the library.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <list>

#include "fake_qlapi.h"
#include "harness_test_util.h"
#include "ql_win_helper.h"
#include "quelta_client.h"
#include "harness/harness.h"

namespace {

// A 32-byte token: user name "alice" (16 bytes, zero padded) and key bytes 1..16.
QL_A_TOKEN SampleToken() {
  QL_A_TOKEN token{};
  strcpy(token.pcUserName, "alice");
  for (int i = 0; i < 16; ++i) token.pbKey[i] = static_cast<unsigned char>(i + 1);
  return token;
}
// Its base64 text, computed independently of the code under test.
constexpr const char *kSampleTokenB64 = "YWxpY2UAAAAAAAAAAAAAAAECAwQFBgcICQoLDA0ODxA=";

class ConnectTest : public ::testing::Test {
 protected:
  void SetUp() override { FakeLibrary::Get().Reset(); }
  // The descriptor keeps pointers into the parameter array, which lives as long as the test.
  THREAD_INFO Load(Params params) {
    Params &kept = kept_.emplace_back(std::move(params));
    THREAD_INFO ti{};
    LoadGenericParameters(&ti, kept.data(), kept.size());
    return ti;
  }
  std::list<Params> kept_;
  TempCwd cwd_;
};

TEST_F(ConnectTest, ConnectionFlagsMatrix) {
  struct Case {
    const char *lb, *sc, *tls;  // null: absent
    uint32_t flags;
  } cases[] = {
      {nullptr, nullptr, nullptr, 1 + 8},  // defaults: TLS, load balancing bypassed, cache on
      {"1", nullptr, nullptr, 1},
      {"0", nullptr, nullptr, 1 + 8},
      {nullptr, "0", nullptr, 1 + 8 + 16},
      {nullptr, "1", nullptr, 1 + 8},
      {nullptr, nullptr, "0", 4 + 8},
      {nullptr, nullptr, "2", 1 + 8},  // out of range: the default
      {"7", "9", "-1", 1 + 8},
      {"1", "0", "0", 4 + 16},
  };
  for (const Case &c : cases) {
    std::vector<std::pair<const char *, const char *>> entries = {{"-a", "h"}};
    if (c.lb) entries.push_back({"-lb", c.lb});
    if (c.sc) entries.push_back({"-sc", c.sc});
    if (c.tls) entries.push_back({"-tls", c.tls});
    std::vector<TEST_PARAMETER> raw;
    for (const auto &[name, value] : entries) {
      TEST_PARAMETER p{};
      strcpy(p.szParameter, name);
      strcpy(p.szValue, value);
      raw.push_back(p);
    }
    THREAD_INFO ti{};
    LoadLibConnectionFlagsParam(&ti, raw.data(), static_cast<int>(raw.size()));
    EXPECT_EQ(GetConnectionFlags(&ti), c.flags)
        << (c.lb ? c.lb : "-") << " " << (c.sc ? c.sc : "-") << " " << (c.tls ? c.tls : "-");
  }
}

TEST_F(ConnectTest, UserAndPasswordWinOverACredentialTarget) {
  THREAD_INFO ti = Load({{"-a", "10.1.1.1"}, {"-u", "alice"}, {"-w", "pwd"}, {"--cm", "target"}});
  EXPECT_EQ(ti.dwAuthParam, 16u);
  EXPECT_STREQ(ti.stAuthPwdEx.szAddr, "10.1.1.1");
  EXPECT_STREQ(ti.stAuthPwdEx.szUserId, "alice");
  EXPECT_STREQ(ti.stAuthPwdEx.szPassword, "pwd");
  EXPECT_EQ(ti.stAuthPwdEx.nPort, 4433);
  EXPECT_EQ(ti.stWinCredential.szAddr[0], '\0');
  EXPECT_EQ(ti.GetAddress(), "10.1.1.1");
  EXPECT_EQ(ti.GetUserId(), "alice");
  EXPECT_EQ(ti.GetPassword(), "pwd");
  EXPECT_TRUE(CheckConnectionFlags(&ti, false));
}

TEST_F(ConnectTest, CredentialTargetThenItsOldAliasThenTheToken) {
  THREAD_INFO cm = Load({{"-a", "ignored"}, {"-u", "alice"}, {"--cm", "hsm1"}, {"--port", "5000"}});
  EXPECT_EQ(cm.dwAuthParam, 128u);
  EXPECT_STREQ(cm.stWinCredential.szAddr, "hsm1");
  EXPECT_EQ(cm.stWinCredential.nPort, 5000);
  EXPECT_EQ(cm.GetAddress(), "hsm1");
  EXPECT_EQ(cm.GetPort(), 5000);

  THREAD_INFO b = Load({{"-b", "hsm2"}, {"-at", kSampleTokenB64}});
  EXPECT_EQ(b.dwAuthParam, 128u);
  EXPECT_STREQ(b.stWinCredential.szAddr, "hsm2");
  EXPECT_FALSE(b.useAccessToken);

  THREAD_INFO both = Load({{"--cm", "hsm3"}, {"-b", "hsm4"}});
  EXPECT_STREQ(both.stWinCredential.szAddr, "hsm3");
}

TEST_F(ConnectTest, CredentialTargetReadsTheStoreAtEveryCall) {
  ASSERT_TRUE(write_windows_credential("hsm1", "carol", "pw1"));
  THREAD_INFO ti = Load({{"--cm", "hsm1"}});
  EXPECT_EQ(ti.GetUserId(), "carol");
  EXPECT_EQ(ti.GetPassword(), "pw1");
  EXPECT_TRUE(CheckConnectionFlags(&ti, false));
  const int reads = FakeLibrary::Get().credential_reads;
  ASSERT_TRUE(write_windows_credential("hsm1", "dave", "pw2"));
  EXPECT_EQ(ti.GetUserId(), "dave") << "nothing is cached";
  EXPECT_GT(FakeLibrary::Get().credential_reads, reads);
  // The session goes out with kind 128 and the 132-byte record; the library reads the store.
  HSESSIONCTX session = nullptr;
  ASSERT_EQ(ConnectEx(&session, &ti), 0);
  ASSERT_EQ(FakeLibrary::Get().Opens().size(), 1u);
  EXPECT_EQ(FakeLibrary::Get().Opens()[0].auth_type, 128u);
  EXPECT_EQ(FakeLibrary::Get().Opens()[0].record.size(), 132u);
  CloseSession(&session);

  ASSERT_TRUE(delete_windows_credential("hsm1"));
  EXPECT_FALSE(delete_windows_credential("hsm1"));
  EXPECT_EQ(ti.GetUserId(), "");
  EXPECT_EQ(ti.GetPassword(), "");
  EXPECT_FALSE(CheckConnectionFlags(&ti, false)) << "a target without a credential";
}

TEST_F(ConnectTest, CredentialReadFillsOnlyWhatIsAskedFor) {
  ASSERT_TRUE(write_windows_credential("t", "a-rather-long-user-name", "secret"));
  char user[8];
  memset(user, 'x', sizeof user);
  char secret[17] = {};
  EXPECT_TRUE(read_windows_credential("t", user, sizeof user, nullptr, 0));
  EXPECT_EQ(std::string(user, sizeof user), "a-rather") << "at most user_len bytes";
  EXPECT_TRUE(read_windows_credential("t", nullptr, 0, secret, sizeof secret));
  EXPECT_STREQ(secret, "secret");
  EXPECT_FALSE(read_windows_credential("missing", user, sizeof user, secret, sizeof secret));
  EXPECT_FALSE(read_windows_credential(nullptr, user, sizeof user, nullptr, 0));
}

TEST_F(ConnectTest, PortAbsentOrMinusOneIsTheDefault) {
  EXPECT_EQ(Load({{"-a", "h"}, {"-u", "u"}, {"-w", "w"}}).GetPort(), 4433);
  EXPECT_EQ(Load({{"-a", "h"}, {"-u", "u"}, {"-w", "w"}, {"--port", "-1"}}).GetPort(), 4433);
  EXPECT_EQ(Load({{"-a", "h"}, {"-u", "u"}, {"-w", "w"}, {"--port", "7001"}}).GetPort(), 7001);
  EXPECT_EQ(THREAD_INFO{}.GetPort(), 4433);
}

TEST_F(ConnectTest, AccessTokenIsLoadedButNeverBecomesTheKind) {
  THREAD_INFO ti = Load({{"-a", "10.2.2.2"}, {"-at", kSampleTokenB64}, {"--port", "6000"}});
  EXPECT_TRUE(ti.useAccessToken);
  EXPECT_EQ(ti.dwAuthParam, 0u);
  EXPECT_STREQ(ti.stAccessToken.szAddr, "10.2.2.2");
  EXPECT_EQ(ti.stAccessToken.nPort, 6000);
  const QL_A_TOKEN expected = SampleToken();
  EXPECT_EQ(memcmp(&ti.stAccessToken.stAToken, &expected, sizeof expected), 0);
  // The descriptor shows the token's address, so the check passes; Connect finds no record.
  EXPECT_EQ(ti.GetAddress(), "10.2.2.2");
  EXPECT_EQ(ti.GetPort(), 6000);
  EXPECT_EQ(ti.GetUserId(), "");
  EXPECT_TRUE(CheckConnectionFlags(&ti, false));
  HSESSIONCTX session = nullptr;
  EXPECT_EQ(ConnectEx(&session, &ti), 100001);
  EXPECT_TRUE(FakeLibrary::Get().Opens().empty()) << "the library is not called";
}

TEST_F(ConnectTest, TokenFileReplacesTheTokenText) {
  { std::ofstream("token.txt") << kSampleTokenB64; }
  THREAD_INFO ti = Load({{"-at", "AAAA"}, {"-atf", "token.txt"}});
  EXPECT_TRUE(ti.useAccessToken);
  const QL_A_TOKEN expected = SampleToken();
  EXPECT_EQ(memcmp(&ti.stAccessToken.stAToken, &expected, sizeof expected), 0);
  EXPECT_EQ(ti.stAccessToken.nPort, 4433);
}

TEST_F(ConnectTest, UnreadableTokenFileSetsNothing) {
  ::testing::internal::CaptureStdout();
  THREAD_INFO ti = Load({{"-a", "h"}, {"-at", kSampleTokenB64}, {"-atf", "missing.txt"}});
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Error reading file(missing.txt).\r\n");
  EXPECT_FALSE(ti.useAccessToken);
  EXPECT_EQ(ti.stAccessToken.nPort, 0);
  EXPECT_EQ(ti.stAccessToken.szAddr[0], '\0');
}

TEST_F(ConnectTest, PartialTripleFallsThrough) {
  THREAD_INFO ti = Load({{"-a", "h"}, {"-u", "alice"}});
  EXPECT_EQ(ti.dwAuthParam, 0u);
  EXPECT_FALSE(CheckConnectionFlags(&ti, false));
  EXPECT_FALSE(CheckConnectionFlags(&ti, true));  // kind 0 has no address either
}

TEST_F(ConnectTest, AnonymousConnectionNeedsOnlyAnAddress) {
  Params params{{"-a", "10.3.3.3"}};
  THREAD_INFO ti{};
  ti.UseTLS = 0;  // left as the descriptor holds it
  ti.SessionCache = 1;
  ti.UseLoadBalance = 1;
  LoadAnonymousConnectionParams(&ti, params.data(), params.size());
  EXPECT_EQ(ti.dwAuthParam, 1u);
  EXPECT_TRUE(CheckConnectionFlags(&ti, true));
  EXPECT_FALSE(CheckConnectionFlags(&ti, false));
  HSESSIONCTX session = nullptr;
  ASSERT_EQ(ConnectAnonymous(&session, &ti), 0);
  const auto opens = FakeLibrary::Get().Opens();
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].auth_type, 1u);
  EXPECT_EQ(opens[0].record.size(), 180u);
  EXPECT_EQ(opens[0].flags, 4u);
  EXPECT_EQ(CloseSession(&session), 0);
  EXPECT_EQ(session, nullptr);
}

TEST_F(ConnectTest, UserDescriptorUsedAnonymouslySendsKindOneWithTheSameRecord) {
  THREAD_INFO ti = Load({{"-a", "h"}, {"-u", "alice"}, {"-w", "pwd"}, {"-sc", "0"}});
  HSESSIONCTX session = nullptr;
  ASSERT_EQ(Connect(&ti, &session, true), 0);
  ASSERT_EQ(ConnectEx(&session, &ti), 0);
  const auto opens = FakeLibrary::Get().Opens();
  ASSERT_EQ(opens.size(), 2u);
  EXPECT_EQ(opens[0].auth_type, 1u);
  EXPECT_EQ(opens[1].auth_type, 16u);
  EXPECT_EQ(opens[0].record, opens[1].record);
  EXPECT_EQ(opens[0].flags, 1u + 8 + 16);
  AUTH_PWD_EX record{};
  memcpy(&record, opens[0].record.data(), sizeof record);
  EXPECT_STREQ(record.szUserId, "alice");
  EXPECT_STREQ(record.szPassword, "pwd");
}

TEST_F(ConnectTest, LibraryCodeIsReturnedUnchanged) {
  FakeLibrary::Get().open_result = QL_ERR_AUTH_FAILED;
  THREAD_INFO ti = Load({{"-a", "h"}, {"-u", "alice"}, {"-w", "bad"}});
  HSESSIONCTX session = nullptr;
  EXPECT_EQ(ConnectEx(&session, &ti), QL_ERR_AUTH_FAILED);
}

TEST_F(ConnectTest, AuthDataByKind) {
  THREAD_INFO ti{};
  uint32_t len = 77;
  for (uint32_t kind : {0u, 2u, 64u}) {
    ti.dwAuthParam = kind;
    EXPECT_EQ(GetAuthData(&ti, &len), nullptr);
    EXPECT_EQ(len, 77u) << "untouched";
  }
  const struct {
    uint32_t kind;
    const void *record;
    uint32_t len;
  } cases[] = {{1, &ti.stAuthPwdEx, 180},
               {16, &ti.stAuthPwdEx, 180},
               {32, &ti.stAccessToken, 164},
               {128, &ti.stWinCredential, 132}};
  for (const auto &c : cases) {
    ti.dwAuthParam = c.kind;
    EXPECT_EQ(GetAuthData(&ti, &len), c.record);
    EXPECT_EQ(len, c.len);
  }
}

TEST_F(ConnectTest, SecondConnectOverloadBuildsAUserRecord) {
  HSESSIONCTX session = nullptr;
  ASSERT_EQ(Connect(&session, "10.4.4.4", "bob", "pw", 4500, 20), 0);
  const auto opens = FakeLibrary::Get().Opens();
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].auth_type, 16u);
  EXPECT_EQ(opens[0].flags, 20u);
  AUTH_PWD_EX record{};
  memcpy(&record, opens[0].record.data(), sizeof record);
  EXPECT_STREQ(record.szAddr, "10.4.4.4");
  EXPECT_EQ(record.nPort, 4500);
  EXPECT_STREQ(record.szUserId, "bob");
  EXPECT_EQ(record.dwAuthType, 0u);
  CloseSession(&session);
}

TEST_F(ConnectTest, LongTextsFillTheirFieldsWithoutOverrun) {
  const std::string user(20, 'u');  // longer than the 16-byte field
  Params params{{"-a", "h"}, {"-u", user.c_str()}, {"-w", "p"}};
  THREAD_INFO ti{};
  LoadGenericParameters(&ti, params.data(), params.size());
  EXPECT_EQ(memcmp(ti.stAuthPwdEx.szUserId, user.data(), 16), 0);
  EXPECT_EQ(ti.GetUserId(), std::string(16, 'u'));
  EXPECT_STREQ(ti.stAuthPwdEx.szPassword, "p");
}

TEST_F(ConnectTest, GenericTestOptions) {
  THREAD_INFO ti = Load({{"-t", "4"}, {"-i", "25"}, {"-r", "5"}, {"-tc", "case"}});
  EXPECT_EQ(ti.Threads, 4);
  EXPECT_EQ(ti.Iterations, 25);
  EXPECT_EQ(ti.ReuseSession, 1);
  EXPECT_STREQ(ti.pszTestCase, "case");
  EXPECT_FALSE(ti.writeReturnFiles);
  EXPECT_EQ(ti.statSleepIntervalMs, 500u);
  EXPECT_FALSE(ti.printStatsOnScreen);
  EXPECT_EQ(ti.pszStatsFile, nullptr);
  EXPECT_TRUE(IsValidTestCountersConfig(&ti));

  THREAD_INFO none = Load({});
  EXPECT_EQ(none.Threads, -1);
  EXPECT_EQ(none.Iterations, -1);
  EXPECT_EQ(none.ReuseSession, 1);
  EXPECT_FALSE(IsValidTestCountersConfig(&none));

  EXPECT_EQ(Load({{"-r", "0"}}).ReuseSession, 0);
  EXPECT_EQ(Load({{"-r", "1"}}).ReuseSession, 1);

  THREAD_INFO stats = Load({{"--stats_print", ""},
                            {"--stats_file", "s.csv"},
                            {"--stats_interval", "1000"},
                            {"--retfiles", ""}});
  EXPECT_TRUE(stats.printStatsOnScreen);
  EXPECT_STREQ(stats.pszStatsFile, "s.csv");
  EXPECT_EQ(stats.statSleepIntervalMs, 1000u);
  EXPECT_TRUE(stats.writeReturnFiles);
  EXPECT_EQ(Load({{"--stats_interval", ""}}).statSleepIntervalMs, 500u);
  EXPECT_EQ(Load({{"--stats_interval", "0"}}).statSleepIntervalMs, 0u);
}

TEST_F(ConnectTest, JobParametersForceOneThreadOneIteration) {
  Params params{{"-a", "h"}, {"-t", "8"}, {"-i", "9"}, {"-lb", "1"}, {"-tc", "x"}};
  THREAD_INFO ti{};
  LoadGenericJobParameters(&ti, params.data(), params.size(), true);
  EXPECT_EQ(ti.dwAuthParam, 1u);
  EXPECT_EQ(ti.Threads, 1);
  EXPECT_EQ(ti.Iterations, 1);
  EXPECT_EQ(ti.UseLoadBalance, 0);
  EXPECT_STREQ(ti.pszTestCase, "x");
  THREAD_INFO named{};
  Params user{{"-a", "h"}, {"-u", "u"}, {"-w", "w"}, {"-lb", "1"}};
  LoadGenericJobParameters(&named, user.data(), user.size(), false);
  EXPECT_EQ(named.dwAuthParam, 16u);
  EXPECT_EQ(named.UseLoadBalance, 0);
}

TEST_F(ConnectTest, UserCreationPermissions) {
  struct Case {
    Params params;
    uint32_t acl;
  };
  Case cases[] = {
      {Params{}, 0},
      {Params{{"-operator", ""}, {"-usr_create", ""}}, 128},
      {Params{{"-usr_create", ""}, {"-usr_list", ""}}, 16 | 64},
      {Params{{"-remote_log", "0"}, {"-backup", ""}, {"-firm_update", ""}}, 32 | 256 | 512},
      {Params{{"-ns_auth", ""}, {"-cold_partition", ""}, {"-pwd", "secret"}}, 1024 | 2048},
  };
  for (Case &c : cases) {
    char *password = reinterpret_cast<char *>(1);
    uint32_t acl = 99;
    LoadUserCreationParams(&password, &acl, c.params.data(), c.params.size());
    EXPECT_EQ(acl, c.acl);
  }
  Params with_pwd{{"-pwd", "secret"}};
  char *password = nullptr;
  uint32_t acl = 0;
  LoadUserCreationParams(&password, &acl, with_pwd.data(), with_pwd.size());
  EXPECT_STREQ(password, "secret");
  Params without{};
  LoadUserCreationParams(&password, &acl, without.data(), without.size());
  EXPECT_EQ(password, nullptr);
}

TEST_F(ConnectTest, OperationSleep) {
  OP_SLEEP_INFO none{0, 20, 0};
  EXPECT_EQ(QlOperationSleepMs(&none), 0u);
  OP_SLEEP_INFO fixed{10, 0, 0};
  EXPECT_EQ(QlOperationSleepMs(&fixed), 10000u);
  OP_SLEEP_INFO equal{10, 10, 0};
  EXPECT_EQ(QlOperationSleepMs(&equal), 10000u);
  OP_SLEEP_INFO range{10, 20, 5};
  for (int i = 0; i < 50; ++i) {
    const uint32_t ms = QlOperationSleepMs(&range);
    EXPECT_GE(ms, 10000u);
    EXPECT_LE(ms, 19000u);  // the upper bound is never drawn
    EXPECT_EQ(ms % 1000, 0u);
  }
  EXPECT_EQ(range.uiRandomSeed, 55u) << "advanced before every draw";
  // Bounds upside down wrap in unsigned arithmetic: r + dwInit seconds.
  OP_SLEEP_INFO wrapped{20, 10, 0};
  srand(1);
  const uint32_t r = static_cast<uint32_t>(rand());
  EXPECT_EQ(QlOperationSleepMs(&wrapped), (r + 20u) * 1000u);
}

TEST_F(ConnectTest, FacadeFromADescriptor) {
  THREAD_INFO ti = Load({{"-a", "h"}, {"-u", "alice"}, {"-w", "pwd"}, {"-tls", "0"}});
  QueltaClient client = GetQueltaClient(&ti, false);
  EXPECT_EQ(client.GetConnType(), 16u);
  EXPECT_EQ(client.GetSessionFlags(), 0u) << "the descriptor's flags are not kept";
  std::unique_ptr<QueltaClient> heap = NewQueltaClient(&ti, true);
  ASSERT_NE(heap, nullptr);
  EXPECT_EQ(heap->GetConnType(), 1u);

  THREAD_INFO token_only = Load({{"-a", "h"}, {"-at", kSampleTokenB64}});
  EXPECT_EQ(NewQueltaClient(&token_only, false), nullptr);
  QueltaClient unconnected = GetQueltaClient(&token_only, false);
  EXPECT_EQ(unconnected.GetConnType(), 0u);
  // Connect() then sends kind 0 with the 180-byte zero record.
  unconnected.Connect();
  const auto opens = FakeLibrary::Get().Opens();
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].auth_type, 0u);
  EXPECT_EQ(opens[0].record, std::vector<unsigned char>(180, 0));
  EXPECT_EQ(opens[0].flags, 0u);
}

}  // namespace
