#include "engine/services/payment.h"

#include <algorithm>

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

}  // namespace

eftd::Config PaymentService::Config() const {
  std::lock_guard<std::mutex> lock(mu_);
  return config_;
}

Status PaymentService::Authorized(uint32_t activity) const {
  std::lock_guard<std::mutex> lock(mu_);
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
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(CardArgs(card));
        return keys_.Target(s, cvk, &target);
      },
      [&](const users::UserInfo &) { return Cvv(s, target, card); });
}

Status PaymentService::VerifyCvv(Session &s, const KeyArg &cvk, const CardData &card,
                                 std::string_view cvv) {
  KeysService::KeyTarget target;
  Op op{"verify-cvv", "-", KeysService::UseRight(s, cvk), AuditMode::kRefusal};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(CardArgs(card));
        if (!AllDigits(cvv, 3, 3)) return Status::Error(Code::kBadArgument, "CVV malformed");
        return keys_.Target(s, cvk, &target);
      },
      [&](const users::UserInfo &) -> Status {
        Result<std::string> expected = Cvv(s, target, card);
        if (!expected.ok()) return expected.status();
        if (!pay::EqualInConstantTime(*expected, cvv))
          return Status::Error(Code::kCheckFailed, "CVV differs");
        return Status::Ok();
      });
}

Result<std::string> PaymentService::GeneratePin(Session &s, const KeyArg &pgk, std::string_view pan,
                                                uint32_t length, uint32_t flags) {
  KeysService::KeyTarget target;
  Op op{"generate-pin", "-", KeysService::UseRight(s, pgk), AuditMode::kRefusal};
  return guard_.Run(
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
      });
}

Status PaymentService::VerifyPinBlock(Session &s, const KeyArg &ptk, const KeyArg &pgk,
                                      uint32_t format, std::string_view pan,
                                      const secure::Bytes &block, uint32_t flags) {
  KeysService::KeyTarget ptk_target, pgk_target;
  Op op{"verify-pin-block", "-", KeysService::UseRight(s, ptk), AuditMode::kRefusal,
        KeysService::UseRight(s, pgk)};
  return guard_.Run(
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
      });
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
  return guard_.Run(
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
        if (!(config.formats & eftd::FormatBit(from)) || !(config.formats & eftd::FormatBit(to)))
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
      });
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
  return guard_.Run(
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
      });
}

}  // namespace qlhsm
