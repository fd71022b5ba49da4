// The calls whose HSM services are not built yet (PIX and XML, blockchain keys, secret keeping,
// parts of PKI, and the network tools).
// Each answers QL_ERR_NOT_SUPPORTED after checking nothing, so a caller learns at once that the
// service is missing; handle-releasing calls clear the handle they are given.
#include "api_common.h"

#define QL_NOT_SUPPORTED return QL_ERR_NOT_SUPPORTED

extern "C" {

int QHSMTool(HSESSIONCTX, uint32_t, const char *, char **, uint32_t *, uint32_t) {
  QL_NOT_SUPPORTED;
}
int QDSBindHSM(HSESSIONCTX, const char *, const char *, const char *, uint32_t) {
  QL_NOT_SUPPORTED;
}
int QDSUnbindHSM(HSESSIONCTX, uint32_t) {
  QL_NOT_SUPPORTED;
}

}  // extern "C"
