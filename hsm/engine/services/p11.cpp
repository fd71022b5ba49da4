#include "engine/services/p11.h"

#include <openssl/crypto.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>

#include "crypto/algorithms.h"
#include "crypto/key.h"
#include "engine/services/system.h"
#include "engine/stats/system_stats.h"
#include "engine/users/user_directory.h"
#include "meta_records.h"
#include "wire_values.h"

namespace qlhsm {

using access::Request;
using objects::ObjectStore;
using sessions::Session;

namespace {

constexpr int kMapType = static_cast<int>(objects::ObjectType::kMap);
constexpr int kCertificateType = static_cast<int>(objects::ObjectType::kCertificate);

// Records of ids past the QL_META_* range belong to the engine (the key's certificate, ...):
// never read out, replaced or removed through this service.
bool UserRecord(uint32_t id) {
  return qlproto::FindMetaType(id) != nullptr;
}

std::vector<uint32_t> AllUserIds() {
  std::vector<uint32_t> ids;
  for (const qlproto::MetaType &t : qlproto::kMetaTypes) ids.push_back(t.id);
  return ids;
}

// A map's material: the three full names, each followed by a NUL.
secure::Bytes SerializeMap(const MapNames &m) {
  secure::Bytes b;
  for (const std::string *name : {&m.private_key, &m.public_key, &m.certificate}) {
    b.insert(b.end(), name->begin(), name->end());
    b.push_back(0);
  }
  return b;
}

Result<MapNames> ParseMap(const secure::Bytes &b) {
  MapNames m;
  std::string *slots[] = {&m.private_key, &m.public_key, &m.certificate};
  size_t at = 0;
  for (std::string *slot : slots) {
    size_t end = at;
    while (end < b.size() && b[end] != 0) ++end;
    if (end == b.size()) return Status::Error(Code::kInternal, "map object damaged");
    slot->assign(b.begin() + static_cast<ptrdiff_t>(at), b.begin() + static_cast<ptrdiff_t>(end));
    at = end + 1;
  }
  return m;
}

// PKCS#11 v2.40 values this service reports.
constexpr uint32_t kCryptokiVersion = (2 << 8) | 40;
constexpr uint64_t kCkfRng = 0x1;
constexpr uint64_t kCkfLoginRequired = 0x4;
constexpr uint64_t kCkfUserPinInitialized = 0x8;
constexpr uint64_t kCkfClockOnToken = 0x40;
constexpr uint64_t kCkfTokenInitialized = 0x400;
constexpr uint64_t kCkfEncrypt = 0x100;
constexpr uint64_t kCkfDecrypt = 0x200;
constexpr uint64_t kCkfDigest = 0x400;
constexpr uint64_t kCkfSign = 0x800;
constexpr uint64_t kCkfVerify = 0x2000;
constexpr uint64_t kCkfGenerate = 0x8000;
constexpr uint64_t kCkfGenerateKeyPair = 0x10000;
constexpr uint64_t kCkfWrap = 0x20000;
constexpr uint64_t kCkfUnwrap = 0x40000;
constexpr uint64_t kCkfDerive = 0x80000;
constexpr uint64_t kCkfEcFp = 0x100000;
constexpr uint64_t kCkfEcNamedCurve = 0x800000;
constexpr uint64_t kCkfEcUncompress = 0x1000000;
constexpr uint64_t kMiB = 1024 * 1024;

// "4.10.0.0" -> 4 << 8 | 10.
uint32_t MajorMinor(const char *version) {
  unsigned major = 0, minor = 0;
  if (std::sscanf(version, "%u.%u", &major, &minor) != 2) return 0;
  return ((major & 0xFF) << 8) | (minor & 0xFF);
}

struct Range {
  uint64_t min = 0;
  uint64_t max = 0;
};

// The smallest and largest key of the engine's algorithms that `match` accepts, in bits.
template <typename Match>
Range KeyBits(Match match) {
  Range r{UINT64_MAX, 0};
  for (crypto::AlgId id = 1; id < 256; ++id) {
    const crypto::AlgInfo *a = crypto::FindKeyAlgorithm(id);
    if (a == nullptr || !match(*a)) continue;
    r.min = std::min<uint64_t>(r.min, a->bits);
    r.max = std::max<uint64_t>(r.max, a->bits);
  }
  if (r.max == 0) r.min = 0;
  return r;
}

Range Bytes(Range bits) {
  return {bits.min / 8, bits.max / 8};
}

std::vector<P11Mechanism> Mechanisms() {
  using crypto::KeyKind;
  const Range rsa = KeyBits([](const crypto::AlgInfo &a) { return a.kind == KeyKind::kRsa; });
  const Range ec = KeyBits([](const crypto::AlgInfo &a) { return a.kind == KeyKind::kEc; });
  const Range ed = KeyBits([](const crypto::AlgInfo &a) { return a.kind == KeyKind::kEdwards; });
  const Range x = KeyBits([](const crypto::AlgInfo &a) { return a.kind == KeyKind::kMontgomery; });
  const Range aes = Bytes(KeyBits([](const crypto::AlgInfo &a) {
    return a.kind == KeyKind::kSymmetric && std::string_view(a.ossl_name).starts_with("AES");
  }));
  const Range des3 = Bytes(KeyBits([](const crypto::AlgInfo &a) {
    return a.kind == KeyKind::kSymmetric && std::string_view(a.ossl_name).starts_with("DES-EDE");
  }));
  const Range secret =
      Bytes(KeyBits([](const crypto::AlgInfo &a) { return a.kind == KeyKind::kHmac; }));
  // Imported HMAC secrets may be 1 to 1024 bytes.
  const Range hmac{1, 1024};
  const uint64_t ec_flags = kCkfEcFp | kCkfEcNamedCurve | kCkfEcUncompress;
  const uint64_t rsa_ops = kCkfEncrypt | kCkfDecrypt | kCkfSign | kCkfVerify;
  const uint64_t sym_ops = kCkfEncrypt | kCkfDecrypt;
  return {
      {"CKM_RSA_PKCS_KEY_PAIR_GEN", rsa.min, rsa.max, kCkfGenerateKeyPair},
      {"CKM_RSA_PKCS", rsa.min, rsa.max, rsa_ops},
      {"CKM_RSA_X_509", rsa.min, rsa.max, rsa_ops},
      {"CKM_RSA_PKCS_OAEP", rsa.min, rsa.max, kCkfEncrypt | kCkfDecrypt},
      {"CKM_SHA1_RSA_PKCS", rsa.min, rsa.max, kCkfSign | kCkfVerify},
      {"CKM_SHA224_RSA_PKCS", rsa.min, rsa.max, kCkfSign | kCkfVerify},
      {"CKM_SHA256_RSA_PKCS", rsa.min, rsa.max, kCkfSign | kCkfVerify},
      {"CKM_SHA384_RSA_PKCS", rsa.min, rsa.max, kCkfSign | kCkfVerify},
      {"CKM_SHA512_RSA_PKCS", rsa.min, rsa.max, kCkfSign | kCkfVerify},
      {"CKM_EC_KEY_PAIR_GEN", ec.min, ec.max, kCkfGenerateKeyPair | ec_flags},
      {"CKM_ECDSA", ec.min, ec.max, kCkfSign | kCkfVerify | ec_flags},
      {"CKM_ECDH1_DERIVE", ec.min, ec.max, kCkfDerive | ec_flags},
      {"CKM_EC_EDWARDS_KEY_PAIR_GEN", ed.min, ed.max, kCkfGenerateKeyPair},
      {"CKM_EDDSA", ed.min, ed.max, kCkfSign | kCkfVerify},
      {"CKM_EC_MONTGOMERY_KEY_PAIR_GEN", x.min, x.max, kCkfGenerateKeyPair},
      {"CKM_AES_KEY_GEN", aes.min, aes.max, kCkfGenerate},
      {"CKM_AES_ECB", aes.min, aes.max, sym_ops},
      {"CKM_AES_CBC", aes.min, aes.max, sym_ops},
      {"CKM_AES_CBC_PAD", aes.min, aes.max, sym_ops},
      {"CKM_AES_OFB", aes.min, aes.max, sym_ops},
      {"CKM_AES_CTR", aes.min, aes.max, sym_ops},
      {"CKM_AES_GCM", aes.min, aes.max, sym_ops},
      {"CKM_AES_KEY_WRAP", aes.min, aes.max, sym_ops | kCkfWrap | kCkfUnwrap},
      {"CKM_AES_KEY_WRAP_PAD", aes.min, aes.max, sym_ops | kCkfWrap | kCkfUnwrap},
      {"CKM_AES_CMAC", aes.min, aes.max, kCkfSign | kCkfVerify},
      {"CKM_DES3_KEY_GEN", des3.min, des3.max, kCkfGenerate},
      {"CKM_DES3_ECB", des3.min, des3.max, sym_ops},
      {"CKM_DES3_CBC", des3.min, des3.max, sym_ops},
      {"CKM_DES3_CBC_PAD", des3.min, des3.max, sym_ops},
      {"CKM_GENERIC_SECRET_KEY_GEN", secret.min, secret.max, kCkfGenerate},
      {"CKM_SHA_1_HMAC", hmac.min, hmac.max, kCkfSign | kCkfVerify},
      {"CKM_SHA224_HMAC", hmac.min, hmac.max, kCkfSign | kCkfVerify},
      {"CKM_SHA256_HMAC", hmac.min, hmac.max, kCkfSign | kCkfVerify},
      {"CKM_SHA384_HMAC", hmac.min, hmac.max, kCkfSign | kCkfVerify},
      {"CKM_SHA512_HMAC", hmac.min, hmac.max, kCkfSign | kCkfVerify},
      {"CKM_MD5", 0, 0, kCkfDigest},
      {"CKM_SHA_1", 0, 0, kCkfDigest},
      {"CKM_SHA224", 0, 0, kCkfDigest},
      {"CKM_SHA256", 0, 0, kCkfDigest},
      {"CKM_SHA384", 0, 0, kCkfDigest},
      {"CKM_SHA512", 0, 0, kCkfDigest},
      {"CKM_SHA3_224", 0, 0, kCkfDigest},
      {"CKM_SHA3_256", 0, 0, kCkfDigest},
      {"CKM_SHA3_384", 0, 0, kCkfDigest},
      {"CKM_SHA3_512", 0, 0, kCkfDigest},
  };
}

}  // namespace

Result<std::vector<ObjectStore::Record>> P11Service::ManageRecords(
    Session &s, std::string_view name, uint32_t operation,
    const std::vector<ObjectStore::Record> &records) {
  objects::ObjectRef ref;
  const auto op = static_cast<RecordOp>(operation);
  const bool read = op == RecordOp::kRead;
  Op guard_op{read ? "read-records" : "write-records", name,
              read ? Request::kUseObject : Request::kUpdateObject,
              read ? AuditMode::kRead : AuditMode::kChange};
  return guard_.Run(
      s, guard_op,
      [&] {
        if (operation < 1 || operation > 4)
          return Status::Error(Code::kBadArgument,
                               "operations: 1 read, 2 write, 3 update, 4 remove");
        for (const ObjectStore::Record &r : records) {
          if (op == RecordOp::kRemove
                  ? !UserRecord(r.id)
                  : !qlproto::ValidMetaValue(r.id, r.value.data(), r.value.size()))
            return Status::Error(Code::kBadArgument, "bad metadata record");
        }
        return core_.Ref(s, name, &ref);
      },
      [&](const users::UserInfo &) -> Result<std::vector<ObjectStore::Record>> {
        Result<objects::ObjectInfo> info = core_.objects->Get(ref);
        if (!info.ok()) return info.status();
        std::vector<ObjectStore::Record> out;
        switch (op) {
          case RecordOp::kRead: {
            Result<std::vector<ObjectStore::Record>> all = core_.objects->GetRecords(ref);
            if (!all.ok()) return all.status();
            for (ObjectStore::Record &r : all.value())
              if (UserRecord(r.id)) out.push_back(std::move(r));
            return out;
          }
          case RecordOp::kReplace:
            QL_RETURN_IF_ERROR(core_.objects->EditRecords(ref, AllUserIds(), records));
            return out;
          case RecordOp::kMerge:
            QL_RETURN_IF_ERROR(core_.objects->EditRecords(ref, {}, records));
            return out;
          case RecordOp::kRemove: {
            std::vector<uint32_t> ids;
            for (const ObjectStore::Record &r : records) ids.push_back(r.id);
            QL_RETURN_IF_ERROR(
                core_.objects->EditRecords(ref, records.empty() ? AllUserIds() : ids, {}));
            return out;
          }
        }
        return out;
      });
}

// slot 0: a private key; 1: an asymmetric key (its public half); 2: a certificate.
Status P11Service::CheckMember(const objects::ObjectRef &ref, int slot) {
  Result<objects::ObjectInfo> info = core_.objects->Get(ref);
  if (!info.ok()) return info.status();
  if (slot == 2) {
    if (info->type != kCertificateType)
      return Status::Error(Code::kBadKeyUsage, "not a certificate");
    return Status::Ok();
  }
  if (!objects::IsKeyObject(info->type)) return Status::Error(Code::kBadKeyUsage, "not a key");
  Result<KeyCache::Entry> key = core_.keys.Load(*core_.objects, ref);
  if (!key.ok()) return key.status();
  if (!key->key->is_asymmetric() || (slot == 0 && !key->key->has_private()))
    return Status::Error(Code::kBadKeyUsage, slot == 0 ? "not a private key" : "not a key pair");
  return Status::Ok();
}

Status P11Service::GenerateMap(Session &s, std::string_view name, const MapNames &members,
                               uint32_t flags) {
  objects::ObjectRef ref;
  std::vector<std::pair<int, objects::ObjectRef>> refs;
  Op op{"generate-map", name, Request::kCreateObject, AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        if (flags != 0) return Status::Error(Code::kBadFlags, "no map flags are defined");
        QL_RETURN_IF_ERROR(core_.Ref(s, name, &ref));
        const std::string *names[] = {&members.private_key, &members.public_key,
                                      &members.certificate};
        for (int slot = 0; slot < 3; ++slot) {
          if (names[slot]->empty()) continue;
          objects::ObjectRef member;
          QL_RETURN_IF_ERROR(core_.Ref(s, *names[slot], &member));
          refs.emplace_back(slot, std::move(member));
        }
        if (refs.empty()) return Status::Error(Code::kBadArgument, "a map names something");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Status {
        QL_RETURN_IF_ERROR(core_.RoomForObjects(1));
        MapNames stored;
        std::string *slots[] = {&stored.private_key, &stored.public_key, &stored.certificate};
        for (const auto &[slot, member] : refs) {
          QL_RETURN_IF_ERROR(CheckMember(member, slot));
          *slots[slot] = member.Full();
        }
        objects::ObjectInfo info;
        info.ref = ref;
        info.type = kMapType;
        return core_.objects->Create(info, SerializeMap(stored));
      });
}

Status P11Service::RemoveMap(Session &s, std::string_view name) {
  objects::ObjectRef ref;
  Op op{"remove-map", name, Request::kRemoveObject, AuditMode::kChange};
  return guard_.Run(
      s, op, [&] { return core_.Ref(s, name, &ref); },
      [&](const users::UserInfo &) -> Status {
        Result<objects::ObjectInfo> info = core_.objects->Get(ref);
        if (!info.ok()) return info.status();
        if (info->type != kMapType) return Status::Error(Code::kBadKeyUsage, "not a map");
        return core_.objects->Remove(ref);
      });
}

Result<MapNames> P11Service::GetMap(Session &s, std::string_view name) {
  objects::ObjectRef ref;
  return guard_.Run(
      s, Op{"read-map", name, Request::kUseObject}, [&] { return core_.Ref(s, name, &ref); },
      [&](const users::UserInfo &) -> Result<MapNames> {
        Result<objects::ObjectInfo> info = core_.objects->Get(ref);
        if (!info.ok()) return info.status();
        if (info->type != kMapType) return Status::Error(Code::kBadKeyUsage, "not a map");
        Result<secure::Bytes> material = core_.objects->ReadMaterial(ref);
        if (!material.ok()) return material.status();
        Result<MapNames> names = ParseMap(material.value());
        if (!names.ok()) return names.status();
        // Names as the caller writes them: its own objects without the owner.
        const std::string own = s.user() + "/";
        for (std::string *n : {&names->private_key, &names->public_key, &names->certificate})
          if (n->starts_with(own)) n->erase(0, own.size());
        return names;
      });
}

Result<P11Info> P11Service::GetInfo(Session &s) {
  return guard_.Run(
      s, Op{"p11-info", "-", Request::kPublic, AuditMode::kRefusal}, NoArgs,
      [&](const users::UserInfo &) -> Result<P11Info> {
        P11Info p;
        p.cryptoki_version = kCryptokiVersion;
        p.manufacturer = "qlhsmd";
        p.library_description = "qlhsmd software HSM";
        p.library_version = MajorMinor(kHsmVersion);
        char host[256] = {};
        if (gethostname(host, sizeof host - 1) != 0) host[0] = '\0';
        p.label = host;
        p.model = "software HSM";
        Result<std::string> serial = core_.store->GetSetting("serial_number");
        std::string sn = serial.ok() ? serial.value() : std::string();
        if (sn.starts_with("QL-")) sn.erase(0, 3);
        p.serial_number = sn.substr(0, 16);
        p.token_flags = kCkfRng | kCkfLoginRequired | kCkfUserPinInitialized | kCkfClockOnToken |
                        kCkfTokenInitialized;
        p.max_sessions = p.max_rw_sessions = core_.registry.max_open();
        p.sessions = p.rw_sessions = core_.registry.OpenCount();
        p.min_pin_length = 1;
        p.max_pin_length = users::kMaxPassword;
        if (std::optional<stats::MemoryFigures> mem = stats::ReadMemory()) {
          p.total_public_memory = p.total_private_memory = uint64_t{mem->total_mib} * kMiB;
          const uint64_t used = std::min(mem->used_mib, mem->total_mib);
          p.free_public_memory = p.free_private_memory = (mem->total_mib - used) * kMiB;
        }
        p.hardware_version =
            ((OPENSSL_version_major() & 0xFF) << 8) | (OPENSSL_version_minor() & 0xFF);
        p.firmware_version = MajorMinor(kHsmVersion);
        const time_t now = static_cast<time_t>(core_.clock.Now());
        std::tm tm{};
        gmtime_r(&now, &tm);
        char text[32];
        std::strftime(text, sizeof text, "%Y%m%d%H%M%S00", &tm);
        p.utc_time = text;
        return p;
      });
}

Result<std::vector<P11Mechanism>> P11Service::ListMechanisms(Session &s) {
  return guard_.Run(
      s, Op{"p11-mechanisms", "-", Request::kPublic, AuditMode::kRefusal}, NoArgs,
      [&](const users::UserInfo &) -> Result<std::vector<P11Mechanism>> { return Mechanisms(); });
}

}  // namespace qlhsm
