// The engine's share of the crypto path, without sockets: Engine::SignHash and Engine::Cipher on
// stored keys opened by handle (as the daemon serves QSignHash and QEncrypt), beside the same
// operation done straight with OpenSSL in this process (a context kept, as openssl speed does).
// The difference is what the engine adds: access checks, the key cache, copies, the fault switch.
// Engine::VerifySignature is timed too (its anchor: openssl speed's verify/s column).
//
//   crypto_engine_bench [--benchmark_filter=...]
#include <benchmark/benchmark.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "engine/engine.h"
#include "qlapi.h"

namespace {

using qlhsm::Engine;
using qlhsm::KeyArg;
namespace secure = qlhsm::secure;

constexpr const char *kPassword = "12345678";

Engine *g_engine = nullptr;
std::string g_dir;

struct PkeyCtxFree {
  void operator()(EVP_PKEY_CTX *c) const { EVP_PKEY_CTX_free(c); }
};
struct PkeyFree {
  void operator()(EVP_PKEY *k) const { EVP_PKEY_free(k); }
};
struct CipherCtxFree {
  void operator()(EVP_CIPHER_CTX *c) const { EVP_CIPHER_CTX_free(c); }
};

std::unique_ptr<qlhsm::sessions::Session> Login() {
  auto s = g_engine->NewSession();
  if (!g_engine->users().Login(*s, qlhsm::kMasterUser, kPassword).ok()) return nullptr;
  return s;
}

bool Open(qlhsm::sessions::Session &s, const char *name, uint64_t *handle) {
  auto k = g_engine->keys().OpenKey(s, name);
  if (!k.ok()) return false;
  *handle = k->handle;
  return true;
}

void EngineSign(benchmark::State &state, const char *name) {
  auto s = Login();
  uint64_t handle = 0;
  if (!s || !Open(*s, name, &handle)) {
    state.SkipWithError("login or key open failed");
    return;
  }
  const KeyArg key{handle, ""};
  const secure::Bytes digest(32, 0x42);
  for (auto _ : state) {
    size_t longest = 0;
    auto sig = g_engine->keys().SignHash(*s, key, QL_ALG_SHA256, digest, 0, 0, &longest);
    if (!sig.ok()) {
      state.SkipWithError("SignHash failed");
      break;
    }
    benchmark::DoNotOptimize(sig->data());
  }
  state.SetItemsProcessed(state.iterations());
}
void BM_EngineSignRsa2048(benchmark::State &state) {
  EngineSign(state, "rsa");
}
void BM_EngineSignP256(benchmark::State &state) {
  EngineSign(state, "p256");
}

// Verification of a signature made once, as the daemon serves QVerifySignature.
void EngineVerify(benchmark::State &state, const char *name) {
  auto s = Login();
  uint64_t handle = 0;
  if (!s || !Open(*s, name, &handle)) {
    state.SkipWithError("login or key open failed");
    return;
  }
  const KeyArg key{handle, ""};
  const secure::Bytes digest(32, 0x42);
  auto sig = g_engine->keys().SignHash(*s, key, QL_ALG_SHA256, digest, 0);
  if (!sig.ok()) {
    state.SkipWithError("SignHash failed");
    return;
  }
  for (auto _ : state) {
    if (!g_engine->keys().VerifySignature(*s, key, QL_ALG_SHA256, digest, *sig).ok()) {
      state.SkipWithError("VerifySignature failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}
void BM_EngineVerifyRsa2048(benchmark::State &state) {
  EngineVerify(state, "rsa");
}
void BM_EngineVerifyP256(benchmark::State &state) {
  EngineVerify(state, "p256");
}

void BM_EngineEncryptAes256Cbc(benchmark::State &state) {
  const auto size = static_cast<size_t>(state.range(0));
  auto s = Login();
  uint64_t handle = 0;
  if (!s || !Open(*s, "aes", &handle) ||
      !g_engine->keys().SetCipherParam(*s, handle, QKP_MODE, QL_MODE_CBC, {}).ok() ||
      !g_engine->keys().SetCipherParam(*s, handle, QKP_PADDING, QL_PAD_NONE, {}).ok()) {
    state.SkipWithError("login, key open or cipher parameters failed");
    return;
  }
  const KeyArg key{handle, ""};
  secure::Bytes data(size, 0x5a);
  for (auto _ : state) {
    uint64_t needed = 0;
    secure::Bytes iv;
    auto out = g_engine->keys().Cipher(*s, key, true, true, data, size, &needed, &iv);
    if (!out.ok()) {
      state.SkipWithError("Cipher failed");
      break;
    }
    benchmark::DoNotOptimize(out->data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

// The anchors: OpenSSL alone, one context per thread kept across calls.
void OsslSign(benchmark::State &state, EVP_PKEY *pkey, int padding) {
  std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> ctx(EVP_PKEY_CTX_new(pkey, nullptr));
  if (!ctx || EVP_PKEY_sign_init(ctx.get()) <= 0 ||
      (padding && EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding) <= 0)) {
    state.SkipWithError("context");
    return;
  }
  unsigned char tbs[51] = {};  // DigestInfo of SHA-256 and the digest: the RSA payload's length
  const size_t tbs_len = padding ? sizeof tbs : 32;
  unsigned char sig[512];
  for (auto _ : state) {
    size_t len = sizeof sig;
    if (EVP_PKEY_sign(ctx.get(), sig, &len, tbs, tbs_len) <= 0) {
      state.SkipWithError("EVP_PKEY_sign");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}
void BM_OpensslSignRsa2048(benchmark::State &state) {
  static std::unique_ptr<EVP_PKEY, PkeyFree> key(EVP_RSA_gen(2048));
  OsslSign(state, key.get(), RSA_PKCS1_PADDING);
}
void BM_OpensslSignP256(benchmark::State &state) {
  static std::unique_ptr<EVP_PKEY, PkeyFree> key(EVP_EC_gen("P-256"));
  OsslSign(state, key.get(), 0);
}
void BM_OpensslEncryptAes256Cbc(benchmark::State &state) {
  const auto size = static_cast<size_t>(state.range(0));
  unsigned char key[32] = {1}, iv[16] = {};
  std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx(EVP_CIPHER_CTX_new());
  if (!ctx || EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_cbc(), nullptr, key, iv) != 1) {
    state.SkipWithError("cipher");
    return;
  }
  EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
  std::string in(size, 'x'), out(size + 32, '\0');
  for (auto _ : state) {
    int len = 0, tail = 0;
    auto *o = reinterpret_cast<unsigned char *>(out.data());
    if (EVP_EncryptInit_ex(ctx.get(), nullptr, nullptr, nullptr, iv) != 1 ||
        EVP_EncryptUpdate(ctx.get(), o, &len, reinterpret_cast<const unsigned char *>(in.data()),
                          static_cast<int>(size)) != 1 ||
        EVP_EncryptFinal_ex(ctx.get(), o + len, &tail) != 1) {
      state.SkipWithError("encrypt");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

BENCHMARK(BM_EngineSignRsa2048)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_OpensslSignRsa2048)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_EngineSignP256)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_OpensslSignP256)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_EngineVerifyRsa2048)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_EngineVerifyP256)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_EngineEncryptAes256Cbc)->Arg(1024)->Arg(8192)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_OpensslEncryptAes256Cbc)->Arg(1024)->Arg(8192)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  std::string tmpl = (std::filesystem::temp_directory_path() / "crypto-engine-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) return 1;
  g_dir = tmpl;
  int rc = 1;
  {
    qlhsm::InitOptions init;
    init.kdf.n = 1024;  // the password hash's cost is not measured here
    std::unique_ptr<Engine> engine;
    if (Engine::Init(g_dir, kPassword, init).ok()) {
      auto opened = Engine::Open(g_dir);
      if (opened.ok()) engine = std::move(opened.value());
    }
    if (engine) {
      g_engine = engine.get();
      auto s = Login();
      bool made = s && g_engine->keys().GenerateKey(*s, "rsa", QL_ALG_RSA2048, 0, false).ok() &&
                  g_engine->keys().GenerateKey(*s, "p256", QL_ALG_ECC_SECP256R1, 0, false).ok() &&
                  g_engine->keys().GenerateKey(*s, "aes", QL_ALG_AES256, 0, false).ok();
      s.reset();
      if (made) {
        benchmark::RunSpecifiedBenchmarks();
        rc = 0;
      } else {
        std::fprintf(stderr, "crypto_engine_bench: cannot make the keys\n");
      }
    } else {
      std::fprintf(stderr, "crypto_engine_bench: cannot make an engine in %s\n", g_dir.c_str());
    }
  }
  benchmark::Shutdown();
  std::error_code ec;
  std::filesystem::remove_all(g_dir, ec);
  return rc;
}
