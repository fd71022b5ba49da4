// Card payments: card verification values, natural PINs, PIN block checks and translation,
// under keys of the store or of the session. The EFT daemon's state (its configuration, the
// activities authorised for a while, counters) is this family's own.
#pragma once

#include <array>
#include <atomic>
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

inline constexpr uint32_t kMaxMinutes = 720;

// The counted operations, in the order the counters are reported.
enum Operation : unsigned {
  kOpGenerateCvv,
  kOpVerifyCvv,
  kOpGeneratePin,
  kOpVerifyPinBlock,
  kOpTranslatePinBlock,
  kOpGenerateDukpt,
  kOpExportKeyBlock,
  kOpImportKeyBlock,
  kOpCount
};

struct Counter {
  uint64_t successes = 0;
  uint64_t failures = 0;
};

struct Info {
  Config config;
  Authorization auth;  // what is in force now (nothing once its time ran out)
  std::array<Counter, kOpCount> counters;
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

  // The key in a key block under the KBPK: version B under a triple-DES KBPK, D under an AES
  // one. usage (two characters packed little-endian), mode and exportability (a character
  // each) 0 take what the key kept from its own key block, else D0, B and E. Rights: the use of
  // the KBPK and of the key.
  Result<std::string> ExportKeyBlock(sessions::Session &s, const KeyArg &kbpk, const KeyArg &key,
                                     uint32_t usage, uint32_t mode, uint32_t exportability,
                                     uint32_t flags);
  // The key of a key block (versions B and D) kept as `name`, with the block's usage, mode and
  // exportability (N: not exportable). flags: 0 or the temporary flag. Rights: the create right
  // unless temporary, then the use of the KBPK.
  Status ImportKeyBlock(sessions::Session &s, const KeyArg &kbpk, std::string_view name,
                        std::string_view block, uint32_t flags);

  // The EFT daemon's configuration as it stands.
  eftd::Config Config() const;

  // The EFT daemon's administration (the administrator's right for each). Authorise: the
  // activities until now + minutes (1 to 720), to the caller; with `deauthorize` the activities
  // end instead.
  Status EftdAuthorize(sessions::Session &s, uint32_t activities, uint32_t minutes,
                       bool deauthorize);
  Result<eftd::Info> EftdInfo(sessions::Session &s);
  // Ends every authorisation and zeroes the counters; the configuration stays.
  Status EftdReset(sessions::Session &s);
  // Replaces the stored configuration.
  Status EftdSetConf(sessions::Session &s, const eftd::Config &config);

 private:
  // Counts the outcome of an operation and hands it on.
  template <typename R>
  R Counted(eftd::Operation op, R outcome) {
    auto &slot = outcome.ok() ? counters_[op].successes : counters_[op].failures;
    slot.fetch_add(1, std::memory_order_relaxed);
    return outcome;
  }
  // Reads the stored configuration once; the caller holds mu_.
  void LoadConfigLocked() const;

  // Ok when the activity needs no authorisation or one is in force; else kEftdNotAuthorized.
  Status Authorized(uint32_t activity) const;
  // The CVK pair behind a key (kBadKeyUsage for any other key).
  Result<std::string> Cvv(sessions::Session &s, const KeysService::KeyTarget &target,
                          const CardData &card);

  Core &core_;
  Guard &guard_;
  KeysService &keys_;
  mutable std::mutex mu_;  // guards config_, config_loaded_ and auth_
  mutable eftd::Config config_;
  mutable bool config_loaded_ = false;
  eftd::Authorization auth_;
  struct AtomicCounter {
    std::atomic<uint64_t> successes{0};
    std::atomic<uint64_t> failures{0};
  };
  std::array<AtomicCounter, eftd::kOpCount> counters_;
};

}  // namespace qlhsm
