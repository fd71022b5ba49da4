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

// Signing and verifying contexts are pooled per key: contexts handed from thread to thread must
// give the same answers as new ones, whatever the call before left in them (raw RSA between
// PKCS#1 signatures, a signature that does not verify between good ones).
TEST(Threads, SharedKeySignsAndVerifiesFromManyThreads) {
  for (AlgId a : {alg::kRsa1024, alg::kSecp256r1}) {
    SCOPED_TRACE(a);
    auto key = Key::Generate(a);
    ASSERT_TRUE(key.ok());
    const bool rsa = (*key)->kind() == KeyKind::kRsa;
    std::vector<int> failures(4, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < 25; ++i) {
          Bytes digest(32, static_cast<uint8_t>(t * 31 + i));
          auto sig = Sign(**key, hash::kSha256, digest);
          if (!sig.ok() || !Verify(**key, hash::kSha256, digest, *sig).ok()) {
            ++failures[t];
            continue;
          }
          Bytes bad = *sig;
          bad[bad.size() / 2] ^= 0x10;
          if (Verify(**key, hash::kSha256, digest, bad).code() != Code::kBadSignature)
            ++failures[t];
          digest[0] ^= 1;
          if (Verify(**key, hash::kSha256, digest, *sig).code() != Code::kBadSignature)
            ++failures[t];
          if (rsa) {
            Bytes block((*key)->length_bytes(), 0x22);
            block[0] = 0;
            if (!RsaRawSign(**key, block).ok()) ++failures[t];
          }
        }
      });
    }
    for (auto &th : threads) th.join();
    for (int f : failures) EXPECT_EQ(f, 0);
  }
}

}  // namespace
}  // namespace qlhsm::crypto
