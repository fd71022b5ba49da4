// The calls whose HSM services are not built yet (PIX and XML, blockchain keys, secret keeping,
// metadata records and maps, parts of PKI, and the network tools).
// Each answers QL_ERR_NOT_SUPPORTED after checking nothing, so a caller learns at once that the
// service is missing; handle-releasing calls clear the handle they are given.
#include "api_common.h"

#define QL_NOT_SUPPORTED return QL_ERR_NOT_SUPPORTED

extern "C" {

int QGetHSMP11Info(HSESSIONCTX, HP11INFOCTX *phInfo, uint32_t) {
  if (phInfo) *phInfo = nullptr;
  QL_NOT_SUPPORTED;
}
int QGetHSMP11InfoAttr(HP11INFOCTX, uint32_t, void *, uint32_t *) {
  QL_NOT_SUPPORTED;
}
int QDestroyHSMP11Info(HP11INFOCTX *phInfo) {
  if (phInfo) *phInfo = nullptr;
  return QL_OK;
}
int QGetHSMP11TypeInfoList(HSESSIONCTX, PQL_LIST_CALLBACK, void *) {
  QL_NOT_SUPPORTED;
}
int QHSMTool(HSESSIONCTX, uint32_t, const char *, char **, uint32_t *, uint32_t) {
  QL_NOT_SUPPORTED;
}
int QFindHSM(uint32_t, uint32_t, PQL_LIST_CALLBACK, void *) {
  QL_NOT_SUPPORTED;
}
int QDSBindHSM(HSESSIONCTX, const char *, const char *, const char *, uint32_t) {
  QL_NOT_SUPPORTED;
}
int QDSUnbindHSM(HSESSIONCTX, uint32_t) {
  QL_NOT_SUPPORTED;
}

int QCreateObjMetadata(HOBJMETACTX *phMeta, uint32_t) {
  if (phMeta) *phMeta = nullptr;
  QL_NOT_SUPPORTED;
}
int QSetObjMetadata(HOBJMETACTX, uint32_t, const void *, uint32_t, uint32_t) {
  QL_NOT_SUPPORTED;
}
int QGetObjMetadata(HOBJMETACTX, uint32_t, void *, uint32_t *, uint32_t) {
  QL_NOT_SUPPORTED;
}
int QDestroyObjMetadata(HOBJMETACTX *phMeta, uint32_t) {
  if (phMeta) *phMeta = nullptr;
  return QL_OK;
}
int QManageObjMetadata(HSESSIONCTX, uint32_t, const char *, HOBJMETACTX, HOBJMETACTX, uint32_t) {
  QL_NOT_SUPPORTED;
}
int QGetObjMetadataTypeInfoList(HSESSIONCTX, PQL_LIST_CALLBACK, void *) {
  QL_NOT_SUPPORTED;
}
int QGenerateMapObj(HSESSIONCTX, const char *, const QL_PKCS11_MAP *, uint32_t) {
  QL_NOT_SUPPORTED;
}
int QRemoveMapObj(HSESSIONCTX, const char *) {
  QL_NOT_SUPPORTED;
}
int QGetPkcs11Map(HSESSIONCTX, const char *, QL_PKCS11_MAP *) {
  QL_NOT_SUPPORTED;
}

}  // extern "C"
