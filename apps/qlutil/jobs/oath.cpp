// OATH token blob jobs: "oath-check-blob", "oath-decrypt-blob".

#include <cstring>
#include <string>

#include "harness/harness.h"
#include "job.h"

namespace {

void PrintBlobInputHelp() {
  ScreenOutput("     -kn     Master key name (an AES key)\r\n");
  ScreenOutput("     -in     The token blob\r\n");
  ScreenOutput("     -inform [OPTIONAL] Format of -in. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
}

bool LoadBlobInput(TEST_PARAMETER *pTestParam, int nParameters, const char **key, Bytes *blob) {
  *key = GetParameterStr(pTestParam, nParameters, "-kn");
  DataInform inform = kFile;
  return IsGivenText(*key) && LoadDataInform(pTestParam, nParameters, "-inform", &inform) &&
         ReadJobData(pTestParam, nParameters, "-in", inform, blob);
}

bool IsOtpText(const char *otp) {
  if (!IsGivenText(otp)) return false;
  const size_t n = strlen(otp);
  if (n < 6 || n > 8) return false;
  for (size_t i = 0; i < n; ++i)
    if (otp[i] < '0' || otp[i] > '9') return false;
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// oath-check-blob

typedef struct _JOB_OATH_CHECK_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;  // -kn: the master key
  const Bytes *pBlob;      // -in
  const char *pszOtp;      // -otp
  const char *pszOutFile;  // --out: the new blob; null: hex on the console
} JOB_OATH_CHECK_INFO;

namespace {

void ShowJobOathCheckBlobHelp() {
  JobHelpHeader(false, {"Check a one-time password against an OATH token blob. The blob comes back",
                        "with its new counter and must replace the old one."});
  PrintBlobInputHelp();
  ScreenOutput("     -otp    The one-time password (6 to 8 digits)\r\n");
  ScreenOutput(
      "     --out   [OPTIONAL] Output file of the new blob. If not defined, the blob is\r\n");
  ScreenOutput("             printed in hex.\r\n");
  JobHelpExamples("oath-check-blob", {"-kn mk -in token.bin -otp 755224 --out token.bin"});
}

int OathCheckBlobWork(JOB_OATH_CHECK_INFO *job, HSESSIONCTX session) {
  Bytes blob(job->pBlob->size());
  auto len = static_cast<uint32_t>(blob.size());
  const int rc =
      QOATHCheckHOTP(session, job->pszKeyName, job->pBlob->data(),
                     static_cast<uint32_t>(job->pBlob->size()), job->pszOtp, blob.data(), &len, 0);
  if (CheckJobCall("QOATHCheckHOTP", rc) != 0) return rc;
  ScreenOutput("One-time password accepted.\r\n");
  return WriteJobOutput(job->pszOutFile, blob.data(), len, true) ? 0 : QL_ERR_FILE_IO;
}

}  // namespace

unsigned int JobOATHCheckHotpThread(void *p) {
  auto *job = static_cast<JOB_OATH_CHECK_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return OathCheckBlobWork(job, session); });
}

int JobOATHCheckHotp(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_OATH_CHECK_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  Bytes blob;
  job.pszOtp = GetParameterStr(pTestParam, nParameters, "-otp");
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const bool ok = LoadBlobInput(pTestParam, nParameters, &job.pszKeyName, &blob) &&
                  IsOtpText(job.pszOtp) && IsOptionalTextGood(pTestParam, nParameters, "--out");
  job.pBlob = &blob;
  return StartJob(&JobOATHCheckHotpThread, &job.ti, sizeof job, false, ok,
                  &ShowJobOathCheckBlobHelp);
}

// ---------------------------------------------------------------------------------------------
// oath-decrypt-blob

typedef struct _JOB_OATH_INFO_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;  // -kn: the master key
  const Bytes *pBlob;      // -in
  uint32_t dwInfo;         // -info: record or seed
} JOB_OATH_INFO_INFO;

namespace {

void ShowJobOathDecryptBlobHelp() {
  JobHelpHeader(false,
                {"Show what an OATH token blob holds: its record, or its seed (only under an",
                 "exportable master key)."});
  PrintBlobInputHelp();
  ScreenOutput("     -info   [OPTIONAL] What to show. Default \"record\".\r\n");
  ScreenOutput("             record seed\r\n");
  JobHelpExamples("oath-decrypt-blob", {"-kn mk -in token.bin", "-kn mk -in token.bin -info seed"});
}

int OathDecryptBlobWork(JOB_OATH_INFO_INFO *job, HSESSIONCTX session) {
  const auto blob_len = static_cast<uint32_t>(job->pBlob->size());
  if (job->dwInfo == QL_OATH_INFO_SEED) {
    unsigned char seed[QL_OATH_MAX_SEED];
    uint32_t len = sizeof seed;
    const int rc = QOATHGetBlobInfo(session, job->pszKeyName, job->pBlob->data(), blob_len,
                                    QL_OATH_INFO_SEED, seed, &len);
    if (CheckJobCall("QOATHGetBlobInfo", rc) != 0) return rc;
    ScreenOutput("%s\r\n", ToHex(seed, len).c_str());
    return 0;
  }
  QL_OATH_TOKEN_INFO info;
  uint32_t len = sizeof info;
  const int rc =
      QOATHGetBlobInfo(session, job->pszKeyName, job->pBlob->data(), blob_len, QL_OATH_INFO_RECORD,
                       reinterpret_cast<unsigned char *>(&info), &len);
  if (CheckJobCall("QOATHGetBlobInfo", rc) != 0) return rc;
  static const char *const kHashes[] = {"sha1", "sha256", "sha512"};
  ScreenOutput("Type: %s\r\n", info.dwType == 3 ? "time" : "event");
  ScreenOutput("Hash: %s\r\n", info.dwHash < 3 ? kHashes[info.dwHash] : "?");
  ScreenOutput("Digits: %u\r\n", info.dwDigits);
  ScreenOutput("Counter: %llu\r\n", static_cast<unsigned long long>(info.qwCounter));
  if (info.dwType == 3) {
    ScreenOutput("Time step: %u\r\n", info.dwTimeStep);
    ScreenOutput("T0: %llu\r\n", static_cast<unsigned long long>(info.qwT0));
    ScreenOutput("Drift: %d\r\n", info.nDrift);
  }
  ScreenOutput("Failures: %u\r\n", info.dwFailures);
  ScreenOutput("Seed length: %u\r\n", info.dwSeedLen);
  return 0;
}

}  // namespace

unsigned int JobOATHDecryptBlobThread(void *p) {
  auto *job = static_cast<JOB_OATH_INFO_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return OathDecryptBlobWork(job, session); });
}

int JobOATHDecryptBlob(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_OATH_INFO_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  Bytes blob;
  const char *info = GetParameterStr(pTestParam, nParameters, "-info");
  bool ok = LoadBlobInput(pTestParam, nParameters, &job.pszKeyName, &blob);
  if (info == nullptr || strcmp(info, "record") == 0) {
    job.dwInfo = QL_OATH_INFO_RECORD;
  } else if (strcmp(info, "seed") == 0) {
    job.dwInfo = QL_OATH_INFO_SEED;
  } else {
    ok = false;
  }
  job.pBlob = &blob;
  return StartJob(&JobOATHDecryptBlobThread, &job.ti, sizeof job, false, ok,
                  &ShowJobOathDecryptBlobHelp);
}
