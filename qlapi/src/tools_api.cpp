// Tools run by the HSM: ping, traceroute and the self-check, each answering a text report.
#include <cstring>
#include <string>

#include "api_common.h"

using namespace qlapi;

extern "C" int QHSMTool(HSESSIONCTX hSession, uint32_t dwTool, const char *szTarget,
                        char **ppszReport, uint32_t *pdwReportLen, uint32_t dwFlags) {
  return Guard([&] {
    if (ppszReport == nullptr || pdwReportLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    *ppszReport = nullptr;
    *pdwReportLen = 0;
    pb::Request request;
    auto *m = request.mutable_hsm_tool();
    m->set_tool(dwTool);
    if (szTarget != nullptr) m->set_target(szTarget);
    m->set_flags(dwFlags);
    pb::Response response;
    const int code = Ask(hSession, request, &response).code();
    // A failed self-check comes with the report that says which check failed.
    if (code != QL_OK && code != QL_ERR_SELF_CHECK_FAILED) return code;
    if (!response.has_tool_report()) return code != QL_OK ? code : QL_ERR_PROTOCOL;
    const std::string &text = response.tool_report().text();
    void *p = QAlloc(static_cast<unsigned int>(text.size() + 1));
    if (p == nullptr) return QL_ERR_NO_MEMORY;
    std::memcpy(p, text.c_str(), text.size() + 1);
    *ppszReport = static_cast<char *>(p);
    *pdwReportLen = static_cast<uint32_t>(text.size());
    return code;
  });
}
