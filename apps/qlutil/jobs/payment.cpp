// Payment jobs: "gen-cvv".

#include "harness/harness.h"
#include "job.h"

// ---------------------------------------------------------------------------------------------
// gen-cvv

typedef struct _JOB_GEN_CVV_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;      // -kn: the CVK pair
  const char *pszPan;          // --pan
  const char *pszExpiry;       // --exp: YYMM
  const char *pszServiceCode;  // --sc
} JOB_GEN_CVV_INFO;

namespace {

void ShowJobGenCVVHelp() {
  JobHelpHeader(false, {"Generate the CVV of a card with a CVV key pair of the HSM."});
  ScreenOutput("     -kn     CVV key name (3des112 A|B, or 3des168 A|B|A)\r\n");
  ScreenOutput("     --pan   Card number (12 to 19 digits)\r\n");
  ScreenOutput("     --exp   Expiry date (YYMM)\r\n");
  ScreenOutput("     --sc    Service code (3 digits; 000 for CVV2, 999 for iCVV)\r\n");
  JobHelpExamples("gen-cvv", {"-kn mycvk --pan 4123456789012345 --exp 8701 --sc 101"});
}

int GenCVVWork(JOB_GEN_CVV_INFO *job, HSESSIONCTX session) {
  KeyOwner key;
  int rc = QGetUserKey(session, job->pszKeyName, 0, key.Put());
  if (rc != 0) return CheckJobCall("QGetUserKey", rc);
  char cvv[4] = {};
  rc = QGenerateCVV(key.Get(), job->pszPan, job->pszExpiry, job->pszServiceCode, cvv, 0);
  if (rc != 0) return CheckJobCall("QGenerateCVV", rc);
  ScreenOutput("CVV: %s\r\n", cvv);
  return 0;
}

}  // namespace

unsigned int JobGenCVVThread(void *p) {
  auto *job = static_cast<JOB_GEN_CVV_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return GenCVVWork(job, session); });
}

int JobGenCVV(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_GEN_CVV_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszPan = GetParameterStr(pTestParam, nParameters, "--pan");
  job.pszExpiry = GetParameterStr(pTestParam, nParameters, "--exp");
  job.pszServiceCode = GetParameterStr(pTestParam, nParameters, "--sc");
  const bool ok = IsGivenText(job.pszKeyName) && IsGivenText(job.pszPan) &&
                  IsGivenText(job.pszExpiry) && IsGivenText(job.pszServiceCode);
  return StartJob(&JobGenCVVThread, &job.ti, sizeof job, false, ok, &ShowJobGenCVVHelp);
}
