#pragma once
// The HSM's identity, checked on every new TLS connection after the handshake and before the
// first request, so that no user name, password or token reaches a server that is not the HSM:
//
// - QLAPI_TLS_CA_FILE set (a PEM bundle): the certificate chain must verify against it and the
//   certificate must name the address connected to (host name or IP address); otherwise
//   QL_ERR_HSM_IDENTITY_UNVERIFIED.
// - Otherwise the certificate's SHA-256 is pinned per address and port (known_hsms.h): a new HSM
//   is pinned on first use (refused with QL_ERR_HSM_IDENTITY_UNKNOWN when QLAPI_TLS_STRICT=1),
//   a changed one is always refused with QL_ERR_HSM_IDENTITY_CHANGED.

#include <openssl/ssl.h>

#include <string>

#include "status.h"

namespace qlapi {

// `ssl` has completed its handshake; `sha256` is the raw SHA-256 of its peer's certificate.
Status VerifyHsmIdentity(SSL *ssl, const std::string &host, int port, const std::string &sha256);

}  // namespace qlapi
