#include "crypto/blob.h"

#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include "crypto/cipher.h"

namespace qlhsm::crypto {
namespace {

constexpr int kPbkdf2Iterations = 2048;

bool IsAesKey(const KeyPtr &k) {
  return k && (k->algorithm() == alg::kAes128 || k->algorithm() == alg::kAes192 ||
               k->algorithm() == alg::kAes256);
}

Status NeedAesKek(const KeyPtr &kek) {
  if (!kek) return Status(Code::kBadArgument, "this blob type needs a key-encryption key");
  if (!IsAesKey(kek)) return Status(Code::kKeyCannotDo, "the key-encryption key must be AES");
  return {};
}

Status NeedRsaKek(const KeyPtr &kek) {
  if (!kek) return Status(Code::kBadArgument, "a simple blob needs an RSA key");
  if (kek->kind() != KeyKind::kRsa) return Status(Code::kKeyCannotDo, "simple blobs need RSA");
  return {};
}

Result<SecretBytes> FromBytes(Result<Bytes> r) {
  if (!r.ok()) return r.status();
  return SecretBytes(r->begin(), r->end());
}

// A key from unwrapped material: PKCS#8 for asymmetric algorithms (or when none is named).
Result<KeyPtr> FromMaterial(AlgId alg, ByteView material) {
  const AlgInfo *info = FindKeyAlgorithm(alg);
  if (alg == 0 ||
      (info != nullptr && info->kind != KeyKind::kSymmetric && info->kind != KeyKind::kHmac)) {
    return Key::FromPkcs8(alg, material, false);
  }
  return Key::FromSecret(alg, material);
}

Result<KeyPtr> MaybePublic(Result<KeyPtr> key, bool want_public) {
  if (!key.ok() || !want_public || !(*key)->has_private()) return key;
  return (*key)->PublicOnly();
}

}  // namespace

Result<SecretBytes> ExportKey(const KeyPtr &key, const KeyPtr &kek, uint32_t type) {
  if (!key) return Status(Code::kBadArgument, "no key");
  switch (type) {
    case blob::kPrivateKey:
    case blob::kPrivateKeyStrict: {
      if (key->is_secret()) return Status(Code::kKeyCannotDo, "a secret key has no PKCS#8 form");
      if (!key->has_private()) {
        if (type == blob::kPrivateKeyStrict) {
          return Status(Code::kKeyCannotDo, "a public key has no private blob");
        }
        return FromBytes(key->SpkiDer());
      }
      auto der = key->Pkcs8Der();
      if (!der.ok() || !kek) return der;
      if (Status s = NeedAesKek(kek); !s.ok()) return s;
      return FromBytes(KeyWrap(kek, true, *der));
    }
    case blob::kPublicKey:
    case blob::kPublicKeyHsm:
      return FromBytes(key->SpkiDer());
    case blob::kPlaintextKey:
      if (!key->is_secret()) return Status(Code::kKeyCannotDo, "only secret keys are plaintext");
      return SecretBytes(key->secret().begin(), key->secret().end());
    case blob::kSimple:
    case blob::kSimpleOaep:
      if (!key->is_secret()) return Status(Code::kKeyCannotDo, "simple blobs carry secret keys");
      if (Status s = NeedRsaKek(kek); !s.ok()) return s;
      return FromBytes(RsaEncrypt(
          *kek, type == blob::kSimple ? RsaPadding::kPkcs1 : RsaPadding::kOaep, key->secret()));
    case blob::kSymWrappedKey: {
      if (!key->is_secret()) return Status(Code::kKeyCannotDo, "only secret keys are wrapped here");
      if (Status s = NeedAesKek(kek); !s.ok()) return s;
      size_t n = key->secret().size();
      return FromBytes(KeyWrap(kek, n % 8 != 0 || n < 16, key->secret()));
    }
    case blob::kWrappedKey: {
      if (Status s = NeedAesKek(kek); !s.ok()) return s;
      if (key->is_secret()) return FromBytes(KeyWrap(kek, true, key->secret()));
      auto der = key->Pkcs8Der();
      if (!der.ok()) return der;
      return FromBytes(KeyWrap(kek, true, *der));
    }
    default:
      return Status(Code::kBadAlgorithm, "unknown blob type");
  }
}

Result<KeyPtr> ImportKey(ByteView blob, uint32_t type, AlgId alg_with_bits, const KeyPtr &kek) {
  bool want_public = (alg_with_bits & alg::kPublicKeyObjectBit) != 0;
  AlgId alg = alg_with_bits & ~alg::kPublicKeyObjectBit;
  if (blob.empty()) return Status(Code::kBadLength, "empty blob");
  switch (type) {
    case blob::kPrivateKey:
    case blob::kPrivateKeyStrict: {
      SecretBytes der(blob.begin(), blob.end());
      if (kek) {
        if (Status s = NeedAesKek(kek); !s.ok()) return s;
        auto plain = KeyUnwrap(kek, true, blob);
        if (!plain.ok()) return plain.status();
        der = std::move(*plain);
      }
      auto key = Key::FromPkcs8(alg, der, type == blob::kPrivateKeyStrict);
      if (!key.ok() && key.code() == Code::kBadData && type == blob::kPrivateKey) {
        auto pub = Key::FromSpki(alg, der);
        if (pub.ok()) return pub;
      }
      return MaybePublic(std::move(key), want_public);
    }
    case blob::kPublicKey:
    case blob::kPublicKeyHsm:
      return Key::FromSpki(alg, blob);
    case blob::kPlaintextKey:
      return Key::FromSecret(alg, blob);
    case blob::kSimple:
    case blob::kSimpleOaep: {
      if (Status s = NeedRsaKek(kek); !s.ok()) return s;
      auto secret =
          RsaDecrypt(*kek, type == blob::kSimple ? RsaPadding::kPkcs1 : RsaPadding::kOaep, blob);
      if (!secret.ok()) return secret.status();
      return Key::FromSecret(alg, *secret);
    }
    case blob::kSymWrappedKey: {
      if (Status s = NeedAesKek(kek); !s.ok()) return s;
      // RFC 3394 and 5649 use different integrity values, so trying KW first cannot mistake a
      // KWP blob for a KW one.
      auto secret =
          blob.size() >= 24 ? KeyUnwrap(kek, false, blob) : Result<SecretBytes>(Code::kBadTag);
      if (!secret.ok() && secret.code() == Code::kBadTag) secret = KeyUnwrap(kek, true, blob);
      if (!secret.ok()) return secret.status();
      return Key::FromSecret(alg, *secret);
    }
    case blob::kWrappedKey: {
      if (Status s = NeedAesKek(kek); !s.ok()) return s;
      auto material = KeyUnwrap(kek, true, blob);
      if (!material.ok()) return material.status();
      return MaybePublic(FromMaterial(alg, *material), want_public);
    }
    default:
      return Status(Code::kBadAlgorithm, "unknown blob type");
  }
}

Result<Bytes> ExportPkcs8Encrypted(const Key &key, std::string_view password) {
  auto der = key.Pkcs8Der();
  if (!der.ok()) return der.status();
  const unsigned char *p = der->data();
  std::unique_ptr<PKCS8_PRIV_KEY_INFO, decltype(&PKCS8_PRIV_KEY_INFO_free)> p8(
      d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, static_cast<long>(der->size())),
      PKCS8_PRIV_KEY_INFO_free);
  const EVP_CIPHER *cipher = ossl::Cipher("AES-256-CBC");
  if (!p8 || cipher == nullptr) return ossl::Fail("PKCS#8 for encryption");
  // PBES2 with the PRF given as HMAC-SHA-256 (nid), not OpenSSL 3.0's older default.
  std::unique_ptr<X509_ALGOR, decltype(&X509_ALGOR_free)> pbe(
      PKCS5_pbe2_set_iv_ex(cipher, kPbkdf2Iterations, nullptr, 16, nullptr, NID_hmacWithSHA256,
                           ossl::LibCtx()),
      X509_ALGOR_free);
  if (!pbe) return ossl::Fail("PBES2 parameters");
  std::unique_ptr<X509_SIG, decltype(&X509_SIG_free)> sig(
      PKCS8_set0_pbe_ex(password.data(), static_cast<int>(password.size()), p8.get(), pbe.get(),
                        ossl::LibCtx(), nullptr),
      X509_SIG_free);
  if (!sig) return ossl::Fail("PKCS#8 encryption");
  pbe.release();  // now owned by sig
  unsigned char *out = nullptr;
  int len = i2d_X509_SIG(sig.get(), &out);
  if (len <= 0) return ossl::Fail("i2d_X509_SIG");
  Bytes result(out, out + len);
  OPENSSL_free(out);
  return result;
}

Result<KeyPtr> ImportPkcs8Encrypted(ByteView der, std::string_view password, AlgId alg) {
  const unsigned char *p = der.data();
  std::unique_ptr<X509_SIG, decltype(&X509_SIG_free)> sig(
      d2i_X509_SIG(nullptr, &p, static_cast<long>(der.size())), X509_SIG_free);
  if (!sig || p != der.data() + der.size()) {
    ossl::ClearErrors();
    return Status(Code::kBadData, "not an EncryptedPrivateKeyInfo");
  }
  std::unique_ptr<PKCS8_PRIV_KEY_INFO, decltype(&PKCS8_PRIV_KEY_INFO_free)> p8(
      PKCS8_decrypt_ex(sig.get(), password.data(), static_cast<int>(password.size()),
                       ossl::LibCtx(), nullptr),
      PKCS8_PRIV_KEY_INFO_free);
  if (!p8) {
    ossl::ClearErrors();
    return Status(Code::kBadData, "wrong password or damaged blob");
  }
  unsigned char *plain = nullptr;
  int len = i2d_PKCS8_PRIV_KEY_INFO(p8.get(), &plain);
  if (len <= 0) return ossl::Fail("i2d_PKCS8_PRIV_KEY_INFO");
  SecretBytes bytes(plain, plain + len);
  OPENSSL_clear_free(plain, static_cast<size_t>(len));
  return Key::FromPkcs8(alg, bytes, false);
}

}  // namespace qlhsm::crypto
