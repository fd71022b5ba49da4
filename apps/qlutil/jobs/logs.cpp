// The HSM's audit log: "get-log", "follow-log", "clean-log", "log-cache"; and the cluster's
// "repl-update" and "repl-node-message", which a single HSM answers with QL_ERR_NOT_IN_CLUSTER.

#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "harness/harness.h"
#include "job.h"
#include "ql_hsm_log.h"

typedef struct _JOB_LOG_INFO {
  THREAD_INFO ti;
  const char *pszOutFile;  // get-log: --out (null: the screen)
  int32_t bRaw;            // get-log: -raw, lines as the HSM writes them
  int32_t bNewestFirst;    // get-log: -rev
  int32_t bHasRange;       // get-log: -from/-to or -days given
  time_t tFrom;
  time_t tTo;
  int32_t nCacheState;   // log-cache: -cache 0 or 1; -1 to show it only
  uint8_t bNodeMessage;  // repl-node-message: -op rnm_*
} JOB_LOG_INFO;

namespace {

// ---------------------------------------------------------------------------------------------
// get-log

void ShowJobGetLogHelp() {
  JobHelpHeader(false, {"Read the HSM's log, oldest line first (or newest first with -rev),",
                        "formatted or raw, to the screen or to a file."});
  ScreenOutput("     --out   [OPTIONAL] Output file. If not defined, the lines are printed.\r\n");
  ScreenOutput(
      "     -from   [OPTIONAL] First day (\"YYYY-MM-DD\" or \"YYYY-MM-DD hh:mm:ss\", UTC)\r\n");
  ScreenOutput("     -to     [OPTIONAL] Last day, in the same form\r\n");
  ScreenOutput("     -days   [OPTIONAL] The last N days (not with -from or -to)\r\n");
  ScreenOutput("     -raw    [OPTIONAL] The lines as the HSM writes them\r\n");
  ScreenOutput("     -rev    [OPTIONAL] Newest line first\r\n");
  JobHelpExamples("get-log", {"", "-days 2 -rev", "-from 2026-11-01 -to 2026-11-30 --out nov.log"});
}

struct LogReadState {
  HLOGCTX log = nullptr;
  int rc = 0;
};

// The next page of the read into *page; false at the end or on a failure (kept in state->rc).
bool NextPage(LogReadState *state, std::vector<unsigned char> *page) {
  uint32_t len = 0;
  int rc = QGetHSMLogCont(state->log, nullptr, &len);
  if (rc == QL_ERR_BUFFER_TOO_SMALL) {
    page->resize(len);
    rc = QGetHSMLogCont(state->log, page->data(), &len);
    page->resize(len);
  }
  if (rc == QL_ERR_OBJ_NOT_FOUND) return false;
  if (rc != 0) {
    state->rc = rc;
    return false;
  }
  return true;
}

int GetLogWork(JOB_LOG_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  uint64_t size = 0;
  rc = QGetStatLogSize(session, &size);
  if (rc != 0) {
    PrintJobError("QGetStatLogSize", rc);
    return rc;
  }
  FILE *out = nullptr;
  if (job->pszOutFile != nullptr) {
    out = fopen(job->pszOutFile, "wb");
    if (out == nullptr) {
      ScreenOutput("Error opening file %s\r\n", job->pszOutFile);
      return QL_ERR_BAD_ARGUMENT;
    }
  }
  struct FileCloser {
    void operator()(FILE *f) const { fclose(f); }
  };
  std::unique_ptr<FILE, FileCloser> out_owner(out);
  LogReadState state;
  rc = QGetHSMLogInit(session, job->bNewestFirst ? 1 : 0, &state.log);
  if (rc != 0) {
    PrintJobError("QGetHSMLogInit", rc);
    return rc;
  }
  const ql_hsm_log::DateRange range{job->tFrom, job->tTo};
  unsigned long lines = 0;
  std::vector<char> formatted(512);
  const ql_hsm_log::PageResult read = ql_hsm_log::ReadLines(
      [&](std::vector<unsigned char> *page) { return NextPage(&state, page); },
      job->bNewestFirst != 0,
      [&](std::string_view line) {
        if (job->bHasRange && !range.Contains(line)) return true;
        std::string text(line);
        if (!job->bRaw) {
          uint32_t len = static_cast<uint32_t>(formatted.size());
          int frc = QLogLineFormat(line.data(), static_cast<uint32_t>(line.size()),
                                   formatted.data(), &len);
          if (frc == QL_ERR_BUFFER_TOO_SMALL) {
            formatted.resize(len);
            frc = QLogLineFormat(line.data(), static_cast<uint32_t>(line.size()), formatted.data(),
                                 &len);
          }
          if (frc == 0) text.assign(formatted.data());
        }
        ++lines;
        if (out != nullptr)
          fprintf(out, "%s\n", text.c_str());
        else
          ScreenOutput("%s\r\n", text.c_str());
        return true;
      });
  const int end_rc = QGetHSMLogEnd(&state.log);
  if (state.rc != 0) {
    PrintJobError("QGetHSMLogCont", state.rc);
    return state.rc;
  }
  if (read == ql_hsm_log::PageResult::kCorrupt) {
    // A page that does not inflate: what came before it was shown.
    PrintJobError("QGetHSMLogCont", QL_ERR_LOG_CORRUPT);
    return QL_ERR_LOG_CORRUPT;
  }
  if (end_rc != 0) {
    PrintJobError("QGetHSMLogEnd", end_rc);
    return end_rc;
  }
  if (out != nullptr)
    ScreenOutput("%lu lines written to %s (log size %llu bytes).\r\n", lines, job->pszOutFile,
                 static_cast<unsigned long long>(size));
  else
    ScreenOutput("\r\n%lu lines (log size %llu bytes).\r\n", lines,
                 static_cast<unsigned long long>(size));
  return 0;
}

// ---------------------------------------------------------------------------------------------
// follow-log

void ShowJobFollowLogHelp() {
  JobHelpHeader(false, {"Show the lines the HSM writes to its log from now on, until",
                        "interrupted (Ctrl-C, which ends the job without an error)."});
  ScreenOutput("     -raw    [OPTIONAL] The lines as the HSM writes them\r\n");
  JobHelpExamples("follow-log", {"", "-raw"});
}

volatile std::sig_atomic_t g_follow_interrupted = 0;

void OnFollowInterrupt(int) {
  g_follow_interrupted = 1;
}

// Ctrl-C (and SIGTERM) end the follow: the library calls back while no line comes, so the
// flag is seen within a moment.
void CatchInterrupt() {
#ifdef _WIN32
  std::signal(SIGINT, &OnFollowInterrupt);
#else
  struct sigaction sa {};
  sa.sa_handler = &OnFollowInterrupt;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
#endif
}

int FollowedLine(void *param, const char *line, uint32_t len) {
  if (g_follow_interrupted) return 1;
  if (line == nullptr) return 0;
  const auto *job = static_cast<const JOB_LOG_INFO *>(param);
  std::string text(line, len);
  if (!job->bRaw) {
    std::vector<char> formatted(len + 256);
    uint32_t out_len = static_cast<uint32_t>(formatted.size());
    if (QLogLineFormat(line, len, formatted.data(), &out_len) == 0) text.assign(formatted.data());
  }
  ScreenOutput("%s\r\n", text.c_str());
  return 0;
}

int FollowLogWork(JOB_LOG_INFO *job, QueltaClient &client) {
  ScreenOutput("Following the HSM's log (Ctrl-C ends it).\r\n");
  const int rc = client.GetLogEvents(&FollowedLine, job);
  if (rc != 0) {
    PrintJobError("QGetLogEvents", rc);
    return rc;
  }
  return 0;
}

// ---------------------------------------------------------------------------------------------
// clean-log

void ShowJobCleanLogHelp() {
  JobHelpHeader(false, {"Empty the HSM's log. It asks nothing: what the log held is gone. The",
                        "log then holds one line, the one that says it was emptied."});
  JobHelpExamples("clean-log", {""});
}

int CleanLogWork(HSESSIONCTX session) {
  const int rc = CheckJobCall("QTruncateLog", QTruncateLog(session, 0));
  if (rc == 0) ScreenOutput("HSM log emptied.\r\n");
  return rc;
}

// ---------------------------------------------------------------------------------------------
// log-cache

void ShowJobLogCacheHelp() {
  JobHelpHeader(false, {"Show or set the HSM's log cache. On, the lines of read-only requests",
                        "wait in memory until a change or a full page writes them; off, every",
                        "line is written as it comes. The job shows the state it leaves."});
  ScreenOutput(
      "     -cache  [OPTIONAL] 1 (on) or 0 (off). If not defined, the state is shown.\r\n");
  JobHelpExamples("log-cache", {"", "-cache 0"});
}

int LogCacheWork(JOB_LOG_INFO *job, HSESSIONCTX session) {
  uint32_t state = 0;
  uint32_t len = sizeof state;
  const uint32_t wanted = static_cast<uint32_t>(job->nCacheState);
  const int rc = CheckJobCall(
      "QAdmOperation",
      QAdmOperation(session, QL_ADM_LOG_CACHE, job->nCacheState < 0 ? nullptr : &wanted,
                    job->nCacheState < 0 ? 0 : sizeof wanted, &state, &len, 0));
  if (rc == 0) ScreenOutput("Log cache: %s\r\n", state ? "on" : "off");
  return rc;
}

// ---------------------------------------------------------------------------------------------
// repl-update, repl-node-message

void ShowJobReplUpdateHelp() {
  JobHelpHeader(false, {"Bring this HSM's replica up to date with its cluster."});
  JobHelpExamples("repl-update", {""});
}

void ShowJobReplNodeMessageHelp() {
  JobHelpHeader(false, {"Send a replication message to this HSM as a cluster node."});
  ScreenOutput("     -op     Message\r\n");
  ShowHelpReplicationMessages();
  JobHelpExamples("repl-node-message", {"-op rnm_probe"});
}

int ReplWork(uint32_t operation, const uint8_t *message, HSESSIONCTX session) {
  const int rc = CheckJobCall("QAdmOperation", QAdmOperation(session, operation, message,
                                                             message ? 1 : 0, nullptr, nullptr, 0));
  if (rc == 0) ScreenOutput("Done.\r\n");
  return rc;
}

}  // namespace

unsigned int JobGetLogThread(void *p) {
  auto *job = static_cast<JOB_LOG_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return GetLogWork(job, session); });
}

unsigned int JobFollowLogThread(void *p) {
  auto *job = static_cast<JOB_LOG_INFO *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) { return FollowLogWork(job, client); });
}

unsigned int JobCleanLogThread(void *p) {
  auto *job = static_cast<JOB_LOG_INFO *>(p);
  return RunSessionJob(&job->ti, [](HSESSIONCTX session) { return CleanLogWork(session); });
}

unsigned int JobLogCacheThread(void *p) {
  auto *job = static_cast<JOB_LOG_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return LogCacheWork(job, session); });
}

unsigned int JobReplUpdateThread(void *p) {
  auto *job = static_cast<JOB_LOG_INFO *>(p);
  return RunSessionJob(
      &job->ti, [](HSESSIONCTX session) { return ReplWork(QL_ADM_REPL_UPDATE, nullptr, session); });
}

unsigned int JobReplNodeMessageThread(void *p) {
  auto *job = static_cast<JOB_LOG_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    return ReplWork(QL_ADM_REPL_NODE_MESSAGE, &job->bNodeMessage, session);
  });
}

int JobGetLog(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_LOG_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  job.bRaw = IsParameterDefined(pTestParam, nParameters, "-raw") ? 1 : 0;
  job.bNewestFirst = IsParameterDefined(pTestParam, nParameters, "-rev") ? 1 : 0;
  const char *from = GetParameterStr(pTestParam, nParameters, "-from");
  const char *to = GetParameterStr(pTestParam, nParameters, "-to");
  const char *days = GetParameterStr(pTestParam, nParameters, "-days");
  bool ok = job.pszOutFile == nullptr || *job.pszOutFile != '\0';
  if (days != nullptr) {
    uint32_t n = 0;
    ok = ok && from == nullptr && to == nullptr &&
         GetJobNumber(pTestParam, nParameters, "-days", &n) && n > 0 && n <= 36500;
    if (ok) {
      const ql_hsm_log::DateRange r = ql_hsm_log::LastDays(n, time(nullptr));
      job.tFrom = r.from;
      job.tTo = r.to;
      job.bHasRange = 1;
    }
  } else if (from != nullptr || to != nullptr) {
    const auto f = from ? ql_hsm_log::ParseDay(from, false) : std::optional<time_t>(0);
    const auto t = to ? ql_hsm_log::ParseDay(to, true) : std::optional<time_t>(253402300799);
    ok = ok && f.has_value() && t.has_value() && *f <= *t;
    if (ok) {
      job.tFrom = *f;
      job.tTo = *t;
      job.bHasRange = 1;
    }
  }
  return StartJob(&JobGetLogThread, &job.ti, sizeof job, false, ok, &ShowJobGetLogHelp);
}

int JobFollowLog(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_LOG_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.bRaw = IsParameterDefined(pTestParam, nParameters, "-raw") ? 1 : 0;
  CatchInterrupt();
  return StartJob(&JobFollowLogThread, &job.ti, sizeof job, false, true, &ShowJobFollowLogHelp);
}

int JobCleanLog(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_LOG_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  return StartJob(&JobCleanLogThread, &job.ti, sizeof job, false, true, &ShowJobCleanLogHelp);
}

int JobLogCache(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_LOG_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.nCacheState = -1;
  bool ok = true;
  if (IsParameterDefined(pTestParam, nParameters, "-cache")) {
    const char *v = GetParameterStr(pTestParam, nParameters, "-cache");
    ok = v != nullptr && (strcmp(v, "0") == 0 || strcmp(v, "1") == 0);
    if (ok) job.nCacheState = v[0] - '0';
  }
  return StartJob(&JobLogCacheThread, &job.ti, sizeof job, false, ok, &ShowJobLogCacheHelp);
}

int JobReplUpdate(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_LOG_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  return StartJob(&JobReplUpdateThread, &job.ti, sizeof job, false, true, &ShowJobReplUpdateHelp);
}

int JobReplNodeMessage(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_LOG_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  const char *word = GetParameterStr(pTestParam, nParameters, "-op");
  const int op = GetParameterAlg(pTestParam, nParameters, "-op");
  // The general table gives these words 1 to 4, as it does to many others: the word decides.
  const bool ok = word != nullptr && strncmp(word, "rnm_", 4) == 0 && op >= QL_RNM_PROBE &&
                  op <= QL_RNM_SLP_BYPASS_DEL;
  job.bNodeMessage = static_cast<uint8_t>(op);
  return StartJob(&JobReplNodeMessageThread, &job.ti, sizeof job, false, ok,
                  &ShowJobReplNodeMessageHelp);
}
