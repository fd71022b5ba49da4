// vault.h: tokens that stand for secrets (card numbers, national ids, any text), and the sealed
// blob that gives the secret back. The vault keeps no table: the token and the blob are all.
//
// A format-preserving token keeps the secret's length and its separators (anything that is not
// a letter or a digit); with a check kind it keeps the kind's fixed parts and passes the kind's
// check, so systems that validate the number accept the token:
//   PAN    12-19 digits; first 6 and last 4 kept; one random middle digit makes the Luhn check
//          (ISO/IEC 7812-1 Annex B) pass
//   CPF    11 digits; the two mod-11 check digits recomputed
//   CNPJ   14 digits; the branch digits (9th to 12th) kept, the two check digits recomputed
//   voter  12 digits (the Brazilian voter registration number): the state digits (9th and 10th,
//          01 to 28) kept, the two mod-11 check digits recomputed by the state rules
// Without a check kind every letter and digit is replaced from the base's alphabet.
#ifndef QLHSM_CRYPTO_VAULT_H_
#define QLHSM_CRYPTO_VAULT_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "crypto/bytes.h"
#include "crypto/status.h"

namespace qlhsm::crypto::vault {

enum class CheckKind : uint8_t { kNone = 0, kCpf = 1, kCnpj = 2, kPan = 3, kVoterId = 4 };

bool LuhnValid(std::string_view digits);
bool CpfValid(std::string_view digits);
bool CnpjValid(std::string_view digits);
bool VoterIdValid(std::string_view digits);

// The alphabet of a base (10, 16, 26, 52, 62), or empty for another base.
std::string_view Alphabet(unsigned base);

// Where a token's characters come from: the generator, or (keyed) a stream of HMAC-SHA-256
// blocks under a key derived from the vault key over the secret, so that one secret gives one
// token per vault key. Characters are drawn by rejection sampling, so every one of a base's
// characters is equally likely.
class TokenSource {
 public:
  static TokenSource Random();
  static Result<TokenSource> Keyed(ByteView vault_key, ByteView secret);
  // A number below n (1 to 256).
  Result<unsigned> Below(unsigned n);

 private:
  TokenSource() = default;
  Status Refill();
  bool keyed_ = false;
  SecretBytes key_;
  SecretBytes secret_;
  uint32_t block_ = 0;
  SecretBytes buffer_;
  size_t used_ = 0;
};

// The token of a secret (type 1): kBadArgument for a check kind the secret does not fit (its
// digit count, letters, a base other than 10, a voter state outside 01-28) or an unknown base.
Result<std::string> FormatPreservingToken(std::string_view secret, CheckKind kind, unsigned base,
                                          TokenSource &source);
// The token of any secret text (type 2): 32 characters of the base.
Result<std::string> TextToken(unsigned base, TokenSource &source);

// The secret with its letters and digits masked by '*' but the last 4 (a PAN: all but the first
// 6 and the last 4).
std::string MaskSecret(std::string_view secret, CheckKind kind);

struct VaultRecord {
  uint8_t type = 1;  // 1 token, 2 secret
  uint8_t mask_type = 0;
  uint8_t checksum = 0;
  uint8_t representation = 10;
  std::string secret;  // 1 to 4096 bytes
  std::string token;
};

// The blob: version byte 1, a 12-byte nonce, AES-GCM under the vault key (16, 24 or 32 bytes)
// of the record, a 16-byte tag; version and nonce are the associated data. Opening with another
// key or a changed blob answers kBadTag.
Result<Bytes> SealVaultBlob(ByteView vault_key, const VaultRecord &record);
Result<VaultRecord> OpenVaultBlob(ByteView vault_key, ByteView blob);

}  // namespace qlhsm::crypto::vault

#endif  // QLHSM_CRYPTO_VAULT_H_
