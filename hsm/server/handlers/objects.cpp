// Objects and files: list, remove, rename, information, file contents, JSON metadata.
#include <algorithm>

#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

namespace {

// Largest chunk of a file sent in one response; the library asks for at most this much.
constexpr uint32_t kMaxFileChunk = 64 * 1024;

}  // namespace

void ListObjects(const pb::Request &, Call &c, pb::Response *r) {
  Reply(c.engine.objects().ListObjects(c.session), r,
        [&](const auto &names) { SetNames(names, r); });
}

void RemoveObject(const pb::Request &req, Call &c, pb::Response *r) {
  SetStatus(c.engine.objects().RemoveObject(c.session, req.remove_obj().name()), r);
}

void RenameObject(const pb::Request &req, Call &c, pb::Response *r) {
  SetStatus(c.engine.objects().RenameObject(c.session, req.rename_obj().name(),
                                            req.rename_obj().new_name()),
            r);
}

void GetObjectInfo(const pb::Request &req, Call &c, pb::Response *r) {
  Reply(c.engine.objects().OpenObject(c.session, req.get_obj_info().name()), r,
        [&](const objects::ObjectInfo &info) {
          auto *o = r->mutable_obj_info();
          o->set_name(info.ref.name);
          o->set_owner(info.ref.owner);
          o->set_type(static_cast<uint32_t>(info.type));
          o->set_flags(info.flags);
          o->set_blocked(info.blocked);
          o->set_created(static_cast<uint64_t>(info.created));
          o->set_modified(static_cast<uint64_t>(info.created));
          o->set_size(info.size);
        });
}

void ReadFile(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::ReadFile &f = req.read_file();
  uint32_t max = std::min({f.max_length(), kMaxFileChunk, FramePayload(c)});
  Reply(c.engine.objects().ReadFile(c.session, f.name(), f.offset(), max), r,
        [&](const FileChunk &chunk) {
          r->mutable_file_chunk()->set_data(ToString(chunk.data));
          r->mutable_file_chunk()->set_total_size(chunk.total_size);
        });
}

void WriteFile(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::WriteFile &f = req.write_file();
  const bool replace = (f.flags() & qlproto::kWriteFileReplace) != 0;
  if (f.flags() & qlproto::kWriteFileTyped) {
    SetStatus(c.engine.pki().WriteTyped(c.session, f.name(), ToBytes(f.data()), replace), r);
    return;
  }
  SetStatus(c.engine.objects().WriteFile(c.session, f.name(), ToBytes(f.data()),
                                         (f.flags() & qlproto::kWriteFileReplace) != 0),
            r);
}

void GetObjectMetadata(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::GetObjMetadataJson &g = req.get_obj_metadata_json();
  Reply(c.engine.objects().GetObjectMetadata(c.session, g.name(), g.type()), r,
        [&](const std::string &json) { r->mutable_blob()->set_data(json); });
}

void SetObjectMetadata(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SetObjMetadataJson &m = req.set_obj_metadata_json();
  ReplyEmpty(c.engine.objects().SetObjectMetadata(c.session, m.name(), m.json()), r);
}

}  // namespace qlhsm::server::handlers
