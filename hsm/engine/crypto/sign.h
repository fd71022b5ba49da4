// sign.h: signatures and the RSA padding helpers.
//
// RSA signatures are PKCS#1 v1.5. The standard form, which OpenSSL and every verifier expect,
// encodes the digest in a DigestInfo (its algorithm's OID) inside a type-1 block. The legacy form
// is the type-1 block over the bare value, with no DigestInfo: the HSM uses it for hash
// algorithms that have no DigestInfo (HMAC and CMAC values, idfunc) so that such values can still
// be signed, as older clients expect. kSignNoLegacy refuses the legacy form (kNotSupported), so a
// caller that asks for it gets only signatures any verifier can check.
//
// ECDSA signatures are DER (SEQUENCE of r and s); the digest is truncated to the curve's order
// as usual. EdDSA (Ed25519, Ed448) signs the message itself: the hash must be idfunc (255) and the
// "digest" is the message; a digest of another algorithm answers kNotSupported (no pre-hashed
// EdDSA).
//
// All functions are thread-safe for any number of callers on the same Key.
#ifndef QLHSM_CRYPTO_SIGN_H_
#define QLHSM_CRYPTO_SIGN_H_

#include "crypto/algorithms.h"
#include "crypto/bytes.h"
#include "crypto/key.h"
#include "crypto/status.h"

namespace qlhsm::crypto {

// Sign flags.
inline constexpr uint32_t kSignNoLegacy = 2;

// The longest signature `key` makes: the length a caller must provide (the 1005 size query).
// kKeyCannotDo for keys that cannot sign.
Result<size_t> SignatureSize(const Key &key);

// Signs `digest`, a value of `hash_alg` (its length must be the algorithm's: kBadLength).
// Refusals: kKeyCannotDo (secret, X25519/X448 or public-only key), kBadAlgorithm (unknown hash),
// kDigestTooLarge (RSA: DigestInfo and digest do not fit the modulus, e.g. RSA-512 with SHA-512),
// kNotSupported (legacy form refused, pre-hashed EdDSA).
Result<Bytes> Sign(const Key &key, AlgId hash_alg, ByteView digest, uint32_t flags = 0);

// Checks a signature made by Sign (or anywhere else in the same form). kBadSignature when it does
// not verify; the other refusals as Sign's.
Status Verify(const Key &key, AlgId hash_alg, ByteView digest, ByteView signature,
              uint32_t flags = 0);

// Raw RSA private operation on one block of exactly the modulus' length (already padded by the
// caller, as batch signing sends them). kBadLength for a wrong length, kBadData for a block
// not below the modulus.
Result<Bytes> RsaRawSign(const Key &key, ByteView block);

// Batch signing: `blocks` holds whole blocks of the modulus' length, each already padded; each is
// replaced by its raw RSA signature, in place. kBadLength when the length is not a non-zero
// multiple of the modulus' length; on a refusal the blocks before the failing one are signed and
// the rest untouched.
Status RsaRawSignBatch(const Key &key, std::span<uint8_t> blocks);

// The PKCS#1 v1.5 type-1 block (00 01 FF.. 00 T) of `key_len` bytes over `digest`, T being the
// DigestInfo of `digest_id` (digest_id:: values) followed by the digest, or the bare digest for
// digest_id 0. kBadLength for a digest of the wrong length for its id, kBadAlgorithm for an
// unknown id, kDigestTooLarge when T does not fit (key_len < len(T) + 11).
Result<Bytes> DoRSAPadding(ByteView digest, size_t key_len, int digest_id);

// The DigestInfo prefix (DER up to the digest's OCTET STRING header) of a plain digest algorithm;
// empty for others.
ByteView DigestInfoPrefix(AlgId hash_alg);

}  // namespace qlhsm::crypto

#endif  // QLHSM_CRYPTO_SIGN_H_
