// Certificates and signing identities: PKCS#12 import and export, a key linked to its
// certificate, PKCS#10 requests and CMS signatures made by the HSM.
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>

#include "api_common.h"

using namespace qlapi;

namespace {

// The key flags a PKCS#12 import keeps on the stored key.
constexpr uint32_t kPkcs12KeyFlags = QL_KEY_EXPORTABLE | QL_KEY_NO_CRYPT;

Status CheckName(const char *name) {
  if (!HasText(name)) return Status(QL_ERR_BAD_ARGUMENT);
  if (std::strlen(name) > QL_MAX_USER_NAME + 1 + QL_MAX_OBJ_NAME) return Status(QL_ERR_BAD_NAME);
  return Status::Ok();
}

}  // namespace

extern "C" int QImportPKCS12Buffer(HSESSIONCTX hSession, const unsigned char *pbPkcs12,
                                   uint32_t dwPkcs12Len, const char *szPassword,
                                   const char *szKeyName, const char *szCertName,
                                   uint32_t dwFlags) {
  return Guard([&] {
    if (pbPkcs12 == nullptr || dwPkcs12Len == 0 || szPassword == nullptr)
      return QL_ERR_BAD_ARGUMENT;
    if (dwFlags & ~kPkcs12KeyFlags) return QL_ERR_BAD_FLAGS;
    QL_RETURN_CODE_IF_ERROR(CheckName(szKeyName));
    if (szCertName != nullptr && szCertName[0] != '\0')
      QL_RETURN_CODE_IF_ERROR(CheckName(szCertName));
    pb::Request request;
    auto *imp = request.mutable_import_pkcs12();
    imp->set_pfx(pbPkcs12, dwPkcs12Len);
    imp->set_password(szPassword);
    imp->set_key_name(szKeyName);
    if (szCertName) imp->set_cert_name(szCertName);
    imp->set_flags(dwFlags);
    return Ask(hSession, request).code();
  });
}

extern "C" int QImportPKCS12(HSESSIONCTX hSession, const char *szPkcs12File, const char *szPassword,
                             const char *szKeyName, const char *szCertName, uint32_t dwFlags) {
  return Guard([&] {
    if (!HasText(szPkcs12File)) return QL_ERR_BAD_ARGUMENT;
    std::string data;
    QL_RETURN_CODE_IF_ERROR(ReadLocalFile(szPkcs12File, &data));
    return QImportPKCS12Buffer(hSession, reinterpret_cast<const unsigned char *>(data.data()),
                               static_cast<uint32_t>(data.size()), szPassword, szKeyName,
                               szCertName, dwFlags);
  });
}

extern "C" int QExportPKCS12(HSESSIONCTX hSession, const char *szPassword, const char *szKeyName,
                             const char *szCertName, unsigned char **ppbPkcs12,
                             uint32_t *pdwPkcs12Len, uint32_t dwFlags) {
  return Guard([&] {
    if (ppbPkcs12 == nullptr || pdwPkcs12Len == nullptr) return QL_ERR_BAD_ARGUMENT;
    *ppbPkcs12 = nullptr;
    *pdwPkcs12Len = 0;
    if (!HasText(szPassword)) return QL_ERR_BAD_ARGUMENT;
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    QL_RETURN_CODE_IF_ERROR(CheckName(szKeyName));
    QL_RETURN_CODE_IF_ERROR(CheckName(szCertName));
    pb::Request request;
    auto *exp = request.mutable_export_pkcs12();
    exp->set_password(szPassword);
    exp->set_key_name(szKeyName);
    exp->set_cert_name(szCertName);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    return AllocOut(response.blob().data(), ppbPkcs12, pdwPkcs12Len).code();
  });
}

extern "C" int QAssociatePKCS11Key(HSESSIONCTX hSession, const char *szKeyName,
                                   const char *szCertName, uint32_t dwFlags) {
  return Guard([&] {
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    QL_RETURN_CODE_IF_ERROR(CheckName(szKeyName));
    QL_RETURN_CODE_IF_ERROR(CheckName(szCertName));
    pb::Request request;
    auto *a = request.mutable_associate_pkcs11_key();
    a->set_key_name(szKeyName);
    a->set_cert_name(szCertName);
    return Ask(hSession, request).code();
  });
}

namespace {

// A request's DER as PEM ("CERTIFICATE REQUEST"); empty when it does not parse.
std::string RequestPem(const std::string &der) {
  const auto *p = reinterpret_cast<const unsigned char *>(der.data());
  std::unique_ptr<X509_REQ, void (*)(X509_REQ *)> req(
      d2i_X509_REQ(nullptr, &p, static_cast<long>(der.size())), X509_REQ_free);
  std::unique_ptr<BIO, void (*)(BIO *)> bio(BIO_new(BIO_s_mem()), BIO_free_all);
  std::string out;
  if (req && bio && PEM_write_bio_X509_REQ(bio.get(), req.get()) == 1) {
    char *data = nullptr;
    const long len = BIO_get_mem_data(bio.get(), &data);
    if (len > 0) out.assign(data, static_cast<size_t>(len));
  }
  ERR_clear_error();
  return out;
}

}  // namespace

extern "C" int QGeneratePKCS10CSR(HSESSIONCTX hSession, const char *szKeyName,
                                  const char *szSubjectDn, uint32_t dwVersion, uint32_t dwOutForm,
                                  uint32_t dwHashAlgId, unsigned char **ppbCsr, uint32_t *pdwCsrLen,
                                  uint32_t dwFlags) {
  return Guard([&] {
    if (ppbCsr == nullptr || pdwCsrLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    *ppbCsr = nullptr;
    *pdwCsrLen = 0;
    if (!HasText(szSubjectDn) || dwVersion != QL_P10_CSR_VERSION1 ||
        (dwOutForm != QL_P10_CSR_DER && dwOutForm != QL_P10_CSR_PEM))
      return QL_ERR_BAD_ARGUMENT;
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    QL_RETURN_CODE_IF_ERROR(CheckName(szKeyName));
    pb::Request request;
    auto *g = request.mutable_generate_pkcs10();
    g->set_key_name(szKeyName);
    g->set_subject(szSubjectDn);
    g->set_version(dwVersion);
    g->set_hash_algorithm(dwHashAlgId);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    if (dwOutForm == QL_P10_CSR_DER)
      return AllocOut(response.blob().data(), ppbCsr, pdwCsrLen).code();
    const std::string pem = RequestPem(response.blob().data());
    if (pem.empty()) return QL_ERR_PROTOCOL;
    return AllocOut(pem, ppbCsr, pdwCsrLen).code();
  });
}

extern "C" int QPKCS7Sign(HSESSIONCTX hSession, const char *szKeyName, const char *szCertName,
                          const char *szChainName, uint32_t dwAttributes,
                          const unsigned char *pbData, uint32_t dwDataLen,
                          unsigned char **ppbSigned, uint32_t *pdwSignedLen, uint32_t dwFlags) {
  return Guard([&] {
    if (ppbSigned == nullptr || pdwSignedLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    *ppbSigned = nullptr;
    *pdwSignedLen = 0;
    if (pbData == nullptr && dwDataLen > 0) return QL_ERR_BAD_ARGUMENT;
    // Only the hash byte (bits 16 to 23) means something in dwFlags.
    if (dwFlags & ~uint32_t{0xFF0000}) return QL_ERR_BAD_FLAGS;
    QL_RETURN_CODE_IF_ERROR(CheckName(szKeyName));
    QL_RETURN_CODE_IF_ERROR(CheckName(szCertName));
    if (szChainName != nullptr && szChainName[0] != '\0')
      QL_RETURN_CODE_IF_ERROR(CheckName(szChainName));
    pb::Request request;
    auto *p = request.mutable_pkcs7_sign();
    p->set_key_name(szKeyName);
    p->set_cert_name(szCertName);
    if (szChainName) p->set_chain_name(szChainName);
    p->set_attributes(dwAttributes);
    if (dwDataLen) p->set_data(pbData, dwDataLen);
    p->set_flags(dwFlags);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    return AllocOut(response.blob().data(), ppbSigned, pdwSignedLen).code();
  });
}
