// Objects and files, and their JSON metadata (kept in the object's row of the store, "{}" until
// written). Reading metadata is a use of the object; writing it is an update, as blocking is.
#include "engine/services/objects.h"

#include <algorithm>

#include "engine/utf8.h"

namespace qlhsm {

using access::Request;
using sessions::Session;

Result<objects::ObjectInfo> ObjectsService::Usable(const objects::ObjectRef &ref) {
  Result<objects::ObjectInfo> info = core_.objects->Get(ref);
  if (info.ok() && info->blocked) return Status::Error(Code::kObjectBlocked, "object blocked");
  return info;
}

Status ObjectsService::CreateObject(Session &s, std::string_view name, int type, int algorithm,
                                    uint32_t flags, const secure::Bytes &material,
                                    std::vector<objects::ObjectStore::Record> records) {
  objects::ObjectRef ref;
  Op op{"create-object", name, Request::kCreateObject, AuditMode::kChange};
  return guard_.Run(
      s, op, [&] { return core_.Ref(s, name, &ref); },
      [&](const users::UserInfo &) -> Status {
        QL_RETURN_IF_ERROR(core_.RoomForObjects(1));
        objects::ObjectInfo info;
        info.ref = ref;
        info.type = type;
        info.algorithm = algorithm;
        info.flags = flags;
        if (records.empty()) return core_.objects->Create(info, material);
        return core_.objects->CreateMany({{info, material}}, {{ref, std::move(records)}});
      });
}

Result<objects::ObjectInfo> ObjectsService::OpenObject(Session &s, std::string_view name) {
  objects::ObjectRef ref;
  return guard_.Run(
      s, Op{"open-object", name, Request::kOpenObject}, [&] { return core_.Ref(s, name, &ref); },
      [&](const users::UserInfo &) { return core_.objects->Get(ref); });
}

Result<secure::Bytes> ObjectsService::UseObject(Session &s, std::string_view name,
                                                objects::ObjectInfo *info_out) {
  objects::ObjectRef ref;
  return guard_.Run(
      s, Op{"use-object", name, Request::kUseObject}, [&] { return core_.Ref(s, name, &ref); },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<objects::ObjectInfo> info = Usable(ref);
        if (!info.ok()) return info.status();
        if (info_out) *info_out = *info;
        return core_.objects->ReadMaterial(ref);
      });
}

Result<std::vector<std::string>> ObjectsService::ListObjects(Session &s) {
  return guard_.Run(s, Op{"list-objects"}, NoArgs,
                    [&](const users::UserInfo &) -> Result<std::vector<std::string>> {
                      if (!s.logged_in()) return std::vector<std::string>{};
                      return core_.objects->List(s.user());
                    });
}

Status ObjectsService::RemoveObject(Session &s, std::string_view name) {
  objects::ObjectRef ref;
  Op op{"remove-object", name, Request::kRemoveObject, AuditMode::kChange};
  return guard_.Run(
      s, op, [&] { return core_.Ref(s, name, &ref); },
      [&](const users::UserInfo &) -> Status {
        QL_RETURN_IF_ERROR(core_.objects->Remove(ref));
        core_.keys.Forget(ref.Full());
        return Status::Ok();
      });
}

Status ObjectsService::RenameObject(Session &s, std::string_view name, std::string_view new_name) {
  objects::ObjectRef ref;
  Op op{"rename-object", name, Request::kRenameObject, AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(core_.Ref(s, name, &ref));
        if (!objects::ValidObjectName(new_name))
          return Status::Error(Code::kBadName, "bad object name");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Status {
        QL_RETURN_IF_ERROR(core_.objects->Rename(ref, new_name));
        core_.keys.Forget(ref.Full());
        return Status::Ok();
      });
}

Status ObjectsService::SetObjectBlocked(Session &s, std::string_view name, bool blocked) {
  objects::ObjectRef ref;
  Op op{blocked ? "block-object" : "unblock-object", name, Request::kUpdateObject,
        AuditMode::kChange};
  return guard_.Run(
      s, op, [&] { return core_.Ref(s, name, &ref); },
      [&](const users::UserInfo &) -> Status {
        QL_RETURN_IF_ERROR(core_.objects->SetBlocked(ref, blocked));
        core_.keys.Forget(ref.Full());
        return Status::Ok();
      });
}

Status ObjectsService::SetObjectMetadata(Session &s, std::string_view name, std::string_view json) {
  objects::ObjectRef ref;
  Op op{"set-metadata", name, Request::kUpdateObject, AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        // The name, then the text (its length first, so a huge text is not parsed).
        QL_RETURN_IF_ERROR(core_.Ref(s, name, &ref));
        if (json.size() > qlproto::kMaxJsonMetadata)
          return Status::Error(Code::kBadLength, "metadata longer than 64 KiB");
        if (!IsUtf8(json, false))
          return Status::Error(Code::kBadJson, "metadata that is not UTF-8");
        Result<bool> object = core_.store->IsJsonObject(json);
        if (!object.ok()) return object.status();
        if (!object.value())
          return Status::Error(Code::kBadJson, "metadata that is not a JSON object");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Status {
        QL_RETURN_IF_ERROR(core_.objects->SetMetadata(ref, json));
        // The key cache holds the object's record, metadata included.
        core_.keys.Forget(ref.Full());
        return Status::Ok();
      });
}

Result<std::string> ObjectsService::GetObjectMetadata(Session &s, std::string_view name,
                                                      uint32_t type) {
  objects::ObjectRef ref;
  return guard_.Run(
      s, Op{"get-metadata", name, Request::kUseObject},
      [&] {
        QL_RETURN_IF_ERROR(core_.Ref(s, name, &ref));
        if (type != qlproto::kJsonMetadataObject)
          return Status::Error(Code::kBadArgument, "unknown metadata type");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Result<std::string> {
        // A blocked object's metadata stays readable: blocking stops the use of the key, and
        // the metadata is what tells an operator which key it is.
        Result<objects::ObjectInfo> info = core_.objects->Get(ref);
        if (!info.ok()) return info.status();
        return std::move(info->metadata);
      });
}

Status ObjectsService::WriteFile(Session &s, std::string_view name, const secure::Bytes &data,
                                 bool replace, int type) {
  if (!replace) return CreateObject(s, name, type, 0, 0, data);
  objects::ObjectRef ref;
  Op op{"write-file", name, Request::kUpdateObject, AuditMode::kChange};
  return guard_.Run(
      s, op, [&] { return core_.Ref(s, name, &ref); },
      [&](const users::UserInfo &) -> Status {
        Result<objects::ObjectInfo> info = core_.objects->Get(ref);
        if (!info.ok() && info.status().code() == Code::kObjectNotFound)
          return CreateObject(s, name, type, 0, 0, data);
        if (!info.ok()) return info.status();
        // The material is sealed to the object's kind: another kind keeps its name.
        if (info->type != type)
          return Status::Error(Code::kObjectExists, "an object of another kind has that name");
        QL_RETURN_IF_ERROR(core_.objects->WriteMaterial(ref, data));
        core_.keys.Forget(ref.Full());
        return Status::Ok();
      });
}

Result<int64_t> ObjectsService::CountOwnObjects(Session &s) {
  return guard_.Run(s, Op{"count-objects", "-", Request::kFree, AuditMode::kRefusal}, NoArgs,
                    [&](const users::UserInfo &) -> Result<int64_t> {
                      if (!s.logged_in()) return int64_t{0};
                      Result<std::vector<std::string>> names = core_.objects->List(s.user());
                      if (!names.ok()) return names.status();
                      return static_cast<int64_t>(names->size());
                    });
}

Result<FileChunk> ObjectsService::ReadFile(Session &s, std::string_view name, uint64_t offset,
                                           uint32_t max_len) {
  objects::ObjectRef ref;
  return guard_.Run(
      s, Op{"read-file", name, Request::kUseObject},
      [&] {
        if (max_len == 0) return Status::Error(Code::kBadArgument, "zero chunk length");
        return core_.Ref(s, name, &ref);
      },
      [&](const users::UserInfo &) -> Result<FileChunk> {
        Result<objects::ObjectInfo> info = Usable(ref);
        if (!info.ok()) return info.status();
        // Certificates, chains and CRLs read as their DER.
        if (!objects::IsDataObject(info->type))
          return Status::Error(Code::kBadArgument, "not a file");
        Result<secure::Bytes> data = core_.objects->ReadMaterial(ref);
        if (!data.ok()) return data.status();
        FileChunk chunk;
        chunk.total_size = data->size();
        if (offset < data->size()) {
          size_t n = std::min<uint64_t>(max_len, data->size() - offset);
          chunk.data.assign(data->begin() + static_cast<ptrdiff_t>(offset),
                            data->begin() + static_cast<ptrdiff_t>(offset + n));
        }
        return chunk;
      });
}

}  // namespace qlhsm
