// Certificates and signing identities: certificate, chain and CRL objects, path validation at
// the HSM's time, PKCS#12 import and export, and the link between a key and its certificate.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/guard.h"
#include "engine/services/keys.h"

namespace qlhsm {

class ObjectsService;

struct Pkcs12Import {
  secure::Bytes pfx;
  std::string password;
  std::string key_name;
  std::string cert_name;  // empty: the certificate is not kept
  uint32_t flags = 0;     // the stored key's QL_KEY_* flags
};

// A signature value checked under a signer certificate: the certificate itself, or the chain's
// certificate of that issuer and serial number.
struct CertSignatureCheck {
  secure::Bytes certificate;  // DER or PEM; empty: found in the chain by issuer and serial
  std::string issuer;         // RFC 4514
  secure::Bytes serial;       // big-endian magnitude
  std::string chain_name;
  std::string crl_name;  // empty: no CRL
  uint32_t hash_algorithm = 0;
  secure::Bytes digest;
  secure::Bytes signature;  // RSA PKCS#1 v1.5; ECDSA r||s (the XML signature form)
};

// One HTTPS request the HSM makes with a stored key and its certificate as the client identity.
struct PixHttpRequest {
  std::string key_name;
  std::string cert_name;
  std::string chain_name;  // the server's trust anchors
  std::string method;      // POST, GET, PUT, DELETE
  std::string url;
  std::string headers;  // "Name: value" lines
  secure::Bytes body;
  uint32_t timeout_ms = 0;  // 0: kPixDefaultTimeoutMs; capped at kPixMaxTimeoutMs
};
inline constexpr uint32_t kPixDefaultTimeoutMs = 30000;
// A request holds its connection's worker for at most this long.
inline constexpr uint32_t kPixMaxTimeoutMs = 120000;

struct PixHttpAnswer {
  uint32_t http_status = 0;
  std::string body;
};

class PkiService {
 public:
  PkiService(Core &core, Guard &guard, ObjectsService &objects, KeysService &keys)
      : core_(core), guard_(guard), objects_(objects), keys_(keys) {}

  // Stores a certificate, chain or CRL (DER or PEM) as an object of the matching type:
  // kBadCert for anything else, then as a file write (create right; with `replace` the update
  // right too, and only over an object of the same kind).
  Status WriteTyped(sessions::Session &s, std::string_view name, const secure::Bytes &data,
                    bool replace);
  // The DER of a certificate, chain or CRL object, named by a handle or a name: a use right;
  // kBadKeyUsage for a key or a file.
  Result<secure::Bytes> ExportCertificate(sessions::Session &s, const KeyArg &object);

  // Path validation (RFC 5280 section 6) of `leaf` (DER or PEM) at the HSM's time against the
  // chain object `chain_name` (a chain, a certificate or a file holding certificates: its
  // self-signed certificates are the anchors, a lone other certificate its own anchor) and,
  // when `crl_name` is not empty, the CRL object (a CRL or a file holding one), which must be
  // signed by the leaf's issuer and current. Rights: the use of each object. Answers Ok, or
  // kCertUntrusted, kCertExpired, kCertRevoked; kBadCert for a leaf, chain or CRL that does not
  // parse.
  Status ValidateCertificate(sessions::Session &s, const secure::Bytes &leaf,
                             std::string_view chain_name, std::string_view crl_name);
  // The same for a caller that already checked its rights (inside another service's guarded
  // body): existence and state of the objects, then the validation.
  Status CheckCertificate(const secure::Bytes &leaf, const objects::ObjectRef &chain,
                          const std::optional<objects::ObjectRef> &crl);
  // The certificates of a chain object, and the DER of a CRL object (existence, state, kind).
  Result<std::vector<secure::Bytes>> LoadChain(const objects::ObjectRef &ref);
  Result<secure::Bytes> LoadCrl(const objects::ObjectRef &ref);

  // A PKCS#12 file's key (RSA, EC or Ed25519) and, with a certificate name, its leaf
  // certificate, stored in one transaction: the create right; names taken kObjectExists; the
  // key not the certificate's kKeyCertMismatch; a wrong password kBadPassword. Nothing is
  // written on any refusal. The file's other certificates are ignored.
  Status ImportPkcs12(sessions::Session &s, const Pkcs12Import &in);
  // An exportable key (kNotExportable otherwise) and its certificate object as a PKCS#12 file
  // under a non-empty password (AES-256-CBC, PBKDF2, HMAC-SHA-256): the use right.
  Result<secure::Bytes> ExportPkcs12(sessions::Session &s, std::string_view key_name,
                                     std::string_view cert_name, std::string_view password);
  // Links a key to its certificate: equal id (SHA-1 of the public key) and label (the key's
  // name) records on both, and the certificate recorded as the key's. The update right;
  // kKeyCertMismatch when the certificate does not carry the key's public key.
  Status AssociateKey(sessions::Session &s, std::string_view key_name, std::string_view cert_name);
  // A PKCS#10 request (DER) for a stored key, signed by it: RSA PKCS#1 v1.5 or ECDSA with
  // `hash_algorithm` (a QL_ALG_* hash; 0: SHA-256), Ed25519 with none; the subject an RFC 4514
  // string (kBadArgument when it does not parse); version 0 only. The use right.
  Result<secure::Bytes> GeneratePkcs10(sessions::Session &s, std::string_view key_name,
                                       std::string_view subject, uint32_t version,
                                       uint32_t hash_algorithm);
  // A CMS SignedData (DER ContentInfo) over `data` by a stored key with its certificate object
  // and, unless empty, the chain object; `attributes` the QL_P7_* bits, `hash_algorithm` a
  // QL_ALG_* hash (0: SHA-256; SHA-1, SHA-384, SHA-512). The use right on each object.
  Result<secure::Bytes> Pkcs7Sign(sessions::Session &s, std::string_view key_name,
                                  std::string_view cert_name, std::string_view chain_name,
                                  uint32_t attributes, uint32_t hash_algorithm,
                                  const secure::Bytes &data);
  // Validates the signer as ValidateCertificate does, then checks `signature` over `digest`
  // with its public key: the use right on the chain and CRL; kCertUntrusted for a signer the
  // chain does not hold; kBadSignature when the value does not verify.
  Status VerifyWithCertificate(sessions::Session &s, const CertSignatureCheck &in);
  // A compact JWS (RFC 7515) over `payload` by a stored key, the header's bytes signed as given;
  // with QL_JWS_ADD_X5C the header first gets "x5c" holding the key's associated certificate
  // (kBadArgument when the key has none), with QL_JWS_DETACHED the payload part stays empty.
  // The use right; kBadFlags for other bits; kBadAlgorithm for an alg other than RS256, PS256
  // or ES256; kBadKeyUsage for an alg the key cannot make.
  Result<secure::Bytes> SignJws(sessions::Session &s, std::string_view key_name,
                                std::string_view header, const secure::Bytes &payload,
                                uint32_t flags);
  // Checks a compact JWS under the first certificate of its "x5c" (kBadArgument without one)
  // after that certificate's path validation as ValidateCertificate does: the use right on the
  // chain and CRL; kBadSignature when the value does not verify.
  Status CheckJws(sessions::Session &s, std::string_view chain_name, std::string_view crl_name,
                  std::string_view jws, uint32_t flags);
  // An object's numbered records (QL_META_* ids): a use right.
  Result<std::vector<objects::ObjectStore::Record>> ReadRecords(sessions::Session &s,
                                                                std::string_view name);
  // The request made by the HSM (pix_http.h): arguments (names, method, an https URL, header
  // lines) kBadArgument; a use right; an endpoint the daemon was not given kEndpointRefused,
  // before any existence check or network activity; then the key, its certificate and the chain
  // as for a signature. Any HTTP status is an answer; kTimeout, kRemoteFailed, kLimitReached
  // (an answer over 16 MiB) otherwise.
  Result<PixHttpAnswer> PixRequest(sessions::Session &s, const PixHttpRequest &in);

 private:
  Result<objects::ObjectInfo> Usable(const objects::ObjectRef &ref);
  // The DER of the certificate object `cert_ref` when it holds `key`'s public key: kBadCert for
  // another kind of object, kKeyCertMismatch for another key; kObjectBlocked for a blocked
  // certificate unless `blocked_ok`.
  Result<secure::Bytes> CertificateOf(const crypto::Key &key, const objects::ObjectRef &cert_ref,
                                      bool blocked_ok = false);
  // The certificate recorded for the key by AssociateKey (kBadArgument when none is), checked as
  // CertificateOf does.
  Result<secure::Bytes> AssociatedCertificate(const sessions::Session &s,
                                              const objects::ObjectRef &key_ref,
                                              const crypto::Key &key);

  Core &core_;
  Guard &guard_;
  ObjectsService &objects_;
  KeysService &keys_;
};

}  // namespace qlhsm
