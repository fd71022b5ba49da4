// key.h: a key of the HSM, ready for use.
//
// A Key is immutable once made: generated, parsed from its storage bytes, or imported. Its
// OpenSSL form (an EVP_PKEY, or the raw secret of a symmetric key) is built once, so no operation
// parses it again. Keys are shared as std::shared_ptr<const Key>; any number of threads may sign,
// verify, encrypt and export with the same Key at once (each operation has an OpenSSL context
// of its own, taken from the key's pools for signing and verifying).
#ifndef QLHSM_CRYPTO_KEY_H_
#define QLHSM_CRYPTO_KEY_H_

#include <memory>
#include <mutex>
#include <vector>

#include "crypto/algorithms.h"
#include "crypto/bytes.h"
#include "crypto/ossl.h"
#include "crypto/status.h"

namespace qlhsm::crypto {

class Key;
using KeyPtr = std::shared_ptr<const Key>;

class Key {
 public:
  // A new key of `alg`. flags: keyflag::kRsaExponent3 (RSA public exponent 3 instead of 65537);
  // other bits are the engine's and ignored here.
  // Refusals: kBadAlgorithm (unknown id), kNotSupported (arc5; DES, DESX, RC4 without the legacy
  // provider).
  static Result<KeyPtr> Generate(AlgId alg, uint32_t flags = 0);

  // A symmetric or HMAC key from its raw bytes. Lengths: DES 8, 3DES 16 or 24 as named, DESX 24,
  // AES 16/24/32 as named, RC4 1..256, HMAC 1..1024 (kBadLength otherwise).
  static Result<KeyPtr> FromSecret(AlgId alg, ByteView secret);

  // An asymmetric private key from a PKCS#8 PrivateKeyInfo (DER). `alg` 0 takes the algorithm from
  // the key itself; otherwise the key must be of that algorithm (RSA size, curve), else
  // kBadArgument. `strict` also runs OpenSSL's key-pair check (kBadData when it fails).
  static Result<KeyPtr> FromPkcs8(AlgId alg, ByteView der, bool strict);
  // A public key from a SubjectPublicKeyInfo (DER); `alg` as for FromPkcs8.
  static Result<KeyPtr> FromSpki(AlgId alg, ByteView der);

  // The storage encoding, for the engine to encrypt at rest:
  //   byte 0      format version, 1
  //   bytes 1..4  the algorithm id, big-endian
  //   byte 5      form: 1 raw secret, 2 PKCS#8 PrivateKeyInfo DER, 3 SubjectPublicKeyInfo DER
  //   bytes 6..   the key in that form
  Result<SecretBytes> Serialize() const;
  // The inverse of Serialize (kBadData for anything else).
  static Result<KeyPtr> Parse(ByteView stored);

  AlgId algorithm() const { return info_->id; }
  const AlgInfo &info() const { return *info_; }
  KeyKind kind() const { return info_->kind; }
  bool is_secret() const { return kind() == KeyKind::kSymmetric || kind() == KeyKind::kHmac; }
  bool is_asymmetric() const { return !is_secret(); }
  // False for a public-key object.
  bool has_private() const { return has_private_; }
  // The key length in bytes, as the key-length parameter reports it: the RSA modulus, the
  // symmetric key, the curve's field (EC), the raw key (Edwards and Montgomery).
  size_t length_bytes() const;
  // The asymmetric key; null for a secret key.
  EVP_PKEY *pkey() const { return pkey_.get(); }
  // The raw secret; empty for an asymmetric key.
  ByteView secret() const { return {secret_.data(), secret_.size()}; }

  // The public half as SubjectPublicKeyInfo DER (kKeyCannotDo for a secret key).
  Result<Bytes> SpkiDer() const;
  // The private key as PKCS#8 PrivateKeyInfo DER (kKeyCannotDo for secret and public-only keys).
  Result<SecretBytes> Pkcs8Der() const;
  // A public-key object of the same algorithm.
  Result<KeyPtr> PublicOnly() const;

  // Signing contexts of this key, kept between calls because making one costs as much as a small
  // signature: TakeSignCtx hands one out (initialised for signing; a new one when none is free),
  // GiveBackSignCtx returns it. Thread-safe.
  ossl::PkeyCtxPtr TakeSignCtx() const;
  void GiveBackSignCtx(ossl::PkeyCtxPtr ctx) const;
  // The same for verification contexts (initialised for verifying).
  ossl::PkeyCtxPtr TakeVerifyCtx() const;
  void GiveBackVerifyCtx(ossl::PkeyCtxPtr ctx) const;

  Key(const AlgInfo *info, ossl::PkeyPtr pkey, bool has_private);
  Key(const AlgInfo *info, SecretBytes secret);

 private:
  const AlgInfo *info_;
  ossl::PkeyPtr pkey_;
  SecretBytes secret_;
  bool has_private_ = true;
  mutable std::mutex sign_pool_mutex_;  // guards both pools
  mutable std::vector<ossl::PkeyCtxPtr> sign_pool_;
  mutable std::vector<ossl::PkeyCtxPtr> verify_pool_;
};

// Random bytes from the HSM's generator. kBadLength for more than 1 MiB at once.
Result<SecretBytes> RandomBytes(size_t n);

// Key material of `alg` that is handed out rather than kept: the raw secret of a symmetric or HMAC
// key (DES keys with odd parity), the PKCS#8 PrivateKeyInfo DER of an asymmetric one. Refusals as
// Key::Generate's.
Result<SecretBytes> GenerateKeyMaterial(AlgId alg, uint32_t flags = 0);

// The algorithm of an OpenSSL key by its type and size or curve; null when not in the table.
const AlgInfo *AlgorithmOf(EVP_PKEY *pkey);

}  // namespace qlhsm::crypto

#endif  // QLHSM_CRYPTO_KEY_H_
