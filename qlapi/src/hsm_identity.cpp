#include "hsm_identity.h"

#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "known_hsms.h"

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#endif

namespace qlapi {
namespace {

// Settings come from the environment of the calling process; a set-user-ID program ignores them.
const char *Setting(const char *name) {
#if defined(__GLIBC__)
  const char *v = secure_getenv(name);
#else
  const char *v = std::getenv(name);
#endif
  return v != nullptr && *v != '\0' ? v : nullptr;
}

bool IsIpAddress(const std::string &host) {
  unsigned char buf[16];
  return inet_pton(AF_INET, host.c_str(), buf) == 1 || inet_pton(AF_INET6, host.c_str(), buf) == 1;
}

struct StoreDeleter {
  void operator()(X509_STORE *s) const { X509_STORE_free(s); }
};
struct StoreCtxDeleter {
  void operator()(X509_STORE_CTX *c) const { X509_STORE_CTX_free(c); }
};

Status VerifyWithCa(SSL *ssl, const char *ca_file, const std::string &host) {
  X509 *leaf = SSL_get0_peer_certificate(ssl);
  std::unique_ptr<X509_STORE, StoreDeleter> store(X509_STORE_new());
  std::unique_ptr<X509_STORE_CTX, StoreCtxDeleter> ctx(X509_STORE_CTX_new());
  bool ok = leaf != nullptr && store && ctx && X509_STORE_load_file(store.get(), ca_file) == 1 &&
            X509_STORE_CTX_init(ctx.get(), store.get(), leaf, SSL_get_peer_cert_chain(ssl)) == 1;
  if (ok) {
    X509_VERIFY_PARAM *param = X509_STORE_CTX_get0_param(ctx.get());
    ok = X509_VERIFY_PARAM_set_purpose(param, X509_PURPOSE_SSL_SERVER) == 1 &&
         (IsIpAddress(host) ? X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str()) == 1
                            : X509_VERIFY_PARAM_set1_host(param, host.c_str(), host.size()) == 1);
  }
  ok = ok && X509_verify_cert(ctx.get()) == 1;
  ERR_clear_error();
  return Status(ok ? QL_OK : QL_ERR_HSM_IDENTITY_UNVERIFIED);
}

std::string Hex(const std::string &raw) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : raw) {
    out.push_back(kDigits[c >> 4]);
    out.push_back(kDigits[c & 15]);
  }
  return out;
}

}  // namespace

Status VerifyHsmIdentity(SSL *ssl, const std::string &host, int port, const std::string &sha256) {
  if (sha256.empty()) return Status(QL_ERR_HSM_IDENTITY_UNVERIFIED);  // no certificate at all
  if (const char *ca_file = Setting("QLAPI_TLS_CA_FILE")) return VerifyWithCa(ssl, ca_file, host);
  const char *strict = Setting("QLAPI_TLS_STRICT");
  auto path = knownhsms::DefaultPath();
  if (!path.ok()) return path.status();
  return knownhsms::CheckPinned(path.value(), knownhsms::Endpoint(host, port), Hex(sha256),
                                strict != nullptr && std::strcmp(strict, "1") == 0);
}

}  // namespace qlapi
