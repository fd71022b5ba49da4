// Threads: the library context, the fetch caches and shared keys are used from many threads at
// once, from the very first call (the suite runs under ThreadSanitizer in CI).
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "crypto/cipher.h"
#include "crypto/hash.h"
#include "crypto/sign.h"
#include "test_util.h"

namespace qlhsm::crypto {
namespace {

TEST(Threads, FirstUseFromManyThreads) {
  // Nothing before this point has touched the library in this process (one process per test).
  std::vector<int> failures(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&failures, t] {
      const AlgId algs[] = {alg::kAes128, alg::kDes, alg::kArc4, alg::k3Des168};
      auto key = Key::Generate(algs[t]);
      if (!key.ok()) {
        ++failures[t];
        return;
      }
      CipherState state(*key);
      for (int i = 0; i < 20; ++i) {
        auto c = state.Encrypt(Bytes(64, static_cast<uint8_t>(i)), true);
        auto d = c.ok() ? state.Decrypt(*c, true) : Result<Bytes>(Code::kInternal);
        if (!d.ok() || *d != Bytes(64, static_cast<uint8_t>(i))) ++failures[t];
        if (!Digest(hash::kSha3_256, Bytes(10, 1)).ok()) ++failures[t];
      }
    });
  }
  for (auto &th : threads) th.join();
  for (int f : failures) EXPECT_EQ(f, 0);
}

// One key, one cipher state per thread (as the engine gives each handle its own state).
TEST(Threads, SharedKeyOwnStates) {
  auto key = Key::Generate(alg::kAes256);
  ASSERT_TRUE(key.ok());
  auto expected = [&] {
    CipherState s(*key);
    return *s.Encrypt(Bytes(100, 7), true);
  }();
  std::vector<int> mismatches(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      CipherState s(*key);
      for (int i = 0; i < 50; ++i) {
        auto c = s.Encrypt(Bytes(100, 7), true);
        if (!c.ok() || *c != expected) ++mismatches[t];
      }
    });
  }
  for (auto &th : threads) th.join();
  for (int m : mismatches) EXPECT_EQ(m, 0);
}

}  // namespace
}  // namespace qlhsm::crypto
