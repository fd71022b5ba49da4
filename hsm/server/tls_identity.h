// The daemon's TLS identity: an RSA-2048 key and a self-signed certificate made by `qlhsmd init`
// (tls.key, mode 0600, and tls.crt, PEM, in the data directory), and the TLS 1.3 server context
// built from them.
#pragma once

#include <string>
#include <vector>

#include "engine/status.h"

namespace asio::ssl {
class context;
}

namespace qlhsm::server {

// Writes tls.key and tls.crt into `data_dir` (fails when they exist). `common_name` goes into the
// certificate's subject.
Status CreateTlsIdentity(const std::string &data_dir, const std::string &common_name);

// Copies an operator's certificate (PEM: the HSM's certificate first, then any intermediates)
// and its private key (PEM) into the data directory as tls.crt and tls.key, after checking that
// the key belongs to the certificate. Fails when they exist.
Status ImportTlsIdentity(const std::string &data_dir, const std::string &cert_file,
                         const std::string &key_file);

// SHA-256 of the certificate in tls.crt (DER), 64 lower-case hex digits: what clients pin.
Result<std::string> TlsFingerprint(const std::string &data_dir);

// Loads tls.key and tls.crt into `ctx`, allowing TLS 1.3 only.
Status ConfigureTlsContext(const std::string &data_dir, asio::ssl::context &ctx);

// The certificate as DER, for clients that pin it.
Result<std::vector<uint8_t>> LoadCertificateDer(const std::string &data_dir);

}  // namespace qlhsm::server
