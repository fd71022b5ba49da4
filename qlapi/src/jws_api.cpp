// JSON Web Signatures in compact form (RFC 7515) for PIX: the HSM builds the signing input from
// the header's bytes as given and the payload, signs it with the stored key and checks a JWS
// under the signer of its "x5c" header after path validation against a chain object and an
// optional CRL object. The library only checks the arguments and carries the text.
#include <cstring>
#include <string>

#include "api_common.h"

using namespace qlapi;

namespace {

constexpr uint32_t kJwsFlags = QL_JWS_ADD_X5C | QL_JWS_DETACHED;

Status CheckName(const char *name) {
  if (!HasText(name)) return Status(QL_ERR_BAD_ARGUMENT);
  if (std::strlen(name) > QL_MAX_USER_NAME + 1 + QL_MAX_OBJ_NAME) return Status(QL_ERR_BAD_NAME);
  return Status::Ok();
}

}  // namespace

extern "C" int QPIXJWSSign(HSESSIONCTX hSession, const char *szKeyName, const char *szHeader,
                           const unsigned char *pbPayload, uint32_t dwPayloadLen, char **ppszJws,
                           uint32_t *pdwJwsLen, uint32_t dwFlags) {
  return Guard([&] {
    if (ppszJws == nullptr || pdwJwsLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    *ppszJws = nullptr;
    *pdwJwsLen = 0;
    if (!HasText(szHeader) || (pbPayload == nullptr && dwPayloadLen > 0))
      return QL_ERR_BAD_ARGUMENT;
    if (dwFlags & ~kJwsFlags) return QL_ERR_BAD_FLAGS;
    QL_RETURN_CODE_IF_ERROR(CheckName(szKeyName));
    pb::Request request;
    auto *m = request.mutable_jws_sign();
    m->set_key_name(szKeyName);
    m->set_header(szHeader);
    if (dwPayloadLen) m->set_payload(pbPayload, dwPayloadLen);
    m->set_flags(dwFlags);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    // A text: handed out with a terminating zero that the length does not count.
    const std::string &jws = response.blob().data();
    void *p = QAlloc(static_cast<unsigned int>(jws.size() + 1));
    if (p == nullptr) return QL_ERR_NO_MEMORY;
    std::memcpy(p, jws.c_str(), jws.size() + 1);
    *ppszJws = static_cast<char *>(p);
    *pdwJwsLen = static_cast<uint32_t>(jws.size());
    return QL_OK;
  });
}

extern "C" int QPIXJWSCheck(HSESSIONCTX hSession, const char *szChainName, const char *szCrlName,
                            const char *szJws, uint32_t dwJwsLen, uint32_t dwFlags) {
  return Guard([&] {
    if (szJws == nullptr || dwJwsLen == 0) return QL_ERR_BAD_ARGUMENT;
    if (dwFlags & ~kJwsFlags) return QL_ERR_BAD_FLAGS;
    QL_RETURN_CODE_IF_ERROR(CheckName(szChainName));
    if (HasText(szCrlName)) QL_RETURN_CODE_IF_ERROR(CheckName(szCrlName));
    pb::Request request;
    auto *m = request.mutable_jws_check();
    m->set_chain_name(szChainName);
    if (HasText(szCrlName)) m->set_crl_name(szCrlName);
    m->set_jws(szJws, dwJwsLen);
    m->set_flags(dwFlags);
    return Ask(hSession, request).code();
  });
}
