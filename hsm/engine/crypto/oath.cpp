#include "crypto/oath.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include "crypto/ossl.h"

namespace qlhsm::crypto::oath {
namespace {

const char *DigestName(OathHash hash) {
  switch (hash) {
    case OathHash::kSha1:
      return "SHA1";
    case OathHash::kSha256:
      return "SHA256";
    case OathHash::kSha512:
      return "SHA512";
  }
  return nullptr;
}

}  // namespace

Result<std::string> Hotp(ByteView seed, uint64_t counter, unsigned digits, OathHash hash) {
  const char *digest = DigestName(hash);
  if (digest == nullptr) return Status(Code::kBadArgument, "unknown OTP hash");
  if (digits < 6 || digits > 8) return Status(Code::kBadArgument, "OTPs have 6 to 8 digits");
  if (seed.empty()) return Status(Code::kBadLength, "empty seed");
  uint8_t message[8];
  for (int i = 7; i >= 0; --i, counter >>= 8) message[i] = static_cast<uint8_t>(counter);
  Result<SecretBytes> mac =
      ossl::ComputeMac("HMAC", OSSL_MAC_PARAM_DIGEST, digest, seed, {message});
  if (!mac.ok()) return mac.status();
  const uint8_t *out = mac->data();
  const size_t len = mac->size();
  const size_t offset = out[len - 1] & 0x0F;
  const uint32_t code = (static_cast<uint32_t>(out[offset] & 0x7F) << 24) |
                        (static_cast<uint32_t>(out[offset + 1]) << 16) |
                        (static_cast<uint32_t>(out[offset + 2]) << 8) | out[offset + 3];
  uint32_t modulus = 1;
  for (unsigned i = 0; i < digits; ++i) modulus *= 10;
  std::string value = std::to_string(code % modulus);
  return std::string(digits - value.size(), '0') + value;
}

std::optional<uint64_t> TimeStep(int64_t unix_time, int64_t t0, uint32_t step) {
  if (step == 0 || unix_time < t0) return std::nullopt;
  return static_cast<uint64_t>(unix_time - t0) / step;
}

std::optional<uint64_t> FindCounter(ByteView seed, uint64_t from, uint32_t window, unsigned digits,
                                    OathHash hash, std::string_view otp) {
  if (otp.size() != digits) return std::nullopt;
  std::optional<uint64_t> found;
  // Every counter of the window is computed, so the time taken does not tell where it matched.
  for (uint32_t i = 0; i < window; ++i) {
    Result<std::string> value = Hotp(seed, from + i, digits, hash);
    if (!value.ok()) return std::nullopt;
    if (CRYPTO_memcmp(value->data(), otp.data(), digits) == 0 && !found) found = from + i;
  }
  return found;
}

}  // namespace qlhsm::crypto::oath
