#include "engine/services/oath.h"

#include <algorithm>

#include "crypto/cipher.h"
#include "crypto/oath.h"
#include "engine/crypto_result.h"
#include "wire_values.h"

namespace qlhsm {

using cryptomap::FromCrypto;
using sessions::Session;
namespace oath = crypto::oath;

namespace {

// The record inside a blob, little-endian at fixed offsets (QL_OATH_TOKEN_INFO of qlapi.h):
//   0 type, 4 hash, 8 digits, 12 time step (uint32); 16 counter, 24 T0 (uint64);
//   32 drift (int32), 36 failures, 40 seed length (uint32); 44 the seed, zero-filled to 64.
constexpr size_t kRecordSize = 44 + qlproto::kOathMaxSeed;
constexpr uint32_t kEvent = 2;
constexpr uint32_t kTime = 3;
// RFC 4226 section 7.4: the next counters an event token may have moved on to.
constexpr uint32_t kEventWindow = 10;

struct Record {
  uint32_t type = 0, hash = 0, digits = 0, step = 0;
  uint64_t counter = 0, t0 = 0;
  int32_t drift = 0;
  uint32_t failures = 0;
  secure::Bytes seed;
};

uint64_t Get(const crypto::SecretBytes &b, size_t at, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) v |= uint64_t{b[at + i]} << (8 * i);
  return v;
}

void Put(secure::Bytes &b, size_t at, size_t n, uint64_t v) {
  for (size_t i = 0; i < n; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

Result<Record> Parse(const crypto::SecretBytes &b) {
  Record r;
  if (b.size() != kRecordSize) return Status::Error(Code::kBadArgument, "not an OATH token record");
  r.type = static_cast<uint32_t>(Get(b, 0, 4));
  r.hash = static_cast<uint32_t>(Get(b, 4, 4));
  r.digits = static_cast<uint32_t>(Get(b, 8, 4));
  r.step = static_cast<uint32_t>(Get(b, 12, 4));
  r.counter = Get(b, 16, 8);
  r.t0 = Get(b, 24, 8);
  r.drift = static_cast<int32_t>(static_cast<uint32_t>(Get(b, 32, 4)));
  r.failures = static_cast<uint32_t>(Get(b, 36, 4));
  const auto seed_len = static_cast<uint32_t>(Get(b, 40, 4));
  const bool good = (r.type == kEvent || (r.type == kTime && r.step >= 1 && r.step <= 3600)) &&
                    r.hash <= 2 && r.digits >= 6 && r.digits <= 8 && seed_len >= 16 &&
                    seed_len <= qlproto::kOathMaxSeed;
  if (!good) return Status::Error(Code::kBadArgument, "not an OATH token record");
  r.seed.assign(b.begin() + 44, b.begin() + 44 + seed_len);
  return r;
}

secure::Bytes Serialize(const Record &r, bool with_seed) {
  secure::Bytes b(kRecordSize, 0);
  Put(b, 0, 4, r.type);
  Put(b, 4, 4, r.hash);
  Put(b, 8, 4, r.digits);
  Put(b, 12, 4, r.step);
  Put(b, 16, 8, r.counter);
  Put(b, 24, 8, r.t0);
  Put(b, 32, 4, static_cast<uint32_t>(r.drift));
  Put(b, 36, 4, r.failures);
  Put(b, 40, 4, r.seed.size());
  if (with_seed) std::copy(r.seed.begin(), r.seed.end(), b.begin() + 44);
  return b;
}

std::string_view AuditName(const KeyArg &arg) {
  return arg.name.empty() ? std::string_view("-") : std::string_view(arg.name);
}

}  // namespace

namespace {

// The master key (AES, ready for use) and the record its blob holds.
struct Opened {
  KeysService::UsableKey master;
  Record record;
};

Result<Opened> OpenBlob(KeysService &keys, const KeysService::KeyTarget &target,
                        const secure::Bytes &blob) {
  Result<KeysService::UsableKey> k = keys.Usable(target);
  if (!k.ok()) return k.status();
  const std::string_view family = k->key->info().ossl_name ? k->key->info().ossl_name : "";
  if (k->key->kind() != crypto::KeyKind::kSymmetric || family.substr(0, 3) != "AES")
    return Status::Error(Code::kBadKeyUsage, "the master key is an AES key");
  crypto::Result<crypto::SecretBytes> plain =
      crypto::KeyUnwrap(k->key, true, crypto::ByteView(blob.data(), blob.size()));
  // Any blob that does not unwrap is as foreign as one under another key.
  if (!plain.ok()) return Status::Error(Code::kBadTag, "the blob does not unwrap under this key");
  Result<Record> record = Parse(*plain);
  if (!record.ok()) return record.status();
  return Opened{*k, std::move(record.value())};
}

}  // namespace

Result<secure::Bytes> OathService::CheckBlob(Session &s, const KeyArg &master,
                                             const secure::Bytes &blob, std::string_view otp,
                                             uint32_t flags) {
  KeysService::KeyTarget target;
  Op op{"oath-check-blob", AuditName(master), KeysService::UseRight(s, master),
        AuditMode::kRefusal};
  return guard_.Run(
      s, op,
      [&] {
        if (flags != 0) return Status::Error(Code::kBadFlags, "no flags are defined");
        if (blob.empty()) return Status::Error(Code::kBadArgument, "empty blob");
        if (otp.size() < 6 || otp.size() > 8 ||
            !std::all_of(otp.begin(), otp.end(), [](char c) { return c >= '0' && c <= '9'; }))
          return Status::Error(Code::kBadArgument, "a one-time password is 6 to 8 digits");
        return keys_.Target(s, master, &target);
      },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<Opened> opened = OpenBlob(keys_, target, blob);
        if (!opened.ok()) return opened.status();
        Record &r = opened->record;
        const auto hash = static_cast<oath::OathHash>(r.hash);
        const crypto::ByteView seed(r.seed.data(), r.seed.size());
        std::optional<uint64_t> match;
        if (r.type == kEvent) {
          match = oath::FindCounter(seed, r.counter, kEventWindow, r.digits, hash, otp);
        } else {
          // RFC 6238 section 5.2: the current step and one back, shifted by the drift; never
          // a step at or before the last one accepted.
          std::optional<uint64_t> now =
              oath::TimeStep(core_.clock.Now(), static_cast<int64_t>(r.t0), r.step);
          if (now) {
            const int64_t last = static_cast<int64_t>(*now) + r.drift;
            const int64_t first = std::max<int64_t>({last - 1, 0, static_cast<int64_t>(r.counter)});
            if (last >= first)
              match =
                  oath::FindCounter(seed, static_cast<uint64_t>(first),
                                    static_cast<uint32_t>(last - first + 1), r.digits, hash, otp);
          }
        }
        if (!match)
          return Status::Error(Code::kCheckFailed, "the one-time password does not match");
        r.counter = *match + 1;
        r.failures = 0;
        const secure::Bytes plain = Serialize(r, true);
        crypto::Result<crypto::Bytes> wrapped =
            crypto::KeyWrap(opened->master.key, true, crypto::ByteView(plain.data(), plain.size()));
        if (!wrapped.ok()) return FromCrypto(wrapped.status());
        return secure::Bytes(wrapped->begin(), wrapped->end());
      });
}

Result<secure::Bytes> OathService::BlobInfo(Session &s, const KeyArg &master,
                                            const secure::Bytes &blob, uint32_t info) {
  KeysService::KeyTarget target;
  Op op{"oath-blob-info", AuditName(master), KeysService::UseRight(s, master), AuditMode::kRefusal};
  return guard_.Run(
      s, op,
      [&] {
        if (info != qlproto::kOathInfoRecord && info != qlproto::kOathInfoSeed)
          return Status::Error(Code::kBadArgument, "ask for the record or the seed");
        if (blob.empty()) return Status::Error(Code::kBadArgument, "empty blob");
        return keys_.Target(s, master, &target);
      },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<Opened> opened = OpenBlob(keys_, target, blob);
        if (!opened.ok()) return opened.status();
        if (info == qlproto::kOathInfoRecord) return Serialize(opened->record, false);
        if (!(opened->master.flags & qlproto::kKeyExportable))
          return Status::Error(Code::kNotExportable,
                               "the seed leaves only under an exportable key");
        return opened->record.seed;
      });
}

}  // namespace qlhsm
