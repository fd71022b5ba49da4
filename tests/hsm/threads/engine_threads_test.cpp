// Many threads, each with its own session, on one engine: logins (remembered and not), user and
// object changes, key use through the shared cache. Run under ThreadSanitizer by CI.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "../test_util.h"

namespace qlhsm {
namespace {

TEST(EngineThreads, ConcurrentSessionsKeepEveryChange) {
  testing::EngineFixture f;
  ASSERT_TRUE(f.engine->keys().GenerateKey(*f.master, "shared", QL_ALG_RSA1024, 0, false).ok());
  constexpr int kThreads = 4, kRounds = 10;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      auto s = f.engine->NewSession();
      if (!f.engine->users().Login(*s, kMasterUser, testing::kMasterPassword).ok()) ++failures;
      secure::Bytes digest(32, static_cast<uint8_t>(t));
      for (int i = 0; i < kRounds; ++i) {
        std::string user = "t" + std::to_string(t) + "u" + std::to_string(i);
        if (!f.engine->users().CreateUser(*s, user, "pw", 0).ok()) ++failures;
        auto check = f.engine->NewSession();
        if (!f.engine->users().Login(*check, user, "pw").ok()) ++failures;
        if (!f.engine->objects().WriteFile(*s, "f" + user, {1, 2, 3}).ok()) ++failures;
        if (!f.engine->keys().SignHash(*s, {0, "shared"}, QL_ALG_SHA256, digest, 0).ok())
          ++failures;
        if (!f.engine->users().ListUsers(*s).ok()) ++failures;
        if (!f.engine->system().GetStatInfo(*s).ok()) ++failures;
        if (i % 3 == 0 && !f.engine->users().RemoveUser(*s, user).ok()) ++failures;
      }
    });
  }
  for (auto &th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  // master, plus the users not removed (rounds 1, 2, 4, 5, 7, 8 of each thread)
  EXPECT_EQ(f.engine->users().ListUsers(*f.master)->size(), 1u + kThreads * 6);
  EXPECT_EQ(f.engine->objects().ListObjects(*f.master)->size(), 1u + kThreads * kRounds);
  EXPECT_EQ(f.engine->registry().OpenCount(), 1u);
}

}  // namespace
}  // namespace qlhsm
