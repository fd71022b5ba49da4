// -s session and -s session-opening: sessions opened in bulk, held, kept alive, probed.

#include <cstdio>
#include <cstring>
#include <vector>

#include "Output.h"
#include "StressTests.h"
#include "harness/harness.h"

namespace {

// ---------------------------------------------------------------------------------------------
// session

typedef struct tag_STRESS_SESSION_INFO {
  THREAD_INFO ti;
  int bMax;       // -max: open sessions until the HSM refuses one
  int bNoThread;  // -nothread: open -i sessions, hold them until a key is pressed
  int nKeep;      // -keep: keep-alive interval (QlSleep units); -1 when absent
} STRESS_SESSION_INFO;

// Waits for a key on standard input. The end of the input counts as a key, so the command can
// never hang when nothing is attached.
void WaitForKey() {
  fflush(stdout);
  int c = 0;
  do {
    c = getchar();
  } while (c == '\r');
}

unsigned int StressSessionNoThread(void *pvInfo) {
  auto *info = static_cast<STRESS_SESSION_INFO *>(pvInfo);
  THREAD_INFO *ti = &info->ti;
  const unsigned long tid = static_cast<unsigned long>(ti->ThreadId);
  int rc = 0;
  ThreadErrorSignaling signaling(rc, *ti);
  // Every session stays open until the end of the function.
  std::vector<SessionOwner> sessions;
  if (info->bMax) {
    for (;;) {
      SessionOwner session;
      rc = ConnectEx(session.Put(), ti);
      if (rc != 0) {
        ScreenOutput("Error in ConnectEx. Err: %d Thread: %lu Sessions: %lu\r\n", rc, tid,
                     static_cast<unsigned long>(sessions.size()));
        return 1;
      }
      sessions.push_back(std::move(session));
    }
  }
  for (int i = 0; i < ti->Iterations; ++i) {
    SessionOwner session;
    rc = ConnectEx(session.Put(), ti);
    if (rc != 0) {
      ScreenOutput("Error in ConnectEx. Err: %d Thread: %lu Sessions: %d\r\n", rc, tid,
                   static_cast<int>(sessions.size()));
      return 1;
    }
    sessions.push_back(std::move(session));
  }
  ScreenOutput("\n%lu %s\n\n", static_cast<unsigned long>(sessions.size()),
               "sessions are still open.\n");
  ScreenOutput("%s\n\n", "Press any key to continue...");
  WaitForKey();
  return 1;
}

unsigned int StressSessionThread(void *pvInfo) {
  auto *info = static_cast<STRESS_SESSION_INFO *>(pvInfo);
  THREAD_INFO *ti = &info->ti;
  const unsigned long tid = static_cast<unsigned long>(ti->ThreadId);
  return RunFuncLoop(ti, [&](unsigned long iteration) {
    SessionOwner session;
    int rc = ConnectEx(session.Put(), ti);
    if (rc != 0) {
      ScreenOutput("Error in ConnectEx. Err: %d Thread: %lu\r\n", rc, tid);
      return rc;
    }
    if (info->nKeep >= 0) {
      // The session is kept alive until something fails.
      unsigned long keepalives = 0;
      for (;;) {
        ++keepalives;
        QlSleep(static_cast<unsigned long>(info->nKeep));
        rc = SendKeepAlive(session.Get());
        if (rc != 0) {
          ScreenOutput(
              "Error in QAdmOperation. Err = %d [Thread %lu / Iteration %lu / Keepalive "
              "iteration: %lu / Total keepalive time: %lu]\r\n",
              rc, tid, iteration, keepalives, keepalives * static_cast<unsigned long>(info->nKeep));
          return rc;
        }
        if (RunFailed(ti)) return 0;
      }
    }
    return 0;
  });
}

// ---------------------------------------------------------------------------------------------
// session-opening

typedef struct tag_SESSION_OPENING_INFO {
  THREAD_INFO ti;
  bool bAutoReconnect;  // --auto-reconnect: go on after a failed opening
  bool bDisableProbe;   // --disable-probe
  int nSleepMs;         // --sleep-duration
} SESSION_OPENING_INFO;

unsigned int SessionOpeningThread(void *pvInfo) {
  auto *info = static_cast<SESSION_OPENING_INFO *>(pvInfo);
  THREAD_INFO *ti = &info->ti;
  unsigned long counter = 0;
  while (!ShouldStopStressTestLoop(&counter, ti->Iterations)) {
    SessionOwner session;
    const int rc = Connect(ti, session.Put(), false);
    if (rc != 0) {
      if (info->bAutoReconnect) continue;
      ScreenOutput("Error in ConnectEx. Err: %lu Thread: %lu\r\n", static_cast<unsigned long>(rc),
                   static_cast<unsigned long>(ti->ThreadId));
      break;
    }
    if (!info->bDisableProbe) SendKeepAlive(session.Get());
    if (info->nSleepMs > 0) QlSleep(static_cast<unsigned long>(info->nSleepMs));
  }
  // Failed openings are this test's measurements, not errors of the run.
  return 1;
}

}  // namespace

int StressSession(TEST_PARAMETER *pTestParam, int nParameters) {
  STRESS_SESSION_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  info.bMax = IsParameterDefined(pTestParam, nParameters, "-max");
  info.bNoThread = IsParameterDefined(pTestParam, nParameters, "-nothread");
  info.nKeep = GetParameterInt(pTestParam, nParameters, "-keep");
  bool valid = CheckConnectionFlags(&info.ti, false);
  if (info.bMax) {
    // -t is ignored: one thread opens them all.
  } else if (info.bNoThread) {
    valid = valid && info.ti.Iterations > 0;
  } else {
    valid = valid && info.ti.Threads != -1 && info.ti.Iterations != -1;
  }
  if (!valid) {
    FuncHelpDescription({"     Session stress test. Opens sessions in bulk, optionally keeping\r\n",
                         "     them alive, or opens sessions until the HSM refuses one.\r\n"});
    ScreenOutput("     -max        [OPTIONAL] Open sessions until an error (no threads)\r\n");
    ScreenOutput(
        "     -nothread   [OPTIONAL] Open -i sessions and hold them until a key is pressed\r\n");
    ScreenOutput("     -keep       [OPTIONAL] Keep each session alive with this interval (ms)\r\n");
    return FuncHelpExample(
        "     qlutil -a 10.10.10.10 -u master -w 24681357 -s session -t 5 -i 10\r\n");
  }
  if (info.bMax || info.bNoThread) {
    info.ti.Threads = 1;
    if (info.bMax) info.ti.Iterations = 1;
    return ExecuteTestThreads(StressSessionNoThread, &info, sizeof info);
  }
  return ExecuteTestThreads(StressSessionThread, &info, sizeof info);
}

int SessionOpening(TEST_PARAMETER *pTestParam, int nParameters) {
  SESSION_OPENING_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  info.bAutoReconnect = IsParameterDefined(pTestParam, nParameters, "--auto-reconnect") != 0;
  info.bDisableProbe = IsParameterDefined(pTestParam, nParameters, "--disable-probe") != 0;
  info.nSleepMs = GetParameterInt(pTestParam, nParameters, "--sleep-duration");
  if (IsParameterDefined(pTestParam, nParameters, "--infinite")) info.ti.Iterations = -1;
  if (info.ti.Threads == -1 || !CheckConnectionFlags(&info.ti, false)) {
    FuncHelpDescription(
        {"     Session opening stress test with probe after each session opening.\r\n"});
    ScreenOutput("     --auto-reconnect    [OPTIONAL] Go on after a failed opening\r\n");
    ScreenOutput("     --infinite          [OPTIONAL] Run until stopped (as without -i)\r\n");
    ScreenOutput(
        "     --sleep-duration    [OPTIONAL] Milliseconds to sleep after each opening\r\n");
    ScreenOutput("     --disable-probe     [OPTIONAL] No probe after opening\r\n");
    return FuncHelpExample(
        "     qlutil -a 10.10.10.10 -u master -w 24681357 -s session-opening -t 5 -i 10\r\n");
  }
  return ExecuteTestThreads(SessionOpeningThread, &info, sizeof info);
}
