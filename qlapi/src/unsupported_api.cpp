// The calls whose HSM services are not built yet (PIX and XML, blockchain keys, secret keeping,
// parts of PKI, and the network tools).
// Each answers QL_ERR_NOT_SUPPORTED after checking nothing, so a caller learns at once that the
// service is missing; handle-releasing calls clear the handle they are given.
#include "api_common.h"

#define QL_NOT_SUPPORTED return QL_ERR_NOT_SUPPORTED

extern "C" {

int QFindHSM(uint32_t, uint32_t, PQL_LIST_CALLBACK, void *) {
  QL_NOT_SUPPORTED;
}

}  // extern "C"
