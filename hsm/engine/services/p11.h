// What PKCS#11 modules see of the HSM: an object's numbered metadata records (QL_META_*), map
// objects naming a key pair and its certificate, and the token's information and mechanisms.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "engine/guard.h"

namespace qlhsm {

// Operations on an object's records.
enum class RecordOp : uint32_t {
  kRead = 1,
  kReplace = 2,  // the given records replace all
  kMerge = 3,    // the given records replace those of the same id, the others stay
  kRemove = 4,   // the given ids; none given: all
};

struct MapNames {
  std::string private_key;  // full names ("owner/name"), or empty
  std::string public_key;
  std::string certificate;
};

// CK_INFO and CK_TOKEN_INFO (PKCS#11 v2.40), versions as major << 8 | minor.
struct P11Info {
  uint32_t cryptoki_version = 0;
  std::string manufacturer;
  uint64_t info_flags = 0;
  std::string library_description;
  uint32_t library_version = 0;
  std::string label;
  std::string model;
  std::string serial_number;
  uint64_t token_flags = 0;
  uint64_t max_sessions = 0;
  uint64_t sessions = 0;
  uint64_t max_rw_sessions = 0;
  uint64_t rw_sessions = 0;
  uint64_t max_pin_length = 0;
  uint64_t min_pin_length = 0;
  uint64_t total_public_memory = 0;
  uint64_t free_public_memory = 0;
  uint64_t total_private_memory = 0;
  uint64_t free_private_memory = 0;
  uint32_t hardware_version = 0;
  uint32_t firmware_version = 0;
  std::string utc_time;  // YYYYMMDDhhmmss00
};

struct P11Mechanism {
  std::string name;  // CKM_*
  uint64_t min_size = 0;
  uint64_t max_size = 0;
  uint64_t flags = 0;  // CKF_*
};

class P11Service {
 public:
  P11Service(Core &core, Guard &guard) : core_(core), guard_(guard) {}

  // Reads (a use right) or changes (the update right) the records of an object. Records of
  // unknown ids or with malformed values: kBadArgument, nothing written. Read answers the
  // records by id.
  Result<std::vector<objects::ObjectStore::Record>> ManageRecords(
      sessions::Session &s, std::string_view name, uint32_t operation,
      const std::vector<objects::ObjectStore::Record> &records);

  // A map object (the create right): each name given must exist (kObjectNotFound) and be of its
  // kind (kBadKeyUsage): a private key, an asymmetric key, a certificate; at least one name.
  Status GenerateMap(sessions::Session &s, std::string_view name, const MapNames &members,
                     uint32_t flags);
  // Removes a map object, and nothing else (kBadKeyUsage): the remove right.
  Status RemoveMap(sessions::Session &s, std::string_view name);
  // The names a map holds: a use right; kBadKeyUsage for another kind of object.
  Result<MapNames> GetMap(sessions::Session &s, std::string_view name);

  // No right needed: anonymous sessions may ask.
  Result<P11Info> GetInfo(sessions::Session &s);
  Result<std::vector<P11Mechanism>> ListMechanisms(sessions::Session &s);

 private:
  Status CheckMember(const objects::ObjectRef &ref, int slot);

  Core &core_;
  Guard &guard_;
};

}  // namespace qlhsm
