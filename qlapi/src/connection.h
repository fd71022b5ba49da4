#pragma once
// One TCP connection to an HSM, plain or TLS 1.3, carrying frames (proto/frame.h). Blocking I/O;
// a connection is used by one thread at a time (the session's lock sees to that).

#include <openssl/ssl.h>

#include <cstdint>
#include <memory>
#include <string>

#include "status.h"

namespace qlapi {

struct SslDeleter {
  void operator()(SSL *ssl) const { SSL_free(ssl); }
};

// A client certificate and its key, presented in the TLS handshake of a certificate login.
class ClientIdentity {
 public:
  // From PEM text holding a private key and its certificate (either order): QL_ERR_BAD_CERT
  // without a certificate, QL_ERR_BAD_ARGUMENT without a key, QL_ERR_KEY_CERT_MISMATCH when the
  // key is not the certificate's.
  static Result<std::shared_ptr<const ClientIdentity>> FromPem(const std::string &pem);
  ~ClientIdentity();
  ClientIdentity(const ClientIdentity &) = delete;
  ClientIdentity &operator=(const ClientIdentity &) = delete;

  X509 *cert() const { return cert_; }
  EVP_PKEY *key() const { return key_; }
  // SHA-256 of the certificate (DER): what tells two identities apart.
  const std::string &sha256() const { return sha256_; }

 private:
  ClientIdentity() = default;
  X509 *cert_ = nullptr;
  EVP_PKEY *key_ = nullptr;
  std::string sha256_;
};

class Connection {
 public:
  // Resolves host, connects (10 s at most) and, for tls, completes the TLS 1.3 handshake and
  // checks the HSM's identity (hsm_identity.h). QL_ERR_CONNECTION_FAILED, QL_ERR_TLS_FAILED or a
  // QL_ERR_HSM_IDENTITY_* code otherwise. `identity` (tls only) is presented as the client's.
  static Result<std::unique_ptr<Connection>> Open(const std::string &host, int port, bool tls,
                                                  const ClientIdentity *identity = nullptr);
  ~Connection();
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  // Writes all of bytes (one frame or several). QL_ERR_SESSION_CLOSED when the peer is gone.
  Status Write(const std::string &bytes);
  // Reads one whole frame body, refusing a length past max_frame before allocating it.
  Status ReadFrame(uint32_t max_frame, std::string *body);

  // True when bytes wait to be read (buffered or on the socket), or the connection is broken,
  // within timeout_ms; false when nothing came (or a signal interrupted the wait).
  bool WaitReadable(int timeout_ms);

  bool tls() const { return ssl_ != nullptr; }
  // SHA-256 of the HSM's certificate (DER); empty on a plain connection.
  const std::string &peer_sha256() const { return peer_sha256_; }
  // Set once a read or write failed: the connection must not carry another request.
  bool broken() const { return broken_; }

 private:
  explicit Connection(int fd) : fd_(fd) {}
  Status ReadExact(void *out, std::size_t size);
  Status Fill();

  int fd_ = -1;
  std::unique_ptr<SSL, SslDeleter> ssl_;
  std::string peer_sha256_;
  bool broken_ = false;
  // Bytes read from the socket and not yet consumed, so a response costs one read call.
  std::string in_;
  std::size_t in_pos_ = 0;
};

// Creates the TLS context (once); QInitialize calls it so the first session pays nothing.
Status InitTls();

}  // namespace qlapi
