#include "server/tls_identity.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <memory>

#include "engine/data_dir.h"
#include "engine/store/store.h"

namespace qlhsm::server {
namespace {

struct PkeyDeleter {
  void operator()(EVP_PKEY *p) const { EVP_PKEY_free(p); }
};
struct X509Deleter {
  void operator()(X509 *x) const { X509_free(x); }
};
struct BioDeleter {
  void operator()(BIO *b) const { BIO_free(b); }
};

Result<std::string> ToPem(bool key, EVP_PKEY *pkey, X509 *cert) {
  std::unique_ptr<BIO, BioDeleter> bio(BIO_new(BIO_s_mem()));
  bool ok = bio && (key ? PEM_write_bio_PrivateKey(bio.get(), pkey, nullptr, nullptr, 0, nullptr,
                                                   nullptr) == 1
                        : PEM_write_bio_X509(bio.get(), cert) == 1);
  if (!ok) return Status::Error(Code::kInternal, "cannot encode the TLS identity");
  char *data = nullptr;
  long len = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(len));
}

}  // namespace

Status CreateTlsIdentity(const std::string &data_dir, const std::string &common_name) {
  std::unique_ptr<EVP_PKEY, PkeyDeleter> pkey(EVP_RSA_gen(2048));
  if (!pkey) return Status::Error(Code::kInternal, "cannot generate the TLS key");
  std::unique_ptr<X509, X509Deleter> cert(X509_new());
  if (!cert) return Status::Error(Code::kInternal, "cannot make the TLS certificate");
  Result<secure::Bytes> serial = secure::RandomBytes(8);
  if (!serial.ok()) return serial.status();
  uint64_t sn = 0;
  for (uint8_t b : *serial) sn = sn << 8 | b;
  bool ok = X509_set_version(cert.get(), 2) == 1 &&
            ASN1_INTEGER_set_uint64(X509_get_serialNumber(cert.get()), sn >> 1) == 1 &&
            X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) != nullptr &&
            X509_gmtime_adj(X509_getm_notAfter(cert.get()), 10L * 365 * 24 * 3600) != nullptr &&
            X509_set_pubkey(cert.get(), pkey.get()) == 1;
  X509_NAME *name = X509_get_subject_name(cert.get());
  ok = ok && X509_NAME_add_entry_by_txt(
                 name, "CN", MBSTRING_ASC,
                 reinterpret_cast<const unsigned char *>(common_name.c_str()), -1, -1, 0) == 1;
  ok = ok && X509_set_issuer_name(cert.get(), name) == 1 &&
       X509_sign(cert.get(), pkey.get(), EVP_sha256()) > 0;
  if (!ok) return Status::Error(Code::kInternal, "cannot sign the TLS certificate");

  Result<std::string> key_pem = ToPem(true, pkey.get(), nullptr);
  Result<std::string> cert_pem = ToPem(false, nullptr, cert.get());
  if (!key_pem.ok()) return key_pem.status();
  if (!cert_pem.ok()) return cert_pem.status();
  QL_RETURN_IF_ERROR(WritePrivateFile(DataPath(data_dir, kTlsKeyFile),
                                      secure::Bytes(key_pem->begin(), key_pem->end())));
  return WriteFileBytes(DataPath(data_dir, kTlsCertFile),
                        secure::Bytes(cert_pem->begin(), cert_pem->end()));
}

Status ImportTlsIdentity(const std::string &data_dir, const std::string &cert_file,
                         const std::string &key_file) {
  Result<secure::Bytes> cert_pem = ReadFileBytes(cert_file);
  if (!cert_pem.ok()) return cert_pem.status();
  Result<secure::Bytes> key_pem = ReadFileBytes(key_file);
  if (!key_pem.ok()) return key_pem.status();
  std::unique_ptr<BIO, BioDeleter> cbio(
      BIO_new_mem_buf(cert_pem->data(), static_cast<int>(cert_pem->size())));
  std::unique_ptr<X509, X509Deleter> cert(
      cbio ? PEM_read_bio_X509(cbio.get(), nullptr, nullptr, nullptr) : nullptr);
  std::unique_ptr<BIO, BioDeleter> kbio(
      BIO_new_mem_buf(key_pem->data(), static_cast<int>(key_pem->size())));
  std::unique_ptr<EVP_PKEY, PkeyDeleter> pkey(
      kbio ? PEM_read_bio_PrivateKey(kbio.get(), nullptr, nullptr, nullptr) : nullptr);
  ERR_clear_error();
  if (!cert) return Status::Error(Code::kBadArgument, cert_file + " holds no PEM certificate");
  if (!pkey) return Status::Error(Code::kBadArgument, key_file + " holds no PEM private key");
  if (X509_check_private_key(cert.get(), pkey.get()) != 1) {
    ERR_clear_error();
    return Status::Error(Code::kBadArgument, "the TLS key does not belong to the certificate");
  }
  QL_RETURN_IF_ERROR(WritePrivateFile(DataPath(data_dir, kTlsKeyFile), *key_pem));
  return WriteFileBytes(DataPath(data_dir, kTlsCertFile), *cert_pem);
}

namespace {

Result<std::vector<uint8_t>> FirstCertificateDer(const std::string &pem) {
  std::unique_ptr<BIO, BioDeleter> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  std::unique_ptr<X509, X509Deleter> cert(
      bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  ERR_clear_error();
  if (!cert) return Status::Error(Code::kBadArgument, "unreadable TLS certificate");
  int len = i2d_X509(cert.get(), nullptr);
  if (len <= 0) return Status::Error(Code::kInternal, "cannot encode the TLS certificate");
  std::vector<uint8_t> der(static_cast<size_t>(len));
  unsigned char *p = der.data();
  i2d_X509(cert.get(), &p);
  return der;
}

}  // namespace

Result<TlsBundle> ReadTlsFiles(const std::string &data_dir) {
  Result<secure::Bytes> chain = ReadFileBytes(DataPath(data_dir, kTlsCertFile));
  if (!chain.ok()) return chain.status();
  Result<secure::Bytes> key = ReadFileBytes(DataPath(data_dir, kTlsKeyFile));
  if (!key.ok()) return key.status();
  return TlsBundle{std::string(chain->begin(), chain->end()), std::move(key.value())};
}

Result<std::string> TlsFingerprint(const std::string &data_dir) {
  std::string chain;
  // The store holds only the certificate in clear; its key needs the master key, this does not.
  if (Result<std::unique_ptr<store::Store>> st = store::Store::Open(data_dir, false); st.ok()) {
    Result<std::string> set = st.value()->GetSetting(kTlsChainSetting);
    if (set.ok()) chain = std::move(set.value());
  }
  if (chain.empty()) {
    Result<secure::Bytes> pem = ReadFileBytes(DataPath(data_dir, kTlsCertFile));
    if (!pem.ok()) return pem.status();
    chain.assign(pem->begin(), pem->end());
  }
  Result<std::vector<uint8_t>> der = FirstCertificateDer(chain);
  if (!der.ok()) return der.status();
  return secure::Hex(secure::Sha256(*der));
}

Result<SslCtxPtr> BuildTlsContext(const TlsBundle &bundle) {
  SslCtxPtr ctx(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  if (!ctx) return Status::Error(Code::kInternal, "cannot make a TLS context");
  SSL_CTX *c = ctx.get();
  SSL_CTX_set_min_proto_version(c, TLS1_3_VERSION);
  SSL_CTX_set_options(c, SSL_OP_ALL);
  // Every client may present a certificate (a certificate login); the handshake proves it holds
  // the key, and the login compares the certificate with the one bound to the user, so no chain
  // is checked here and a client without one is served as before.
  SSL_CTX_set_verify(c, SSL_VERIFY_PEER, [](int, X509_STORE_CTX *) { return 1; });
  std::unique_ptr<BIO, BioDeleter> cbio(
      BIO_new_mem_buf(bundle.chain_pem.data(), static_cast<int>(bundle.chain_pem.size())));
  bool first = true;
  while (cbio) {
    X509 *x = PEM_read_bio_X509(cbio.get(), nullptr, nullptr, nullptr);
    if (x == nullptr) break;
    // The leaf is used; the intermediates after it are handed over with add0.
    const bool ok = first ? SSL_CTX_use_certificate(c, x) == 1 : SSL_CTX_add0_chain_cert(c, x) == 1;
    if (first) X509_free(x);
    if (!ok) {
      if (!first) X509_free(x);
      ERR_clear_error();
      return Status::Error(Code::kBadArgument, "TLS certificate refused");
    }
    first = false;
  }
  std::unique_ptr<BIO, BioDeleter> kbio(
      BIO_new_mem_buf(bundle.key_pem.data(), static_cast<int>(bundle.key_pem.size())));
  std::unique_ptr<EVP_PKEY, PkeyDeleter> key(
      kbio ? PEM_read_bio_PrivateKey(kbio.get(), nullptr, nullptr, nullptr) : nullptr);
  const bool ok = !first && key && SSL_CTX_use_PrivateKey(c, key.get()) == 1 &&
                  SSL_CTX_check_private_key(c) == 1;
  ERR_clear_error();
  if (!ok) return Status::Error(Code::kBadArgument, "TLS certificate or key refused");
  return ctx;
}

void TlsContexts::Install(SslCtxPtr ctx, std::vector<uint8_t> certificate_der) {
  std::lock_guard<std::mutex> lock(mu_);
  ctx_ = std::move(ctx);
  der_ = std::move(certificate_der);
}

SslCtxPtr TlsContexts::Current() const {
  std::lock_guard<std::mutex> lock(mu_);
  return ctx_;
}

std::vector<uint8_t> TlsContexts::CertificateDer() const {
  std::lock_guard<std::mutex> lock(mu_);
  return der_;
}

Result<std::vector<uint8_t>> LeafCertificateDer(const TlsBundle &bundle) {
  return FirstCertificateDer(bundle.chain_pem);
}

}  // namespace qlhsm::server
