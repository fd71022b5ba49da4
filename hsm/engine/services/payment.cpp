#include "engine/services/payment.h"

#include <algorithm>
#include <optional>
#include <sstream>
#include <vector>

#include "crypto/payment.h"
#include "engine/crypto_result.h"
#include "wire_values.h"

namespace qlhsm {

using access::Request;
using cryptomap::FromCrypto;
using sessions::Session;
namespace pay = crypto::payment;

namespace {

constexpr uint32_t kFormatMask = 0xFF;

bool IsTdes(const crypto::Key &k) {
  return k.algorithm() == crypto::alg::k3Des112 || k.algorithm() == crypto::alg::k3Des168;
}

bool IsAes(const crypto::Key &k) {
  return k.algorithm() == crypto::alg::kAes128 || k.algorithm() == crypto::alg::kAes192 ||
         k.algorithm() == crypto::alg::kAes256;
}

bool AllDigits(std::string_view v, size_t min, size_t max) {
  return v.size() >= min && v.size() <= max &&
         std::all_of(v.begin(), v.end(), [](char c) { return c >= '0' && c <= '9'; });
}

Status CardArgs(const CardData &card) {
  if (!AllDigits(card.pan, 12, 19) || !AllDigits(card.expiry, 4, 4) ||
      !AllDigits(card.service_code, 3, 3)) {
    return Status::Error(Code::kBadArgument, "PAN, expiry or service code malformed");
  }
  return Status::Ok();
}

// A PAN is needed by every format but 1; when given it must be one.
Status PanArg(std::string_view pan) {
  if (!pan.empty() && !AllDigits(pan, 12, 19))
    return Status::Error(Code::kBadArgument, "PAN malformed");
  return Status::Ok();
}

size_t BlockLength(unsigned format) {
  return format == 4 ? 16 : 8;
}

// A known format, of the block's length.
Status FormatArg(unsigned format, const secure::Bytes *block) {
  if (!pay::IsPinBlockFormat(format))
    return Status::Error(Code::kBadArgument, "unknown PIN block format");
  if (block && block->size() != BlockLength(format))
    return Status::Error(Code::kBadLength, "PIN block length does not fit its format");
  return Status::Ok();
}

// Formats 0, 1 and 3 are enciphered with triple DES, format 4 with AES.
Status KeyFitsFormat(const crypto::Key &k, unsigned format) {
  if (format == 4 ? IsAes(k) : IsTdes(k)) return Status::Ok();
  return Status::Error(Code::kBadKeyUsage, "key algorithm does not fit the PIN block format");
}

// A malformed block is the family's own refusal; the rest map as every crypto refusal does.
Status PinBlockStatus(const crypto::Status &st) {
  if (st.code() == crypto::Code::kBadData) return Status::Error(Code::kBadPinBlock, st.detail());
  return FromCrypto(st);
}

crypto::ByteView View(const secure::Bytes &b) {
  return crypto::ByteView(b.data(), b.size());
}

// --- the EFT daemon ---

constexpr const char *kConfigSetting = "eftd_conf";

Status ConfigArgs(const eftd::Config &c) {
  if (!AllDigits(c.decimalisation, 16, 16))
    return Status::Error(Code::kBadArgument, "a decimalisation table is 16 digits");
  if (c.pin_min < 4 || c.pin_max > 12 || c.pin_min > c.pin_max)
    return Status::Error(Code::kBadArgument, "PIN lengths are 4 to 12");
  if (c.formats == 0 || (c.formats & ~eftd::kAllFormats))
    return Status::Error(Code::kBadArgument, "PIN block formats are 0, 1, 3 and 4");
  if (c.auth_required & ~eftd::kActAll)
    return Status::Error(Code::kBadArgument, "unknown activity");
  return Status::Ok();
}

// The stored form: "table min max formats activities".
std::string ConfigText(const eftd::Config &c) {
  return c.decimalisation + " " + std::to_string(c.pin_min) + " " + std::to_string(c.pin_max) +
         " " + std::to_string(c.formats) + " " + std::to_string(c.auth_required);
}

std::optional<eftd::Config> ParseConfig(const std::string &text) {
  std::istringstream in(text);
  eftd::Config c;
  if (!(in >> c.decimalisation >> c.pin_min >> c.pin_max >> c.formats >> c.auth_required))
    return std::nullopt;
  if (!ConfigArgs(c).ok()) return std::nullopt;
  return c;
}

// --- key blocks ---

// The attributes a key kept from the key block it came in: usage (2), mode, exportability.
constexpr uint32_t kRecordKeyBlockAttributes = 0x20000;

struct BlockAttributes {
  std::string usage;
  char mode = 0;
  char exportability = 0;
};

// The security strength in bits: a key block carries no key stronger than its KBPK.
unsigned StrengthBits(const crypto::Key &k) {
  switch (k.algorithm()) {
    case crypto::alg::kDes:
      return 56;
    case crypto::alg::k3Des112:
      return 80;
    case crypto::alg::k3Des168:
      return 112;
    default:
      return static_cast<unsigned>(k.length_bytes() * 8);
  }
}

// The algorithm letter of a key a key block can carry; 0 for any other key.
char BlockAlgorithm(const crypto::Key &k) {
  if (k.algorithm() == crypto::alg::kDes) return 'D';
  if (IsTdes(k)) return 'T';
  if (IsAes(k)) return 'A';
  return 0;
}

// The key of a block's algorithm letter and length; 0 when the HSM keeps no such key.
uint32_t AlgorithmOfBlock(char algorithm, size_t length) {
  if (algorithm == 'D' && length == 8) return crypto::alg::kDes;
  if (algorithm == 'T' && length == 16) return crypto::alg::k3Des112;
  if (algorithm == 'T' && length == 24) return crypto::alg::k3Des168;
  if (algorithm == 'A' && length == 16) return crypto::alg::kAes128;
  if (algorithm == 'A' && length == 24) return crypto::alg::kAes192;
  if (algorithm == 'A' && length == 32) return crypto::alg::kAes256;
  return 0;
}

bool IsHeaderChar(uint32_t c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z');
}

// The asked attributes (0: auto), checked for form only.
Status BlockArgs(uint32_t usage, uint32_t mode, uint32_t exportability, uint32_t flags) {
  if (flags != 0) return Status::Error(Code::kBadFlags, "no key block export flags");
  if (usage != 0 && (usage > 0xFFFF || !IsHeaderChar(usage & 0xFF) || !IsHeaderChar(usage >> 8)))
    return Status::Error(Code::kBadArgument, "key usage malformed");
  if (mode != 0 && !IsHeaderChar(mode))
    return Status::Error(Code::kBadArgument, "mode of use malformed");
  if (exportability != 0 && exportability != 'E' && exportability != 'N' && exportability != 'S')
    return Status::Error(Code::kBadArgument, "exportability malformed");
  return Status::Ok();
}

}  // namespace

eftd::Config PaymentService::Config() const {
  std::lock_guard<std::mutex> lock(mu_);
  LoadConfigLocked();
  return config_;
}

void PaymentService::LoadConfigLocked() const {
  if (config_loaded_) return;
  Result<std::string> stored = core_.store->GetSetting(kConfigSetting);
  if (stored.ok()) {
    std::optional<eftd::Config> parsed = ParseConfig(*stored);
    if (parsed) config_ = *parsed;
  }
  config_loaded_ = true;
}

Status PaymentService::Authorized(uint32_t activity) const {
  std::lock_guard<std::mutex> lock(mu_);
  LoadConfigLocked();
  if (!(config_.auth_required & activity)) return Status::Ok();
  if ((auth_.activities & activity) && core_.clock.Now() < auth_.until) return Status::Ok();
  return Status::Error(Code::kEftdNotAuthorized, "activity not authorised");
}

Result<std::string> PaymentService::Cvv(Session &, const KeysService::KeyTarget &target,
                                        const CardData &card) {
  Result<KeysService::UsableKey> usable = keys_.Usable(target);
  if (!usable.ok()) return usable.status();
  const crypto::Key &k = *usable->key;
  crypto::ByteView secret = k.secret();
  const bool pair = k.algorithm() == crypto::alg::k3Des112 && secret.size() == 16;
  const bool aba = k.algorithm() == crypto::alg::k3Des168 && secret.size() == 24 &&
                   std::equal(secret.begin(), secret.begin() + 8, secret.begin() + 16);
  if (!pair && !aba) return Status::Error(Code::kBadKeyUsage, "not a CVK pair");
  crypto::Result<std::string> cvv = pay::CardVerificationValue(
      secret.subspan(0, 8), secret.subspan(8, 8), card.pan, card.expiry, card.service_code);
  if (!cvv.ok()) return FromCrypto(cvv.status());
  return std::move(cvv.value());
}

Result<std::string> PaymentService::GenerateCvv(Session &s, const KeyArg &cvk,
                                                const CardData &card) {
  KeysService::KeyTarget target;
  Op op{"generate-cvv", "-", KeysService::UseRight(s, cvk), AuditMode::kRefusal};
  return Counted(eftd::kOpGenerateCvv,
                 guard_.Run(
                     s, op,
                     [&] {
                       QL_RETURN_IF_ERROR(CardArgs(card));
                       return keys_.Target(s, cvk, &target);
                     },
                     [&](const users::UserInfo &) { return Cvv(s, target, card); }));
}

Status PaymentService::VerifyCvv(Session &s, const KeyArg &cvk, const CardData &card,
                                 std::string_view cvv) {
  KeysService::KeyTarget target;
  Op op{"verify-cvv", "-", KeysService::UseRight(s, cvk), AuditMode::kRefusal};
  return Counted(eftd::kOpVerifyCvv,
                 guard_.Run(
                     s, op,
                     [&] {
                       QL_RETURN_IF_ERROR(CardArgs(card));
                       if (!AllDigits(cvv, 3, 3))
                         return Status::Error(Code::kBadArgument, "CVV malformed");
                       return keys_.Target(s, cvk, &target);
                     },
                     [&](const users::UserInfo &) -> Status {
                       Result<std::string> expected = Cvv(s, target, card);
                       if (!expected.ok()) return expected.status();
                       if (!pay::EqualInConstantTime(*expected, cvv))
                         return Status::Error(Code::kCheckFailed, "CVV differs");
                       return Status::Ok();
                     }));
}

Result<std::string> PaymentService::GeneratePin(Session &s, const KeyArg &pgk, std::string_view pan,
                                                uint32_t length, uint32_t flags) {
  KeysService::KeyTarget target;
  Op op{"generate-pin", "-", KeysService::UseRight(s, pgk), AuditMode::kRefusal};
  return Counted(
      eftd::kOpGeneratePin,
      guard_.Run(
          s, op,
          [&] {
            if (flags != 0) return Status::Error(Code::kBadFlags, "no PIN generation flags");
            if (!AllDigits(pan, 12, 19)) return Status::Error(Code::kBadArgument, "PAN malformed");
            if (length < 4 || length > 12)
              return Status::Error(Code::kBadArgument, "PIN length out of range");
            return keys_.Target(s, pgk, &target);
          },
          [&](const users::UserInfo &) -> Result<std::string> {
            const eftd::Config config = Config();
            if (length < config.pin_min || length > config.pin_max)
              return Status::Error(Code::kBadArgument, "PIN length outside the configured range");
            QL_RETURN_IF_ERROR(Authorized(eftd::kActClearPin));
            Result<KeysService::UsableKey> usable = keys_.Usable(target);
            if (!usable.ok()) return usable.status();
            if (!IsTdes(*usable->key))
              return Status::Error(Code::kBadKeyUsage, "PIN generation keys are triple DES");
            crypto::Result<std::string> pin =
                pay::NaturalPin(usable->key->secret(), pan, config.decimalisation, length);
            if (!pin.ok()) return FromCrypto(pin.status());
            return std::move(pin.value());
          }));
}

Status PaymentService::VerifyPinBlock(Session &s, const KeyArg &ptk, const KeyArg &pgk,
                                      uint32_t format, std::string_view pan,
                                      const secure::Bytes &block, uint32_t flags) {
  KeysService::KeyTarget ptk_target, pgk_target;
  Op op{"verify-pin-block", "-", KeysService::UseRight(s, ptk), AuditMode::kRefusal,
        KeysService::UseRight(s, pgk)};
  return Counted(
      eftd::kOpVerifyPinBlock,
      guard_.Run(
          s, op,
          [&] {
            if (flags != 0) return Status::Error(Code::kBadFlags, "no PIN verification flags");
            if (format & ~kFormatMask) return Status::Error(Code::kBadArgument, "format malformed");
            QL_RETURN_IF_ERROR(FormatArg(format, &block));
            if (!AllDigits(pan, 12, 19)) return Status::Error(Code::kBadArgument, "PAN malformed");
            QL_RETURN_IF_ERROR(keys_.Target(s, ptk, &ptk_target));
            return keys_.Target(s, pgk, &pgk_target);
          },
          [&](const users::UserInfo &) -> Status {
            const eftd::Config config = Config();
            if (!(config.formats & eftd::FormatBit(format)))
              return Status::Error(Code::kBadArgument, "PIN block format not enabled");
            Result<KeysService::UsableKey> tk = keys_.Usable(ptk_target);
            if (!tk.ok()) return tk.status();
            Result<KeysService::UsableKey> gk = keys_.Usable(pgk_target);
            if (!gk.ok()) return gk.status();
            QL_RETURN_IF_ERROR(KeyFitsFormat(*tk->key, format));
            if (!IsTdes(*gk->key))
              return Status::Error(Code::kBadKeyUsage, "PIN generation keys are triple DES");
            crypto::Result<std::string> pin = pay::DecipherPinBlock(
                static_cast<pay::PinBlockFormat>(format), tk->key->secret(), View(block), pan);
            if (!pin.ok()) return PinBlockStatus(pin.status());
            crypto::Result<std::string> natural = pay::NaturalPin(
                gk->key->secret(), pan, config.decimalisation, static_cast<unsigned>(pin->size()));
            if (!natural.ok()) return FromCrypto(natural.status());
            if (!pay::EqualInConstantTime(*pin, *natural))
              return Status::Error(Code::kCheckFailed, "PIN differs");
            return Status::Ok();
          }));
}

Result<secure::Bytes> PaymentService::TranslatePinBlock(Session &s, const KeyArg &src,
                                                        const KeyArg &dst, uint32_t format,
                                                        std::string_view pan,
                                                        const secure::Bytes &block,
                                                        uint32_t flags) {
  const unsigned from = format & kFormatMask;
  const unsigned to = (format >> 8) & kFormatMask;
  KeysService::KeyTarget src_target, dst_target;
  Op op{"translate-pin-block", "-", KeysService::UseRight(s, src), AuditMode::kRefusal,
        KeysService::UseRight(s, dst)};
  return Counted(
      eftd::kOpTranslatePinBlock,
      guard_.Run(
          s, op,
          [&] {
            if (flags != 0) return Status::Error(Code::kBadFlags, "no PIN translation flags");
            if (format & ~0xFFFFu) return Status::Error(Code::kBadArgument, "format malformed");
            QL_RETURN_IF_ERROR(FormatArg(from, &block));
            QL_RETURN_IF_ERROR(FormatArg(to, nullptr));
            QL_RETURN_IF_ERROR(PanArg(pan));
            if (pan.empty() && (from != 1 || to != 1))
              return Status::Error(Code::kBadArgument, "the PIN block format needs a PAN");
            QL_RETURN_IF_ERROR(keys_.Target(s, src, &src_target));
            return keys_.Target(s, dst, &dst_target);
          },
          [&](const users::UserInfo &) -> Result<secure::Bytes> {
            const eftd::Config config = Config();
            if (!(config.formats & eftd::FormatBit(from)) ||
                !(config.formats & eftd::FormatBit(to)))
              return Status::Error(Code::kBadArgument, "PIN block format not enabled");
            Result<KeysService::UsableKey> sk = keys_.Usable(src_target);
            if (!sk.ok()) return sk.status();
            Result<KeysService::UsableKey> dk = keys_.Usable(dst_target);
            if (!dk.ok()) return dk.status();
            QL_RETURN_IF_ERROR(KeyFitsFormat(*sk->key, from));
            QL_RETURN_IF_ERROR(KeyFitsFormat(*dk->key, to));
            // Leaving the PAN behind weakens the block: only under an authorisation.
            if (to == 1 && from != 1) QL_RETURN_IF_ERROR(Authorized(eftd::kActPinFormat1));
            crypto::Result<std::string> pin = pay::DecipherPinBlock(
                static_cast<pay::PinBlockFormat>(from), sk->key->secret(), View(block), pan);
            if (!pin.ok()) return PinBlockStatus(pin.status());
            crypto::Result<crypto::Bytes> out = pay::EncipherPinBlock(
                static_cast<pay::PinBlockFormat>(to), dk->key->secret(), *pin, pan);
            if (!out.ok()) return FromCrypto(out.status());
            return secure::Bytes(out->begin(), out->end());
          }));
}

Status PaymentService::GenerateDukpt(Session &s, const KeyArg &bdk, const secure::Bytes &ksn,
                                     std::string_view name, uint32_t flags) {
  const uint32_t which = (flags & qlproto::kDukptKeyMask) >> 16;
  const uint32_t key_flags = flags & ~qlproto::kDukptKeyMask;
  const bool temporary = (key_flags & qlproto::kKeyTemporary) != 0;
  KeysService::KeyTarget target;
  objects::ObjectRef ref;
  // The create right first, as every request that keeps what it makes.
  Op op{"generate-dukpt", name, temporary ? Request::kFree : Request::kCreateObject,
        AuditMode::kChange, KeysService::UseRight(s, bdk)};
  return Counted(
      eftd::kOpGenerateDukpt,
      guard_.Run(
          s, op,
          [&] {
            if (which > static_cast<uint32_t>(pay::DukptKey::kData))
              return Status::Error(Code::kBadFlags, "unknown DUKPT key selector");
            if (key_flags & ~(qlproto::kKeyExportable | qlproto::kKeyTemporary))
              return Status::Error(Code::kBadFlags, "key flags a derived key cannot take");
            if (ksn.size() != 10 && ksn.size() != 12)
              return Status::Error(Code::kBadLength, "a KSN is 10 or 12 bytes");
            if (name.empty()) return Status::Error(Code::kBadName, "the derived key needs a name");
            if (!temporary) QL_RETURN_IF_ERROR(core_.Ref(s, name, &ref));
            return keys_.Target(s, bdk, &target);
          },
          [&](const users::UserInfo &) -> Status {
            Result<KeysService::UsableKey> usable = keys_.Usable(target);
            if (!usable.ok()) return usable.status();
            const crypto::Key &k = *usable->key;
            const bool tdes = ksn.size() == 10;
            if (tdes ? k.algorithm() != crypto::alg::k3Des112 : !IsAes(k))
              return Status::Error(Code::kBadKeyUsage, "the BDK does not fit the KSN's scheme");
            const auto selector = static_cast<pay::DukptKey>(which);
            crypto::Result<crypto::SecretBytes> derived =
                tdes ? pay::DukptTdes(k.secret(), View(ksn), selector)
                     : pay::DukptAes(k.secret(), View(ksn), selector);
            if (!derived.ok()) return FromCrypto(derived.status());
            crypto::Result<crypto::KeyPtr> key = crypto::Key::FromSecret(k.algorithm(), *derived);
            if (!key.ok()) return FromCrypto(key.status());
            Result<KeyDesc> kept = keys_.KeepNewKey(s, name, *key, key_flags, temporary);
            return kept.ok() ? Status::Ok() : kept.status();
          }));
}

Status PaymentService::EftdAuthorize(Session &s, uint32_t activities, uint32_t minutes,
                                     bool deauthorize) {
  Op op{deauthorize ? "eftd-deauthorize" : "eftd-authorize", "-", Request::kAdminister,
        AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        if (activities == 0 || (activities & ~eftd::kActAll))
          return Status::Error(Code::kBadArgument, "unknown activity");
        if (!deauthorize && (minutes < 1 || minutes > eftd::kMaxMinutes))
          return Status::Error(Code::kBadArgument, "an authorisation lasts 1 to 720 minutes");
        return Status::Ok();
      },
      [&](const users::UserInfo &me) -> Status {
        std::lock_guard<std::mutex> lock(mu_);
        const int64_t now = core_.clock.Now();
        if (now >= auth_.until) auth_ = {};  // what ran out is not carried on
        if (deauthorize) {
          auth_.activities &= ~activities;
          if (auth_.activities == 0) auth_ = {};
          return Status::Ok();
        }
        auth_.activities |= activities;
        auth_.user = me.name;
        auth_.until = now + int64_t{minutes} * 60;
        return Status::Ok();
      });
}

Result<eftd::Info> PaymentService::EftdInfo(Session &s) {
  Op op{"eftd-info", "-", Request::kAdminister, AuditMode::kRead};
  return guard_.Run(s, op, NoArgs, [&](const users::UserInfo &) -> Result<eftd::Info> {
    eftd::Info info;
    {
      std::lock_guard<std::mutex> lock(mu_);
      LoadConfigLocked();
      info.config = config_;
      if (core_.clock.Now() < auth_.until) info.auth = auth_;
    }
    for (unsigned i = 0; i < eftd::kOpCount; ++i) {
      info.counters[i].successes = counters_[i].successes.load(std::memory_order_relaxed);
      info.counters[i].failures = counters_[i].failures.load(std::memory_order_relaxed);
    }
    return info;
  });
}

Status PaymentService::EftdReset(Session &s) {
  Op op{"eftd-reset", "-", Request::kAdminister, AuditMode::kChange};
  return guard_.Run(s, op, NoArgs, [&](const users::UserInfo &) -> Status {
    std::lock_guard<std::mutex> lock(mu_);
    auth_ = {};
    for (AtomicCounter &c : counters_) {
      c.successes.store(0, std::memory_order_relaxed);
      c.failures.store(0, std::memory_order_relaxed);
    }
    return Status::Ok();
  });
}

Status PaymentService::EftdSetConf(Session &s, const eftd::Config &config) {
  Op op{"eftd-set-conf", "-", Request::kAdminister, AuditMode::kChange};
  return guard_.Run(
      s, op, [&] { return ConfigArgs(config); },
      [&](const users::UserInfo &) -> Status {
        std::lock_guard<std::mutex> lock(mu_);
        QL_RETURN_IF_ERROR(core_.store->SetSetting(kConfigSetting, ConfigText(config)));
        config_ = config;
        config_loaded_ = true;
        return Status::Ok();
      });
}

Result<std::string> PaymentService::ExportKeyBlock(Session &s, const KeyArg &kbpk,
                                                   const KeyArg &key, uint32_t usage, uint32_t mode,
                                                   uint32_t exportability, uint32_t flags) {
  KeysService::KeyTarget kbpk_target, key_target;
  Op op{"export-key-block", key.name.empty() ? std::string_view("-") : key.name,
        KeysService::UseRight(s, kbpk), AuditMode::kRefusal, KeysService::UseRight(s, key)};
  return Counted(
      eftd::kOpExportKeyBlock,
      guard_.Run(
          s, op,
          [&] {
            QL_RETURN_IF_ERROR(BlockArgs(usage, mode, exportability, flags));
            QL_RETURN_IF_ERROR(keys_.Target(s, kbpk, &kbpk_target));
            return keys_.Target(s, key, &key_target);
          },
          [&](const users::UserInfo &) -> Result<std::string> {
            Result<KeysService::UsableKey> wrapping = keys_.Usable(kbpk_target);
            if (!wrapping.ok()) return wrapping.status();
            Result<KeysService::UsableKey> carried = keys_.Usable(key_target);
            if (!carried.ok()) return carried.status();
            const crypto::Key &kb = *wrapping->key;
            const crypto::Key &k = *carried->key;
            if (!IsTdes(kb) && !IsAes(kb))
              return Status::Error(Code::kBadKeyUsage, "a KBPK is a triple-DES or AES key");
            const char algorithm = BlockAlgorithm(k);
            if (algorithm == 0)
              return Status::Error(Code::kBadKeyUsage,
                                   "key blocks carry DES, triple-DES, AES keys");
            if (!(carried->flags & qlproto::kKeyExportable))
              return Status::Error(Code::kNotExportable,
                                   "the key was made without the exportable flag");
            if (StrengthBits(k) > StrengthBits(kb))
              return Status::Error(Code::kBadKeyUsage, "the key is stronger than the KBPK");

            // "auto": what the key kept from its own key block, else D0, B, E.
            BlockAttributes kept{"D0", 'B', 'E'};
            auto take = [&kept](uint32_t id, const secure::Bytes &value) {
              if (id != kRecordKeyBlockAttributes || value.size() != 4) return;
              kept.usage.assign(reinterpret_cast<const char *>(value.data()), 2);
              kept.mode = static_cast<char>(value[2]);
              kept.exportability = static_cast<char>(value[3]);
            };
            if (key_target.temp) {
              for (const auto &[id, value] : key_target.temp->records) take(id, value);
            } else {
              Result<std::vector<objects::ObjectStore::Record>> records =
                  core_.objects->GetRecords(key_target.ref);
              if (!records.ok()) return records.status();
              for (const auto &r : *records) take(r.id, r.value);
            }
            pay::KeyBlockHeader h;
            h.version = IsTdes(kb) ? 'B' : 'D';
            h.algorithm = algorithm;
            h.usage =
                usage ? std::string{static_cast<char>(usage & 0xFF), static_cast<char>(usage >> 8)}
                      : kept.usage;
            // The word "t" stands as U; the block says T.
            h.mode = mode == 'U' ? 'T' : mode ? static_cast<char>(mode) : kept.mode;
            h.exportability = exportability ? static_cast<char>(exportability) : kept.exportability;
            h.key_version = "00";
            if (!pay::IsAllowedKeyBlock(h.usage, h.algorithm, h.mode))
              return Status::Error(Code::kBadArgument,
                                   "usage, mode and algorithm do not go together");
            crypto::Result<std::string> block = pay::WrapKeyBlock(kb.secret(), h, k.secret());
            if (!block.ok()) return FromCrypto(block.status());
            return std::move(block.value());
          }));
}

Status PaymentService::ImportKeyBlock(Session &s, const KeyArg &kbpk, std::string_view name,
                                      std::string_view block, uint32_t flags) {
  const bool temporary = (flags & qlproto::kKeyTemporary) != 0;
  KeysService::KeyTarget target;
  objects::ObjectRef ref;
  // The create right first, as every request that keeps what it makes.
  Op op{"import-key-block", name, temporary ? Request::kFree : Request::kCreateObject,
        AuditMode::kChange, KeysService::UseRight(s, kbpk)};
  return Counted(
      eftd::kOpImportKeyBlock,
      guard_.Run(
          s, op,
          [&] {
            if (flags & ~qlproto::kKeyTemporary)
              return Status::Error(Code::kBadFlags,
                                   "key block import takes the temporary flag only");
            if (name.empty()) return Status::Error(Code::kBadName, "the imported key needs a name");
            if (block.size() < 16) return Status::Error(Code::kBadArgument, "key block too short");
            if (block[0] == 'A' || block[0] == 'C')
              return Status::Error(Code::kNotSupported, "key blocks of versions A and C");
            if (block[0] != 'B' && block[0] != 'D')
              return Status::Error(Code::kBadArgument, "unknown key block version");
            if (!temporary) QL_RETURN_IF_ERROR(core_.Ref(s, name, &ref));
            return keys_.Target(s, kbpk, &target);
          },
          [&](const users::UserInfo &) -> Status {
            Result<KeysService::UsableKey> wrapping = keys_.Usable(target);
            if (!wrapping.ok()) return wrapping.status();
            const crypto::Key &kb = *wrapping->key;
            if (block[0] == 'B' ? !IsTdes(kb) : !IsAes(kb))
              return Status::Error(Code::kBadKeyUsage, "the KBPK does not fit the block's version");
            crypto::Result<pay::UnwrappedKeyBlock> opened = pay::UnwrapKeyBlock(kb.secret(), block);
            if (!opened.ok()) return FromCrypto(opened.status());
            const pay::KeyBlockHeader &h = opened->header;
            const uint32_t algorithm = AlgorithmOfBlock(h.algorithm, opened->key.size());
            if (algorithm == 0)
              return Status::Error(Code::kNotSupported, "the HSM keeps DES, triple-DES, AES keys");
            crypto::Result<crypto::KeyPtr> key = crypto::Key::FromSecret(
                algorithm, crypto::ByteView(opened->key.data(), opened->key.size()));
            if (!key.ok()) return FromCrypto(key.status());
            uint32_t key_flags = flags;
            if (h.exportability != 'N') key_flags |= qlproto::kKeyExportable;
            // The attributes go with the key, in the same transaction or session key.
            secure::Bytes attributes{static_cast<uint8_t>(h.usage[0]),
                                     static_cast<uint8_t>(h.usage[1]), static_cast<uint8_t>(h.mode),
                                     static_cast<uint8_t>(h.exportability)};
            Result<KeyDesc> kept =
                keys_.KeepNewKey(s, name, *key, key_flags, temporary,
                                 {{kRecordKeyBlockAttributes, std::move(attributes)}});
            return kept.ok() ? Status::Ok() : kept.status();
          }));
}

}  // namespace qlhsm
