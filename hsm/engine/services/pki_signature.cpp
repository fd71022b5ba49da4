// Signatures checked under a signer certificate that passes path validation in the HSM. For XML
// the library canonicalises the documents and hands over only the digest, the value and the
// signer, so the daemon never parses untrusted XML. JSON Web Signatures are small and their
// header is one JSON object, so the HSM builds and checks them whole: the signing input is then
// made where the key is, and a checked JWS is exactly the text the caller holds.
#include <openssl/bn.h>
#include <openssl/ecdsa.h>
#include <openssl/x509.h>

#include <memory>

#include "crypto/jws.h"
#include "crypto/key.h"
#include "crypto/pki.h"
#include "crypto/sign.h"
#include "engine/crypto_result.h"
#include "engine/services/pki.h"
#include "wire_values.h"

namespace qlhsm {

using access::Request;
using cryptomap::FromCrypto;
using sessions::Session;

namespace {

struct X509Free {
  void operator()(X509 *x) const { X509_free(x); }
};
struct NameFree {
  void operator()(X509_NAME *n) const { X509_NAME_free(n); }
};
struct BnFree {
  void operator()(BIGNUM *b) const { BN_free(b); }
};
using X509Ptr = std::unique_ptr<X509, X509Free>;

X509Ptr ParseX509(const secure::Bytes &der) {
  const unsigned char *p = der.data();
  return X509Ptr(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
}

// The chain's certificate of that issuer (compared as names, not as text) and serial number.
Result<secure::Bytes> FindIssuerSerial(const std::vector<secure::Bytes> &chain,
                                       std::string_view issuer, const secure::Bytes &serial) {
  crypto::Result<crypto::Bytes> name_der = crypto::pki::ParseDistinguishedName(issuer);
  if (!name_der.ok()) return Status::Error(Code::kBadArgument, "the issuer name does not parse");
  const unsigned char *p = name_der->data();
  std::unique_ptr<X509_NAME, NameFree> name(
      d2i_X509_NAME(nullptr, &p, static_cast<long>(name_der->size())));
  std::unique_ptr<BIGNUM, BnFree> wanted(
      BN_bin2bn(serial.data(), static_cast<int>(serial.size()), nullptr));
  if (!name || !wanted) return Status::Error(Code::kInternal, "out of memory");
  for (const secure::Bytes &der : chain) {
    X509Ptr x = ParseX509(der);
    if (!x || X509_NAME_cmp(X509_get_issuer_name(x.get()), name.get()) != 0) continue;
    std::unique_ptr<BIGNUM, BnFree> have(
        ASN1_INTEGER_to_BN(X509_get0_serialNumber(x.get()), nullptr));
    if (have && BN_cmp(have.get(), wanted.get()) == 0) return der;
  }
  return Status::Error(Code::kCertUntrusted,
                       "the chain holds no certificate of that issuer and serial");
}

// r||s (two halves of equal length) as the DER SEQUENCE the crypto core verifies.
Result<secure::Bytes> EcdsaDer(const secure::Bytes &raw) {
  if (raw.empty() || raw.size() % 2 != 0) return Status::Error(Code::kBadSignature, "odd r||s");
  const int half = static_cast<int>(raw.size() / 2);
  ECDSA_SIG *sig = ECDSA_SIG_new();
  BIGNUM *r = BN_bin2bn(raw.data(), half, nullptr);
  BIGNUM *s = BN_bin2bn(raw.data() + half, half, nullptr);
  if (sig == nullptr || r == nullptr || s == nullptr || ECDSA_SIG_set0(sig, r, s) != 1) {
    BN_free(r);
    BN_free(s);
    ECDSA_SIG_free(sig);
    return Status::Error(Code::kInternal, "out of memory");
  }
  unsigned char *der = nullptr;
  const int len = i2d_ECDSA_SIG(sig, &der);
  ECDSA_SIG_free(sig);
  if (len <= 0) return Status::Error(Code::kInternal, "i2d_ECDSA_SIG");
  secure::Bytes out(der, der + len);
  OPENSSL_free(der);
  return out;
}

Result<crypto::KeyPtr> SignerKey(const secure::Bytes &der) {
  X509Ptr x = ParseX509(der);
  if (!x) return Status::Error(Code::kBadCert, "the signer does not parse");
  unsigned char *spki = nullptr;
  const int len = i2d_PUBKEY(X509_get0_pubkey(x.get()), &spki);
  if (len <= 0) return Status::Error(Code::kBadCert, "the signer has no public key");
  crypto::Result<crypto::KeyPtr> key =
      crypto::Key::FromSpki(0, crypto::ByteView(spki, static_cast<size_t>(len)));
  OPENSSL_free(spki);
  if (!key.ok()) return FromCrypto(key.status());
  return std::move(key.value());
}

}  // namespace

Status PkiService::VerifyWithCertificate(Session &s, const CertSignatureCheck &in) {
  objects::ObjectRef chain;
  std::optional<objects::ObjectRef> crl;
  Op op{"verify-cert-signature", in.chain_name, Request::kUseObject, AuditMode::kRefusal};
  return guard_.Run(
      s, op,
      [&] {
        if (in.digest.empty() || in.signature.empty())
          return Status::Error(Code::kBadArgument, "no digest or signature");
        if (in.certificate.empty() && (in.issuer.empty() || in.serial.empty()))
          return Status::Error(Code::kBadArgument, "no signer");
        QL_RETURN_IF_ERROR(core_.Ref(s, in.chain_name, &chain));
        if (!in.crl_name.empty()) {
          crl.emplace();
          QL_RETURN_IF_ERROR(core_.Ref(s, in.crl_name, &*crl));
        }
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Status {
        secure::Bytes signer;
        if (in.certificate.empty()) {
          Result<std::vector<secure::Bytes>> certs = LoadChain(chain);
          if (!certs.ok()) return certs.status();
          Result<secure::Bytes> found = FindIssuerSerial(certs.value(), in.issuer, in.serial);
          if (!found.ok()) return found.status();
          signer = std::move(found.value());
        } else {
          crypto::Result<crypto::pki::PkiObject> obj = crypto::pki::ReadPkiObject(
              crypto::ByteView(in.certificate.data(), in.certificate.size()));
          if (!obj.ok() || obj->kind != crypto::pki::PkiKind::kCertificate)
            return Status::Error(Code::kBadCert, "the signer is not a certificate");
          signer.assign(obj->der.begin(), obj->der.end());
        }
        QL_RETURN_IF_ERROR(CheckCertificate(signer, chain, crl));
        Result<crypto::KeyPtr> key = SignerKey(signer);
        if (!key.ok()) return key.status();
        secure::Bytes value = in.signature;
        if ((*key)->kind() == crypto::KeyKind::kEc) {
          Result<secure::Bytes> der = EcdsaDer(in.signature);
          if (!der.ok()) return der.status();
          value = std::move(der.value());
        }
        crypto::Status st = crypto::Verify(
            **key, in.hash_algorithm, crypto::ByteView(in.digest.data(), in.digest.size()),
            crypto::ByteView(value.data(), value.size()), crypto::kSignNoLegacy);
        if (!st.ok()) return FromCrypto(st);
        return Status::Ok();
      });
}

namespace {

constexpr uint32_t kJwsFlags = qlproto::kJwsAddX5c | qlproto::kJwsDetached;

}  // namespace

Result<secure::Bytes> PkiService::SignJws(Session &s, std::string_view key_name,
                                          std::string_view header, const secure::Bytes &payload,
                                          uint32_t flags) {
  objects::ObjectRef key_ref;
  Op op{"jws-sign", key_name, Request::kUseObject, AuditMode::kRefusal};
  return guard_.Run(
      s, op,
      [&] {
        if (flags & ~kJwsFlags) return Status::Error(Code::kBadFlags, "unknown JWS flags");
        if (header.empty()) return Status::Error(Code::kBadArgument, "no header");
        return core_.Ref(s, key_name, &key_ref);
      },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<KeyCache::Entry> key = core_.keys.Load(*core_.objects, key_ref);
        if (!key.ok()) return key.status();
        if (key->info.blocked) return Status::Error(Code::kObjectBlocked, "object blocked");
        // x5c makes the header JSON again (compact, members in name order), so the bytes signed
        // are that text and no longer the caller's.
        std::string signed_header(header);
        if (flags & qlproto::kJwsAddX5c) {
          Result<secure::Bytes> cert = AssociatedCertificate(s, key_ref, *key->key);
          if (!cert.ok()) return cert.status();
          crypto::Result<std::string> with_x5c =
              crypto::jws::AddX5c(header, {crypto::Bytes(cert->begin(), cert->end())});
          if (!with_x5c.ok()) return FromCrypto(with_x5c.status());
          signed_header = std::move(with_x5c.value());
        }
        crypto::Result<std::string> jws = crypto::jws::Sign(
            *key->key, signed_header, crypto::ByteView(payload.data(), payload.size()),
            (flags & qlproto::kJwsDetached) != 0);
        if (!jws.ok()) return FromCrypto(jws.status());
        return secure::Bytes(jws->begin(), jws->end());
      });
}

Status PkiService::CheckJws(Session &s, std::string_view chain_name, std::string_view crl_name,
                            std::string_view jws, uint32_t flags) {
  objects::ObjectRef chain;
  std::optional<objects::ObjectRef> crl;
  Op op{"jws-check", chain_name, Request::kUseObject, AuditMode::kRefusal};
  return guard_.Run(
      s, op,
      [&] {
        if (flags & ~kJwsFlags) return Status::Error(Code::kBadFlags, "unknown JWS flags");
        if (jws.empty()) return Status::Error(Code::kBadArgument, "no JWS");
        QL_RETURN_IF_ERROR(core_.Ref(s, chain_name, &chain));
        if (!crl_name.empty()) {
          crl.emplace();
          QL_RETURN_IF_ERROR(core_.Ref(s, crl_name, &*crl));
        }
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Status {
        crypto::Result<crypto::jws::Parsed> parsed = crypto::jws::Parse(jws);
        if (!parsed.ok()) return FromCrypto(parsed.status());
        if (parsed->x5c.empty()) return Status::Error(Code::kBadArgument, "the header has no x5c");
        const secure::Bytes signer(parsed->x5c.front().begin(), parsed->x5c.front().end());
        QL_RETURN_IF_ERROR(CheckCertificate(signer, chain, crl));
        Result<crypto::KeyPtr> key = SignerKey(signer);
        if (!key.ok()) return key.status();
        crypto::Status st = crypto::jws::Verify(**key, jws);
        if (!st.ok()) return FromCrypto(st);
        return Status::Ok();
      });
}

}  // namespace qlhsm
