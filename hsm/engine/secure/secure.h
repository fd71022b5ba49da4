// The engine's own cryptographic needs for keeping secrets at rest: random bytes, AES-256-GCM
// sealing under the master key, slow password hashes, HMAC and SHA-256. The crypto services that
// clients call (keys, signatures, ciphers) live in engine/crypto/.

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/status.h"

namespace qlhsm::secure {

using Bytes = std::vector<uint8_t>;

inline constexpr size_t kKeyLen = 32;
inline constexpr size_t kNonceLen = 12;
inline constexpr size_t kTagLen = 16;
inline constexpr size_t kSaltLen = 16;

// Turns one OpenSSL success flag into a Status; `op` names the operation in the message.
Status CryptoOutcome(bool ok, std::string_view op);

Result<Bytes> RandomBytes(size_t n);

// nonce || ciphertext || tag, with `aad` bound into the tag.
Result<Bytes> Seal(const Bytes &key, const Bytes &plaintext, std::string_view aad);
Result<Bytes> Open(const Bytes &key, const Bytes &sealed, std::string_view aad);

struct KdfParams {
  uint64_t n = 1 << 14;  // scrypt cost; stored next to each hash so it can change later
  uint32_t r = 8;
  uint32_t p = 1;
};

// The cost of a scrypt key kept beside what it seals: N, r and p, 8 bytes each, big-endian.
inline constexpr size_t kKdfParamsLen = 24;
void AppendKdfParams(Bytes &out, const KdfParams &params);
// Reads them back; nullopt when they are outside what scrypt may be asked for here (N a power of
// two from 2 to 2^22, r 1 to 32, p 1 to 16): a damaged file.
std::optional<KdfParams> ReadKdfParams(const uint8_t *in);

// scrypt(password, salt) -> kKeyLen bytes.
Result<Bytes> Scrypt(std::string_view password, const Bytes &salt, const KdfParams &params);

// "scrypt$N$r$p$<salt hex>$<hash hex>", self-describing so the cost can be raised later.
Result<std::string> HashPassword(std::string_view password, const KdfParams &params);
// True when `password` matches the stored hash text.
Result<bool> VerifyPassword(std::string_view password, const std::string &stored);

// HMAC-SHA-256 under one key, prepared once: each Mac() copies the keyed state, so a call neither
// looks the algorithm up again nor hashes the key again. Mac() may run on many threads at once.
class HmacSha256Key {
 public:
  explicit HmacSha256Key(const Bytes &key);
  ~HmacSha256Key();
  HmacSha256Key(const HmacSha256Key &) = delete;
  HmacSha256Key &operator=(const HmacSha256Key &) = delete;
  // False when the key could not be set up; Mac() then answers an empty result.
  bool ok() const { return state_ != nullptr; }
  Bytes Mac(std::string_view data) const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

Bytes Sha256(const Bytes &data);
// Constant-time comparison.
bool Equal(const Bytes &a, const Bytes &b);
std::string Hex(const Bytes &b);
bool FromHex(std::string_view hex, Bytes *out);

}  // namespace qlhsm::secure
