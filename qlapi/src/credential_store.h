#pragma once
// The credential store behind qlapi_credstore.h.
//
// File format (POSIX), "~/.qlapi_credentials", text, one credential a line:
//
//   # comment lines start with '#'; empty lines are ignored
//   <target> TAB <user> TAB <password in base64> LF
//
// The target and user may hold any byte but TAB, LF and NUL; the password is base64 (RFC 4648,
// with padding) so that it may hold anything. A later line for the same target wins. Writers
// replace the file atomically (a private temporary file renamed over it), keeping mode 0600.
// The file is refused unless it is a regular file owned by the caller with no group or other
// permission bits.

#include <string>

#include "status.h"

namespace qlapi::credstore {

struct Credential {
  std::string user;
  std::string password;
};

// The store's path for the calling user: the home directory from getpwuid_r(getuid()).
Result<std::string> DefaultPath();

// The operations on an explicit file (the C calls pass DefaultPath()).
Result<Credential> Read(const std::string &path, const std::string &target);
Status Write(const std::string &path, const std::string &target, const Credential &credential);
Status Delete(const std::string &path, const std::string &target);

}  // namespace qlapi::credstore
