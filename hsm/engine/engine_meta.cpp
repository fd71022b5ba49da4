// Object metadata as JSON: one JSON object per object, kept in the object's row of the store
// (the "metadata" column, "{}" until written). Reading is a use of the object; writing is an
// update, as blocking is.
#include "engine/engine.h"

namespace qlhsm {

using access::Request;
using sessions::Session;

namespace {

constexpr size_t kMaxMetadataJson = qlproto::kMaxJsonMetadata;

// Well-formed UTF-8 (RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF) without
// NUL, which SQLite's JSON parser would take for the end of the text.
bool IsCleanUtf8(std::string_view text) {
  const auto *p = reinterpret_cast<const unsigned char *>(text.data());
  const size_t n = text.size();
  for (size_t i = 0; i < n;) {
    const unsigned char c = p[i];
    if (c == 0) return false;
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t len = 0;
    uint32_t cp = 0, min = 0;
    if ((c & 0xE0) == 0xC0) {
      len = 2, cp = c & 0x1F, min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
      len = 3, cp = c & 0x0F, min = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
      len = 4, cp = c & 0x07, min = 0x10000;
    } else {
      return false;
    }
    if (n - i < len) return false;
    for (size_t k = 1; k < len; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i + k] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += len;
  }
  return true;
}

}  // namespace

Status Engine::SetObjectMetadata(Session &s, std::string_view name, std::string_view json) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  // Arguments: the name, then the text (its length first, so a huge text is not parsed).
  Result<objects::ObjectRef> ref = Ref(s, name);
  if (!ref.ok()) return ref.status();
  if (json.size() > kMaxMetadataJson)
    return Status::Error(Code::kBadLength, "metadata longer than 64 KiB");
  if (!IsCleanUtf8(json)) return Status::Error(Code::kBadJson, "metadata that is not UTF-8");
  Result<bool> object = store_->IsJsonObject(json);
  if (!object.ok()) return object.status();
  if (!object.value()) return Status::Error(Code::kBadJson, "metadata that is not a JSON object");
  Status st = access::Allowed(Request::kUpdateObject, me->mask)
                  ? objects_->SetMetadata(*ref, json)
                  : Status::Error(Code::kAccessDenied, "access denied");
  // The key cache holds the object's record, metadata included.
  if (st.ok()) ForgetKey(ref->Full());
  return Done(s, "set-metadata", name, st, true);
}

Result<std::string> Engine::GetObjectMetadata(Session &s, std::string_view name, uint32_t type) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Result<objects::ObjectRef> ref = Ref(s, name);
  if (!ref.ok()) return ref.status();
  if (type != qlproto::kJsonMetadataObject)
    return Status::Error(Code::kBadArgument, "unknown metadata type");
  if (!access::Allowed(Request::kUseObject, me->mask))
    return Done<std::string>(s, "get-metadata", name,
                             Status::Error(Code::kAccessDenied, "access denied"), false);
  // A blocked object's metadata stays readable: blocking stops the use of the key, and the
  // metadata is what tells an operator which key it is.
  Result<objects::ObjectInfo> info = objects_->Get(*ref);
  if (!info.ok()) return Done<std::string>(s, "get-metadata", name, info.status(), false);
  return Done<std::string>(s, "get-metadata", name, std::move(info->metadata), false);
}

}  // namespace qlhsm
