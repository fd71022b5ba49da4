// Objects and files, and their JSON metadata; names are "object" (the caller's) or
// "owner/object".
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "engine/guard.h"

namespace qlhsm {

struct FileChunk {
  secure::Bytes data;
  uint64_t total_size = 0;
};

class ObjectsService {
 public:
  ObjectsService(Core &core, Guard &guard) : core_(core), guard_(guard) {}

  // `records` are written with the object, in its transaction.
  Status CreateObject(sessions::Session &s, std::string_view name, int type, int algorithm,
                      uint32_t flags, const secure::Bytes &material,
                      std::vector<objects::ObjectStore::Record> records = {});
  Result<objects::ObjectInfo> OpenObject(sessions::Session &s, std::string_view name);
  // The plaintext material of an object about to be used (export, sign, ...): right, existence,
  // then kObjectBlocked for a blocked object.
  Result<secure::Bytes> UseObject(sessions::Session &s, std::string_view name,
                                  objects::ObjectInfo *info = nullptr);
  Result<std::vector<std::string>> ListObjects(sessions::Session &s);
  Status RemoveObject(sessions::Session &s, std::string_view name);
  Status RenameObject(sessions::Session &s, std::string_view name, std::string_view new_name);
  Status SetObjectBlocked(sessions::Session &s, std::string_view name, bool blocked);
  // Writing: one JSON object in UTF-8 of at most 64 KiB (kBadLength, kBadJson), the update
  // right. Reading: the metadata type of objects only (kBadArgument), the right to use the
  // object; "{}" when never written. A blocked object's metadata stays readable.
  Status SetObjectMetadata(sessions::Session &s, std::string_view name, std::string_view json);
  Result<std::string> GetObjectMetadata(sessions::Session &s, std::string_view name,
                                        uint32_t type = qlproto::kJsonMetadataObject);
  // Creates a file object (or a certificate, chain or CRL of `type`); with `replace`, an
  // existing object of that name and kind is overwritten, which needs the update right besides
  // the create right for a new one.
  Status WriteFile(sessions::Session &s, std::string_view name, const secure::Bytes &data,
                   bool replace = false, int type = static_cast<int>(objects::ObjectType::kFile));
  // The number of objects the caller owns.
  Result<int64_t> CountOwnObjects(sessions::Session &s);
  Result<FileChunk> ReadFile(sessions::Session &s, std::string_view name, uint64_t offset,
                             uint32_t max_len);

 private:
  // Existence, then state: the object's record, kObjectBlocked when blocked.
  Result<objects::ObjectInfo> Usable(const objects::ObjectRef &ref);

  Core &core_;
  Guard &guard_;
};

}  // namespace qlhsm
