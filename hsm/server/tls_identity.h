// The daemon's TLS identity: an RSA-2048 key and a self-signed certificate made by `qlhsmd init`
// (tls.key, mode 0600, and tls.crt, PEM, in the data directory), or the bundle an operator set
// since (kept in the store under the master key), and the TLS 1.3 server context built from it.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engine/services/system.h"
#include "engine/status.h"

namespace qlhsm::server {

// Writes tls.key and tls.crt into `data_dir` (fails when they exist). `common_name` goes into the
// certificate's subject.
Status CreateTlsIdentity(const std::string &data_dir, const std::string &common_name);

// Copies an operator's certificate (PEM: the HSM's certificate first, then any intermediates)
// and its private key (PEM) into the data directory as tls.crt and tls.key, after checking that
// the key belongs to the certificate. Fails when they exist.
Status ImportTlsIdentity(const std::string &data_dir, const std::string &cert_file,
                         const std::string &key_file);

// SHA-256 of the certificate the daemon presents (DER), 64 lower-case hex digits: what clients
// pin. The certificate set by set-tls-bundle (kept in the store) when there is one, else tls.crt.
Result<std::string> TlsFingerprint(const std::string &data_dir);

// The identity of the data directory's files (tls.crt and tls.key).
Result<TlsBundle> ReadTlsFiles(const std::string &data_dir);

using SslCtxPtr = std::shared_ptr<SSL_CTX>;
// A TLS 1.3 server context presenting `bundle` (certificate, intermediates, key); it asks every
// client for a certificate and takes any (a certificate login compares it with the user's).
Result<SslCtxPtr> BuildTlsContext(const TlsBundle &bundle);

// The certificate (DER) a bundle presents.
Result<std::vector<uint8_t>> LeafCertificateDer(const TlsBundle &bundle);

// The context new connections are served with, and the certificate it presents. Replaced whole
// by set-tls-bundle; a connection keeps the context it started with (SSL_new holds it).
class TlsContexts {
 public:
  void Install(SslCtxPtr ctx, std::vector<uint8_t> certificate_der);
  SslCtxPtr Current() const;
  std::vector<uint8_t> CertificateDer() const;

 private:
  mutable std::mutex mu_;
  SslCtxPtr ctx_;
  std::vector<uint8_t> der_;
};

}  // namespace qlhsm::server
