// pki.h: certificates for the HSM's keys: reading certificates, chains and CRLs, path validation
// (RFC 5280 section 6) at a given time, PKCS#10 requests, CMS SignedData (RFC 5652 section 5)
// and PKCS#12 (RFC 7292) files.
//
// Refusals: kBadData for input that does not parse as what it should be (the engine answers a
// bad certificate), kKeyCannotDo for a key that cannot sign or does not match its certificate,
// kBadTag for a PKCS#12 file whose MAC or decryption fails (a wrong password), kNotSupported for
// co-signing, which is not built yet.
#ifndef QLHSM_CRYPTO_PKI_H_
#define QLHSM_CRYPTO_PKI_H_

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "crypto/bytes.h"
#include "crypto/key.h"
#include "crypto/status.h"

namespace qlhsm::crypto::pki {

// Every certificate in the input: one DER certificate, PEM certificates, or a certs-only
// PKCS#7 (DER or PEM). At least one, else kBadData.
Result<std::vector<Bytes>> ReadCertificates(ByteView der_or_pem);
// One CRL, DER or PEM, as DER.
Result<Bytes> ReadCrl(ByteView der_or_pem);

// What a certificate file holds, in the form the HSM keeps it: one certificate (DER, or one PEM
// certificate), a chain (several PEM certificates, or a certs-only PKCS#7 in DER or PEM, kept as
// a certs-only PKCS#7 in DER) or a CRL (DER or PEM, kept as DER). kBadData for anything else.
enum class PkiKind : uint8_t { kCertificate, kChain, kCrl };
struct PkiObject {
  PkiKind kind = PkiKind::kCertificate;
  Bytes der;
};
Result<PkiObject> ReadPkiObject(ByteView der_or_pem);

// A certs-only SignedData (DER) holding the certificates, the form chains are kept in.
Result<Bytes> MakeCertificateBundle(const std::vector<Bytes> &certificates);

enum class PathProblem : uint8_t { kNone, kUntrusted, kExpired, kRevoked };
struct PathCheck {
  PathProblem problem = PathProblem::kNone;
  int verify_error = 0;  // OpenSSL's X509_V_ERR_* for the log
};
// The leaf against the chain at time `at`: the chain's self-signed certificates are the anchors
// (a chain of one other certificate is its own anchor), the rest intermediates. With a CRL the
// leaf must not be revoked and the CRL must be signed by its issuer and current at `at` (a stale
// CRL leaves the leaf untrusted). An expired or not yet valid certificate anywhere on the path is
// kExpired.
Result<PathCheck> ValidatePath(ByteView leaf, const std::vector<Bytes> &chain,
                               const std::optional<Bytes> &crl, time_t at);

// A TLS identity given as PEM: a private key, its certificate, then any intermediates (other
// PEM blocks are skipped). `problem` says what is wrong with it, else the parts in the form the
// daemon loads them: the key as PKCS#8 PEM, the certificates as PEM (leaf first), the leaf as
// DER. A server key of TLS 1.3 is RSA of at least 2048 bits, EC P-256 or P-384, or Ed25519.
enum class TlsProblem : uint8_t { kNone, kNoKey, kNoCertificate, kMismatch, kWeakKey };
struct TlsIdentity {
  TlsProblem problem = TlsProblem::kNone;
  SecretBytes key_pem;
  std::string chain_pem;
  Bytes leaf;
};
Result<TlsIdentity> ReadTlsIdentity(ByteView pem);

// The content of a CMS SignedData (DER, content attached) whose one signer is `signer` (DER)
// and whose signature verifies under its key; the certificate itself is trusted as given (no
// path is built). kBadData when it does not parse, kBadSignature when another key signed it or
// the signature fails.
Result<Bytes> VerifySignedContent(ByteView cms_der, ByteView signer);

// SHA-1 of the certificate's public key (the subjectPublicKey bits), the usual key identifier.
Result<Bytes> PublicKeyId(ByteView certificate);

// True when the certificate carries the key's public key.
bool KeyMatchesCertificate(const Key &key, ByteView certificate);

// An RFC 4514 name ("CN=alice,O=Acme,C=BR", the last RDN first) as DER; and back.
Result<Bytes> ParseDistinguishedName(std::string_view rfc4514);
Result<std::string> CertificateSubject(ByteView certificate);
Result<std::string> CertificateIssuer(ByteView certificate);

// A version 1 PKCS#10 request (DER) for the key's public key, signed by it: RSA with PKCS#1
// v1.5 and `digest` ("SHA256", ...), ECDSA with `digest`, Ed25519/Ed448 with none (`digest`
// ignored).
Result<Bytes> MakeRequest(const Key &key, std::string_view subject_rfc4514, const char *digest);

// CMS signing options; the bits are those the library passes.
constexpr uint32_t kCmsText = 0x1;
constexpr uint32_t kCmsNoCerts = 0x2;
constexpr uint32_t kCmsNoChain = 0x8;
constexpr uint32_t kCmsDetached = 0x40;
constexpr uint32_t kCmsBinary = 0x80;
constexpr uint32_t kCmsNoAttributes = 0x100;
constexpr uint32_t kCmsNoSmimeCapabilities = 0x200;
constexpr uint32_t kCmsCrlfEol = 0x800;
constexpr uint32_t kCmsCosign = 0x4000;
// A SignedData ContentInfo (DER) over `data` by the key with its certificate (DER), the chain's
// certificates added unless kCmsNoChain (or kCmsNoCerts, which leaves out the signer's too).
// Bits the signer has no use for (the verification bits) change nothing. With kCmsCosign,
// `data` is a SignedData (DER or PEM ContentInfo) that gets this signer added beside its others
// (it must hold a signer of the same digest, whose signed digest is reused; no kCmsNoAttributes).
Result<Bytes> CmsSign(const Key &key, ByteView certificate, const std::vector<Bytes> &chain,
                      ByteView data, uint32_t flags, const char *digest);

struct Pkcs12Contents {
  SecretBytes private_key_pkcs8;  // DER
  Bytes certificate;              // the leaf, DER; empty when the file has none
};
// kBadTag when the password does not open it.
Result<Pkcs12Contents> ReadPkcs12(ByteView der, std::string_view password);
// The key and its certificate under a password: AES-256-CBC with PBKDF2 for both bags and an
// HMAC-SHA-256 MAC. The password must not be empty (kBadArgument).
Result<Bytes> MakePkcs12(const Key &key, ByteView certificate, std::string_view password);

}  // namespace qlhsm::crypto::pki

#endif  // QLHSM_CRYPTO_PKI_H_
