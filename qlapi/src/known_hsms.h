#pragma once
// The HSMs this user has seen: the SHA-256 fingerprint of each HSM's certificate, pinned per
// address and port the first time the library connects to it (as ssh records a host key).
//
// File format, "~/.qlapi_known_hsms" (home directory as the credential store finds it), text:
//
//   # comment lines start with '#'; empty lines are ignored
//   <address>:<port> SP <SHA-256 of the certificate (DER), 64 hex digits> LF
//
// The address is as the caller gave it (a host name, an IPv4 address, or an IPv6 address in
// brackets: "[::1]:4433"). One line per address and port. Writers replace the file atomically
// (a private temporary file renamed over it) with mode 0600; the file is refused unless it is a
// regular file owned by the caller with no group or other permission bits.

#include <string>

#include "status.h"

namespace qlapi::knownhsms {

inline constexpr const char *kFileName = ".qlapi_known_hsms";

// "host:port", with an IPv6 address in brackets.
std::string Endpoint(const std::string &host, int port);

// The file for the calling user: the pin file set by SetPathForTesting, else the file named by
// QLAPI_KNOWN_HSMS (a service account's own file, say), else "<home>/.qlapi_known_hsms".
Result<std::string> DefaultPath();

// Tests only: pins go to `path` instead of the home directory ("" restores the default). The
// file is checked like the default one.
void SetPathForTesting(const std::string &path);

// The pinned fingerprint of `endpoint` (lower-case hex) in the file at `path`, or "" when none.
// QL_ERR_HSM_IDENTITY_UNVERIFIED when the file is malformed or not private.
Result<std::string> Lookup(const std::string &path, const std::string &endpoint);

// Pins `fingerprint_hex` for `endpoint`, replacing any line for it.
Status Pin(const std::string &path, const std::string &endpoint,
           const std::string &fingerprint_hex);

// The check made before any request on a TLS connection whose certificate has `fingerprint_hex`:
// the same pin passes, a different one is QL_ERR_HSM_IDENTITY_CHANGED; an unknown endpoint is
// pinned, or refused with QL_ERR_HSM_IDENTITY_UNKNOWN when `strict`.
Status CheckPinned(const std::string &path, const std::string &endpoint,
                   const std::string &fingerprint_hex, bool strict);

}  // namespace qlapi::knownhsms
