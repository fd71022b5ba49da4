// derive.h: key agreement (ECDH on the named curves, X25519, X448).
#ifndef QLHSM_CRYPTO_DERIVE_H_
#define QLHSM_CRYPTO_DERIVE_H_

#include "crypto/bytes.h"
#include "crypto/key.h"
#include "crypto/status.h"

namespace qlhsm::crypto {

// The key-derivation choices (the ql_gen_key_* words).
enum class Kdf {
  kRawSecret = 1,   // the shared secret itself (the x coordinate for ECDH)
  kX963Sha256 = 2,  // ANSI X9.63 KDF with SHA-256 over the secret and `shared_info`
};

// Agrees a secret between `own` (a private key) and `peer` (a key of the same algorithm, public or
// not). `out_len` is the output length for kX963Sha256 (1..1024) and ignored for kRawSecret.
// Refusals: kKeyCannotDo (not an agreement key, no private half, different algorithms),
// kBadLength (out_len), kBadAlgorithm (unknown kdf).
Result<SecretBytes> Derive(const Key &own, const Key &peer, Kdf kdf, size_t out_len,
                           ByteView shared_info = {});

}  // namespace qlhsm::crypto

#endif  // QLHSM_CRYPTO_DERIVE_H_
