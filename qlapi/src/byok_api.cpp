// Key export for a cloud's key import: the HSM wraps the key under a KEK it holds.
#include "api_common.h"

using namespace qlapi;

extern "C" int QByokExport(HSESSIONCTX hSession, const char *szKeyName, const char *szKekName,
                           uint32_t dwType, const unsigned char *pbData, uint32_t dwDataLen,
                           unsigned char **ppbOut, uint32_t *pdwOutLen) {
  return Guard([&] {
    if (!HasText(szKeyName) || !HasText(szKekName) || ppbOut == nullptr || pdwOutLen == nullptr ||
        (pbData == nullptr && dwDataLen > 0)) {
      return QL_ERR_BAD_ARGUMENT;
    }
    *ppbOut = nullptr;
    *pdwOutLen = 0;
    pb::Request request;
    pb::ByokExport *m = request.mutable_byok_export();
    m->set_key(szKeyName);
    m->set_kek(szKekName);
    m->set_type(dwType);
    if (dwDataLen > 0) m->set_data(reinterpret_cast<const char *>(pbData), dwDataLen);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    return AllocOut(response.blob().data(), ppbOut, pdwOutLen).code();
  });
}
