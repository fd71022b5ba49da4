// Access-token jobs: "issue-atoken", "revoke-atoken", "list-atoken", "get-atoken-count",
// "run-atoken-gc". A token is printed and read as the base64 text of its 32-byte record (user
// name and key), the form "-at" and "-atf" take.

#include <cstring>
#include <ctime>
#include <string>

#include "harness/harness.h"
#include "job.h"
#include "option_usage.h"

typedef struct _JOB_ATOKEN_INFO {
  THREAD_INFO ti;
  uint64_t qwExpiration;   // issue: seconds since 1970, 0 never
  const char *pszOutFile;  // issue: --out, the base64 text; may be null
  QL_A_TOKEN stToken;      // revoke: decoded by the front function
} JOB_ATOKEN_INFO;

namespace {

void ShowJobIssueATokenHelp() {
  JobHelpPage("issue-atoken",
              {"Issue an access token for the logged-in user. The token is printed in",
               "base64, the form -at and -atf read."},
              {"-ttl    [OPTIONAL] Lifetime in seconds. If not defined, it never expires.",
               "--out   [OPTIONAL] Also write the token to this file."},
              {"-ttl 3600 --out token.b64"});
}

void ShowJobRevokeATokenHelp() {
  JobHelpPage(
      "revoke-atoken", {"Revoke an access token."},
      {"-tk     The token in base64", "-tkf    File with the token in base64 (instead of -tk)"},
      {"-tkf token.b64"});
}

void ShowJobListATokenHelp() {
  JobHelpPage("list-atoken",
              {"List the access tokens of the logged-in user (every user's for an", "operator)."},
              {}, {""});
}

void ShowJobGetATokenCounterHelp() {
  JobHelpPage("get-atoken-count", {"Show how many access tokens the HSM holds."}, {}, {""});
}

void ShowJobRunATokenGCHelp() {
  JobHelpPage("run-atoken-gc", {"Remove the expired access tokens from the HSM."}, {}, {""});
}

std::string TimeText(uint64_t seconds) {
  if (seconds == 0) return "never";
  time_t t = static_cast<time_t>(seconds);
  struct tm tm_utc {};
#ifdef _WIN32
  gmtime_s(&tm_utc, &t);
#else
  gmtime_r(&t, &tm_utc);
#endif
  char text[32];
  strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm_utc);
  return text;
}

int PrintTokenRow(void *, const QL_ATOKEN_INFO *info) {
  if (info == nullptr) return 0;
  char user[18] = {};
  memcpy(user, info->szUserName, sizeof info->szUserName);
  ScreenOutput("%-16s %s %-19s %s\r\n", user, ToHex(info->pbKeyId, 8).c_str(),
               TimeText(info->qwIssued).c_str(), TimeText(info->qwExpiration).c_str());
  return 0;
}

// The works run on the job's session (RunSessionJob).
int IssueWork(const JOB_ATOKEN_INFO *job, HSESSIONCTX session) {
  QL_A_TOKEN token{};
  int rc = CheckJobCall("QManageAToken", QManageAToken(session, QL_ATOKEN_ISSUE, &token,
                                                       job->qwExpiration, nullptr, nullptr));
  if (rc != 0) return rc;
  char text[64] = {};
  uint32_t len = sizeof text;
  rc = CheckJobCall("QByteArray2Base64", QByteArray2Base64(&token, sizeof token, text, &len));
  if (rc != 0) return rc;
  ScreenOutput("%s\r\n", text);
  if (job->pszOutFile != nullptr &&
      !WriteLocalFile(job->pszOutFile, reinterpret_cast<const unsigned char *>(text), len, true)) {
    return QL_ERR_FILE_IO;
  }
  return 0;
}

int RevokeWork(JOB_ATOKEN_INFO *job, HSESSIONCTX session) {
  const int rc = CheckJobCall("QManageAToken", QManageAToken(session, QL_ATOKEN_REVOKE,
                                                             &job->stToken, 0, nullptr, nullptr));
  if (rc == 0) ScreenOutput("Access token revoked.\r\n");
  return rc;
}

int ListWork(HSESSIONCTX session) {
  ScreenOutput("%-16s %-16s %-19s %s\r\n", "User", "Key id", "Issued", "Expires");
  return CheckJobCall("QManageAToken",
                      QManageAToken(session, QL_ATOKEN_LIST, nullptr, 0, &PrintTokenRow, nullptr));
}

int CacheWork(HSESSIONCTX session, uint32_t operation) {
  uint64_t value = 0;
  const int rc = CheckJobCall("QManageATokenCache", QManageATokenCache(session, operation, &value));
  if (rc != 0) return rc;
  ScreenOutput(operation == QL_ATOKEN_CACHE_COUNT ? "Access tokens: %llu\r\n"
                                                  : "Expired access tokens removed: %llu\r\n",
               static_cast<unsigned long long>(value));
  return 0;
}

// The front of the jobs without options of their own.
int StartPlainTokenJob(TEST_PARAMETER *pTestParam, int nParameters, pfn_TestThread routine,
                       void (*show_help)()) {
  JOB_ATOKEN_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  return StartJob(routine, &job.ti, sizeof job, false, true, show_help);
}

}  // namespace

unsigned int JobIssueATokenThread(void *p) {
  auto *job = static_cast<JOB_ATOKEN_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return IssueWork(job, session); });
}

unsigned int JobRevokeATokenThread(void *p) {
  auto *job = static_cast<JOB_ATOKEN_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return RevokeWork(job, session); });
}

unsigned int JobListATokenThread(void *p) {
  return RunSessionJob(&static_cast<JOB_ATOKEN_INFO *>(p)->ti, &ListWork);
}

unsigned int JobGetATokenCounterThread(void *p) {
  return RunSessionJob(&static_cast<JOB_ATOKEN_INFO *>(p)->ti, [](HSESSIONCTX session) {
    return CacheWork(session, QL_ATOKEN_CACHE_COUNT);
  });
}

unsigned int JobRunATokenGCThread(void *p) {
  return RunSessionJob(&static_cast<JOB_ATOKEN_INFO *>(p)->ti,
                       [](HSESSIONCTX session) { return CacheWork(session, QL_ATOKEN_CACHE_GC); });
}

int JobIssueAToken(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_ATOKEN_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  bool ok = true;
  if (IsParameterDefined(pTestParam, nParameters, "-ttl")) {
    uint32_t ttl = 0;
    ok = ok && GetJobNumber(pTestParam, nParameters, "-ttl", &ttl) && ttl > 0;
    job.qwExpiration = static_cast<uint64_t>(time(nullptr)) + ttl;
  }
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  ok = ok && (!IsParameterDefined(pTestParam, nParameters, "--out") || IsGivenText(job.pszOutFile));
  return StartJob(&JobIssueATokenThread, &job.ti, sizeof job, false, ok, &ShowJobIssueATokenHelp);
}

int JobRevokeAToken(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_ATOKEN_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  bool ok = true;
  std::string text;
  const char *token = GetParameterStr(pTestParam, nParameters, "-tk");
  const char *token_file = GetParameterStr(pTestParam, nParameters, "-tkf");
  if (IsGivenText(token_file)) {
    Bytes data;
    if (!ReadLocalFile(token_file, &data))
      ReportInputFile("-tkf", token_file, "cannot be read");
    else if (data.empty())
      ReportInputFile("-tkf", token_file, "is empty");
    ok = ok && !data.empty();
    text.assign(data.begin(), data.end());
  } else if (IsGivenText(token)) {
    text = token;
  }
  // The token is decoded here, locally, so that a bad one is refused before the HSM is asked.
  uint32_t len = sizeof job.stToken;
  ok = ok && !text.empty() &&
       QBase642ByteArray(text.c_str(), static_cast<uint32_t>(text.size()), &job.stToken, &len) ==
           0 &&
       len == sizeof job.stToken;
  return StartJob(&JobRevokeATokenThread, &job.ti, sizeof job, false, ok, &ShowJobRevokeATokenHelp);
}

int JobListAToken(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartPlainTokenJob(pTestParam, nParameters, &JobListATokenThread, &ShowJobListATokenHelp);
}

int JobGetATokenCounter(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartPlainTokenJob(pTestParam, nParameters, &JobGetATokenCounterThread,
                            &ShowJobGetATokenCounterHelp);
}

int JobRunATokenGC(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartPlainTokenJob(pTestParam, nParameters, &JobRunATokenGCThread,
                            &ShowJobRunATokenGCHelp);
}
