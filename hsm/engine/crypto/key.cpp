#include "crypto/key.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/encoder.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstring>

namespace qlhsm::crypto {
namespace {

constexpr uint8_t kStoreVersion = 1;
constexpr uint8_t kFormSecret = 1;
constexpr uint8_t kFormPkcs8 = 2;
constexpr uint8_t kFormSpki = 3;

bool NeedsLegacy(AlgId alg) {
  return alg == alg::kDes || alg == alg::kDesX || alg == alg::kArc4;
}
bool IsDesFamily(AlgId alg) {
  return alg == alg::kDes || alg == alg::k3Des112 || alg == alg::k3Des168 || alg == alg::kDesX;
}

// DES keys carry odd parity in the low bit of each byte; OpenSSL ignores it, other HSMs check it.
void SetOddParity(uint8_t *p, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    uint8_t b = p[i] & 0xfe;
    int ones = __builtin_popcount(b);
    p[i] = b | ((ones % 2 == 0) ? 1 : 0);
  }
}

Result<const AlgInfo *> Lookup(AlgId alg) {
  if (alg == alg::kArc5) return Status(Code::kNotSupported, "arc5 is not available");
  const AlgInfo *info = FindKeyAlgorithm(alg);
  if (info == nullptr) return Status(Code::kBadAlgorithm, "unknown key algorithm");
  if (NeedsLegacy(alg) && !ossl::HasLegacy()) {
    return Status(Code::kNotSupported, "the legacy provider is not available");
  }
  return info;
}

Result<ossl::PkeyPtr> GenerateRsa(unsigned bits, bool exponent3) {
  ossl::PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(ossl::LibCtx(), "RSA", nullptr));
  if (!ctx || EVP_PKEY_keygen_init(ctx.get()) <= 0) return ossl::Fail("RSA keygen init");
  if (EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), static_cast<int>(bits)) <= 0) {
    return ossl::Fail("RSA key size");
  }
  if (exponent3) {
    std::unique_ptr<BIGNUM, decltype(&BN_free)> e(BN_new(), BN_free);
    if (!e || BN_set_word(e.get(), 3) != 1 ||
        EVP_PKEY_CTX_set1_rsa_keygen_pubexp(ctx.get(), e.get()) <= 0) {
      return ossl::Fail("RSA exponent");
    }
  }
  EVP_PKEY *pkey = nullptr;
  if (EVP_PKEY_generate(ctx.get(), &pkey) <= 0) return ossl::Fail("RSA keygen");
  return ossl::PkeyPtr(pkey);
}

Result<ossl::PkeyPtr> GenerateNamed(const char *type, const char *group) {
  ossl::PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(ossl::LibCtx(), type, nullptr));
  if (!ctx || EVP_PKEY_keygen_init(ctx.get()) <= 0) return ossl::Fail("keygen init");
  if (group != nullptr) {
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, const_cast<char *>(group), 0),
        OSSL_PARAM_construct_end()};
    if (EVP_PKEY_CTX_set_params(ctx.get(), params) <= 0) return ossl::Fail("curve");
  }
  EVP_PKEY *pkey = nullptr;
  if (EVP_PKEY_generate(ctx.get(), &pkey) <= 0) return ossl::Fail("keygen");
  return ossl::PkeyPtr(pkey);
}

bool SecretLengthOk(AlgId alg, size_t n) {
  const AlgInfo *info = FindKeyAlgorithm(alg);
  if (alg == alg::kArc4) return n >= 1 && n <= 256;
  if (info->kind == KeyKind::kHmac) return n >= 1 && n <= 1024;
  return n * 8 == info->bits;
}

// Checks that an imported key is of the asked algorithm and makes the Key.
Result<KeyPtr> Adopt(AlgId alg, ossl::PkeyPtr pkey, bool has_private) {
  const AlgInfo *found = AlgorithmOf(pkey.get());
  if (found == nullptr) return Status(Code::kNotSupported, "key type or size not in the table");
  if (alg != 0 && alg != found->id) {
    // The two names of one X9.62/SEC curve share one id, so a mismatch is real.
    return Status(Code::kBadArgument, "the key is not of the given algorithm");
  }
  return KeyPtr(std::make_shared<Key>(found, std::move(pkey), has_private));
}

}  // namespace

const AlgInfo *AlgorithmOf(EVP_PKEY *pkey) {
  if (pkey == nullptr) return nullptr;
  if (EVP_PKEY_is_a(pkey, "RSA")) return FindRsaAlgorithm(EVP_PKEY_get_bits(pkey));
  if (EVP_PKEY_is_a(pkey, "EC")) {
    char group[80] = {0};
    size_t len = 0;
    if (EVP_PKEY_get_utf8_string_param(pkey, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group,
                                       &len) != 1) {
      ossl::ClearErrors();
      return nullptr;  // explicit curve parameters are not accepted
    }
    return FindCurveAlgorithm(group);
  }
  if (EVP_PKEY_is_a(pkey, "ED25519")) return FindKeyAlgorithm(alg::kEd25519);
  if (EVP_PKEY_is_a(pkey, "ED448")) return FindKeyAlgorithm(alg::kEd448);
  if (EVP_PKEY_is_a(pkey, "X25519")) return FindKeyAlgorithm(alg::kX25519);
  if (EVP_PKEY_is_a(pkey, "X448")) return FindKeyAlgorithm(alg::kX448);
  return nullptr;
}

Key::Key(const AlgInfo *info, ossl::PkeyPtr pkey, bool has_private)
    : info_(info), pkey_(std::move(pkey)), has_private_(has_private) {}

Key::Key(const AlgInfo *info, SecretBytes secret) : info_(info), secret_(std::move(secret)) {}

Result<KeyPtr> Key::Generate(AlgId alg, uint32_t flags) {
  auto info = Lookup(alg);
  if (!info.ok()) return info.status();
  const AlgInfo *a = *info;
  Result<ossl::PkeyPtr> pkey = Status(Code::kInternal);
  switch (a->kind) {
    case KeyKind::kSymmetric:
    case KeyKind::kHmac: {
      SecretBytes secret(a->bits / 8);
      if (Status s = ossl::RandomBytes(secret); !s.ok()) return s;
      if (IsDesFamily(alg)) SetOddParity(secret.data(), alg == alg::kDesX ? 8 : secret.size());
      return KeyPtr(std::make_shared<Key>(a, std::move(secret)));
    }
    case KeyKind::kRsa:
      pkey = GenerateRsa(a->bits, (flags & keyflag::kRsaExponent3) != 0);
      break;
    case KeyKind::kEc:
      pkey = GenerateNamed("EC", a->ossl_name);
      break;
    case KeyKind::kEdwards:
    case KeyKind::kMontgomery:
      pkey = GenerateNamed(a->ossl_name, nullptr);
      break;
  }
  if (!pkey.ok()) return pkey.status();
  return KeyPtr(std::make_shared<Key>(a, std::move(*pkey), true));
}

Result<KeyPtr> Key::FromSecret(AlgId alg, ByteView secret) {
  auto info = Lookup(alg);
  if (!info.ok()) return info.status();
  if ((*info)->kind != KeyKind::kSymmetric && (*info)->kind != KeyKind::kHmac) {
    return Status(Code::kKeyCannotDo, "not a secret-key algorithm");
  }
  if (!SecretLengthOk(alg, secret.size())) return Status(Code::kBadLength, "key length");
  return KeyPtr(std::make_shared<Key>(*info, SecretBytes(secret.begin(), secret.end())));
}

Result<KeyPtr> Key::FromPkcs8(AlgId alg, ByteView der, bool strict) {
  const unsigned char *p = der.data();
  std::unique_ptr<PKCS8_PRIV_KEY_INFO, decltype(&PKCS8_PRIV_KEY_INFO_free)> p8(
      d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, static_cast<long>(der.size())),
      PKCS8_PRIV_KEY_INFO_free);
  if (!p8 || p != der.data() + der.size()) {
    ossl::ClearErrors();
    return Status(Code::kBadData, "not a PKCS#8 PrivateKeyInfo");
  }
  ossl::PkeyPtr pkey(EVP_PKCS82PKEY_ex(p8.get(), ossl::LibCtx(), nullptr));
  if (!pkey) {
    ossl::ClearErrors();
    return Status(Code::kBadData, "PKCS#8 key not understood");
  }
  if (strict) {
    ossl::PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(ossl::LibCtx(), pkey.get(), nullptr));
    if (!ctx || EVP_PKEY_check(ctx.get()) != 1) {
      ossl::ClearErrors();
      return Status(Code::kBadData, "key check failed");
    }
  }
  return Adopt(alg, std::move(pkey), true);
}

Result<KeyPtr> Key::FromSpki(AlgId alg, ByteView der) {
  const unsigned char *p = der.data();
  ossl::PkeyPtr pkey(
      d2i_PUBKEY_ex(nullptr, &p, static_cast<long>(der.size()), ossl::LibCtx(), nullptr));
  if (!pkey || p != der.data() + der.size()) {
    ossl::ClearErrors();
    return Status(Code::kBadData, "not a SubjectPublicKeyInfo");
  }
  return Adopt(alg, std::move(pkey), false);
}

namespace {

constexpr size_t kMaxPooled = 16;  // more than the threads that use one key at once

// A context from `pool`, or a new one made ready by `init` when the pool is empty.
ossl::PkeyCtxPtr TakeCtx(std::mutex &mu, std::vector<ossl::PkeyCtxPtr> &pool, EVP_PKEY *pkey,
                         int (*init)(EVP_PKEY_CTX *)) {
  {
    std::lock_guard lock(mu);
    if (!pool.empty()) {
      ossl::PkeyCtxPtr ctx = std::move(pool.back());
      pool.pop_back();
      return ctx;
    }
  }
  ossl::PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(ossl::LibCtx(), pkey, nullptr));
  if (ctx && init(ctx.get()) <= 0) ctx.reset();
  return ctx;
}

void GiveBackCtx(std::mutex &mu, std::vector<ossl::PkeyCtxPtr> &pool, ossl::PkeyCtxPtr ctx) {
  std::lock_guard lock(mu);
  if (ctx && pool.size() < kMaxPooled) pool.push_back(std::move(ctx));
}

}  // namespace

ossl::PkeyCtxPtr Key::TakeSignCtx() const {
  return TakeCtx(sign_pool_mutex_, sign_pool_, pkey_.get(), EVP_PKEY_sign_init);
}

void Key::GiveBackSignCtx(ossl::PkeyCtxPtr ctx) const {
  GiveBackCtx(sign_pool_mutex_, sign_pool_, std::move(ctx));
}

ossl::PkeyCtxPtr Key::TakeVerifyCtx() const {
  return TakeCtx(sign_pool_mutex_, verify_pool_, pkey_.get(), EVP_PKEY_verify_init);
}

void Key::GiveBackVerifyCtx(ossl::PkeyCtxPtr ctx) const {
  GiveBackCtx(sign_pool_mutex_, verify_pool_, std::move(ctx));
}

size_t Key::length_bytes() const {
  switch (kind()) {
    case KeyKind::kSymmetric:
    case KeyKind::kHmac:
      return secret_.size();
    case KeyKind::kRsa:
      return static_cast<size_t>(EVP_PKEY_get_size(pkey_.get()));
    default:
      return (info_->bits + 7) / 8;
  }
}

Result<Bytes> Key::SpkiDer() const {
  if (!pkey_) return Status(Code::kKeyCannotDo, "a secret key has no public half");
  unsigned char *out = nullptr;
  int len = i2d_PUBKEY(pkey_.get(), &out);
  if (len <= 0) return ossl::Fail("i2d_PUBKEY");
  Bytes der(out, out + len);
  OPENSSL_free(out);
  return der;
}

Result<SecretBytes> Key::Pkcs8Der() const {
  if (!pkey_) return Status(Code::kKeyCannotDo, "a secret key has no PKCS#8 form");
  if (!has_private_) return Status(Code::kKeyCannotDo, "a public key has no private half");
  std::unique_ptr<OSSL_ENCODER_CTX, decltype(&OSSL_ENCODER_CTX_free)> enc(
      OSSL_ENCODER_CTX_new_for_pkey(pkey_.get(), EVP_PKEY_KEYPAIR, "DER", "PrivateKeyInfo",
                                    nullptr),
      OSSL_ENCODER_CTX_free);
  unsigned char *out = nullptr;
  size_t len = 0;
  if (!enc || OSSL_ENCODER_to_data(enc.get(), &out, &len) != 1) {
    return ossl::Fail("PKCS#8 encoding");
  }
  SecretBytes der(out, out + len);
  OPENSSL_clear_free(out, len);
  return der;
}

Result<KeyPtr> Key::PublicOnly() const {
  auto spki = SpkiDer();
  if (!spki.ok()) return spki.status();
  return FromSpki(algorithm(), *spki);
}

Result<SecretBytes> Key::Serialize() const {
  SecretBytes out = {kStoreVersion, static_cast<uint8_t>(algorithm() >> 24),
                     static_cast<uint8_t>(algorithm() >> 16),
                     static_cast<uint8_t>(algorithm() >> 8), static_cast<uint8_t>(algorithm())};
  if (is_secret()) {
    out.push_back(kFormSecret);
    out.insert(out.end(), secret_.begin(), secret_.end());
  } else if (has_private_) {
    auto der = Pkcs8Der();
    if (!der.ok()) return der.status();
    out.push_back(kFormPkcs8);
    out.insert(out.end(), der->begin(), der->end());
  } else {
    auto der = SpkiDer();
    if (!der.ok()) return der.status();
    out.push_back(kFormSpki);
    out.insert(out.end(), der->begin(), der->end());
  }
  return out;
}

Result<KeyPtr> Key::Parse(ByteView stored) {
  if (stored.size() < 7 || stored[0] != kStoreVersion) {
    return Status(Code::kBadData, "not a stored key");
  }
  AlgId alg = (AlgId{stored[1]} << 24) | (AlgId{stored[2]} << 16) | (AlgId{stored[3]} << 8) |
              AlgId{stored[4]};
  ByteView body = stored.subspan(6);
  Result<KeyPtr> key = Status(Code::kBadData, "unknown stored form");
  switch (stored[5]) {
    case kFormSecret:
      key = FromSecret(alg, body);
      break;
    case kFormPkcs8:
      key = FromPkcs8(alg, body, false);
      break;
    case kFormSpki:
      key = FromSpki(alg, body);
      break;
    default:
      break;
  }
  if (!key.ok() && key.code() != Code::kNotSupported) {
    return Status(Code::kBadData, "stored key: " + key.status().detail());
  }
  return key;
}

Result<SecretBytes> RandomBytes(size_t n) {
  constexpr size_t kMaxRandom = 1 << 20;
  if (n > kMaxRandom) return Status(Code::kBadLength, "at most 1 MiB of random bytes at once");
  SecretBytes out(n);
  if (Status s = ossl::RandomBytes(out); !s.ok()) return s;
  return out;
}

Result<SecretBytes> GenerateKeyMaterial(AlgId alg, uint32_t flags) {
  auto key = Key::Generate(alg, flags);
  if (!key.ok()) return key.status();
  if ((*key)->is_secret()) return SecretBytes((*key)->secret().begin(), (*key)->secret().end());
  return (*key)->Pkcs8Der();
}

}  // namespace qlhsm::crypto
