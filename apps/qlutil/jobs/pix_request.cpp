// "pix-request": one HTTPS request to a PIX service, made by the HSM with a stored key and
// certificate as the client's identity (QPIXPost, QPIXGet, QPIXPut, QPIXDelete).

#include <cstring>
#include <string>

#include "harness/harness.h"
#include "job.h"

namespace {

constexpr uint32_t kDefaultTimeoutMs = 30000;

enum PixMethod { kPost, kGet, kPut, kDelete };

}  // namespace

typedef struct _JOB_PIX_REQUEST_INFO {
  THREAD_INFO ti;
  int Method;               // -r
  const char *pszKeyName;   // -kn
  const char *pszCertName;  // -c
  const char *pszChain;     // --chain
  const char *pszUrl;       // --url
  const char *pszHeader;    // --header
  const char *pszOutFile;   // --out; absent: the console
  const Bytes *pBody;       // --rdata
  uint32_t dwTimeoutMs;     // --tmout
} JOB_PIX_REQUEST_INFO;

unsigned int JobPIXRequestThread(void *p);

namespace {

void ShowJobPIXRequestHelp() {
  JobHelpHeader(false, {"Make an HTTPS request to a PIX service through the HSM: the HSM's key",
                        "and certificate are the client's identity (mutual TLS)."});
  ScreenOutput("     -kn       Name of the client key.\r\n");
  ScreenOutput("     -c        Name of the key's certificate.\r\n");
  ScreenOutput("     --chain   Name of the certificate chain that verifies the service.\r\n");
  ScreenOutput("     --url     Address of the service: https://host[:port]/path?query\r\n");
  ScreenOutput("     -r        Method: post, get, put or delete.\r\n");
  ScreenOutput("     --rdata   [OPTIONAL] File with the request body (post and put).\r\n");
  ScreenOutput("     --header  [OPTIONAL] HTTP header lines, \"Name: value\", one per line.\r\n");
  ScreenOutput("     --tmout   [OPTIONAL] Timeout of the whole exchange in milliseconds.\r\n");
  ScreenOutput("               Default 30000.\r\n");
  ScreenOutput("     --out     [OPTIONAL] Output file of the answer's body. If not defined,\r\n");
  ScreenOutput("               it is printed.\r\n");
  JobHelpExamples("pix-request",
                  {"-kn pixkey -c pixcert --chain pixchain -r get "
                   "--url https://pix.example:8443/api/v2/dict/entries/key",
                   "-kn pixkey -c pixcert --chain pixchain -r post --rdata entry.xml "
                   "--header \"Content-Type: application/xml\" --url https://pix.example/entries"});
}

bool ParseMethod(const char *text, int *method) {
  if (text == nullptr) return false;
  static const struct {
    const char *name;
    int method;
  } kMethods[] = {{"post", kPost}, {"get", kGet}, {"put", kPut}, {"delete", kDelete}};
  for (const auto &m : kMethods) {
    if (std::strcmp(text, m.name) == 0) {
      *method = m.method;
      return true;
    }
  }
  return false;
}

int PixRequestWork(JOB_PIX_REQUEST_INFO *job, HSESSIONCTX session) {
  LibBuffer answer;
  uint32_t answer_len = 0, status = 0;
  const Bytes &body = *job->pBody;
  const auto body_len = static_cast<uint32_t>(body.size());
  const unsigned char *body_data = body.empty() ? nullptr : body.data();
  int rc = 0;
  switch (job->Method) {
    case kGet:
      rc =
          CheckJobCall("QPIXGet", QPIXGet(session, job->pszKeyName, job->pszCertName, job->pszChain,
                                          job->pszUrl, job->pszHeader, job->dwTimeoutMs,
                                          answer.Put(), &answer_len, &status, 0));
      break;
    case kPut:
      rc =
          CheckJobCall("QPIXPut", QPIXPut(session, job->pszKeyName, job->pszCertName, job->pszChain,
                                          job->pszUrl, job->pszHeader, body_data, body_len,
                                          job->dwTimeoutMs, answer.Put(), &answer_len, &status, 0));
      break;
    case kDelete:
      rc = CheckJobCall(
          "QPIXDelete",
          QPIXDelete(session, job->pszKeyName, job->pszCertName, job->pszChain, job->pszUrl,
                     job->pszHeader, job->dwTimeoutMs, answer.Put(), &answer_len, &status, 0));
      break;
    default:
      rc = CheckJobCall("QPIXPost",
                        QPIXPost(session, job->pszKeyName, job->pszCertName, job->pszChain,
                                 job->pszUrl, job->pszHeader, body_data, body_len, job->dwTimeoutMs,
                                 answer.Put(), &answer_len, &status, 0));
      break;
  }
  if (rc != 0) return rc;
  ScreenOutput("HTTP status: %u\r\n", status);
  if (job->pszOutFile != nullptr)
    return WriteLocalFile(job->pszOutFile, answer.Get(), answer_len) ? 0 : QL_ERR_FILE_IO;
  ScreenOutput("%s\r\n",
               std::string(reinterpret_cast<const char *>(answer.Get()), answer_len).c_str());
  return 0;
}

}  // namespace

unsigned int JobPIXRequestThread(void *p) {
  auto *job = static_cast<JOB_PIX_REQUEST_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return PixRequestWork(job, session); });
}

int JobPIXRequest(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_PIX_REQUEST_INFO job{};
  Bytes body;
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszCertName = GetParameterStr(pTestParam, nParameters, "-c");
  job.pszChain = GetParameterStr(pTestParam, nParameters, "--chain");
  job.pszUrl = GetParameterStr(pTestParam, nParameters, "--url");
  job.pszHeader = GetParameterStr(pTestParam, nParameters, "--header");
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  job.pBody = &body;
  job.dwTimeoutMs = kDefaultTimeoutMs;
  bool ok = ParseMethod(GetParameterStr(pTestParam, nParameters, "-r"), &job.Method) &&
            IsGivenText(job.pszKeyName) && IsGivenText(job.pszCertName) &&
            IsGivenText(job.pszChain) && IsGivenText(job.pszUrl) &&
            IsOptionalTextGood(pTestParam, nParameters, "--out") &&
            IsOptionalTextGood(pTestParam, nParameters, "--header");
  if (ok && IsParameterDefined(pTestParam, nParameters, "--tmout")) {
    ok = GetParameterDword(pTestParam, nParameters, "--tmout", &job.dwTimeoutMs) &&
         job.dwTimeoutMs > 0;
  }
  if (ok && IsParameterDefined(pTestParam, nParameters, "--rdata")) {
    ok = ReadJobData(pTestParam, nParameters, "--rdata", kFile, &body);
  }
  return StartJob(&JobPIXRequestThread, &job.ti, sizeof job, false, ok, &ShowJobPIXRequestHelp);
}
