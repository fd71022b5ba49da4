// The HSM's allow-list of client addresses.
#include "api_common.h"

using namespace qlapi;

extern "C" int QIPFilterOperation(HSESSIONCTX hSession, uint32_t dwOperation, const char *szRule,
                                  PQL_LIST_CALLBACK pfnCallback, void *pvParam) {
  return Guard([&] {
    pb::Request request;
    auto *filter = request.mutable_ip_filter();
    filter->set_operation(dwOperation);
    switch (dwOperation) {
      case QL_IPF_LIST:
        return ListNames(hSession, request, pfnCallback, pvParam);
      case QL_IPF_ADD:
      case QL_IPF_REMOVE: {
        if (!HasText(szRule)) return QL_ERR_BAD_ARGUMENT;
        filter->set_rule(szRule);
        pb::Response response;
        Status st = Ask(hSession, request, &response);
        return st.code();
      }
      default:
        return QL_ERR_BAD_ARGUMENT;
    }
  });
}
