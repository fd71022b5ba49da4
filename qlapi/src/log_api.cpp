// The HSM's audit log: a read page by page, truncation, following it live, and the readable form
// of a line.
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "api_common.h"

using namespace qlapi;

namespace {

constexpr uint32_t kLogMagic = 0x514c4f47;  // "QLOG"

// A read of the log: the pages it holds when the read began, in the order asked for. A page
// fetched but too large for the caller's buffer waits here for the next call.
struct LogHandle : HandleBase {
  LogHandle() : HandleBase(kLogMagic) {}
  std::shared_ptr<SessionCore> core;
  bool backwards = false;
  uint64_t pages = 0;
  uint64_t next = 0;  // the next page to hand out; 0 once none is left
  bool have_page = false;
  std::string page;
};

LogHandle *LogOf(HLOGCTX h) {
  return AsHandle<LogHandle>(h, kLogMagic);
}

// The fields of "YYYY-MM-DD hh:mm:ss user operation target code"; false for another line.
struct LineFields {
  std::string_view stamp, user, op, target;
  int code = 0;
};

bool SplitLine(std::string_view line, LineFields *f) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  if (line.size() < 19 || line[4] != '-' || line[10] != ' ' || line[13] != ':') return false;
  f->stamp = line.substr(0, 19);
  std::string_view rest = line.substr(19);
  if (rest.empty() || rest[0] != ' ') return false;
  rest.remove_prefix(1);
  const size_t user_end = rest.find(' ');
  if (user_end == std::string_view::npos) return false;
  f->user = rest.substr(0, user_end);
  rest.remove_prefix(user_end + 1);
  const size_t op_end = rest.find(' ');
  const size_t code_at = rest.rfind(' ');
  if (op_end == std::string_view::npos || code_at == op_end) return false;
  f->op = rest.substr(0, op_end);
  f->target = rest.substr(op_end + 1, code_at - op_end - 1);
  const std::string code(rest.substr(code_at + 1));
  if (code.empty() || code.size() > 9) return false;
  char *end = nullptr;
  const long v = std::strtol(code.c_str(), &end, 10);
  if (*end != '\0') return false;
  f->code = static_cast<int>(v);
  return true;
}

}  // namespace

extern "C" int QGetHSMLogInit(HSESSIONCTX hSession, uint32_t dwFlags, HLOGCTX *phLog) {
  return Guard([&] {
    if (phLog == nullptr) return QL_ERR_BAD_ARGUMENT;
    *phLog = nullptr;
    if ((dwFlags & ~uint32_t{1}) != 0) return QL_ERR_BAD_FLAGS;
    auto core = CoreOf(hSession);
    if (!core) return QL_ERR_BAD_HANDLE;
    pb::Request request;
    request.mutable_log_open();
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(AskCore(*core, request, &response));
    if (!response.has_number()) return QL_ERR_PROTOCOL;
    auto log = std::make_unique<LogHandle>();
    log->core = core;
    log->backwards = (dwFlags & 1) != 0;
    log->pages = response.number().value();
    log->next = log->pages == 0 ? 0 : (log->backwards ? log->pages : 1);
    RegisterHandle(log.get());
    *phLog = log.release();
    return QL_OK;
  });
}

extern "C" int QGetHSMLogCont(HLOGCTX hLog, unsigned char *pbPage, uint32_t *pdwPageLen) {
  return Guard([&] {
    LogHandle *log = LogOf(hLog);
    if (log == nullptr) return QL_ERR_BAD_HANDLE;
    if (pdwPageLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    if (!log->have_page) {
      if (log->next == 0) return QL_ERR_OBJ_NOT_FOUND;
      pb::Request request;
      request.mutable_log_page()->set_number(log->next);
      pb::Response response;
      QL_RETURN_CODE_IF_ERROR(AskCore(*log->core, request, &response));
      if (!response.has_blob()) return QL_ERR_PROTOCOL;
      log->page = std::move(*response.mutable_blob()->mutable_data());
      log->have_page = true;
      if (log->backwards)
        --log->next;
      else
        log->next = log->next == log->pages ? 0 : log->next + 1;
    }
    QL_RETURN_CODE_IF_ERROR(CopyOut(log->page, pbPage, pdwPageLen));
    log->have_page = false;
    log->page.clear();
    return QL_OK;
  });
}

extern "C" int QGetHSMLogEnd(HLOGCTX *phLog) {
  return Guard([&] {
    if (phLog == nullptr) return QL_ERR_BAD_ARGUMENT;
    if (*phLog == nullptr) return QL_OK;
    LogHandle *log = LogOf(*phLog);
    if (log == nullptr || !UnregisterHandle(log)) return QL_ERR_BAD_HANDLE;
    delete log;
    *phLog = nullptr;
    return QL_OK;
  });
}

extern "C" int QGetLogEvents(HSESSIONCTX hSession, PQL_LOG_EVENT_CALLBACK pfnCallback,
                             void *pvParam) {
  return Guard([&] {
    if (pfnCallback == nullptr) return QL_ERR_BAD_ARGUMENT;
    auto core = CoreOf(hSession);
    if (!core) return QL_ERR_BAD_HANDLE;
    pb::Request request;
    request.mutable_follow_log();
    constexpr int kTickMs = 250;
    return core
        ->Follow(request, kTickMs,
                 [&](const std::string *line) {
                   if (line == nullptr) return pfnCallback(pvParam, nullptr, 0) == 0;
                   return pfnCallback(pvParam, line->c_str(),
                                      static_cast<uint32_t>(line->size())) == 0;
                 })
        .code();
  });
}

extern "C" int QTruncateLog(HSESSIONCTX hSession, uint32_t dwFlags) {
  return Guard([&] {
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    pb::Request request;
    request.mutable_truncate_log()->set_flags(dwFlags);
    return Ask(hSession, request).code();
  });
}

extern "C" int QLogLineFormat(const char *szRawLine, uint32_t dwRawLen, char *szOut,
                              uint32_t *pdwOutLen) {
  return Guard([&] {
    if (szRawLine == nullptr || pdwOutLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    const std::string_view raw(szRawLine, dwRawLen);
    LineFields f;
    std::string text;
    if (!SplitLine(raw, &f)) {
      // Not an operation's line (a notice of the HSM): shown as it is.
      text.assign(raw);
      while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    } else {
      text.append(f.stamp).append(" UTC  ");
      text.append(f.user == "-" ? std::string_view("(no user)") : f.user).append("  ");
      text.append(f.op);
      if (f.target != "-") text.append(" ").append(f.target);
      text.append("  ");
      if (f.code == 0) {
        text.append("ok");
      } else {
        text.append(QGetReturnCodeString(f.code, QL_RC_STR_NAME))
            .append(" (")
            .append(std::to_string(f.code))
            .append(")");
      }
    }
    text.push_back('\0');
    return CopyOut(text, szOut, pdwOutLen).code();
  });
}
