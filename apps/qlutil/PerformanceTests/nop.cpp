// -p nop: each operation opens an authenticated session and closes it, so the test measures
// session establishment (with the library's session cache unless -sc 0 bypasses it).
#include <cstring>

#include "Output.h"
#include "PerformanceTests.h"
#include "harness/harness.h"

namespace {

typedef struct tag_PERF_NOP_INFO {
  THREAD_INFO ti;
  uint32_t dwConnectionFlags;
  AUTH_PWD_EX stAuth;
} PERF_NOP_INFO;

unsigned int PerfNopThread(void *pvInfo) {
  auto *info = static_cast<PERF_NOP_INFO *>(pvInfo);
  return RunPerfLoop(&info->ti, [info](unsigned long) {
    HSESSIONCTX hSession = nullptr;
    const int rc = ConnectEx(&hSession, &info->ti);
    if (rc != 0) {
      ScreenOutput("[PerfNopThread] Fail in ConnectEx. rc = %d\r\n", rc);
      return rc;
    }
    QCloseSession(&hSession, 0);
    return 0;
  });
}

// Nothing to prepare per thread: the session is the operation.
int PerfNopThreadInit(void *) {
  return 0;
}
int PerfNopThreadFin(void *) {
  return 0;
}

void ShowPerfNopHelp() {
  ScreenOutput("\r\nDESCRIPTION\r\n");
  ScreenOutput("     Session opening performance test: each operation opens an authenticated\r\n");
  ScreenOutput(
      "     session and closes it. This test returns the number of sessions per second.\r\n");
  ScreenOutput("\r\nOPTIONS\r\n");
  ShowHelpGlobalPerfParameters();
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput("     qlutil -a 10.10.10.10 -u master -w 24681357 -p nop -t 5 -i 10\r\n");
}

}  // namespace

int PerfNop(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_NOP_INFO info;
  memset(&info, 0, sizeof info);
  LoadGenericParameters(&info.ti, pTestParam, nParameters);
  info.ti.Metric = 1;
  info.dwConnectionFlags = GetConnectionFlags(&info.ti);
  info.stAuth = info.ti.stAuthPwdEx;
  if (!IsValidTestCountersConfig(&info.ti) || !CheckConnectionFlags(&info.ti, false)) {
    ShowPerfNopHelp();
    return kResultUsage;
  }
  return ExecutePerfTestThreads(PerfNopThread, nullptr, nullptr, PerfNopThreadInit,
                                PerfNopThreadFin, &info, sizeof info);
}
