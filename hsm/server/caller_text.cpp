#include "server/caller_text.h"

#include <cstdint>
#include <initializer_list>

namespace qlhsm::server {

namespace pb = qlhsm::v1;

bool IsUtf8Text(std::string_view text) {
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
      cp = cp << 6 | (p[i + k] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += len;
  }
  return true;
}

namespace {

Status AllUtf8(std::initializer_list<const std::string *> fields) {
  for (const std::string *f : fields) {
    if (!IsUtf8Text(*f)) {
      return Status::Error(Code::kBadUtf8, "a user name or password that is not UTF-8");
    }
  }
  return Status::Ok();
}

}  // namespace

Status CheckCallerText(const pb::Request &req) {
  switch (req.body_case()) {
    case pb::Request::kLogin:
      return AllUtf8({&req.login().user(), &req.login().password()});
    case pb::Request::kCreateUser:
      return AllUtf8({&req.create_user().name(), &req.create_user().password()});
    case pb::Request::kRemoveUser:
      return AllUtf8({&req.remove_user().name()});
    case pb::Request::kSetUserParam:
      return AllUtf8({&req.set_user_param().user(), &req.set_user_param().password()});
    case pb::Request::kGetUserParam:
      return AllUtf8({&req.get_user_param().user()});
    case pb::Request::kGetUserAcl:
      return AllUtf8({&req.get_user_acl().user()});
    case pb::Request::kManageAtoken:
      return AllUtf8({&req.manage_atoken().user()});
    default:
      return Status::Ok();
  }
}

}  // namespace qlhsm::server
