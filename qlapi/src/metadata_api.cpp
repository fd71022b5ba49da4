// Object metadata as JSON text: QGetJsonObjMetadata, QSetJsonObjMetadata. The HSM checks the
// text (one JSON object in UTF-8, at most QL_MAX_JSON_METADATA bytes); the library checks only
// what it must to build the request.
#include "api_common.h"

using namespace qlapi;

namespace {

Status CheckObjName(const char *name) {
  if (!HasText(name)) return Status(QL_ERR_BAD_ARGUMENT);
  if (std::strlen(name) > QL_MAX_USER_NAME + 1 + QL_MAX_OBJ_NAME) return Status(QL_ERR_BAD_NAME);
  return Status::Ok();
}

}  // namespace

extern "C" int QGetJsonObjMetadata(HSESSIONCTX hSession, const char *szObjName, uint32_t dwType,
                                   char **ppszJson, uint32_t *pdwJsonLen) {
  return Guard([&] {
    if (ppszJson == nullptr || pdwJsonLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    *ppszJson = nullptr;
    *pdwJsonLen = 0;
    QL_RETURN_CODE_IF_ERROR(CheckObjName(szObjName));
    pb::Request request;
    auto *get = request.mutable_get_obj_metadata_json();
    get->set_name(szObjName);
    get->set_type(dwType);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    const std::string &json = response.blob().data();
    // The text with a NUL after it, so callers may use it as a C string.
    auto *text = static_cast<char *>(QAlloc(static_cast<unsigned int>(json.size() + 1)));
    if (text == nullptr) return QL_ERR_NO_MEMORY;
    std::memcpy(text, json.data(), json.size());
    text[json.size()] = '\0';
    *ppszJson = text;
    *pdwJsonLen = static_cast<uint32_t>(json.size());
    return QL_OK;
  });
}

extern "C" int QSetJsonObjMetadata(HSESSIONCTX hSession, const char *szObjName, const char *szJson,
                                   uint32_t dwJsonLen) {
  return Guard([&] {
    QL_RETURN_CODE_IF_ERROR(CheckObjName(szObjName));
    if (szJson == nullptr) return QL_ERR_BAD_ARGUMENT;
    const size_t len = dwJsonLen != 0 ? dwJsonLen : std::strlen(szJson);
    // Longer than the HSM keeps: refused here rather than sent.
    if (len > QL_MAX_JSON_METADATA) return QL_ERR_BAD_LENGTH;
    pb::Request request;
    auto *set = request.mutable_set_obj_metadata_json();
    set->set_name(szObjName);
    set->set_json(szJson, len);
    return Ask(hSession, request).code();
  });
}
