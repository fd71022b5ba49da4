// Login throttling and the address allow-list, in-process.
#include <gtest/gtest.h>

#include <chrono>

#include "engine/system/ip_filter.h"
#include "engine/users/login_throttle.h"
#include "test_util.h"

namespace qlhsm {
namespace {

using std::chrono::milliseconds;
using users::LoginThrottle;
using users::ThrottlePolicy;

struct FakeClock {
  std::chrono::steady_clock::time_point now{};
  LoginThrottle::Clock fn() {
    return [this] { return now; };
  }
};

TEST(LoginThrottle, FreeAtFirstThenGrowingUpToTheCap) {
  FakeClock clock;
  ThrottlePolicy policy;
  LoginThrottle t(policy, clock.fn());
  milliseconds previous{0};
  bool capped = false;
  for (int attempt = 1; attempt <= 12; ++attempt) {
    const milliseconds d = t.Delay("alice", "192.0.2.1");
    if (attempt <= static_cast<int>(policy.free_failures)) {
      EXPECT_EQ(d.count(), 0) << attempt;
    } else {
      EXPECT_GT(d.count(), 0) << attempt;
      EXPECT_GE(d, previous) << attempt;
      EXPECT_LE(d, policy.max) << attempt;
      // Below the cap every failure makes it strictly longer.
      if (!capped) {
        EXPECT_GT(d, previous) << attempt;
      }
      capped = d == policy.max;
    }
    previous = d;
    t.Failed("alice", "192.0.2.1");
  }
  EXPECT_TRUE(capped);
}

TEST(LoginThrottle, CountsPerUserAndPerAddressAndSuccessClears) {
  FakeClock clock;
  LoginThrottle t({}, clock.fn());
  for (int i = 0; i < 5; ++i) t.Failed("alice", "192.0.2.1");
  // Another user from the same address waits as long (spraying names does not help) ...
  EXPECT_GT(t.Delay("bob", "192.0.2.1").count(), 0);
  // ... and alice from another address too (changing address does not help).
  EXPECT_GT(t.Delay("alice", "198.51.100.9").count(), 0);
  EXPECT_EQ(t.Delay("bob", "198.51.100.9").count(), 0);
  // Names that are no user are counted like names that are.
  for (int i = 0; i < 5; ++i) t.Failed("nobody", "198.51.100.7");
  EXPECT_EQ(t.Delay("nobody", "203.0.113.1"), t.Delay("alice", "203.0.113.1"));

  t.Succeeded("alice", "192.0.2.1");
  EXPECT_EQ(t.Delay("alice", "203.0.113.1").count(), 0);
  EXPECT_EQ(t.Delay("bob", "192.0.2.1").count(), 0);
}

TEST(LoginThrottle, CountsAreForgottenAfterAQuietWhile) {
  FakeClock clock;
  ThrottlePolicy policy;
  LoginThrottle t(policy, clock.fn());
  for (int i = 0; i < 6; ++i) t.Failed("alice", "");
  EXPECT_GT(t.Delay("alice", "").count(), 0);
  clock.now += policy.forget - std::chrono::seconds(1);
  EXPECT_GT(t.Delay("alice", "").count(), 0);
  clock.now += std::chrono::seconds(1);
  EXPECT_EQ(t.Delay("alice", "").count(), 0);
}

TEST(LoginThrottle, BoundedMemoryStillCountsKnownEntries) {
  FakeClock clock;
  ThrottlePolicy policy;
  policy.max_entries = 4;
  LoginThrottle t(policy, clock.fn());
  for (int i = 0; i < 5; ++i) t.Failed("alice", "");
  for (int i = 0; i < 100; ++i) t.Failed("n" + std::to_string(i), "");
  EXPECT_GT(t.Delay("alice", "").count(), 0);
}

// Through the engine's login: the delay it hands the daemon grows with failures, for a real user
// and for a name that is none, and a right password after failures still logs in.
TEST(EngineLogin, DelayGrowsAndTheRightPasswordStillLogsIn) {
  testing::EngineFixture f;
  auto s = f.engine->NewSession();
  for (const char *user : {"master", "ghost"}) {
    SCOPED_TRACE(user);
    const std::string from = std::string(user) == "master" ? "192.0.2.44" : "192.0.2.45";
    milliseconds first{-1}, last{0};
    for (int i = 0; i < 6; ++i) {
      milliseconds d{-1};
      EXPECT_EQ(f.engine->users().Login(*s, user, "wrong-one", from, &d).code(), Code::kAuthFailed);
      if (first.count() < 0) first = d;
      EXPECT_GE(d, last);
      last = d;
    }
    EXPECT_EQ(first.count(), 0);
    EXPECT_GT(last.count(), 0);
    // Each name's own count: a fresh address sees the same growth by name alone.
    milliseconds d{-1};
    (void)f.engine->users().Login(*s, user, "wrong-one", "198.51.100.1", &d);
    EXPECT_GT(d.count(), 0);
  }
  milliseconds d{-1};
  ASSERT_TRUE(
      f.engine->users().Login(*s, "master", testing::kMasterPassword, "192.0.2.44", &d).ok());
  EXPECT_GT(d.count(), 0);  // held back like a failure would be
  EXPECT_TRUE(s->logged_in());
  // The success cleared the counts: the next login is answered at once.
  ASSERT_TRUE(
      f.engine->users().Login(*s, "master", testing::kMasterPassword, "192.0.2.44", &d).ok());
  EXPECT_EQ(d.count(), 0);
}

TEST(IpRules, ParseAndCanonicalText) {
  struct Case {
    const char *in;
    const char *text;  // null: refused
  } cases[] = {
      {"192.0.2.7", "192.0.2.7"},
      {"192.0.2.7/32", "192.0.2.7"},
      {"10.1.2.3/8", "10.0.0.0/8"},
      {"0.0.0.0/0", "0.0.0.0/0"},
      {"2001:db8::1", "2001:db8::1"},
      {"2001:db8:aaaa::/32", "2001:db8::/32"},
      {"192.0.2.7/33", nullptr},
      {"2001:db8::/129", nullptr},
      {"192.0.2.256", nullptr},
      {"192.0.2.7/", nullptr},
      {"192.0.2.7/-1", nullptr},
      {"host.example", nullptr},
      {"", nullptr},
  };
  for (const Case &c : cases) {
    Result<system::IpRule> r = system::ParseIpRule(c.in);
    if (!c.text) {
      EXPECT_EQ(r.status().code(), Code::kBadArgument) << c.in;
      continue;
    }
    ASSERT_TRUE(r.ok()) << c.in;
    EXPECT_EQ(r->Text(), c.text) << c.in;
  }
}

std::array<unsigned char, 4> V4(unsigned a, unsigned b, unsigned c, unsigned d) {
  return {static_cast<unsigned char>(a), static_cast<unsigned char>(b),
          static_cast<unsigned char>(c), static_cast<unsigned char>(d)};
}

TEST(IpFilterService, ListAddRemoveAllowedAndKeptAcrossRestarts) {
  testing::EngineFixture f;
  Engine &e = *f.engine;
  auto allowed = [&](std::array<unsigned char, 4> a) {
    return e.system().ip_filter().Allowed(a.data(), a.size());
  };
  // No rules: every address.
  EXPECT_TRUE(allowed(V4(203, 0, 113, 5)));
  ASSERT_TRUE(e.system().IpFilterOperation(*f.master, QL_IPF_ADD, "192.0.2.0/24").ok());
  EXPECT_EQ(e.system().IpFilterOperation(*f.master, QL_IPF_ADD, "192.0.2.9/24").status().code(),
            Code::kObjectExists);
  EXPECT_EQ(e.system().IpFilterOperation(*f.master, QL_IPF_ADD, "nonsense").status().code(),
            Code::kBadArgument);
  EXPECT_TRUE(allowed(V4(192, 0, 2, 200)));
  EXPECT_FALSE(allowed(V4(192, 0, 3, 1)));
  EXPECT_TRUE(allowed(V4(127, 0, 0, 1)));  // loopback always
  // An IPv4-mapped IPv6 address is the IPv4 address.
  std::array<unsigned char, 16> mapped{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 192, 0, 2, 3};
  EXPECT_TRUE(e.system().ip_filter().Allowed(mapped.data(), mapped.size()));
  mapped[15] = 3, mapped[14] = 9;
  EXPECT_FALSE(e.system().ip_filter().Allowed(mapped.data(), mapped.size()));

  ASSERT_TRUE(e.system().IpFilterOperation(*f.master, QL_IPF_ADD, "2001:db8::/32").ok());
  Result<std::vector<std::string>> list = e.system().IpFilterOperation(*f.master, QL_IPF_LIST, "");
  ASSERT_TRUE(list.ok());
  EXPECT_EQ(list.value(), (std::vector<std::string>{"192.0.2.0/24", "2001:db8::/32"}));

  // Someone without the operator right may neither read nor change the list.
  ASSERT_TRUE(
      e.users().CreateUser(*f.master, "ops", "pw123456", ACL_ALL_RIGHTS & ~ACL_SYS_OPERATOR).ok());
  auto ops = f.LoginAs("ops", "pw123456");
  EXPECT_EQ(e.system().IpFilterOperation(*ops, QL_IPF_LIST, "").status().code(),
            Code::kAccessDenied);
  EXPECT_EQ(e.system().IpFilterOperation(*ops, QL_IPF_REMOVE, "192.0.2.0/24").status().code(),
            Code::kAccessDenied);
  EXPECT_EQ(e.system().IpFilterOperation(*f.master, 9, "").status().code(), Code::kBadArgument);

  // The list is in the store: a restarted engine keeps it.
  const std::string dir = f.dir.path();
  f.master.reset();
  ops.reset();
  f.engine.reset();
  Result<std::unique_ptr<Engine>> again = Engine::Open(dir);
  ASSERT_TRUE(again.ok());
  Engine &e2 = *again.value();
  auto s = e2.NewSession();
  ASSERT_TRUE(e2.users().Login(*s, "master", testing::kMasterPassword).ok());
  EXPECT_FALSE(e2.system().ip_filter().Allowed(V4(192, 0, 3, 1).data(), 4));
  EXPECT_EQ(e2.system().IpFilterOperation(*s, QL_IPF_REMOVE, "192.0.2.0/25").status().code(),
            Code::kObjectNotFound);
  ASSERT_TRUE(e2.system().IpFilterOperation(*s, QL_IPF_REMOVE, "192.0.2.0/24").ok());
  ASSERT_TRUE(e2.system().IpFilterOperation(*s, QL_IPF_REMOVE, "2001:db8::/32").ok());
  EXPECT_TRUE(e2.system().ip_filter().Allowed(V4(192, 0, 3, 1).data(), 4));
}

}  // namespace
}  // namespace qlhsm
