// The HSM's crypto path through libqlapi, against a qlhsmd this benchmark starts on a free
// loopback port with a data directory of its own: RSA-2048 and ECDSA P-256 signatures of a
// SHA-256 value (QSignHash), AES-256-CBC encryption of one message of 1 KiB or 8 KiB (QEncrypt,
// no padding, as openssl speed measures it), and SHA-256 of one message (QCreateHash, QHashData,
// the value, QDestroyHash; the library hashes without the HSM). Each thread has its own session
// and its own key handles; the keys are stored objects, made once before the runs.
// run.sh prints the figures beside openssl speed.
//
//   crypto_bench [--benchmark_filter=...]     QLHSMD=path picks the daemon binary;
//                                             CRYPTO_BENCH_PLAIN=1 uses plain TCP instead of TLS;
//                                             CRYPTO_BENCH_HSM_THREADS=n: qlhsmd --threads n
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "hsm_fixture.h"
#include "password_record.h"
#include "qlapi.h"

namespace {

constexpr const char *kRsaKey = "bench_rsa2048";
constexpr const char *kEcKey = "bench_p256";
constexpr const char *kAesKey = "bench_aes256";

qltest::HsmProcess *g_hsm = nullptr;
uint32_t g_transport = QL_SESSION_ENCRYPTED;

// One session and the handles a thread uses, released on every path.
class ThreadSession {
 public:
  ThreadSession() {
    AUTH_PWD_EX r = qltest::PasswordRecord(*g_hsm);
    rc_ = QOpenSession(&session_, QL_AUTH_USER_PWD, &r, sizeof r,
                       g_transport | QL_SESSION_BYPASS_CACHE);
  }
  ~ThreadSession() {
    if (hash_) QDestroyHash(&hash_);
    if (key_) QDestroyKey(&key_, 0);
    if (session_) QCloseSession(&session_, QL_CLOSE_PHYSICAL);
  }
  ThreadSession(const ThreadSession &) = delete;
  ThreadSession &operator=(const ThreadSession &) = delete;

  // Opens the stored key `name`; false (with the reason in `why`) when anything fails.
  bool OpenKey(const char *name, std::string *why) {
    if (rc_ != QL_OK) return Fail("QOpenSession", rc_, why);
    if (int rc = QGetUserKey(session_, name, 0, &key_); rc != QL_OK)
      return Fail("QGetUserKey", rc, why);
    return true;
  }
  // A SHA-256 hash holding the value of a fixed message, ready to be signed.
  bool MakeHash(std::string *why) {
    if (int rc = QCreateHash(session_, QL_ALG_SHA256, nullptr, 0, &hash_); rc != QL_OK)
      return Fail("QCreateHash", rc, why);
    static const unsigned char kMessage[] = "the crypto benchmark signs this message";
    if (int rc = QHashData(hash_, kMessage, sizeof kMessage - 1, 0); rc != QL_OK)
      return Fail("QHashData", rc, why);
    return true;
  }
  bool SetCbcNoPadding(std::string *why) {
    uint32_t mode = QL_MODE_CBC, pad = QL_PAD_NONE;
    if (int rc = QSetKeyParam(key_, QKP_MODE, &mode, sizeof mode, 0); rc != QL_OK)
      return Fail("QSetKeyParam(QKP_MODE)", rc, why);
    if (int rc = QSetKeyParam(key_, QKP_PADDING, &pad, sizeof pad, 0); rc != QL_OK)
      return Fail("QSetKeyParam(QKP_PADDING)", rc, why);
    return true;
  }

  HSESSIONCTX session() const { return session_; }
  HKEYCTX key() const { return key_; }
  HHASHCTX hash() const { return hash_; }
  int open_rc() const { return rc_; }

 private:
  static bool Fail(const char *what, int rc, std::string *why) {
    *why = std::string(what) + " failed: " + std::to_string(rc);
    return false;
  }
  int rc_ = -1;
  HSESSIONCTX session_ = nullptr;
  HKEYCTX key_ = nullptr;
  HHASHCTX hash_ = nullptr;
};

void Sign(benchmark::State &state, const char *key_name) {
  ThreadSession t;
  std::string why;
  if (!t.OpenKey(key_name, &why) || !t.MakeHash(&why)) {
    state.SkipWithError(why.c_str());
    return;
  }
  unsigned char sig[1024];
  for (auto _ : state) {
    uint32_t len = sizeof sig;
    if (int rc = QSignHash(t.hash(), t.key(), 0, sig, &len); rc != QL_OK) {
      why = "QSignHash failed: " + std::to_string(rc);
      state.SkipWithError(why.c_str());
      break;
    }
    benchmark::DoNotOptimize(sig[0]);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_SignRsa2048(benchmark::State &state) {
  Sign(state, kRsaKey);
}
void BM_SignP256(benchmark::State &state) {
  Sign(state, kEcKey);
}

// One whole message per call, encrypted in place: the buffer's contents become the next
// message, as a real caller's would change.
void BM_EncryptAes256Cbc(benchmark::State &state) {
  const auto size = static_cast<uint32_t>(state.range(0));
  ThreadSession t;
  std::string why;
  if (!t.OpenKey(kAesKey, &why) || !t.SetCbcNoPadding(&why)) {
    state.SkipWithError(why.c_str());
    return;
  }
  std::vector<unsigned char> buf(size, 0x5a);
  for (auto _ : state) {
    uint32_t len = size;
    if (int rc = QEncrypt(t.key(), nullptr, 1, 0, buf.data(), &len, size);
        rc != QL_OK || len != size) {
      why = "QEncrypt failed: " + std::to_string(rc);
      state.SkipWithError(why.c_str());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
}

// A digest of one message, start to end, as openssl speed -evp sha256 times it.
void BM_Sha256(benchmark::State &state) {
  const auto size = static_cast<uint32_t>(state.range(0));
  ThreadSession t;
  if (t.open_rc() != QL_OK) {
    state.SkipWithError("QOpenSession failed");
    return;
  }
  std::vector<unsigned char> msg(size, 0xa5);
  unsigned char value[32];
  for (auto _ : state) {
    HHASHCTX h = nullptr;
    uint32_t len = sizeof value;
    if (QCreateHash(t.session(), QL_ALG_SHA256, nullptr, 0, &h) != QL_OK ||
        QHashData(h, msg.data(), size, 0) != QL_OK ||
        QGetHashParam(h, QHP_HASHVAL, value, &len, 0) != QL_OK || QDestroyHash(&h) != QL_OK) {
      if (h) QDestroyHash(&h);
      state.SkipWithError("hash failed");
      break;
    }
    msg[0] = value[0];
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
}

BENCHMARK(BM_SignRsa2048)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_SignP256)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_EncryptAes256Cbc)->Arg(1024)->Arg(8192)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Sha256)->Arg(1024)->Arg(8192)->Threads(1)->Threads(2)->UseRealTime();

// The stored keys every thread opens.
bool MakeKeys() {
  ThreadSession admin;
  if (admin.open_rc() != QL_OK) {
    std::fprintf(stderr, "crypto_bench: QOpenSession failed: %d\n", admin.open_rc());
    return false;
  }
  const struct {
    const char *name;
    uint32_t alg;
  } keys[] = {{kRsaKey, QL_ALG_RSA2048}, {kEcKey, QL_ALG_ECC_SECP256R1}, {kAesKey, QL_ALG_AES256}};
  for (const auto &k : keys) {
    if (int rc = QGenerateKey(admin.session(), k.name, k.alg, 0, nullptr); rc != QL_OK) {
      std::fprintf(stderr, "crypto_bench: QGenerateKey(%s) failed: %d\n", k.name, rc);
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (const char *plain = std::getenv("CRYPTO_BENCH_PLAIN"); plain && *plain == '1')
    g_transport = QL_SESSION_UNENCRYPTED;
  qltest::HsmOptions options;
  if (const char *threads = std::getenv("CRYPTO_BENCH_HSM_THREADS"); threads && *threads)
    options.serve_args = {"--threads", threads};
  std::unique_ptr<qltest::HsmProcess> hsm;
  try {
    hsm = std::make_unique<qltest::HsmProcess>(options);
  } catch (const std::exception &e) {
    std::fprintf(stderr, "crypto_bench: cannot start qlhsmd: %s\n", e.what());
    return 1;
  }
  g_hsm = hsm.get();
  // The daemon's pid, for a profiler attached from outside (run.sh PERF=1).
  std::fprintf(stderr, "crypto_bench: qlhsmd pid %d port %d\n", static_cast<int>(hsm->pid()),
               hsm->port());
  int rc = MakeKeys() ? 0 : 1;
  if (rc == 0) benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  QFinalize();
  return rc;
}
