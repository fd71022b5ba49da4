// Tools run by the HSM: "net-tool" (ping, traceroute) and "cross-check" (the HSM's self-check),
// each printing the report the HSM hands back.

#include <cstring>
#include <string_view>

#include "harness/harness.h"
#include "job.h"

typedef struct _JOB_TOOL_INFO {
  THREAD_INFO ti;
  uint32_t dwTool;        // QL_HSM_TOOL_*
  const char *pszTarget;  // net-tool: -target
  uint32_t dwFlags;       // net-tool: -tcp gives QL_HSM_TOOL_TCP_PROBE
} JOB_TOOL_INFO;

namespace {

void ShowJobNetToolHelp() {
  JobHelpHeader(false, {"Run a network tool from the HSM and print its report: ping (ICMP echo",
                        "where the HSM's system allows it, else TCP connect probes) or a",
                        "traceroute (UDP with growing TTL)."});
  ScreenOutput("     -cmd    Tool\r\n");
  ShowHelpNetToolCommand();
  ScreenOutput("     -target Host name or IPv4 address, optionally \":port\" (ping over TCP:\r\n");
  ScreenOutput("             the port probed, default 4433; tracert: the first UDP port)\r\n");
  ScreenOutput(
      "     -tcp    [OPTIONAL] ping with TCP connect probes even where ICMP is allowed\r\n");
  JobHelpExamples("net-tool", {"-cmd ping -target 10.0.0.5", "-cmd tracert -target 10.0.0.5",
                               "-cmd ping -target 10.0.0.5:4433 -tcp"});
}

void ShowJobCrossCheckHelp() {
  JobHelpHeader(false, {"Check the HSM: the integrity of its store, known answers of every",
                        "algorithm family it serves, and its keys in memory against the store.",
                        "Each check is listed with ok or its fault."});
  JobHelpExamples("cross-check", {""});
}

// The report, line by line with the screen's line ends.
void PrintReport(const char *report, uint32_t len) {
  std::string_view rest(report, len);
  while (!rest.empty()) {
    const size_t end = rest.find('\n');
    const std::string_view line = rest.substr(0, end);
    ScreenOutput("%.*s\r\n", static_cast<int>(line.size()), line.data());
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end + 1);
  }
}

int ToolWork(JOB_TOOL_INFO *job, HSESSIONCTX session) {
  char *report = nullptr;
  uint32_t len = 0;
  const int rc = QHSMTool(session, job->dwTool, job->pszTarget, &report, &len, job->dwFlags);
  if (report != nullptr) {
    PrintReport(report, len);
    QFree(report);
  }
  return CheckJobCall("QHSMTool", rc);
}

unsigned int JobToolThread(void *p) {
  auto *job = static_cast<JOB_TOOL_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return ToolWork(job, session); });
}

}  // namespace

int JobNetTool(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_TOOL_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.dwTool = GetParameterNetToolCmd(pTestParam, nParameters, "-cmd", 0);
  job.pszTarget = GetParameterStr(pTestParam, nParameters, "-target");
  if (IsParameterDefined(pTestParam, nParameters, "-tcp")) job.dwFlags = QL_HSM_TOOL_TCP_PROBE;
  const bool ok = (job.dwTool == QL_HSM_TOOL_PING ||
                   (job.dwTool == QL_HSM_TOOL_TRACEROUTE && job.dwFlags == 0)) &&
                  IsGivenText(job.pszTarget);
  return StartJob(&JobToolThread, &job.ti, sizeof job, false, ok, &ShowJobNetToolHelp);
}

int JobCrossCheck(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_TOOL_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.dwTool = QL_HSM_TOOL_CROSS_CHECK;
  return StartJob(&JobToolThread, &job.ti, sizeof job, false, true, &ShowJobCrossCheckHelp);
}
