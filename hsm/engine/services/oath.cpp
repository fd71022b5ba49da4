#include "engine/services/oath.h"

#include <algorithm>

#include "crypto/cipher.h"
#include "crypto/oath.h"
#include "engine/crypto_result.h"
#include "engine/utf8.h"
#include "wire_values.h"

namespace qlhsm {

using cryptomap::FromCrypto;
using sessions::Session;

namespace {

// The record inside a blob, little-endian at fixed offsets (QL_OATH_TOKEN_INFO of qlapi.h):
//   0 type, 4 hash, 8 digits, 12 time step (uint32); 16 counter, 24 T0 (uint64);
//   32 drift (int32), 36 failures, 40 seed length (uint32); 44 the seed, zero-filled to 64.
constexpr size_t kRecordSize = 44 + qlproto::kOathMaxSeed;
constexpr uint32_t kEvent = users::kOtpEvent;
constexpr uint32_t kTime = users::kOtpTime;

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

// A one-time password: 6 to 8 decimal digits.
bool IsOtp(std::string_view otp) {
  return otp.size() >= 6 && otp.size() <= 8 &&
         std::all_of(otp.begin(), otp.end(), [](char c) { return c >= '0' && c <= '9'; });
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

// The master key, AES and ready for use, or its refusal.
Result<KeysService::UsableKey> MasterKey(KeysService &keys, const KeysService::KeyTarget &target) {
  Result<KeysService::UsableKey> k = keys.Usable(target);
  if (!k.ok()) return k.status();
  const std::string_view family = k->key->info().ossl_name ? k->key->info().ossl_name : "";
  if (k->key->kind() != crypto::KeyKind::kSymmetric || family.substr(0, 3) != "AES")
    return Status::Error(Code::kBadKeyUsage, "the master key is an AES key");
  return k;
}

Result<Opened> OpenBlob(KeysService &keys, const KeysService::KeyTarget &target,
                        const secure::Bytes &blob) {
  Result<KeysService::UsableKey> k = MasterKey(keys, target);
  if (!k.ok()) return k.status();
  crypto::Result<crypto::SecretBytes> plain =
      crypto::KeyUnwrap(k->key, true, crypto::ByteView(blob.data(), blob.size()));
  // Any blob that does not unwrap is as foreign as one under another key.
  if (!plain.ok()) return Status::Error(Code::kBadTag, "the blob does not unwrap under this key");
  Result<Record> record = Parse(*plain);
  if (!record.ok()) return record.status();
  return Opened{*k, std::move(record.value())};
}

}  // namespace

// --- tokens of users ---

namespace {

constexpr uint32_t kDefaultStep = 30;
constexpr uint32_t kMaxStep = 3600;
constexpr uint32_t kMinSeed = 16;

// The token QAssignToken describes, or the refusal of its arguments.
Status TokenParams(uint32_t type, size_t seed_len, uint32_t step, uint64_t t0, uint32_t flags,
                   users::OtpParams *out) {
  const uint32_t kind = type & 0xff;
  const uint32_t hash = (type >> 8) & 0xf;
  if ((type & ~0xfffu) != 0 || (kind != kEvent && kind != kTime) || hash > 2)
    return Status::Error(Code::kBadArgument, "type: event or time, and SHA-1, -256 or -512");
  if ((flags & ~0xfu) != 0) return Status::Error(Code::kBadFlags, "flags: only the digits");
  const uint32_t digits = flags == 0 ? 6 : flags;
  if (digits < 6 || digits > 8) return Status::Error(Code::kBadArgument, "6 to 8 digits");
  if (seed_len < kMinSeed || seed_len > qlproto::kOathMaxSeed)
    return Status::Error(Code::kBadLength, "a seed is 16 to 64 bytes");
  if (step > kMaxStep) return Status::Error(Code::kBadArgument, "a time step is 1 to 3,600 s");
  out->type = kind;
  out->hash = hash;
  out->digits = digits;
  out->step = kind == kTime ? (step == 0 ? kDefaultStep : step) : 0;
  out->t0 = kind == kTime ? t0 : 0;
  return Status::Ok();
}

Status CheckUser(std::string_view user) {
  if (!IsUtf8(user)) return Status::Error(Code::kBadUtf8, "a user name that is not UTF-8");
  return users::CheckUserName(user);
}

}  // namespace

Status OathService::AssignToken(Session &s, std::string_view user, uint32_t type,
                                const secure::Bytes &seed, uint32_t step, uint64_t t0,
                                uint32_t flags) {
  users::OtpParams params;
  Op op{"assign-token", user, access::Request::kSetOtherUser, AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(CheckUser(user));
        return TokenParams(type, seed.size(), step, t0, flags, &params);
      },
      [&](const users::UserInfo &) -> Status {
        QL_RETURN_IF_ERROR(core_.users->Find(user).status());
        std::lock_guard<std::mutex> lock(core_.second_factor_mu);
        if (core_.user_certs->Has(user))
          return Status::Error(Code::kSecondFactorExists, "the user has a login certificate");
        return core_.otp->Assign(user, params, seed);
      });
}

Status OathService::UnassignToken(Session &s, std::string_view user) {
  Op op{"unassign-token", user, access::Request::kSetOtherUser, AuditMode::kChange};
  return guard_.Run(
      s, op, [&] { return CheckUser(user); },
      [&](const users::UserInfo &) -> Status {
        QL_RETURN_IF_ERROR(core_.users->Find(user).status());
        return core_.otp->Unassign(user);
      });
}

Status OathService::Resync(Session &s, std::string_view user, std::string_view otp1,
                           std::string_view otp2) {
  Op op{"oath-resync", user, access::Request::kSetOtherUser, AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(CheckUser(user));
        if (!IsOtp(otp1) || !IsOtp(otp2))
          return Status::Error(Code::kBadArgument, "a one-time password is 6 to 8 digits");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Status {
        QL_RETURN_IF_ERROR(core_.users->Find(user).status());
        uint32_t failures = 0;
        QL_RETURN_IF_ERROR(core_.otp->Resync(user, otp1, otp2, core_.clock.Now(), &failures));
        // The failures blocked the user: the resync lifts that block (an operator's own block
        // came without them and stays).
        Result<users::UserInfo> u = core_.users->Find(user);
        if (u.ok() && u->blocked && failures >= users::kOtpMaxFailures)
          return core_.users->SetBlocked(user, false);
        return Status::Ok();
      });
}

// --- token blobs ---

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
        if (!IsOtp(otp))
          return Status::Error(Code::kBadArgument, "a one-time password is 6 to 8 digits");
        return keys_.Target(s, master, &target);
      },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<Opened> opened = OpenBlob(keys_, target, blob);
        if (!opened.ok()) return opened.status();
        Record &r = opened->record;
        users::OtpParams p{r.type, r.hash, r.digits, r.step, r.counter, r.t0, r.drift, 0};
        const std::optional<uint64_t> match = users::MatchOtp(p, r.seed, core_.clock.Now(), otp);
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

// --- token objects ---

namespace {

Status TokenObjectFlags(uint32_t flags) {
  if (flags & ~qlproto::kKeyExportable)
    return Status::Error(Code::kBadFlags, "a token object takes the exportable flag only");
  return Status::Ok();
}

}  // namespace

Result<KeyDesc> OathService::StoreToken(Session &s, const objects::ObjectRef &ref,
                                        const secure::Bytes &record, uint32_t flags,
                                        bool want_handle) {
  QL_RETURN_IF_ERROR(core_.RoomForObjects(1));
  objects::ObjectInfo info;
  info.ref = ref;
  info.type = info.algorithm = static_cast<int>(qlproto::kObjHotp);
  info.flags = flags;
  QL_RETURN_IF_ERROR(core_.objects->Create(info, record));
  KeyDesc d;
  d.algorithm = qlproto::kObjHotp;
  d.flags = flags;
  d.key_length = static_cast<uint32_t>(record.size());
  if (want_handle) d.handle = s.AddOpened(ref.Full());
  return d;
}

Result<KeyDesc> OathService::GenerateTokenObject(Session &s, std::string_view name, uint32_t flags,
                                                 bool want_handle) {
  objects::ObjectRef ref;
  Op op{"generate-token-object", name, access::Request::kCreateObject, AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(TokenObjectFlags(flags));
        return core_.Ref(s, name, &ref);
      },
      [&](const users::UserInfo &) -> Result<KeyDesc> {
        crypto::Result<crypto::SecretBytes> seed = crypto::RandomBytes(20);
        if (!seed.ok()) return FromCrypto(seed.status());
        Record r;
        r.type = kEvent;
        r.digits = 6;
        r.seed.assign(seed->begin(), seed->end());
        return StoreToken(s, ref, Serialize(r, true), flags, want_handle);
      });
}

Result<KeyDesc> OathService::ImportTokenObject(Session &s, std::string_view name,
                                               const KeyArg &master, const secure::Bytes &blob,
                                               uint32_t flags, bool want_handle) {
  objects::ObjectRef ref;
  KeysService::KeyTarget target;
  Op op{"import-token-object", name, access::Request::kCreateObject, AuditMode::kChange,
        KeysService::UseRight(s, master)};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(TokenObjectFlags(flags));
        if (blob.empty()) return Status::Error(Code::kBadArgument, "empty blob");
        if (master.empty()) return Status::Error(Code::kBadArgument, "a blob opens under a key");
        QL_RETURN_IF_ERROR(core_.Ref(s, name, &ref));
        return keys_.Target(s, master, &target);
      },
      [&](const users::UserInfo &) -> Result<KeyDesc> {
        Result<Opened> opened = OpenBlob(keys_, target, blob);
        if (!opened.ok()) return opened.status();
        return StoreToken(s, ref, Serialize(opened->record, true), flags, want_handle);
      });
}

Result<secure::Bytes> OathService::ExportTokenObject(Session &s, const KeyArg &token,
                                                     const KeyArg &master) {
  KeysService::KeyTarget token_target, master_target;
  Op op{"export-token-object", AuditName(token), access::Request::kUseObject, AuditMode::kRefusal,
        KeysService::UseRight(s, master)};
  return guard_.Run(
      s, op,
      [&] {
        if (master.empty()) return Status::Error(Code::kBadArgument, "a blob is made under a key");
        QL_RETURN_IF_ERROR(keys_.Target(s, token, &token_target));
        if (token_target.temp) return Status::Error(Code::kBadKeyUsage, "not a token object");
        return keys_.Target(s, master, &master_target);
      },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<objects::ObjectInfo> info = core_.objects->Get(token_target.ref);
        if (!info.ok()) return info.status();
        if (info->type != static_cast<int>(qlproto::kObjHotp))
          return Status::Error(Code::kBadKeyUsage, "not a token object");
        if (info->blocked) return Status::Error(Code::kObjectBlocked, "object blocked");
        Result<KeysService::UsableKey> k = MasterKey(keys_, master_target);
        if (!k.ok()) return k.status();
        Result<secure::Bytes> record = core_.objects->ReadMaterial(token_target.ref);
        if (!record.ok()) return record.status();
        crypto::Result<crypto::Bytes> wrapped =
            crypto::KeyWrap(k->key, true, crypto::ByteView(record->data(), record->size()));
        if (!wrapped.ok()) return FromCrypto(wrapped.status());
        return secure::Bytes(wrapped->begin(), wrapped->end());
      });
}

}  // namespace qlhsm
