// oath.h: one-time passwords: HOTP (RFC 4226) and TOTP (RFC 6238).
#ifndef QLHSM_CRYPTO_OATH_H_
#define QLHSM_CRYPTO_OATH_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "crypto/bytes.h"
#include "crypto/status.h"

namespace qlhsm::crypto::oath {

// The HMAC of the one-time passwords (RFC 4226 uses SHA-1; RFC 6238 adds SHA-256 and SHA-512).
enum class OathHash : uint8_t { kSha1 = 0, kSha256 = 1, kSha512 = 2 };

// The value for `counter`: HMAC over the 8-byte big-endian counter, dynamic truncation (RFC
// 4226 section 5.3), the last `digits` decimal digits (6 to 8, zero-filled). kBadArgument for
// other digit counts or hashes, kBadLength for an empty seed.
Result<std::string> Hotp(ByteView seed, uint64_t counter, unsigned digits, OathHash hash);

// The time step of RFC 6238 section 4.2: floor((time - t0) / step). Times before t0 give
// nullopt, and so does a step of 0.
std::optional<uint64_t> TimeStep(int64_t unix_time, int64_t t0, uint32_t step);

// The first counter in [from, from + window) whose value equals `otp`, compared in constant
// time; nullopt when none does (or `otp` has the wrong length).
std::optional<uint64_t> FindCounter(ByteView seed, uint64_t from, uint32_t window, unsigned digits,
                                    OathHash hash, std::string_view otp);

}  // namespace qlhsm::crypto::oath

#endif  // QLHSM_CRYPTO_OATH_H_
