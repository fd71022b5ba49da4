// Tools the HSM runs for an operator: ping, traceroute and the self-check. Each answers a text
// report; all need ACL_SYS_OPERATOR, and the audit line records the tool and its target only.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "engine/guard.h"

namespace qlhsm {

class ToolsService {
 public:
  ToolsService(Core &core, Guard &guard) : core_(core), guard_(guard) {}

  // Runs `tool` (wire_values.h: kToolPing, kToolTraceroute, kToolCrossCheck) and writes its
  // report to *report. The self-check answers kSelfCheckFailed with its report when a check
  // fails. Refusals before any work: kBadArgument (unknown tool, missing or malformed target),
  // kBadFlags (a flag the tool does not take).
  Status Run(sessions::Session &s, uint32_t tool, std::string_view target, uint32_t flags,
             std::string *report);

  // The most bytes of report a tool hands out.
  static constexpr size_t kMaxReport = 64 * 1024;

 private:
  // The self-check's lines; false when a check failed.
  bool SelfCheck(std::string *report);

  Core &core_;
  Guard &guard_;
};

// The known-answer tests of the algorithm families the engine serves: one line per test, "ok"
// or its fault, appended to *report. False when one fails.
bool RunKnownAnswerTests(std::string *report);

}  // namespace qlhsm
