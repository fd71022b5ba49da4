#include "engine/services/skeep.h"

#include <openssl/crypto.h>

#include <string>

#include "crypto/algorithms.h"
#include "crypto/cipher.h"
#include "crypto/hash.h"
#include "crypto/key.h"
#include "crypto/mofn.h"
#include "engine/crypto_result.h"
#include "wire_values.h"

namespace qlhsm {

using access::Request;
using cryptomap::FromCrypto;
using sessions::Session;

namespace {

constexpr int kSkeepType = static_cast<int>(qlproto::kObjSkeep);
constexpr uint8_t kShareVersion = 2;
constexpr size_t kIdCheckLen = 8;
constexpr uint32_t kPlainAuth = 1;
constexpr uint32_t kBoundAuth = 2;
constexpr uint32_t kMaxParts = 255;
// The share-wrapping key's HKDF info: no other key is derived from the master key with it.
constexpr std::string_view kWrapInfo = "qlhsm secret keeping: share wrapping key v1";

// The stored material: level | auth type | state bits (split, restored) | the secret.
constexpr size_t kHeader = 3;

struct Kept {
  uint32_t level = 0;
  uint32_t auth = 0;
  uint32_t state = 0;
  crypto::SecretBytes secret;
};

// Wipes a material buffer that held a secret.
struct WipeOnExit {
  secure::Bytes &b;
  ~WipeOnExit() { OPENSSL_cleanse(b.data(), b.size()); }
};

size_t SecretLength(uint32_t level) {
  return 8 + 8 * static_cast<size_t>(level);  // 16, 24, 32
}

Status CheckKind(uint32_t level, uint32_t auth) {
  if (level < 1 || level > 3) return Status::Error(Code::kBadArgument, "level: 1 to 3");
  if (auth != kPlainAuth && auth != kBoundAuth)
    return Status::Error(Code::kBadArgument, "auth type: 1 or 2");
  return Status::Ok();
}

secure::Bytes Serialize(const Kept &k) {
  secure::Bytes b{static_cast<uint8_t>(k.level), static_cast<uint8_t>(k.auth),
                  static_cast<uint8_t>(k.state)};
  b.insert(b.end(), k.secret.begin(), k.secret.end());
  return b;
}

Result<Kept> Parse(secure::Bytes material) {
  WipeOnExit wipe{material};
  Kept k;
  if (material.size() < kHeader) return Status::Error(Code::kInternal, "kept secret damaged");
  k.level = material[0];
  k.auth = material[1];
  k.state = material[2];
  k.secret.assign(material.begin() + kHeader, material.end());
  if (!CheckKind(k.level, k.auth).ok() || k.secret.size() != SecretLength(k.level))
    return Status::Error(Code::kInternal, "kept secret damaged");
  return k;
}

// SHA-256(id)[0..8): ties a share to the secret's id.
Result<crypto::Bytes> IdCheck(std::string_view id) {
  crypto::Result<crypto::Bytes> d =
      crypto::Digest(crypto::hash::kSha256,
                     crypto::ByteView(reinterpret_cast<const uint8_t *>(id.data()), id.size()));
  if (!d.ok()) return FromCrypto(d.status());
  d->resize(kIdCheckLen);
  return std::move(d.value());
}

// The AES-256 key that binds auth type 2 shares to this HSM.
Result<crypto::KeyPtr> WrapKey(const secure::Bytes &master_key) {
  crypto::Result<crypto::SecretBytes> raw = crypto::HkdfSha256(
      crypto::ByteView(master_key.data(), master_key.size()), {},
      crypto::ByteView(reinterpret_cast<const uint8_t *>(kWrapInfo.data()), kWrapInfo.size()), 32);
  if (!raw.ok()) return FromCrypto(raw.status());
  crypto::Result<crypto::KeyPtr> key =
      crypto::Key::FromSecret(crypto::alg::kAes256, crypto::ByteView(raw->data(), raw->size()));
  if (!key.ok()) return FromCrypto(key.status());
  return key.value();
}

// Whether `b` is a plain share: a part of version 2 with a good CRC, then the id check.
bool IsPlainShare(crypto::ByteView b) {
  if (b.size() < crypto::mofn::kPartOverhead + kIdCheckLen + 1 || b[0] != kShareVersion)
    return false;
  const size_t len = (size_t{b[8]} << 8) | b[9];
  if (b.size() != len + crypto::mofn::kPartOverhead + kIdCheckLen) return false;
  const size_t crc_at = len + crypto::mofn::kPartOverhead - 4;
  const uint32_t crc = (uint32_t{b[crc_at]} << 24) | (uint32_t{b[crc_at + 1]} << 16) |
                       (uint32_t{b[crc_at + 2]} << 8) | b[crc_at + 3];
  return crypto::mofn::Crc32(b.first(crc_at)) == crc;
}

struct Shares {
  uint32_t auth = 0;
  crypto::SecretBytes secret;
};

// The secret the shares give, and their auth type. A share that is neither plain nor unwraps
// under this HSM's key is damaged (a bound share on another HSM is one).
Result<Shares> Combine(const secure::Bytes &master_key, std::string_view id,
                       const std::vector<secure::Bytes> &shares) {
  Result<crypto::Bytes> check = IdCheck(id);
  if (!check.ok()) return check.status();
  crypto::KeyPtr wrap;
  std::vector<crypto::Bytes> parts;
  uint32_t auth = 0;
  for (const secure::Bytes &share : shares) {
    crypto::SecretBytes plain(share.begin(), share.end());
    uint32_t this_auth = kPlainAuth;
    if (!IsPlainShare(plain)) {
      if (!wrap) {
        Result<crypto::KeyPtr> k = WrapKey(master_key);
        if (!k.ok()) return k.status();
        wrap = *k;
      }
      crypto::Result<crypto::SecretBytes> un =
          crypto::KeyUnwrap(wrap, true, crypto::ByteView(share.data(), share.size()));
      if (!un.ok() || !IsPlainShare(*un))
        return Status::Error(Code::kShareCorrupt, "a share is damaged or from another HSM");
      plain = std::move(un.value());
      this_auth = kBoundAuth;
    }
    if (auth != 0 && auth != this_auth)
      return Status::Error(Code::kSharesMismatch, "plain and bound shares mixed");
    auth = this_auth;
    if (CRYPTO_memcmp(plain.data() + plain.size() - kIdCheckLen, check->data(), kIdCheckLen) != 0)
      return Status::Error(Code::kSkeepMismatch, "the shares belong to another id");
    parts.emplace_back(plain.begin(), plain.end() - kIdCheckLen);
  }
  crypto::Result<crypto::mofn::Recovered> got = crypto::mofn::Recover(parts, kShareVersion);
  for (crypto::Bytes &p : parts) OPENSSL_cleanse(p.data(), p.size());
  if (!got.ok()) return FromCrypto(got.status());
  switch (got->problem) {
    case crypto::mofn::ShareProblem::kNone:
      return Shares{auth, std::move(got->secret)};
    case crypto::mofn::ShareProblem::kCorrupt:
      return Status::Error(Code::kShareCorrupt, "a share is damaged");
    case crypto::mofn::ShareProblem::kMismatch:
      return Status::Error(Code::kSharesMismatch, "the shares do not belong together");
    case crypto::mofn::ShareProblem::kTooFew:
      return Status::Error(Code::kSharesTooFew, "fewer shares than the threshold");
  }
  return Status::Error(Code::kInternal, "unknown share problem");
}

Status SharesArgs(const std::vector<secure::Bytes> &shares) {
  if (shares.empty()) return Status::Error(Code::kSharesTooFew, "no shares");
  if (shares.size() > kMaxParts)
    return Status::Error(Code::kSharesMismatch, "more shares than a set can hold");
  return Status::Ok();
}

bool SameSecret(const crypto::SecretBytes &a, const crypto::SecretBytes &b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

Status SkeepService::New(Session &s, std::string_view id, uint32_t level, uint32_t auth) {
  objects::ObjectRef ref;
  return guard_.Run(
      s, Op{"skeep-new", id, Request::kCreateObject, AuditMode::kChange},
      [&] {
        QL_RETURN_IF_ERROR(core_.Ref(s, id, &ref));
        return CheckKind(level, auth);
      },
      [&](const users::UserInfo &) -> Status {
        QL_RETURN_IF_ERROR(core_.RoomForObjects(1));
        crypto::Result<crypto::SecretBytes> secret = crypto::RandomBytes(SecretLength(level));
        if (!secret.ok()) return FromCrypto(secret.status());
        Kept k{level, auth, 0, std::move(secret.value())};
        secure::Bytes material = Serialize(k);
        WipeOnExit wipe{material};
        objects::ObjectInfo info;
        info.ref = ref;
        info.type = kSkeepType;
        return core_.objects->Create(info, material);
      });
}

namespace {

// The kept secret of `ref`: kObjectNotFound, kObjectBlocked, or a kept-secret object.
Result<Kept> Load(Core &core, const objects::ObjectRef &ref) {
  Result<objects::ObjectInfo> info = core.objects->Get(ref);
  if (!info.ok()) return info.status();
  if (info->type != kSkeepType) return Status::Error(Code::kBadKeyUsage, "not a kept secret");
  if (info->blocked) return Status::Error(Code::kObjectBlocked, "object blocked");
  Result<secure::Bytes> material = core.objects->ReadMaterial(ref);
  if (!material.ok()) return material.status();
  return Parse(std::move(material.value()));
}

Status CheckSame(const Kept &k, uint32_t level, uint32_t auth) {
  if (k.level != level || k.auth != auth)
    return Status::Error(Code::kSkeepMismatch, "level or auth type differ");
  return Status::Ok();
}

}  // namespace

Status SkeepService::Remove(Session &s, std::string_view id, uint32_t level, uint32_t auth) {
  objects::ObjectRef ref;
  return guard_.Run(
      s, Op{"skeep-remove", id, Request::kRemoveObject, AuditMode::kChange},
      [&] {
        QL_RETURN_IF_ERROR(core_.Ref(s, id, &ref));
        return CheckKind(level, auth);
      },
      [&](const users::UserInfo &) -> Status {
        Result<Kept> k = Load(core_, ref);
        if (!k.ok()) return k.status();
        QL_RETURN_IF_ERROR(CheckSame(*k, level, auth));
        return core_.objects->Remove(ref);
      });
}

Result<std::vector<secure::Bytes>> SkeepService::Split(Session &s, std::string_view id,
                                                       uint32_t level, uint32_t auth, uint32_t m,
                                                       uint32_t n) {
  objects::ObjectRef ref;
  return guard_.Run(
      s, Op{"skeep-split", id, Request::kUseObject, AuditMode::kChange},
      [&] {
        QL_RETURN_IF_ERROR(core_.Ref(s, id, &ref));
        QL_RETURN_IF_ERROR(CheckKind(level, auth));
        if (m < 2 || m > n || n > kMaxParts)
          return Status::Error(Code::kBadLength, "2 <= M <= N <= 255");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Result<std::vector<secure::Bytes>> {
        Result<Kept> k = Load(core_, ref);
        if (!k.ok()) return k.status();
        QL_RETURN_IF_ERROR(CheckSame(*k, level, auth));
        Result<crypto::Bytes> check = IdCheck(ref.name);
        if (!check.ok()) return check.status();
        crypto::Result<std::vector<crypto::Bytes>> parts = crypto::mofn::Split(
            crypto::ByteView(k->secret.data(), k->secret.size()), m, n, kShareVersion);
        if (!parts.ok()) return FromCrypto(parts.status());
        crypto::KeyPtr wrap;
        if (auth == kBoundAuth) {
          Result<crypto::KeyPtr> key = WrapKey(core_.master_key);
          if (!key.ok()) return key.status();
          wrap = *key;
        }
        std::vector<secure::Bytes> shares;
        for (crypto::Bytes &p : *parts) {
          p.insert(p.end(), check->begin(), check->end());
          if (wrap) {
            crypto::Result<crypto::Bytes> w =
                crypto::KeyWrap(wrap, true, crypto::ByteView(p.data(), p.size()));
            OPENSSL_cleanse(p.data(), p.size());
            if (!w.ok()) return FromCrypto(w.status());
            shares.emplace_back(w->begin(), w->end());
          } else {
            shares.emplace_back(p.begin(), p.end());
            OPENSSL_cleanse(p.data(), p.size());
          }
        }
        // The shares go out only once the split is on record.
        if ((k->state & kSkeepSplit) == 0) {
          k->state |= kSkeepSplit;
          secure::Bytes material = Serialize(*k);
          WipeOnExit wipe{material};
          QL_RETURN_IF_ERROR(core_.objects->WriteMaterial(ref, material));
        }
        return shares;
      });
}

Result<uint32_t> SkeepService::Probe(Session &s, std::string_view id) {
  objects::ObjectRef ref;
  return guard_.Run(
      s, Op{"skeep-probe", id, Request::kUseObject}, [&] { return core_.Ref(s, id, &ref); },
      [&](const users::UserInfo &) -> Result<uint32_t> {
        Result<Kept> k = Load(core_, ref);
        if (!k.ok()) {
          if (k.status().code() == Code::kObjectNotFound) return 0u;
          return k.status();
        }
        return kSkeepExists | (k->state & (kSkeepSplit | kSkeepRestored));
      });
}

Status SkeepService::Match(Session &s, std::string_view id,
                           const std::vector<secure::Bytes> &shares) {
  objects::ObjectRef ref;
  return guard_.Run(
      s, Op{"skeep-match", id, Request::kUseObject},
      [&] {
        QL_RETURN_IF_ERROR(core_.Ref(s, id, &ref));
        return SharesArgs(shares);
      },
      [&](const users::UserInfo &) -> Status {
        Result<Kept> k = Load(core_, ref);
        if (!k.ok()) return k.status();
        Result<Shares> got = Combine(core_.master_key, ref.name, shares);
        if (!got.ok()) return got.status();
        if (got->auth != k->auth || !SameSecret(got->secret, k->secret))
          return Status::Error(Code::kSkeepMismatch, "the shares give another secret");
        return Status::Ok();
      });
}

Result<uint32_t> SkeepService::Recover(Session &s, std::string_view id,
                                       const std::vector<secure::Bytes> &shares) {
  objects::ObjectRef ref;
  return guard_.Run(
      s, Op{"skeep-recover", id, Request::kUseObject, AuditMode::kChange},
      [&] {
        QL_RETURN_IF_ERROR(core_.Ref(s, id, &ref));
        return SharesArgs(shares);
      },
      [&](const users::UserInfo &) -> Result<uint32_t> {
        Result<Shares> got = Combine(core_.master_key, ref.name, shares);
        if (!got.ok()) return got.status();
        Result<Kept> k = Load(core_, ref);
        if (k.ok()) {
          if (got->auth != k->auth || !SameSecret(got->secret, k->secret))
            return Status::Error(Code::kSkeepMismatch, "a different secret is kept");
          return kSkeepPresentEqual;
        }
        if (k.status().code() != Code::kObjectNotFound) return k.status();
        uint32_t level = 0;
        for (uint32_t l = 1; l <= 3; ++l)
          if (SecretLength(l) == got->secret.size()) level = l;
        if (level == 0) return Status::Error(Code::kShareCorrupt, "not a kept secret's shares");
        QL_RETURN_IF_ERROR(core_.RoomForObjects(1));
        Kept restored{level, got->auth, kSkeepSplit | kSkeepRestored, std::move(got->secret)};
        secure::Bytes material = Serialize(restored);
        WipeOnExit wipe{material};
        objects::ObjectInfo info;
        info.ref = ref;
        info.type = kSkeepType;
        QL_RETURN_IF_ERROR(core_.objects->Create(info, material));
        return kSkeepStored;
      });
}

}  // namespace qlhsm
