// Access-token jobs: "issue-atoken", "revoke-atoken", "list-atoken", "get-atoken-count",
// "run-atoken-gc". A token is printed and read as the base64 text of its 32-byte record (user
// name and key), the form "-at" and "-atf" take.

#include <cstring>
#include <ctime>
#include <string>

#include "job.h"
#include "jobs/job_frame.h"

typedef struct _JOB_ATOKEN_INFO {
  THREAD_INFO ti;
  uint64_t qwExpiration;   // issue: seconds since 1970, 0 never
  const char *pszOutFile;  // issue: --out, the base64 text; may be null
  QL_A_TOKEN stToken;      // revoke: decoded by the front function
} JOB_ATOKEN_INFO;

namespace {

void ShowJobIssueATokenHelp() {
  JobHelpHeader(false, {"Issue an access token for the logged-in user. The token is printed in",
                        "base64, the form -at and -atf read."});
  ScreenOutput(
      "     -ttl    [OPTIONAL] Lifetime in seconds. If not defined, it never expires.\r\n");
  ScreenOutput("     --out   [OPTIONAL] Also write the token to this file.\r\n");
  JobHelpExamples("issue-atoken", {"-ttl 3600 --out token.b64"});
}

void ShowJobRevokeATokenHelp() {
  JobHelpHeader(false, {"Revoke an access token."});
  ScreenOutput("     -tk     The token in base64\r\n");
  ScreenOutput("     -tkf    File with the token in base64 (instead of -tk)\r\n");
  JobHelpExamples("revoke-atoken", {"-tkf token.b64"});
}

void ShowJobListATokenHelp() {
  JobHelpHeader(
      false, {"List the access tokens of the logged-in user (every user's for an", "operator)."});
  JobHelpExamples("list-atoken", {""});
}

void ShowJobGetATokenCounterHelp() {
  JobHelpHeader(false, {"Show how many access tokens the HSM holds."});
  JobHelpExamples("get-atoken-count", {""});
}

void ShowJobRunATokenGCHelp() {
  JobHelpHeader(false, {"Remove the expired access tokens from the HSM."});
  JobHelpExamples("run-atoken-gc", {""});
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

int Open(JOB_ATOKEN_INFO *job, JobSessionOwner *session) {
  const int rc = ConnectEx(session->Put(), &job->ti);
  if (rc != 0) PrintJobError("ConnectEx", rc);
  return rc;
}

int IssueWork(JOB_ATOKEN_INFO *job) {
  JobSessionOwner session;
  int rc = Open(job, &session);
  if (rc != 0) return rc;
  QL_A_TOKEN token{};
  rc = QManageAToken(session.Get(), QL_ATOKEN_ISSUE, &token, job->qwExpiration, nullptr, nullptr);
  if (rc != 0) {
    PrintJobError("QManageAToken", rc);
    return rc;
  }
  char text[64] = {};
  uint32_t len = sizeof text;
  rc = QByteArray2Base64(&token, sizeof token, text, &len);
  if (rc != 0) {
    PrintJobError("QByteArray2Base64", rc);
    return rc;
  }
  ScreenOutput("%s\r\n", text);
  if (job->pszOutFile != nullptr &&
      !WriteLocalFile(job->pszOutFile, reinterpret_cast<const unsigned char *>(text), len)) {
    return QL_ERR_FILE_IO;
  }
  return 0;
}

int RevokeWork(JOB_ATOKEN_INFO *job) {
  JobSessionOwner session;
  int rc = Open(job, &session);
  if (rc != 0) return rc;
  rc = QManageAToken(session.Get(), QL_ATOKEN_REVOKE, &job->stToken, 0, nullptr, nullptr);
  if (rc != 0) {
    PrintJobError("QManageAToken", rc);
    return rc;
  }
  ScreenOutput("Access token revoked.\r\n");
  return 0;
}

int ListWork(JOB_ATOKEN_INFO *job) {
  JobSessionOwner session;
  int rc = Open(job, &session);
  if (rc != 0) return rc;
  ScreenOutput("%-16s %-16s %-19s %s\r\n", "User", "Key id", "Issued", "Expires");
  rc = QManageAToken(session.Get(), QL_ATOKEN_LIST, nullptr, 0, &PrintTokenRow, nullptr);
  if (rc != 0) PrintJobError("QManageAToken", rc);
  return rc;
}

int CacheWork(JOB_ATOKEN_INFO *job, uint32_t operation) {
  JobSessionOwner session;
  int rc = Open(job, &session);
  if (rc != 0) return rc;
  uint64_t value = 0;
  rc = QManageATokenCache(session.Get(), operation, &value);
  if (rc != 0) {
    PrintJobError("QManageATokenCache", rc);
    return rc;
  }
  ScreenOutput(operation == QL_ATOKEN_CACHE_COUNT ? "Access tokens: %llu\r\n"
                                                  : "Expired access tokens removed: %llu\r\n",
               static_cast<unsigned long long>(value));
  return 0;
}

bool LoadTokenJob(JOB_ATOKEN_INFO *job, TEST_PARAMETER *pTestParam, int nParameters) {
  LoadGenericJobParameters(&job->ti, pTestParam, nParameters, false);
  job->ti.Metric = 1;
  return true;
}

}  // namespace

unsigned int JobIssueATokenThread(void *p) {
  auto *job = static_cast<JOB_ATOKEN_INFO *>(p);
  PublishJobError(&job->ti, IssueWork(job));
  return 1;
}

unsigned int JobRevokeATokenThread(void *p) {
  auto *job = static_cast<JOB_ATOKEN_INFO *>(p);
  PublishJobError(&job->ti, RevokeWork(job));
  return 1;
}

unsigned int JobListATokenThread(void *p) {
  auto *job = static_cast<JOB_ATOKEN_INFO *>(p);
  PublishJobError(&job->ti, ListWork(job));
  return 1;
}

unsigned int JobGetATokenCounterThread(void *p) {
  auto *job = static_cast<JOB_ATOKEN_INFO *>(p);
  PublishJobError(&job->ti, CacheWork(job, QL_ATOKEN_CACHE_COUNT));
  return 1;
}

unsigned int JobRunATokenGCThread(void *p) {
  auto *job = static_cast<JOB_ATOKEN_INFO *>(p);
  PublishJobError(&job->ti, CacheWork(job, QL_ATOKEN_CACHE_GC));
  return 1;
}

int JobIssueAToken(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_ATOKEN_INFO job{};
  bool ok = LoadTokenJob(&job, pTestParam, nParameters);
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
  bool ok = LoadTokenJob(&job, pTestParam, nParameters);
  std::string text;
  const char *token = GetParameterStr(pTestParam, nParameters, "-tk");
  const char *token_file = GetParameterStr(pTestParam, nParameters, "-tkf");
  if (IsGivenText(token_file)) {
    Bytes data;
    ok = ok && ReadLocalFile(token_file, &data);
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
  JOB_ATOKEN_INFO job{};
  const bool ok = LoadTokenJob(&job, pTestParam, nParameters);
  return StartJob(&JobListATokenThread, &job.ti, sizeof job, false, ok, &ShowJobListATokenHelp);
}

int JobGetATokenCounter(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_ATOKEN_INFO job{};
  const bool ok = LoadTokenJob(&job, pTestParam, nParameters);
  return StartJob(&JobGetATokenCounterThread, &job.ti, sizeof job, false, ok,
                  &ShowJobGetATokenCounterHelp);
}

int JobRunATokenGC(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_ATOKEN_INFO job{};
  const bool ok = LoadTokenJob(&job, pTestParam, nParameters);
  return StartJob(&JobRunATokenGCThread, &job.ti, sizeof job, false, ok, &ShowJobRunATokenGCHelp);
}
