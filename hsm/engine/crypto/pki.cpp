#include "crypto/pki.h"

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>

#include "crypto/ossl.h"

namespace qlhsm::crypto::pki {
namespace {

template <typename T, void (*F)(T *)>
struct Deleter {
  void operator()(T *p) const { F(p); }
};
using X509Ptr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using CrlPtr = std::unique_ptr<X509_CRL, Deleter<X509_CRL, X509_CRL_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;
using Pkcs7Ptr = std::unique_ptr<PKCS7, Deleter<PKCS7, PKCS7_free>>;
using StorePtr = std::unique_ptr<X509_STORE, Deleter<X509_STORE, X509_STORE_free>>;
using StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX, X509_STORE_CTX_free>>;
using NamePtr = std::unique_ptr<X509_NAME, Deleter<X509_NAME, X509_NAME_free>>;
using ReqPtr = std::unique_ptr<X509_REQ, Deleter<X509_REQ, X509_REQ_free>>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo, CMS_ContentInfo_free>>;
using P12Ptr = std::unique_ptr<PKCS12, Deleter<PKCS12, PKCS12_free>>;
using MdPtr = std::unique_ptr<EVP_MD, Deleter<EVP_MD, EVP_MD_free>>;

struct CertStackFree {
  void operator()(STACK_OF(X509) * s) const { sk_X509_pop_free(s, X509_free); }
};
using CertStack = std::unique_ptr<STACK_OF(X509), CertStackFree>;

X509Ptr ParseCertificate(ByteView der) {
  const unsigned char *p = der.data();
  X509Ptr x(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  if (x && p != der.data() + der.size()) x.reset();
  ossl::ClearErrors();
  return x;
}

template <typename T, int (*I2d)(const T *, unsigned char **)>
Bytes ToDer(const T *object) {
  const int len = I2d(object, nullptr);
  if (len <= 0) return {};
  Bytes out(static_cast<size_t>(len));
  unsigned char *p = out.data();
  I2d(object, &p);
  return out;
}

BioPtr MemBio(ByteView data) {
  return BioPtr(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
}

void AddPkcs7Certificates(PKCS7 *p7, std::vector<Bytes> *out) {
  if (p7 == nullptr || !PKCS7_type_is_signed(p7) || p7->d.sign == nullptr) return;
  STACK_OF(X509) *certs = p7->d.sign->cert;
  for (int i = 0; i < sk_X509_num(certs); ++i) {
    out->push_back(ToDer<X509, i2d_X509>(sk_X509_value(certs, i)));
  }
}

bool IsSelfSigned(X509 *x) {
  return X509_check_issued(x, x) == X509_V_OK;
}

Result<std::string> NameText(X509_NAME *name) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253) < 0) {
    return ossl::Fail("X509_NAME_print_ex");
  }
  char *data = nullptr;
  const long len = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(len));
}

// Splits an RFC 4514 string at unescaped commas, undoing the escapes of each value.
bool SplitRdns(std::string_view text, std::vector<std::pair<std::string, std::string>> *rdns) {
  std::string type;
  std::string value;
  bool in_value = false;
  auto trim = [](std::string s) {
    while (!s.empty() && s.back() == ' ') s.pop_back();
    size_t i = 0;
    while (i < s.size() && s[i] == ' ') ++i;
    return s.substr(i);
  };
  auto flush = [&]() {
    const std::string t = trim(type);
    if (!in_value || t.empty()) return false;
    rdns->emplace_back(t, trim(value));
    type.clear();
    value.clear();
    in_value = false;
    return true;
  };
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (!in_value) {
      if (c == '=') {
        in_value = true;
      } else if (c == ',') {
        return false;
      } else {
        type += c;
      }
      continue;
    }
    if (c == '\\') {
      if (i + 1 >= text.size()) return false;
      const char n = text[i + 1];
      auto hex = [](char h) {
        return h >= '0' && h <= '9'   ? h - '0'
               : h >= 'a' && h <= 'f' ? h - 'a' + 10
               : h >= 'A' && h <= 'F' ? h - 'A' + 10
                                      : -1;
      };
      if (hex(n) >= 0 && i + 2 < text.size() && hex(text[i + 2]) >= 0) {
        value += static_cast<char>(hex(n) * 16 + hex(text[i + 2]));
        i += 2;
      } else {
        value += n;
        ++i;
      }
    } else if (c == ',') {
      if (!flush()) return false;
    } else {
      value += c;
    }
  }
  return flush();
}

}  // namespace

Result<std::vector<Bytes>> ReadCertificates(ByteView input) {
  std::vector<Bytes> out;
  if (X509Ptr x = ParseCertificate(input)) {
    out.push_back(ToDer<X509, i2d_X509>(x.get()));
    return out;
  }
  {
    const unsigned char *p = input.data();
    Pkcs7Ptr p7(d2i_PKCS7(nullptr, &p, static_cast<long>(input.size())));
    AddPkcs7Certificates(p7.get(), &out);
    ossl::ClearErrors();
    if (!out.empty()) return out;
  }
  BioPtr bio = MemBio(input);
  while (bio) {
    X509Ptr x(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!x) break;
    out.push_back(ToDer<X509, i2d_X509>(x.get()));
  }
  ossl::ClearErrors();
  if (out.empty()) {
    bio = MemBio(input);
    Pkcs7Ptr p7(bio ? PEM_read_bio_PKCS7(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    AddPkcs7Certificates(p7.get(), &out);
    ossl::ClearErrors();
  }
  if (out.empty()) return Status(Code::kBadData, "no certificate in the input");
  return out;
}

Result<Bytes> ReadCrl(ByteView input) {
  const unsigned char *p = input.data();
  CrlPtr crl(d2i_X509_CRL(nullptr, &p, static_cast<long>(input.size())));
  if (!crl) {
    BioPtr bio = MemBio(input);
    crl.reset(bio ? PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  }
  ossl::ClearErrors();
  if (!crl) return Status(Code::kBadData, "not a CRL");
  return ToDer<X509_CRL, i2d_X509_CRL>(crl.get());
}

Result<PkiObject> ReadPkiObject(ByteView input) {
  PkiObject out;
  if (X509Ptr x = ParseCertificate(input)) {
    out.der = ToDer<X509, i2d_X509>(x.get());
    return out;
  }
  Result<std::vector<Bytes>> certs = ReadCertificates(input);
  if (certs.ok()) {
    // One PEM certificate is a certificate; a PKCS#7 is a chain whatever it holds.
    const std::string_view text(reinterpret_cast<const char *>(input.data()), input.size());
    if (certs->size() == 1 && text.find("-----BEGIN CERTIFICATE-----") != std::string_view::npos &&
        text.find("-----BEGIN PKCS7-----") == std::string_view::npos) {
      out.der = std::move(certs->front());
      return out;
    }
    Result<Bytes> bundle = MakeCertificateBundle(*certs);
    if (!bundle.ok()) return bundle.status();
    out.kind = PkiKind::kChain;
    out.der = std::move(bundle.value());
    return out;
  }
  Result<Bytes> crl = ReadCrl(input);
  if (!crl.ok()) return Status(Code::kBadData, "not a certificate, chain or CRL");
  out.kind = PkiKind::kCrl;
  out.der = std::move(crl.value());
  return out;
}

Result<Bytes> MakeCertificateBundle(const std::vector<Bytes> &certificates) {
  Pkcs7Ptr p7(PKCS7_new());
  if (!p7 || PKCS7_set_type(p7.get(), NID_pkcs7_signed) != 1 ||
      PKCS7_content_new(p7.get(), NID_pkcs7_data) != 1) {
    return ossl::Fail("PKCS7_new");
  }
  for (const Bytes &der : certificates) {
    X509Ptr x = ParseCertificate(der);
    if (!x) return Status(Code::kBadData, "not a certificate");
    if (PKCS7_add_certificate(p7.get(), x.get()) != 1) return ossl::Fail("PKCS7_add_certificate");
  }
  return ToDer<PKCS7, i2d_PKCS7>(p7.get());
}

Result<PathCheck> ValidatePath(ByteView leaf_der, const std::vector<Bytes> &chain,
                               const std::optional<Bytes> &crl_der, time_t at) {
  X509Ptr leaf = ParseCertificate(leaf_der);
  if (!leaf) return Status(Code::kBadData, "the leaf is not a certificate");
  StorePtr store(X509_STORE_new());
  CertStack untrusted(sk_X509_new_null());
  if (!store || !untrusted) return ossl::Fail("X509_STORE_new");
  for (const Bytes &der : chain) {
    X509Ptr x = ParseCertificate(der);
    if (!x) return Status(Code::kBadData, "the chain holds something that is not a certificate");
    if (IsSelfSigned(x.get()) || chain.size() == 1) {
      if (X509_STORE_add_cert(store.get(), x.get()) != 1) return ossl::Fail("X509_STORE_add_cert");
    } else if (sk_X509_push(untrusted.get(), x.get()) != 0) {
      x.release();
    }
  }
  unsigned long flags = X509_V_FLAG_PARTIAL_CHAIN;
  if (crl_der) {
    const unsigned char *p = crl_der->data();
    CrlPtr crl(d2i_X509_CRL(nullptr, &p, static_cast<long>(crl_der->size())));
    if (!crl) return Status(Code::kBadData, "not a CRL");
    if (X509_STORE_add_crl(store.get(), crl.get()) != 1) return ossl::Fail("X509_STORE_add_crl");
    flags |= X509_V_FLAG_CRL_CHECK;
  }
  StoreCtxPtr ctx(X509_STORE_CTX_new());
  if (!ctx || X509_STORE_CTX_init(ctx.get(), store.get(), leaf.get(), untrusted.get()) != 1) {
    return ossl::Fail("X509_STORE_CTX_init");
  }
  X509_VERIFY_PARAM *param = X509_STORE_CTX_get0_param(ctx.get());
  X509_VERIFY_PARAM_set_flags(param, flags);
  X509_VERIFY_PARAM_set_time(param, at);
  PathCheck check;
  if (X509_verify_cert(ctx.get()) == 1) return check;
  ossl::ClearErrors();
  check.verify_error = X509_STORE_CTX_get_error(ctx.get());
  switch (check.verify_error) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_CERT_NOT_YET_VALID:
      check.problem = PathProblem::kExpired;
      break;
    case X509_V_ERR_CERT_REVOKED:
      check.problem = PathProblem::kRevoked;
      break;
    default:
      check.problem = PathProblem::kUntrusted;
  }
  return check;
}

Result<Bytes> PublicKeyId(ByteView certificate) {
  X509Ptr x = ParseCertificate(certificate);
  if (!x) return Status(Code::kBadData, "not a certificate");
  Bytes id(EVP_MAX_MD_SIZE);
  unsigned int len = 0;
  if (X509_pubkey_digest(x.get(), EVP_sha1(), id.data(), &len) != 1) {
    return ossl::Fail("X509_pubkey_digest");
  }
  id.resize(len);
  return id;
}

namespace {

bool TlsServerKey(EVP_PKEY *key) {
  switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA:
      return EVP_PKEY_get_bits(key) >= 2048;
    case EVP_PKEY_ED25519:
      return true;
    case EVP_PKEY_EC: {
      char curve[64] = {};
      size_t len = 0;
      if (EVP_PKEY_get_utf8_string_param(key, "group", curve, sizeof curve, &len) != 1)
        return false;
      const std::string_view name(curve, len);
      return name == "prime256v1" || name == "secp384r1";
    }
    default:
      return false;
  }
}

}  // namespace

Result<TlsIdentity> ReadTlsIdentity(ByteView pem) {
  TlsIdentity out;
  using PkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
  // Each read starts at the top: PEM reads skip blocks of other kinds.
  BioPtr kbio = MemBio(pem);
  PkeyPtr key(kbio ? PEM_read_bio_PrivateKey(kbio.get(), nullptr, nullptr, nullptr) : nullptr);
  std::vector<X509Ptr> certs;
  BioPtr cbio = MemBio(pem);
  while (cbio) {
    X509Ptr x(PEM_read_bio_X509(cbio.get(), nullptr, nullptr, nullptr));
    if (!x) break;
    certs.push_back(std::move(x));
  }
  ossl::ClearErrors();
  if (!key)
    out.problem = TlsProblem::kNoKey;
  else if (certs.empty())
    out.problem = TlsProblem::kNoCertificate;
  else if (X509_check_private_key(certs[0].get(), key.get()) != 1)
    out.problem = TlsProblem::kMismatch;
  else if (!TlsServerKey(key.get()))
    out.problem = TlsProblem::kWeakKey;
  ossl::ClearErrors();
  if (out.problem != TlsProblem::kNone) return out;

  BioPtr kout(BIO_new(BIO_s_mem()));
  if (!kout ||
      PEM_write_bio_PrivateKey(kout.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
    return ossl::Fail("PEM_write_bio_PrivateKey");
  char *data = nullptr;
  long len = BIO_get_mem_data(kout.get(), &data);
  out.key_pem.assign(data, data + len);
  // The BIO's copy of the key is wiped before it is freed.
  OPENSSL_cleanse(data, static_cast<size_t>(len));
  BioPtr cout(BIO_new(BIO_s_mem()));
  if (!cout) return ossl::Fail("BIO_new");
  for (const X509Ptr &x : certs)
    if (PEM_write_bio_X509(cout.get(), x.get()) != 1) return ossl::Fail("PEM_write_bio_X509");
  len = BIO_get_mem_data(cout.get(), &data);
  out.chain_pem.assign(data, static_cast<size_t>(len));
  out.leaf = ToDer<X509, i2d_X509>(certs[0].get());
  return out;
}

Result<Bytes> VerifySignedContent(ByteView cms_der, ByteView signer) {
  X509Ptr cert = ParseCertificate(signer);
  if (!cert) return Status(Code::kBadData, "the signer is not a DER certificate");
  const unsigned char *p = cms_der.data();
  CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(cms_der.size())));
  if (!cms || p != cms_der.data() + cms_der.size() ||
      OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed) {
    ossl::ClearErrors();
    return Status(Code::kBadData, "not a CMS SignedData in DER");
  }
  CertStack certs(sk_X509_new_null());
  if (!certs || !sk_X509_push(certs.get(), cert.get())) return ossl::Fail("sk_X509_push");
  X509_up_ref(cert.get());
  BioPtr out(BIO_new(BIO_s_mem()));
  if (!out) return ossl::Fail("BIO_new");
  // Only the given certificate may be the signer (NOINTERN), and it is trusted as it stands.
  const int ok = CMS_verify(cms.get(), certs.get(), nullptr, nullptr, out.get(),
                            CMS_NOINTERN | CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY);
  ossl::ClearErrors();
  if (ok != 1) return Status(Code::kBadSignature, "the package's signature does not verify");
  char *data = nullptr;
  const long len = BIO_get_mem_data(out.get(), &data);
  return Bytes(data, data + len);
}

bool KeyMatchesCertificate(const Key &key, ByteView certificate) {
  X509Ptr x = ParseCertificate(certificate);
  const bool match =
      x && key.pkey() != nullptr && EVP_PKEY_eq(X509_get0_pubkey(x.get()), key.pkey()) == 1;
  ossl::ClearErrors();
  return match;
}

Result<Bytes> ParseDistinguishedName(std::string_view rfc4514) {
  std::vector<std::pair<std::string, std::string>> rdns;
  if (!SplitRdns(rfc4514, &rdns)) return Status(Code::kBadArgument, "not an RFC 4514 name");
  NamePtr name(X509_NAME_new());
  if (!name) return ossl::Fail("X509_NAME_new");
  // RFC 4514 writes the most specific RDN first; the encoding starts from the root.
  for (auto it = rdns.rbegin(); it != rdns.rend(); ++it) {
    if (X509_NAME_add_entry_by_txt(name.get(), it->first.c_str(), MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char *>(it->second.c_str()), -1,
                                   -1, 0) != 1) {
      ossl::ClearErrors();
      return Status(Code::kBadArgument, "unknown attribute or bad value: " + it->first);
    }
  }
  return ToDer<X509_NAME, i2d_X509_NAME>(name.get());
}

Result<std::string> CertificateSubject(ByteView certificate) {
  X509Ptr x = ParseCertificate(certificate);
  if (!x) return Status(Code::kBadData, "not a certificate");
  return NameText(X509_get_subject_name(x.get()));
}

Result<std::string> CertificateIssuer(ByteView certificate) {
  X509Ptr x = ParseCertificate(certificate);
  if (!x) return Status(Code::kBadData, "not a certificate");
  return NameText(X509_get_issuer_name(x.get()));
}

Result<Bytes> MakeRequest(const Key &key, std::string_view subject_rfc4514, const char *digest) {
  if (key.pkey() == nullptr) return Status(Code::kKeyCannotDo, "a request needs a private key");
  Result<Bytes> name_der = ParseDistinguishedName(subject_rfc4514);
  if (!name_der.ok()) return name_der;
  const unsigned char *p = name_der->data();
  NamePtr name(d2i_X509_NAME(nullptr, &p, static_cast<long>(name_der->size())));
  ReqPtr req(X509_REQ_new_ex(ossl::LibCtx(), nullptr));
  if (!name || !req || X509_REQ_set_version(req.get(), 0) != 1 ||
      X509_REQ_set_subject_name(req.get(), name.get()) != 1 ||
      X509_REQ_set_pubkey(req.get(), key.pkey()) != 1) {
    return ossl::Fail("X509_REQ");
  }
  const int type = EVP_PKEY_get_base_id(key.pkey());
  const bool pure = type == EVP_PKEY_ED25519 || type == EVP_PKEY_ED448;
  ossl::MdCtxPtr md(EVP_MD_CTX_new());
  if (!md ||
      EVP_DigestSignInit_ex(md.get(), nullptr, pure ? nullptr : digest, ossl::LibCtx(), nullptr,
                            key.pkey(), nullptr) != 1 ||
      X509_REQ_sign_ctx(req.get(), md.get()) <= 0) {
    ossl::ClearErrors();
    return Status(Code::kKeyCannotDo, "the key cannot sign the request");
  }
  return ToDer<X509_REQ, i2d_X509_REQ>(req.get());
}

namespace {

// Adds a SignerInfo to the SignedData `data` (DER or PEM ContentInfo), as RFC 5652 section 5
// allows: the new signer signs the message digest an existing signer of the same digest
// algorithm recorded in its signed attributes, so the content itself is not needed (a detached
// SignedData may be co-signed too). Signed attributes are thus required (kBadArgument with
// kCmsNoAttributes), and a SignedData without a signer of that digest is refused (kBadArgument).
Result<Bytes> CmsCosign(const Key &key, X509 *cert, const std::vector<Bytes> &chain, ByteView data,
                        uint32_t flags, const EVP_MD *md) {
  if (flags & kCmsNoAttributes)
    return Status(Code::kBadArgument, "co-signing needs signed attributes");
  const unsigned char *p = data.data();
  CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(data.size())));
  if (!cms) {
    ossl::ClearErrors();
    BioPtr pem = MemBio(data);
    // PEM_read_bio_CMS spelled out: cms.h declares it only when pem.h came first.
    if (pem)
      cms.reset(static_cast<CMS_ContentInfo *>(
          PEM_ASN1_read_bio(reinterpret_cast<d2i_of_void *>(d2i_CMS_ContentInfo), PEM_STRING_CMS,
                            pem.get(), nullptr, nullptr, nullptr)));
  }
  if (!cms || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed) {
    ossl::ClearErrors();
    return Status(Code::kBadData, "co-signing needs a SignedData");
  }
  unsigned int cms_flags = CMS_REUSE_DIGEST;
  if (flags & kCmsNoCerts) cms_flags |= CMS_NOCERTS;
  if (flags & kCmsNoSmimeCapabilities) cms_flags |= CMS_NOSMIMECAP;
  if (CMS_add1_signer(cms.get(), cert, key.pkey(), md, cms_flags) == nullptr) {
    ossl::ClearErrors();
    return Status(Code::kBadArgument, "no signer of that digest to co-sign with");
  }
  if ((flags & (kCmsNoChain | kCmsNoCerts)) == 0) {
    for (const Bytes &der : chain) {
      X509Ptr x = ParseCertificate(der);
      if (!x) return Status(Code::kBadData, "the chain holds something that is not a certificate");
      if (CMS_add1_cert(cms.get(), x.get()) != 1) ossl::ClearErrors();  // a duplicate is fine
    }
  }
  return ToDer<CMS_ContentInfo, i2d_CMS_ContentInfo>(cms.get());
}

}  // namespace

Result<Bytes> CmsSign(const Key &key, ByteView certificate, const std::vector<Bytes> &chain,
                      ByteView data, uint32_t flags, const char *digest) {
  X509Ptr cert = ParseCertificate(certificate);
  if (!cert) return Status(Code::kBadData, "the signer certificate does not parse");
  if (!KeyMatchesCertificate(key, certificate)) {
    return Status(Code::kKeyCannotDo, "the key does not match its certificate");
  }
  unsigned int cms_flags = CMS_PARTIAL;
  if (flags & kCmsText) cms_flags |= CMS_TEXT;
  if (flags & kCmsNoCerts) cms_flags |= CMS_NOCERTS;
  if (flags & kCmsDetached) cms_flags |= CMS_DETACHED;
  if (flags & kCmsBinary) cms_flags |= CMS_BINARY;
  if (flags & kCmsNoAttributes) cms_flags |= CMS_NOATTR;
  if (flags & kCmsNoSmimeCapabilities) cms_flags |= CMS_NOSMIMECAP;
  if (flags & kCmsCrlfEol) cms_flags |= CMS_CRLFEOL;
  MdPtr md(EVP_MD_fetch(ossl::LibCtx(), digest, nullptr));
  if (!md) return Status(Code::kBadAlgorithm, "unknown digest");
  if (flags & kCmsCosign) return CmsCosign(key, cert.get(), chain, data, flags, md.get());
  CmsPtr cms(CMS_sign_ex(nullptr, nullptr, nullptr, nullptr, cms_flags, ossl::LibCtx(), nullptr));
  if (!cms || CMS_add1_signer(cms.get(), cert.get(), key.pkey(), md.get(), cms_flags) == nullptr) {
    ossl::ClearErrors();
    return Status(Code::kKeyCannotDo, "the key cannot sign");
  }
  if ((flags & (kCmsNoChain | kCmsNoCerts)) == 0) {
    for (const Bytes &der : chain) {
      X509Ptr x = ParseCertificate(der);
      if (!x) return Status(Code::kBadData, "the chain holds something that is not a certificate");
      if (CMS_add1_cert(cms.get(), x.get()) != 1) ossl::ClearErrors();  // a duplicate is fine
    }
  }
  BioPtr in = MemBio(data);
  if (!in || CMS_final(cms.get(), in.get(), nullptr, cms_flags) != 1)
    return ossl::Fail("CMS_final");
  return ToDer<CMS_ContentInfo, i2d_CMS_ContentInfo>(cms.get());
}

Result<Pkcs12Contents> ReadPkcs12(ByteView der, std::string_view password) {
  const unsigned char *p = der.data();
  P12Ptr p12(d2i_PKCS12(nullptr, &p, static_cast<long>(der.size())));
  if (!p12) {
    ossl::ClearErrors();
    return Status(Code::kBadData, "not a PKCS#12 file");
  }
  const std::string pass(password);
  EVP_PKEY *raw_key = nullptr;
  X509 *raw_cert = nullptr;
  if (PKCS12_verify_mac(p12.get(), pass.c_str(), static_cast<int>(pass.size())) != 1 ||
      PKCS12_parse(p12.get(), pass.c_str(), &raw_key, &raw_cert, nullptr) != 1) {
    ossl::ClearErrors();
    return Status(Code::kBadTag, "the password does not open the file");
  }
  ossl::PkeyPtr pkey(raw_key);
  X509Ptr cert(raw_cert);
  if (!pkey) return Status(Code::kBadData, "the file holds no private key");
  Pkcs12Contents out;
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio ||
      i2d_PKCS8PrivateKey_bio(bio.get(), pkey.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    return ossl::Fail("i2d_PKCS8PrivateKey_bio");
  }
  char *mem = nullptr;
  const long len = BIO_get_mem_data(bio.get(), &mem);
  out.private_key_pkcs8.assign(mem, mem + len);
  OPENSSL_cleanse(mem, static_cast<size_t>(len));
  if (cert) out.certificate = ToDer<X509, i2d_X509>(cert.get());
  return out;
}

Result<Bytes> MakePkcs12(const Key &key, ByteView certificate, std::string_view password) {
  if (password.empty()) return Status(Code::kBadArgument, "a PKCS#12 file needs a password");
  X509Ptr cert = ParseCertificate(certificate);
  if (!cert) return Status(Code::kBadData, "the certificate does not parse");
  if (!KeyMatchesCertificate(key, certificate)) {
    return Status(Code::kKeyCannotDo, "the key does not match its certificate");
  }
  const std::string pass(password);
  P12Ptr p12(PKCS12_create_ex(pass.c_str(), nullptr, key.pkey(), cert.get(), nullptr,
                              NID_aes_256_cbc, NID_aes_256_cbc, PKCS12_DEFAULT_ITER, -1, 0,
                              ossl::LibCtx(), nullptr));
  if (!p12) return ossl::Fail("PKCS12_create_ex");
  MdPtr sha256(EVP_MD_fetch(ossl::LibCtx(), "SHA256", nullptr));
  if (!sha256 || PKCS12_set_mac(p12.get(), pass.c_str(), static_cast<int>(pass.size()), nullptr, 0,
                                PKCS12_DEFAULT_ITER, sha256.get()) != 1) {
    return ossl::Fail("PKCS12_set_mac");
  }
  return ToDer<PKCS12, i2d_PKCS12>(p12.get());
}

}  // namespace qlhsm::crypto::pki
