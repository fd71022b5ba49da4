// Card payments: card verification values, natural PINs, PIN block checks and translation,
// under keys of the store or of the session. The EFT daemon's state (its configuration, the
// activities authorised for a while, counters) is this family's own.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "engine/guard.h"
#include "engine/services/keys.h"

namespace qlhsm {

namespace eftd {

// Activities that may need an authorisation.
inline constexpr uint32_t kActClearPin = 0x1;    // a clear PIN handed out by GeneratePin
inline constexpr uint32_t kActPinFormat1 = 0x2;  // a PAN-bound PIN block translated to format 1
inline constexpr uint32_t kActAll = kActClearPin | kActPinFormat1;

// PIN block formats as bits of a set: bit n is format n.
inline constexpr uint32_t FormatBit(unsigned format) {
  return 1u << format;
}
inline constexpr uint32_t kAllFormats = FormatBit(0) | FormatBit(1) | FormatBit(3) | FormatBit(4);

struct Config {
  std::string decimalisation = "0123456789012345";
  uint32_t pin_min = 4;
  uint32_t pin_max = 12;
  uint32_t formats = kAllFormats;
  uint32_t auth_required = kActPinFormat1;
};

struct Authorization {
  uint32_t activities = 0;
  std::string user;
  int64_t until = 0;  // seconds since 1970 by the HSM's clock
};

}  // namespace eftd

struct CardData {
  std::string pan;
  std::string expiry;
  std::string service_code;
};

class PaymentService {
 public:
  PaymentService(Core &core, Guard &guard, KeysService &keys)
      : core_(core), guard_(guard), keys_(keys) {}

  // The three digits of the card's CVV under the CVK pair (3des112 A|B; 3des168 A|B|A).
  Result<std::string> GenerateCvv(sessions::Session &s, const KeyArg &cvk, const CardData &card);
  // kCheckFailed when `cvv` is not the card's (compared in constant time).
  Status VerifyCvv(sessions::Session &s, const KeyArg &cvk, const CardData &card,
                   std::string_view cvv);
  // The natural PIN (zero offset) of `length` digits under the PIN generation key.
  Result<std::string> GeneratePin(sessions::Session &s, const KeyArg &pgk, std::string_view pan,
                                  uint32_t length, uint32_t flags);
  // Deciphers the block under the PTK (format in bits 0-7) and compares its PIN with the PGK's
  // natural PIN: kCheckFailed when it differs, kBadPinBlock when the block is malformed.
  Status VerifyPinBlock(sessions::Session &s, const KeyArg &ptk, const KeyArg &pgk, uint32_t format,
                        std::string_view pan, const secure::Bytes &block, uint32_t flags);
  // The PIN block from `src` (format in bits 0-7) to `dst` (bits 8-15).
  Result<secure::Bytes> TranslatePinBlock(sessions::Session &s, const KeyArg &src,
                                          const KeyArg &dst, uint32_t format, std::string_view pan,
                                          const secure::Bytes &block, uint32_t flags);

  // Derives a DUKPT key from the BDK for the KSN (10 bytes: triple DES, a 3des112 BDK; 12 bytes:
  // AES, an AES BDK) and keeps it as `name`, of the BDK's algorithm. flags: key flags, and in
  // bits 16-19 the key to derive (crypto::payment::DukptKey). Rights: the use of the BDK, and
  // the create right unless the key is temporary.
  Status GenerateDukpt(sessions::Session &s, const KeyArg &bdk, const secure::Bytes &ksn,
                       std::string_view name, uint32_t flags);

  // The EFT daemon's configuration as it stands.
  eftd::Config Config() const;

 private:
  // Ok when the activity needs no authorisation or one is in force; else kEftdNotAuthorized.
  Status Authorized(uint32_t activity) const;
  // The CVK pair behind a key (kBadKeyUsage for any other key).
  Result<std::string> Cvv(sessions::Session &s, const KeysService::KeyTarget &target,
                          const CardData &card);

  Core &core_;
  Guard &guard_;
  KeysService &keys_;
  mutable std::mutex mu_;  // guards config_ and auth_
  eftd::Config config_;
  eftd::Authorization auth_;
};

}  // namespace qlhsm
