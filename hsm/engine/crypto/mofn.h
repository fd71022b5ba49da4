// mofn.h: M-of-N secret sharing (Shamir's scheme over GF(2^8) with the AES polynomial
// x^8 + x^4 + x^3 + x + 1).
//
// A part of a secret of L bytes is L + 22 bytes:
//   version (1) | M | N | x | set id (4 random bytes) | L (2 bytes, big-endian)
//   | the share of secret || SHA-256(secret)[0..8) (L + 8 bytes) | CRC-32 of all before it (4,
//   big-endian; the CRC of zlib and PNG)
// The eight check bytes make a wrong recovery impossible to miss: recovery gives the secret or a
// refusal, never another secret. Field arithmetic takes the same time whatever the values.
#ifndef QLHSM_CRYPTO_MOFN_H_
#define QLHSM_CRYPTO_MOFN_H_

#include <cstdint>
#include <vector>

#include "crypto/bytes.h"
#include "crypto/status.h"

namespace qlhsm::crypto::mofn {

constexpr uint8_t kPartVersion = 1;
constexpr size_t kPartOverhead = 22;

// Multiplication and inversion in GF(2^8) (the inverse of 0 is 0).
uint8_t GfMul(uint8_t a, uint8_t b);
uint8_t GfInv(uint8_t a);

// The CRC-32 of the parts (reflected polynomial 0xEDB88320).
uint32_t Crc32(ByteView data);

// N parts of which any M recover the secret. kBadLength unless 2 <= M <= N <= 255 and the
// secret is 1 to 4096 bytes. `version` is written as the first byte (1 for plain parts; other
// users of the format pick their own).
Result<std::vector<Bytes>> Split(ByteView secret, unsigned m, unsigned n,
                                 uint8_t version = kPartVersion);

enum class ShareProblem : uint8_t {
  kNone,
  kCorrupt,   // a part whose CRC or layout is wrong
  kMismatch,  // parts of different sets, a repeated x, a part off the polynomial, a bad check
  kTooFew,    // fewer parts than M
};

struct Recovered {
  ShareProblem problem = ShareProblem::kNone;
  SecretBytes secret;  // empty unless problem is kNone
};

// The secret from M or more parts (all of them checked). A refusal is a problem, never an
// error; the Result fails only when the generator or a digest fails.
Result<Recovered> Recover(const std::vector<Bytes> &parts, uint8_t version = kPartVersion);

}  // namespace qlhsm::crypto::mofn

#endif  // QLHSM_CRYPTO_MOFN_H_
