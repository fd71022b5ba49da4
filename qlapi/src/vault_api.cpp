// The tokenisation vault: a token and its sealed blob made by the HSM, and what a blob holds.
#include <cstring>

#include "api_common.h"

using namespace qlapi;

namespace {

// A text into a caller's buffer with its NUL: capacity with the NUL in, the text's length out.
int TextOut(const std::string &text, char *out, uint32_t *out_len) {
  const uint32_t need = static_cast<uint32_t>(text.size()) + 1;
  if (out == nullptr || *out_len < need) {
    *out_len = need;
    return QL_ERR_BUFFER_TOO_SMALL;
  }
  std::memcpy(out, text.data(), text.size());
  out[text.size()] = '\0';
  *out_len = static_cast<uint32_t>(text.size());
  return QL_OK;
}

}  // namespace

extern "C" int QSVaultGenToken(HSESSIONCTX hSession, const char *szKeyName,
                               const QL_SVAULT_TOKEN_INFO *pInfo, const char *szSecret,
                               char *szToken, uint32_t *pdwTokenLen, unsigned char *pbBlob,
                               uint32_t *pdwBlobLen, uint32_t dwFlags) {
  return Guard([&] {
    if (!HasText(szKeyName) || pInfo == nullptr || !HasText(szSecret) || pdwTokenLen == nullptr ||
        pdwBlobLen == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    pb::Request request;
    pb::VaultGenToken *v = request.mutable_vault_gen_token();
    v->mutable_key()->set_name(szKeyName);
    v->set_type(pInfo->bType);
    v->set_mask_type(pInfo->bMaskType);
    v->set_checksum(pInfo->bChecksum);
    v->set_representation(pInfo->bRepresentation);
    v->set_secret(szSecret);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_vault_token()) return QL_ERR_PROTOCOL;
    const std::string &token = response.vault_token().token();
    const std::string &blob = response.vault_token().blob();
    // Both buffers or neither: a short one gets both lengths, and nothing is written.
    const uint32_t token_need = static_cast<uint32_t>(token.size()) + 1;
    const uint32_t blob_need = static_cast<uint32_t>(blob.size());
    if (szToken == nullptr || pbBlob == nullptr || *pdwTokenLen < token_need ||
        *pdwBlobLen < blob_need) {
      *pdwTokenLen = token_need;
      *pdwBlobLen = blob_need;
      return QL_ERR_BUFFER_TOO_SMALL;
    }
    TextOut(token, szToken, pdwTokenLen);
    std::memcpy(pbBlob, blob.data(), blob.size());
    *pdwBlobLen = blob_need;
    return QL_OK;
  });
}

extern "C" int QSVaultGetData(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwWhat,
                              const unsigned char *pbBlob, uint32_t dwBlobLen, char *szOut,
                              uint32_t *pdwOutLen, uint32_t dwFlags) {
  return Guard([&] {
    if (!HasText(szKeyName) || pbBlob == nullptr || dwBlobLen == 0 || pdwOutLen == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    pb::Request request;
    pb::VaultGetData *v = request.mutable_vault_get_data();
    v->mutable_key()->set_name(szKeyName);
    v->set_what(dwWhat);
    v->set_blob(reinterpret_cast<const char *>(pbBlob), dwBlobLen);
    v->set_flags(dwFlags);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    return TextOut(response.blob().data(), szOut, pdwOutLen);
  });
}
