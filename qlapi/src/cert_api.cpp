// Certificates read in the library: their fields, and DER to PEM or back. Nothing here needs
// the HSM.
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "api_common.h"

using namespace qlapi;

namespace {

struct X509Free {
  void operator()(X509 *x) const { X509_free(x); }
};
using X509Ptr = std::unique_ptr<X509, X509Free>;
struct BioFree {
  void operator()(BIO *b) const { BIO_free_all(b); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

// One certificate, DER or PEM; null for anything else.
X509Ptr ReadCertificate(const unsigned char *data, uint32_t len) {
  const unsigned char *p = data;
  X509Ptr x(d2i_X509(nullptr, &p, static_cast<long>(len)));
  if (!x || p != data + len) {
    BioPtr bio(BIO_new_mem_buf(data, static_cast<int>(len)));
    x.reset(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  }
  ERR_clear_error();
  return x;
}

std::string BioText(BIO *bio) {
  char *data = nullptr;
  const long len = BIO_get_mem_data(bio, &data);
  return len > 0 ? std::string(data, static_cast<size_t>(len)) : std::string();
}

// An RFC 4514 name: the last RDN first, special characters escaped.
bool NameText(const X509_NAME *name, std::string *out) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253) < 0) return false;
  *out = BioText(bio.get());
  return true;
}

uint32_t RsaAlgorithm(int bits) {
  switch (bits) {
    case 512:
      return QL_ALG_RSA512;
    case 1024:
      return QL_ALG_RSA1024;
    case 1152:
      return QL_ALG_RSA1152;
    case 1408:
      return QL_ALG_RSA1408;
    case 1536:
      return QL_ALG_RSA1536;
    case 1976:
      return QL_ALG_RSA1976;
    case 1984:
      return QL_ALG_RSA1984;
    case 2048:
      return QL_ALG_RSA2048;
    case 2304:
      return QL_ALG_RSA2304;
    case 2560:
      return QL_ALG_RSA2560;
    case 2816:
      return QL_ALG_RSA2816;
    case 3072:
      return QL_ALG_RSA3072;
    case 4096:
      return QL_ALG_RSA4096;
    case 8192:
      return QL_ALG_RSA8192;
    default:
      return 0;
  }
}

uint32_t CurveAlgorithm(const std::string &curve) {
  static const struct {
    const char *name;
    uint32_t alg;
  } kCurves[] = {
      {"secp192r1", QL_ALG_ECC_SECP192R1},
      {"prime192v1", QL_ALG_ECC_SECP192R1},
      {"secp224r1", QL_ALG_ECC_SECP224R1},
      {"secp256k1", QL_ALG_ECC_SECP256K1},
      {"prime256v1", QL_ALG_ECC_SECP256R1},
      {"secp256r1", QL_ALG_ECC_SECP256R1},
      {"secp384r1", QL_ALG_ECC_SECP384R1},
      {"secp521r1", QL_ALG_ECC_SECP521R1},
      {"brainpoolP256r1", QL_ALG_ECC_BRAINPOOL_P256R1},
      {"brainpoolP384r1", QL_ALG_ECC_BRAINPOOL_P384R1},
      {"brainpoolP512r1", QL_ALG_ECC_BRAINPOOL_P512R1},
  };
  for (const auto &c : kCurves)
    if (curve == c.name) return c.alg;
  return 0;
}

// The QL_ALG_* of a public key; 0 when it has none.
uint32_t KeyAlgorithm(EVP_PKEY *key) {
  if (key == nullptr) return 0;
  switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA:
      return RsaAlgorithm(EVP_PKEY_get_bits(key));
    case EVP_PKEY_EC: {
      char curve[64] = {0};
      size_t len = 0;
      if (EVP_PKEY_get_utf8_string_param(key, "group", curve, sizeof curve, &len) != 1) return 0;
      return CurveAlgorithm(curve);
    }
    case EVP_PKEY_ED25519:
      return QL_ALG_ED25519;
    case EVP_PKEY_ED448:
      return QL_ALG_ED448;
    default:
      return 0;
  }
}

bool Seconds(const ASN1_TIME *t, uint64_t *out) {
  struct tm tm {};
  if (t == nullptr || ASN1_TIME_to_tm(t, &tm) != 1) return false;
#ifdef _WIN32
  const time_t s = _mkgmtime(&tm);
#else
  const time_t s = timegm(&tm);
#endif
  if (s < 0) return false;
  *out = static_cast<uint64_t>(s);
  return true;
}

// Copies text with its NUL into a fixed field; false when it does not fit.
template <size_t N>
bool Field(const std::string &text, char (&field)[N]) {
  if (text.size() >= N) return false;
  std::memcpy(field, text.c_str(), text.size() + 1);
  return true;
}

}  // namespace

extern "C" int QCert2CertInfo(const unsigned char *pbCert, uint32_t dwCertLen,
                              QL_CERT_INFO *pInfo) {
  return Guard([&] {
    if (pbCert == nullptr || dwCertLen == 0 || pInfo == nullptr) return QL_ERR_BAD_ARGUMENT;
    X509Ptr x = ReadCertificate(pbCert, dwCertLen);
    if (!x) return QL_ERR_BAD_CERT;
    QL_CERT_INFO info{};
    std::string subject, issuer;
    if (!NameText(X509_get_subject_name(x.get()), &subject) ||
        !NameText(X509_get_issuer_name(x.get()), &issuer))
      return QL_ERR_BAD_CERT;
    std::unique_ptr<BIGNUM, void (*)(BIGNUM *)> serial(
        ASN1_INTEGER_to_BN(X509_get0_serialNumber(x.get()), nullptr), BN_free);
    if (!serial) return QL_ERR_BAD_CERT;
    std::unique_ptr<char, void (*)(void *)> hex(BN_bn2hex(serial.get()),
                                                [](void *p) { OPENSSL_free(p); });
    if (!hex) return QL_ERR_NO_MEMORY;
    if (!Field(subject, info.szSubject) || !Field(issuer, info.szIssuer) ||
        !Field(std::string(hex.get()), info.szSerial))
      return QL_ERR_BAD_LENGTH;
    if (!Seconds(X509_get0_notBefore(x.get()), &info.qwNotBefore) ||
        !Seconds(X509_get0_notAfter(x.get()), &info.qwNotAfter))
      return QL_ERR_BAD_CERT;
    info.dwKeyAlgId = KeyAlgorithm(X509_get0_pubkey(x.get()));
    ERR_clear_error();
    *pInfo = info;
    return QL_OK;
  });
}

extern "C" int QCertEncodingConvert(const unsigned char *pbIn, uint32_t dwInLen, uint32_t dwOutForm,
                                    unsigned char **ppbOut, uint32_t *pdwOutLen) {
  return Guard([&] {
    if (ppbOut == nullptr || pdwOutLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    *ppbOut = nullptr;
    *pdwOutLen = 0;
    if (pbIn == nullptr || dwInLen == 0 || (dwOutForm != 1 && dwOutForm != 2))
      return QL_ERR_BAD_ARGUMENT;
    X509Ptr x = ReadCertificate(pbIn, dwInLen);
    if (!x) return QL_ERR_BAD_CERT;
    std::string out;
    if (dwOutForm == 1) {
      const int len = i2d_X509(x.get(), nullptr);
      if (len <= 0) return QL_ERR_BAD_CERT;
      out.resize(static_cast<size_t>(len));
      unsigned char *p = reinterpret_cast<unsigned char *>(out.data());
      i2d_X509(x.get(), &p);
    } else {
      BioPtr bio(BIO_new(BIO_s_mem()));
      if (!bio || PEM_write_bio_X509(bio.get(), x.get()) != 1) return QL_ERR_NO_MEMORY;
      out = BioText(bio.get());
    }
    return AllocOut(out, ppbOut, pdwOutLen).code();
  });
}
