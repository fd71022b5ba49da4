// PIX requests over mutual TLS: the HSM makes the HTTPS request with the stored key and
// certificate as the client's identity, so the key signs the handshake without leaving it. The
// library only checks the arguments and hands over the answer.
#include <cstring>

#include "api_common.h"

using namespace qlapi;

namespace {

Status CheckName(const char *name) {
  if (!HasText(name)) return Status(QL_ERR_BAD_ARGUMENT);
  if (std::strlen(name) > QL_MAX_USER_NAME + 1 + QL_MAX_OBJ_NAME) return Status(QL_ERR_BAD_NAME);
  return Status::Ok();
}

int PixRequest(const char *method, HSESSIONCTX hSession, const char *szKeyName,
               const char *szCertName, const char *szChainName, const char *szUrl,
               const char *szHeaders, const unsigned char *pbBody, uint32_t dwBodyLen,
               uint32_t dwTimeoutMs, unsigned char **ppbAnswer, uint32_t *pdwAnswerLen,
               uint32_t *pdwHttpStatus, uint32_t dwFlags) {
  return Guard([&] {
    if (ppbAnswer == nullptr || pdwAnswerLen == nullptr || pdwHttpStatus == nullptr)
      return QL_ERR_BAD_ARGUMENT;
    *ppbAnswer = nullptr;
    *pdwAnswerLen = 0;
    *pdwHttpStatus = 0;
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    if (!HasText(szUrl) || (pbBody == nullptr && dwBodyLen > 0)) return QL_ERR_BAD_ARGUMENT;
    QL_RETURN_CODE_IF_ERROR(CheckName(szKeyName));
    QL_RETURN_CODE_IF_ERROR(CheckName(szCertName));
    QL_RETURN_CODE_IF_ERROR(CheckName(szChainName));
    pb::Request request;
    auto *p = request.mutable_pix_request();
    p->set_key_name(szKeyName);
    p->set_cert_name(szCertName);
    p->set_chain_name(szChainName);
    p->set_method(method);
    p->set_url(szUrl);
    if (szHeaders != nullptr) p->set_headers(szHeaders);
    if (dwBodyLen > 0) p->set_body(pbBody, dwBodyLen);
    p->set_timeout_ms(dwTimeoutMs);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_pix_answer()) return QL_ERR_PROTOCOL;
    QL_RETURN_CODE_IF_ERROR(AllocOut(response.pix_answer().body(), ppbAnswer, pdwAnswerLen));
    *pdwHttpStatus = response.pix_answer().http_status();
    return QL_OK;
  });
}

}  // namespace

extern "C" int QPIXPost(HSESSIONCTX hSession, const char *szKeyName, const char *szCertName,
                        const char *szChainName, const char *szUrl, const char *szHeaders,
                        const unsigned char *pbBody, uint32_t dwBodyLen, uint32_t dwTimeoutMs,
                        unsigned char **ppbAnswer, uint32_t *pdwAnswerLen, uint32_t *pdwHttpStatus,
                        uint32_t dwFlags) {
  return PixRequest("POST", hSession, szKeyName, szCertName, szChainName, szUrl, szHeaders, pbBody,
                    dwBodyLen, dwTimeoutMs, ppbAnswer, pdwAnswerLen, pdwHttpStatus, dwFlags);
}

extern "C" int QPIXGet(HSESSIONCTX hSession, const char *szKeyName, const char *szCertName,
                       const char *szChainName, const char *szUrl, const char *szHeaders,
                       uint32_t dwTimeoutMs, unsigned char **ppbAnswer, uint32_t *pdwAnswerLen,
                       uint32_t *pdwHttpStatus, uint32_t dwFlags) {
  return PixRequest("GET", hSession, szKeyName, szCertName, szChainName, szUrl, szHeaders, nullptr,
                    0, dwTimeoutMs, ppbAnswer, pdwAnswerLen, pdwHttpStatus, dwFlags);
}

extern "C" int QPIXPut(HSESSIONCTX hSession, const char *szKeyName, const char *szCertName,
                       const char *szChainName, const char *szUrl, const char *szHeaders,
                       const unsigned char *pbBody, uint32_t dwBodyLen, uint32_t dwTimeoutMs,
                       unsigned char **ppbAnswer, uint32_t *pdwAnswerLen, uint32_t *pdwHttpStatus,
                       uint32_t dwFlags) {
  return PixRequest("PUT", hSession, szKeyName, szCertName, szChainName, szUrl, szHeaders, pbBody,
                    dwBodyLen, dwTimeoutMs, ppbAnswer, pdwAnswerLen, pdwHttpStatus, dwFlags);
}

extern "C" int QPIXDelete(HSESSIONCTX hSession, const char *szKeyName, const char *szCertName,
                          const char *szChainName, const char *szUrl, const char *szHeaders,
                          uint32_t dwTimeoutMs, unsigned char **ppbAnswer, uint32_t *pdwAnswerLen,
                          uint32_t *pdwHttpStatus, uint32_t dwFlags) {
  return PixRequest("DELETE", hSession, szKeyName, szCertName, szChainName, szUrl, szHeaders,
                    nullptr, 0, dwTimeoutMs, ppbAnswer, pdwAnswerLen, pdwHttpStatus, dwFlags);
}
