// hash.h: digests, HMAC and CMAC.
#ifndef QLHSM_CRYPTO_HASH_H_
#define QLHSM_CRYPTO_HASH_H_

#include "crypto/algorithms.h"
#include "crypto/bytes.h"
#include "crypto/key.h"
#include "crypto/status.h"

namespace qlhsm::crypto {

// One running hash: a plain digest (1..11), an HMAC (92..101, any secret key), a CMAC (250 with an
// AES key, 251 with a DES or 3DES key), or the identity function (255: the value is the data
// itself, for EdDSA, which signs the message).
//
// Reading the value never consumes the state: Value() may be called, the value signed, and more
// data added afterwards, any number of times.
//
// SetValue() installs a value computed elsewhere and restarts the running state; Value() answers
// the installed value until the next Update(), which drops it: from then on the value is the hash
// of the data fed after SetValue(). So "set, then hash data" does real hashing and ends with the
// hash of that data.
//
// Not thread-safe: one HashState per user at a time (the engine's hash handle).
class HashState {
 public:
  // kBadAlgorithm for an unknown id; kKeyCannotDo when an HMAC or CMAC has no suitable key or a
  // plain digest is given one.
  static Result<HashState> Create(AlgId alg, KeyPtr key = nullptr);

  HashState(HashState &&) = default;
  HashState &operator=(HashState &&) = default;

  Status Update(ByteView data);
  Result<Bytes> Value() const;
  // kBadLength when the length is not the algorithm's (any length for idfunc).
  Status SetValue(ByteView value);

  AlgId algorithm() const { return alg_; }
  // The value's length (0 for idfunc until data arrives: then the data's length).
  size_t size() const;

 private:
  HashState() = default;
  AlgId alg_ = 0;
  KeyPtr key_;
  ossl::MdCtxPtr md_;
  ossl::MacCtxPtr mac_;
  SecretBytes data_;  // idfunc's message
  std::optional<Bytes> set_value_;
};

// One-shot helpers.
Result<Bytes> Digest(AlgId alg, ByteView data);
Result<Bytes> Mac(AlgId alg, const KeyPtr &key, ByteView data);
// HKDF with SHA-256 (extract, then expand to `out_len` bytes, at most 8160).
Result<SecretBytes> HkdfSha256(ByteView ikm, ByteView salt, ByteView info, size_t out_len);

}  // namespace qlhsm::crypto

#endif  // QLHSM_CRYPTO_HASH_H_
