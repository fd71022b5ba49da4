// Objects (keys, files, certificates, ...) owned by users. Their material is sealed with
// AES-256-GCM under the master key before it reaches the store, and opened only in memory.
//
// Thread safe: every method may be called from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "engine/clock.h"
#include "engine/secure/secure.h"
#include "engine/store/store.h"
#include "wire_values.h"

namespace qlhsm::objects {

inline constexpr size_t kMaxObjectName = 64;

enum class ObjectType : int {
  kFile = qlproto::kObjFile,
  kCertificate = qlproto::kObjX509,
  kChain = qlproto::kObjPkcs7,
  kCrl = qlproto::kObjCrl,
  kHotp = qlproto::kObjHotp,    // an OATH token record
  kSkeep = qlproto::kObjSkeep,  // a kept secret, never read out
  kMap = qlproto::kObjMap,      // names of a key pair and its certificate
  // A key's type is its algorithm (QL_ALG_*).
};

struct ObjectRef {
  std::string owner;
  std::string name;
  std::string Full() const { return owner + "/" + name; }
};

struct ObjectInfo {
  ObjectRef ref;
  int type = 0;
  int algorithm = 0;
  uint32_t flags = 0;
  bool blocked = false;
  std::string metadata;  // JSON text
  int64_t created = 0;   // seconds since 1970
  uint32_t size = 0;     // bytes of material
};

bool ValidObjectName(std::string_view name);

// Files, certificates, chains and CRLs: the objects that are no keys.
inline bool IsDataObject(int type) {
  return type == static_cast<int>(ObjectType::kFile) ||
         type == static_cast<int>(ObjectType::kCertificate) ||
         type == static_cast<int>(ObjectType::kChain) || type == static_cast<int>(ObjectType::kCrl);
}

// Keys: every object but data objects, token records, kept secrets and maps.
inline bool IsKeyObject(int type) {
  return !IsDataObject(type) && type != static_cast<int>(ObjectType::kHotp) &&
         type != static_cast<int>(ObjectType::kSkeep) && type != static_cast<int>(ObjectType::kMap);
}

// Splits "owner/object" or plain "object" (owned by `caller`). kBadName for anything else.
Result<ObjectRef> ParseObjectName(std::string_view text, std::string_view caller);

class ObjectStore {
 public:
  // Creation times follow `clock` (the HSM's time), which must outlive the store; null: the
  // machine's clock.
  ObjectStore(store::Store &store, secure::Bytes master_key, const Clock *clock = nullptr)
      : store_(store),
        master_key_(std::move(master_key)),
        clock_(clock ? clock : &MachineClock()) {}

  // Numbered records of an object (identifiers, labels, ...), kept in the clear beside it and
  // gone with it; a record written again replaces the old value.
  struct Record {
    uint32_t id = 0;
    secure::Bytes value;
  };
  // Records for one object, new or existing.
  struct RecordSet {
    ObjectRef ref;
    std::vector<Record> records;
  };
  // kObjectExists when the owner already has an object of that name.
  Status Create(const ObjectInfo &info, const secure::Bytes &material);
  // Several objects, and records of them or of objects already stored, in one transaction: all
  // of it or, on any refusal, none.
  Status CreateMany(const std::vector<std::pair<ObjectInfo, secure::Bytes>> &objects,
                    const std::vector<RecordSet> &records = {});
  Status SetRecords(const ObjectRef &ref, const std::vector<Record> &records);
  // Records of several objects in one transaction (kObjectNotFound, and nothing written, when
  // one of them is missing).
  Status SetRecords(const std::vector<RecordSet> &sets);
  Result<std::vector<Record>> GetRecords(const ObjectRef &ref);
  // Removes the records `remove` names (those missing are skipped), then writes `write`, in one
  // transaction.
  Status EditRecords(const ObjectRef &ref, const std::vector<uint32_t> &remove,
                     const std::vector<Record> &write);
  // kObjectNotFound when missing.
  Result<ObjectInfo> Get(const ObjectRef &ref);
  // The object's plaintext material.
  Result<secure::Bytes> ReadMaterial(const ObjectRef &ref);
  // Replaces the material of an existing object.
  Status WriteMaterial(const ObjectRef &ref, const secure::Bytes &material);
  Status Remove(const ObjectRef &ref);
  // kObjectNotFound when `from` is missing, kObjectExists when `to_name` is taken.
  Status Rename(const ObjectRef &from, std::string_view to_name);
  Status SetBlocked(const ObjectRef &ref, bool blocked);
  Status SetMetadata(const ObjectRef &ref, std::string_view json);
  // Names owned by `owner`, sorted.
  Result<std::vector<std::string>> List(std::string_view owner);
  // Every user's objects whose name starts with `prefix`, in (owner, name) order.
  Result<std::vector<ObjectRef>> ListAllWithPrefix(std::string_view prefix);
  Result<int64_t> Count();

 private:
  struct SealedRow {
    secure::Bytes sealed;
    int64_t type = 0;
  };
  // The row's sealed material and kind; the caller holds the store's lock.
  Status Insert(store::Connection &conn, const ObjectInfo &info, const secure::Bytes &sealed) const;
  static Status WriteRecords(store::Connection &conn, const RecordSet &set);
  static Result<SealedRow> ReadSealed(store::Connection &conn, const ObjectRef &ref);
  Status UpdateOne(const ObjectRef &ref, const char *sql, int64_t value);
  store::Store &store_;
  secure::Bytes master_key_;
  const Clock *clock_;
};

}  // namespace qlhsm::objects
