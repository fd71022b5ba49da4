#include "engine/secure/secure.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <memory>
#include <sstream>

namespace qlhsm::secure {
namespace {

struct CipherCtxDeleter {
  void operator()(EVP_CIPHER_CTX *c) const { EVP_CIPHER_CTX_free(c); }
};
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxDeleter>;
struct KdfDeleter {
  void operator()(EVP_KDF *k) const { EVP_KDF_free(k); }
};
struct KdfCtxDeleter {
  void operator()(EVP_KDF_CTX *k) const { EVP_KDF_CTX_free(k); }
};

}  // namespace

Status CryptoOutcome(bool ok, std::string_view op) {
  if (ok) return Status::Ok();
  return Status::Error(Code::kInternal, "crypto failure in " + std::string(op));
}

Result<Bytes> RandomBytes(size_t n) {
  Bytes out(n);
  QL_RETURN_IF_ERROR(
      CryptoOutcome(n == 0 || RAND_bytes(out.data(), static_cast<int>(n)) == 1, "random"));
  return out;
}

Result<Bytes> Seal(const Bytes &key, const Bytes &plaintext, std::string_view aad) {
  if (key.size() != kKeyLen) return Status::Error(Code::kInternal, "seal key length");
  Result<Bytes> nonce = RandomBytes(kNonceLen);
  if (!nonce.ok()) return nonce.status();
  CipherCtx ctx(EVP_CIPHER_CTX_new());
  Bytes out(kNonceLen + plaintext.size() + kTagLen);
  std::copy(nonce->begin(), nonce->end(), out.begin());
  int len = 0, fin = 0;
  bool ok = ctx && EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, key.data(),
                                      nonce->data()) == 1;
  ok = ok &&
       EVP_EncryptUpdate(ctx.get(), nullptr, &len, reinterpret_cast<const uint8_t *>(aad.data()),
                         static_cast<int>(aad.size())) == 1;
  ok = ok && EVP_EncryptUpdate(ctx.get(), out.data() + kNonceLen, &len, plaintext.data(),
                               static_cast<int>(plaintext.size())) == 1;
  ok = ok && EVP_EncryptFinal_ex(ctx.get(), out.data() + kNonceLen + len, &fin) == 1;
  ok = ok && EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, kTagLen,
                                 out.data() + kNonceLen + plaintext.size()) == 1;
  QL_RETURN_IF_ERROR(CryptoOutcome(ok, "seal"));
  return out;
}

Result<Bytes> Open(const Bytes &key, const Bytes &sealed, std::string_view aad) {
  if (key.size() != kKeyLen || sealed.size() < kNonceLen + kTagLen)
    return Status::Error(Code::kInternal, "sealed data malformed");
  size_t ct_len = sealed.size() - kNonceLen - kTagLen;
  CipherCtx ctx(EVP_CIPHER_CTX_new());
  Bytes out(ct_len);
  int len = 0, fin = 0;
  Bytes tag(sealed.end() - kTagLen, sealed.end());
  bool ok = ctx && EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, key.data(),
                                      sealed.data()) == 1;
  ok = ok &&
       EVP_DecryptUpdate(ctx.get(), nullptr, &len, reinterpret_cast<const uint8_t *>(aad.data()),
                         static_cast<int>(aad.size())) == 1;
  ok = ok && EVP_DecryptUpdate(ctx.get(), out.data(), &len, sealed.data() + kNonceLen,
                               static_cast<int>(ct_len)) == 1;
  ok = ok && EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, kTagLen, tag.data()) == 1;
  ok = ok && EVP_DecryptFinal_ex(ctx.get(), out.data() + len, &fin) == 1;
  QL_RETURN_IF_ERROR(CryptoOutcome(ok, "open"));
  return out;
}

void AppendKdfParams(Bytes &out, const KdfParams &params) {
  for (uint64_t v : {params.n, uint64_t{params.r}, uint64_t{params.p}}) {
    for (int i = 7; i >= 0; --i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
}

std::optional<KdfParams> ReadKdfParams(const uint8_t *in) {
  uint64_t v[3] = {};
  for (int k = 0; k < 3; ++k) {
    for (int i = 0; i < 8; ++i) v[k] = v[k] << 8 | in[8 * k + i];
  }
  const auto [n, r, p] = v;
  if (n < 2 || n > (1u << 22) || (n & (n - 1)) != 0 || r == 0 || r > 32 || p == 0 || p > 16)
    return std::nullopt;
  return KdfParams{n, static_cast<uint32_t>(r), static_cast<uint32_t>(p)};
}

Result<Bytes> Scrypt(std::string_view password, const Bytes &salt, const KdfParams &params) {
  std::unique_ptr<EVP_KDF, KdfDeleter> kdf(EVP_KDF_fetch(nullptr, "SCRYPT", nullptr));
  std::unique_ptr<EVP_KDF_CTX, KdfCtxDeleter> ctx(kdf ? EVP_KDF_CTX_new(kdf.get()) : nullptr);
  Bytes out(kKeyLen);
  uint64_t n = params.n;
  uint32_t r = params.r, p = params.p;
  OSSL_PARAM ps[] = {
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_PASSWORD,
                                        const_cast<char *>(password.data()), password.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, const_cast<uint8_t *>(salt.data()),
                                        salt.size()),
      OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_SCRYPT_N, &n),
      OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_R, &r),
      OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_P, &p),
      OSSL_PARAM_construct_end()};
  bool ok = ctx && EVP_KDF_derive(ctx.get(), out.data(), out.size(), ps) == 1;
  QL_RETURN_IF_ERROR(CryptoOutcome(ok, "scrypt"));
  return out;
}

Result<std::string> HashPassword(std::string_view password, const KdfParams &params) {
  Result<Bytes> salt = RandomBytes(kSaltLen);
  if (!salt.ok()) return salt.status();
  Result<Bytes> hash = Scrypt(password, *salt, params);
  if (!hash.ok()) return hash.status();
  std::ostringstream os;
  os << "scrypt$" << params.n << '$' << params.r << '$' << params.p << '$' << Hex(*salt) << '$'
     << Hex(*hash);
  return os.str();
}

Result<bool> VerifyPassword(std::string_view password, const std::string &stored) {
  std::vector<std::string> parts;
  std::stringstream ss(stored);
  for (std::string part; std::getline(ss, part, '$');) parts.push_back(part);
  KdfParams params;
  Bytes salt, expected;
  try {
    if (parts.size() != 6 || parts[0] != "scrypt") throw std::invalid_argument("format");
    params.n = std::stoull(parts[1]);
    params.r = static_cast<uint32_t>(std::stoul(parts[2]));
    params.p = static_cast<uint32_t>(std::stoul(parts[3]));
  } catch (const std::exception &) {
    return Status::Error(Code::kInternal, "stored password hash malformed");
  }
  if (!FromHex(parts[4], &salt) || !FromHex(parts[5], &expected))
    return Status::Error(Code::kInternal, "stored password hash malformed");
  Result<Bytes> hash = Scrypt(password, salt, params);
  if (!hash.ok()) return hash.status();
  return Equal(*hash, expected);
}

struct HmacSha256Key::State {
  explicit State(EVP_MAC_CTX *ctx) : keyed(ctx) {}
  ~State() { EVP_MAC_CTX_free(keyed); }
  State(const State &) = delete;
  State &operator=(const State &) = delete;
  EVP_MAC_CTX *keyed;
};

HmacSha256Key::HmacSha256Key(const Bytes &key) {
  EVP_MAC *mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
  EVP_MAC_CTX *ctx = mac ? EVP_MAC_CTX_new(mac) : nullptr;
  EVP_MAC_free(mac);  // the context holds its own reference
  char digest[] = "SHA256";
  const OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                               OSSL_PARAM_construct_end()};
  if (ctx == nullptr || EVP_MAC_init(ctx, key.data(), key.size(), params) != 1) {
    EVP_MAC_CTX_free(ctx);
    ERR_clear_error();
    return;
  }
  state_ = std::make_unique<State>(ctx);
}

HmacSha256Key::~HmacSha256Key() = default;

Bytes HmacSha256Key::Mac(std::string_view data) const {
  if (!state_) return {};
  std::unique_ptr<EVP_MAC_CTX, decltype(&EVP_MAC_CTX_free)> ctx(EVP_MAC_CTX_dup(state_->keyed),
                                                                EVP_MAC_CTX_free);
  Bytes out(SHA256_DIGEST_LENGTH);
  size_t len = 0;
  if (!ctx ||
      EVP_MAC_update(ctx.get(), reinterpret_cast<const uint8_t *>(data.data()), data.size()) != 1 ||
      EVP_MAC_final(ctx.get(), out.data(), &len, out.size()) != 1 || len != out.size()) {
    ERR_clear_error();
    return {};
  }
  return out;
}

Bytes Sha256(const Bytes &data) {
  Bytes out(SHA256_DIGEST_LENGTH);
  SHA256(data.data(), data.size(), out.data());
  return out;
}

bool Equal(const Bytes &a, const Bytes &b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string Hex(const Bytes &b) {
  static const char kDigits[] = "0123456789abcdef";
  std::string s;
  s.reserve(b.size() * 2);
  for (uint8_t c : b) {
    s.push_back(kDigits[c >> 4]);
    s.push_back(kDigits[c & 15]);
  }
  return s;
}

bool FromHex(std::string_view hex, Bytes *out) {
  if (hex.size() % 2) return false;
  auto nib = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  out->clear();
  for (size_t i = 0; i < hex.size(); i += 2) {
    int hi = nib(hex[i]), lo = nib(hex[i + 1]);
    if (hi < 0 || lo < 0) return false;
    out->push_back(static_cast<uint8_t>(hi << 4 | lo));
  }
  return true;
}

}  // namespace qlhsm::secure
