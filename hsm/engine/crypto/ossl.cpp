#include "crypto/ossl.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/provider.h>
#include <openssl/rand.h>

#include <map>
#include <mutex>
#include <shared_mutex>

namespace qlhsm::crypto {

void WipeMemory(void *p, size_t n) {
  OPENSSL_cleanse(p, n);
}

namespace ossl {
namespace {

// The process's crypto context. Built on first use; torn down at exit in the reverse order
// (fetched objects before the providers before the context).
class Context {
 public:
  Context() {
    ctx_ = OSSL_LIB_CTX_new();
    if (ctx_ == nullptr) return;
    default_ = OSSL_PROVIDER_load(ctx_, "default");
    // Debian ships the legacy provider; without it DES, DESX and RC4 answer "not supported".
    legacy_ = OSSL_PROVIDER_load(ctx_, "legacy");
    ERR_clear_error();
  }
  ~Context() {
    for (auto &[name, c] : ciphers_) EVP_CIPHER_free(c);
    for (auto &[name, m] : digests_) EVP_MD_free(m);
    for (auto &[name, m] : macs_) EVP_MAC_free(m);
    if (legacy_ != nullptr) OSSL_PROVIDER_unload(legacy_);
    if (default_ != nullptr) OSSL_PROVIDER_unload(default_);
    OSSL_LIB_CTX_free(ctx_);
  }
  OSSL_LIB_CTX *ctx() const { return ctx_; }
  bool legacy() const { return legacy_ != nullptr; }

  // Fetching is slow and takes OpenSSL's own locks, so each name is fetched once. A failed fetch
  // is remembered as null.
  template <typename T, typename Fetch>
  T *Cached(std::map<std::string, T *> &cache, const std::string &name, Fetch fetch) {
    {
      std::shared_lock lock(mutex_);
      auto it = cache.find(name);
      if (it != cache.end()) return it->second;
    }
    T *fetched = fetch(ctx_, name.c_str(), nullptr);
    ERR_clear_error();
    std::unique_lock lock(mutex_);
    auto [it, inserted] = cache.emplace(name, fetched);
    if (!inserted && fetched != nullptr) {
      // Another thread fetched it first: keep theirs and drop our reference.
      FreeOne(fetched);
    }
    return it->second;
  }
  std::map<std::string, EVP_CIPHER *> ciphers_;
  std::map<std::string, EVP_MD *> digests_;
  std::map<std::string, EVP_MAC *> macs_;

 private:
  static void FreeOne(EVP_CIPHER *c) { EVP_CIPHER_free(c); }
  static void FreeOne(EVP_MD *m) { EVP_MD_free(m); }
  static void FreeOne(EVP_MAC *m) { EVP_MAC_free(m); }

  OSSL_LIB_CTX *ctx_ = nullptr;
  OSSL_PROVIDER *default_ = nullptr;
  OSSL_PROVIDER *legacy_ = nullptr;
  std::shared_mutex mutex_;
};

Context &Ctx() {
  static Context context;  // thread-safe initialisation
  return context;
}

}  // namespace

OSSL_LIB_CTX *LibCtx() {
  return Ctx().ctx();
}
bool HasLegacy() {
  return Ctx().legacy();
}

const EVP_CIPHER *Cipher(const std::string &name) {
  return Ctx().Cached(Ctx().ciphers_, name, EVP_CIPHER_fetch);
}
const EVP_MD *Digest(const std::string &name) {
  return Ctx().Cached(Ctx().digests_, name, EVP_MD_fetch);
}
EVP_MAC *Mac(const std::string &name) {
  return Ctx().Cached(Ctx().macs_, name, EVP_MAC_fetch);
}

Result<SecretBytes> ComputeMac(const char *name, const char *param, const char *value, ByteView key,
                               std::initializer_list<ByteView> parts) {
  EVP_MAC *mac = Mac(name);
  if (mac == nullptr) return Status(Code::kNotSupported, name);
  MacCtxPtr ctx(EVP_MAC_CTX_new(mac));
  OSSL_PARAM params[2] = {OSSL_PARAM_construct_utf8_string(param, const_cast<char *>(value), 0),
                          OSSL_PARAM_construct_end()};
  if (!ctx || EVP_MAC_init(ctx.get(), key.data(), key.size(), params) != 1) {
    return Fail("EVP_MAC_init");
  }
  for (ByteView part : parts) {
    if (EVP_MAC_update(ctx.get(), part.data(), part.size()) != 1) return Fail("EVP_MAC_update");
  }
  SecretBytes out(EVP_MAX_MD_SIZE);
  size_t len = 0;
  if (EVP_MAC_final(ctx.get(), out.data(), &len, out.size()) != 1) return Fail("EVP_MAC_final");
  out.resize(len);
  return out;
}

Status Fail(const char *what) {
  std::string detail = what;
  unsigned long err;
  while ((err = ERR_get_error()) != 0) {
    char buf[256];
    ERR_error_string_n(err, buf, sizeof buf);
    detail += ": ";
    detail += buf;
  }
  return Status(Code::kInternal, detail);
}

void ClearErrors() {
  ERR_clear_error();
}

Status RandomBytes(std::span<uint8_t> out) {
  if (out.empty()) return {};
  if (RAND_bytes_ex(LibCtx(), out.data(), out.size(), 0) != 1) return Fail("RAND_bytes_ex");
  return {};
}

}  // namespace ossl
}  // namespace qlhsm::crypto
