// User names and passwords travel as bytes (the wire has no text fields), so that whatever a
// caller types reaches the HSM and gets a clear answer. This is where the daemon refuses the ones
// that are not UTF-8, before any engine call sees them.
#pragma once

#include <string_view>

#include "engine/status.h"
#include "qlhsm.pb.h"

namespace qlhsm::server {

// Well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF, no NUL).
bool IsUtf8Text(std::string_view text);

// kBadUtf8 when a user name or password in `req` (login, user management, access tokens) is not
// UTF-8; Ok otherwise, including for every request that carries neither.
Status CheckCallerText(const qlhsm::v1::Request &req);

}  // namespace qlhsm::server
