// -f keep-alive, -f nop and -f cnt: sessions, keep-alive requests and the HSM's interfaces.

#include <cstring>

#include "FunctionalTests.h"
#include "Output.h"
#include "harness/harness.h"

namespace {

// How often a "busy, retry" answer is retried before the thread gives up, and the pause
// between two tries (milliseconds).
constexpr int kMaxBusyRetries = 100;
constexpr unsigned long kBusyRetryPauseMs = 50;

// ---------------------------------------------------------------------------------------------
// keep-alive

typedef struct tag_FUNC_KEEP_ALIVE_INFO {
  THREAD_INFO ti;
} FUNC_KEEP_ALIVE_INFO;

unsigned int FuncKeepAliveThread(void *pvInfo) {
  auto *info = static_cast<FUNC_KEEP_ALIVE_INFO *>(pvInfo);
  const unsigned tid = static_cast<unsigned>(info->ti.ThreadId);
  return RunFuncSessionLoop(
      &info->ti,
      [&](int rc) {
        ScreenOutput("[FuncKeepAliveThread] [%u] Error in ConnectEx. Err = %lu\r\n", tid,
                     static_cast<unsigned long>(rc));
      },
      [&](HSESSIONCTX session, unsigned long counter) {
        int rc = 0;
        rc = SendKeepAlive(session);
        for (int retry = 0; rc == QL_ERR_BUSY_RETRY && retry < kMaxBusyRetries; ++retry) {
          ScreenOutput(
              "[FuncKeepAliveThread] [%u] QAdmOperation Retry rc = %d. Iteration = %lu\r\n", tid,
              rc, counter);
          QlSleep(kBusyRetryPauseMs);
          rc = SendKeepAlive(session);
        }
        if (rc != 0) {
          ScreenOutput(
              "[FuncKeepAliveThread] [%u] Fail in QAdmOperation rc = %d. Iteration = %lu\r\n", tid,
              rc, counter);
          return rc;
        }
        return 0;
      });
}

// ---------------------------------------------------------------------------------------------
// nop

typedef struct tag_FUNC_NOP_INFO {
  THREAD_INFO ti;
  int nKeepAlive;    // -keepalive (absent or not 0/1: 1)
  int nIgnoreError;  // -ignoreerror (absent or not 0/1: 1)
} FUNC_NOP_INFO;

unsigned int FuncNopThread(void *pvInfo) {
  auto *info = static_cast<FUNC_NOP_INFO *>(pvInfo);
  THREAD_INFO *ti = &info->ti;
  const unsigned long tid = static_cast<unsigned long>(ti->ThreadId);
  const bool ignore = info->nIgnoreError == 1;
  return RunFuncLoop(ti, [&](unsigned long counter) {
    HSESSIONCTX hSession = nullptr;
    int step = ConnectEx(&hSession, ti);
    if (step != 0) {
      ScreenOutput("Error in ConnectEx. Err = %d [Thread %lu / Iteration %lu]\r\n", step, tid,
                   counter);
    } else {
      QlOperationSleep(&ti->stOpSleepInfo);
      if (info->nKeepAlive == 1) {
        step = SendKeepAlive(hSession);
        if (step != 0) {
          ScreenOutput("Error in QAdmOperation. Err = %d [Thread %lu / Iteration %lu]\r\n", step,
                       tid, counter);
        }
      }
      const int closed = QCloseSession(&hSession, 0);
      if (closed != 0) {
        ScreenOutput("Error in QCloseSession. Err = %d [Thread %lu / Iteration %lu]\r\n", closed,
                     tid, counter);
        if (step == 0) step = closed;
      }
    }
    return ignore ? 0 : step;
  });
}

// ---------------------------------------------------------------------------------------------
// cnt

constexpr int kCntInterfaces = 4;

typedef struct tag_FUNC_CNT_INFO {
  THREAD_INFO ti;
  // The HSM's interfaces: -a, then -a2, -a3, -a4; an empty text is an interface not given.
  char szAddress[kCntInterfaces][128];
} FUNC_CNT_INFO;

unsigned int FuncCntThread(void *pvInfo) {
  auto *info = static_cast<FUNC_CNT_INFO *>(pvInfo);
  THREAD_INFO *ti = &info->ti;
  const int tid = ti->ThreadId;
  const std::string user = ti->GetUserId();
  const std::string password = ti->GetPassword();
  const uint32_t flags = GetConnectionFlags(ti);
  return RunFuncLoop(ti, [&](unsigned long) {
    int rc = 0;
    for (int i = 0; i < kCntInterfaces && rc == 0; ++i) {
      const unsigned long iface = static_cast<unsigned long>(i + 1);
      const char *address = info->szAddress[i];
      if (address[0] == '\0') {
        ScreenOutput("[%d] Interface: %lu not tested. IP address unknown.\r\n", tid, iface);
        continue;
      }
      HSESSIONCTX hSession = nullptr;
      rc = Connect(&hSession, address, user.c_str(), password.c_str(), ti->GetPort(), flags);
      if (rc != 0) {
        ScreenOutput("[%d] Interface: %lu. Address %s. Error in ConnectEx. Err = %d\r\n", tid,
                     iface, address, rc);
        break;
      }
      ScreenOutput("[%d] Interface: %lu. Address: %s. ConnectEx OK\r\n", tid, iface, address);
      rc = QCloseSession(&hSession, 0);
      if (rc != 0) {
        ScreenOutput("[%d] Interface: %lu. Address %s. Error in QCloseSession: %lu\r\n", tid, iface,
                     address, static_cast<unsigned long>(rc));
      }
    }
    return rc;
  });
}

}  // namespace

int FuncKeepAlive(TEST_PARAMETER *pTestParam, int nParameters) {
  FUNC_KEEP_ALIVE_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  if (info.ti.Threads == -1 || info.ti.Iterations == -1 || !CheckConnectionFlags(&info.ti, false)) {
    FuncHelpDescription({"     Functional keep alive test. Each thread sends keep alive\r\n",
                         "     requests in one session; a busy HSM is asked again.\r\n"});
    return FuncHelpExample(
        "     qlutil -a 10.10.10.10 -u master -w 24681357 -f keep-alive -t 5 -i 10\r\n");
  }
  return ExecuteTestThreads(FuncKeepAliveThread, &info, sizeof info);
}

int FuncNop(TEST_PARAMETER *pTestParam, int nParameters) {
  FUNC_NOP_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  GetParameterOpSleepInfo(pTestParam, nParameters, "-opsleep", &info.ti.stOpSleepInfo);
  info.nKeepAlive = GetParameterSwitch01(pTestParam, nParameters, "-keepalive");
  info.nIgnoreError = GetParameterSwitch01(pTestParam, nParameters, "-ignoreerror");
  if (info.ti.Threads == -1 || info.ti.Iterations == -1 || !CheckConnectionFlags(&info.ti, false)) {
    FuncHelpDescription({"     No operation functional test: each iteration connects, sleeps,\r\n",
                         "     sends a keep alive when asked and disconnects.\r\n"});
    ScreenOutput(
        "     -opsleep      [OPTIONAL] Sleep between operations in seconds: <n> or "
        "<min>:<max>\r\n");
    ScreenOutput("     -keepalive    [OPTIONAL] 0: No keep alive (default)\r\n");
    ScreenOutput("                             1: Send a keep alive after each connection\r\n");
    ScreenOutput("     -ignoreerror  [OPTIONAL] 0: Stop at the first error (default)\r\n");
    ScreenOutput("                             1: Report errors and go on\r\n");
    return FuncHelpExample(
        "     qlutil -a 10.10.10.10 -u master -w 24681357 -f nop -t 5 -i 10 -opsleep 1:3 "
        "-keepalive 1 -ignoreerror 0\r\n");
  }
  return ExecuteTestThreads(FuncNopThread, &info, sizeof info);
}

int FuncCnt(TEST_PARAMETER *pTestParam, int nParameters) {
  FUNC_CNT_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  CopyFixedField(info.szAddress[0], sizeof info.szAddress[0] - 1, info.ti.GetAddress().c_str());
  const char *extra[] = {"-a2", "-a3", "-a4"};
  for (int i = 0; i < 3; ++i) {
    CopyFixedField(info.szAddress[i + 1], sizeof info.szAddress[i + 1] - 1,
                   GetParameterStr(pTestParam, nParameters, extra[i]));
  }
  if (info.ti.Threads == -1 || info.ti.Iterations == -1 || !CheckConnectionFlags(&info.ti, false)) {
    FuncHelpDescription({"     Connection functional test: each thread connects to every\r\n",
                         "     given address of the HSM in turn.\r\n"});
    ScreenOutput("     -a2     [OPTIONAL] Second HSM address\r\n");
    ScreenOutput("     -a3     [OPTIONAL] Third HSM address\r\n");
    ScreenOutput("     -a4     [OPTIONAL] Fourth HSM address\r\n");
    return FuncHelpExample(
        "     qlutil -a 10.10.10.10 -u master -w 24681357 -f cnt -t 1 -i 1 -a2 10.10.11.10\r\n");
  }
  return ExecuteTestThreads(FuncCntThread, &info, sizeof info);
}
