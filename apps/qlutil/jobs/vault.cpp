// Tokenisation vault jobs: "svault-gen-token", "svault-get-data".

#include <cstring>
#include <string>

#include "harness/harness.h"
#include "job.h"

namespace {

// No word of the vault options has this value (the getter keeps one byte of INVALID).
constexpr uint8_t kBadVaultWord = static_cast<uint8_t>(kOptionInvalid & 0xff);

// A vault option word: absent gives the default; false for an unknown word (which the getter
// answers with the default too).
bool LoadVaultWord(TEST_PARAMETER *pTestParam, int nParameters, const char *name, uint8_t dflt,
                   unsigned char *out) {
  if (!IsParameterDefined(pTestParam, nParameters, name)) {
    *out = dflt;
    return true;
  }
  *out = GetParameterSVault(pTestParam, nParameters, name, kBadVaultWord);
  return *out != kBadVaultWord;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// svault-gen-token

typedef struct _JOB_SVAULT_GEN_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;  // -kn
  QL_SVAULT_TOKEN_INFO stTokenInfo;
  const char *pszSecret;   // -secret
  const char *pszOutFile;  // --out: the blob; null: hex on the console
} JOB_SVAULT_GEN_INFO;

namespace {

void ShowJobSVaultGenTokenHelp() {
  JobHelpHeader(false, {"Make a token for a secret, and the blob that gives the secret back."});
  ShowHelpSVaultGenToken();
  ScreenOutput("     -rep      [OPTIONAL] Token representation. Default base10.\r\n");
  ShowHelpSVaultGetTokenRepresentation();
  ScreenOutput("     -secret   The secret\r\n");
  ScreenOutput(
      "     --out     [OPTIONAL] Output file of the blob. If not defined, the blob is\r\n");
  ScreenOutput("               printed in hex.\r\n");
  JobHelpExamples("svault-gen-token", {"-kn myaes -cks pan -secret 4111111111111111 --out t.bin",
                                       "-kn myaes -masktype secret -rep base62 -secret abc"});
}

int SVaultGenTokenWork(JOB_SVAULT_GEN_INFO *job, HSESSIONCTX session) {
  uint32_t token_len = 0;
  uint32_t blob_len = 0;
  int rc = QSVaultGenToken(session, job->pszKeyName, &job->stTokenInfo, job->pszSecret, nullptr,
                           &token_len, nullptr, &blob_len, 0);
  std::string token;
  Bytes blob;
  // A token's length never changes between calls, but answer a second size reply all the same.
  for (int tries = 0; rc == QL_ERR_BUFFER_TOO_SMALL && tries < 2; ++tries) {
    token.assign(token_len, '\0');
    blob.resize(blob_len);
    rc = QSVaultGenToken(session, job->pszKeyName, &job->stTokenInfo, job->pszSecret, token.data(),
                         &token_len, blob.data(), &blob_len, 0);
  }
  if (CheckJobCall("QSVaultGenToken", rc) != 0) return rc;
  token.resize(token_len);
  ScreenOutput("Token: %s\r\n", token.c_str());
  if (job->pszOutFile == nullptr) ScreenOutput("Blob: ");
  return WriteJobOutput(job->pszOutFile, blob.data(), blob_len, true) ? 0 : QL_ERR_FILE_IO;
}

}  // namespace

unsigned int JobSVaultGenTokenThread(void *p) {
  auto *job = static_cast<JOB_SVAULT_GEN_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return SVaultGenTokenWork(job, session); });
}

int JobSVaultGenToken(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SVAULT_GEN_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszSecret = GetParameterStr(pTestParam, nParameters, "-secret");
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  QL_SVAULT_TOKEN_INFO &info = job.stTokenInfo;
  const bool ok = IsGivenText(job.pszKeyName) && IsGivenText(job.pszSecret) &&
                  LoadVaultWord(pTestParam, nParameters, "-masktype", 1, &info.bType) &&
                  LoadVaultWord(pTestParam, nParameters, "-cks", 0, &info.bMaskType) &&
                  LoadVaultWord(pTestParam, nParameters, "-type", 0, &info.bChecksum) &&
                  LoadVaultWord(pTestParam, nParameters, "-rep", 10, &info.bRepresentation) &&
                  IsOptionalTextGood(pTestParam, nParameters, "--out");
  return StartJob(&JobSVaultGenTokenThread, &job.ti, sizeof job, false, ok,
                  &ShowJobSVaultGenTokenHelp);
}

// ---------------------------------------------------------------------------------------------
// svault-get-data

typedef struct _JOB_SVAULT_GET_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;  // -kn
  const Bytes *pBlob;      // -in
  uint32_t dwWhat;         // -op: 1 the secret, 2 the token
  uint32_t dwFlags;        // -mask: QL_SVAULT_MASKED
} JOB_SVAULT_GET_INFO;

namespace {

void ShowJobSVaultGetDataHelp() {
  JobHelpHeader(false, {"Read the secret or the token that a vault blob holds."});
  ScreenOutput("     -kn     Key name\r\n");
  ScreenOutput("     -in     The blob\r\n");
  ScreenOutput("     -inform [OPTIONAL] Format of -in. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
  ShowHelpSVaultGetData();
  JobHelpExamples("svault-get-data",
                  {"-kn myaes -in t.bin -op secret", "-kn myaes -in t.bin -op secret -mask"});
}

int SVaultGetDataWork(JOB_SVAULT_GET_INFO *job, HSESSIONCTX session) {
  const auto blob_len = static_cast<uint32_t>(job->pBlob->size());
  uint32_t len = 0;
  int rc = QSVaultGetData(session, job->pszKeyName, job->dwWhat, job->pBlob->data(), blob_len,
                          nullptr, &len, job->dwFlags);
  std::string out;
  if (rc == QL_ERR_BUFFER_TOO_SMALL) {
    out.assign(len, '\0');
    rc = QSVaultGetData(session, job->pszKeyName, job->dwWhat, job->pBlob->data(), blob_len,
                        out.data(), &len, job->dwFlags);
  }
  if (CheckJobCall("QSVaultGetData", rc) != 0) return rc;
  out.resize(len);
  ScreenOutput("%s\r\n", out.c_str());
  return 0;
}

}  // namespace

unsigned int JobSVaultGetDataThread(void *p) {
  auto *job = static_cast<JOB_SVAULT_GET_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return SVaultGetDataWork(job, session); });
}

int JobSVaultGetData(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SVAULT_GET_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  const int what = GetParameterSVaultGetData(pTestParam, nParameters, "-op", -1);
  job.dwWhat = what < 0 ? 0 : static_cast<uint32_t>(what);
  job.dwFlags = IsParameterDefined(pTestParam, nParameters, "-mask") ? QL_SVAULT_MASKED : 0;
  DataInform inform = kFile;
  Bytes blob;
  const bool ok = IsGivenText(job.pszKeyName) && (what == 1 || what == 2) &&
                  LoadDataInform(pTestParam, nParameters, "-inform", &inform) &&
                  ReadJobData(pTestParam, nParameters, "-in", inform, &blob);
  job.pBlob = &blob;
  return StartJob(&JobSVaultGetDataThread, &job.ti, sizeof job, false, ok,
                  &ShowJobSVaultGetDataHelp);
}
