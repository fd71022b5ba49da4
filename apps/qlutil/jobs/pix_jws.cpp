// PIX JSON Web Signature jobs: "pix-jws-sign" and "pix-jws-check" (compact JWS).
//
// -inform says how --payload and --jws are given: "file" (the default) names a file read whole,
// "text" is the value itself. --header is always the JSON text. The check takes the signer from
// the JWS's x5c header; a detached JWS is checked with the --payload it was made over.

#include <cstring>
#include <string>

#include "harness/harness.h"
#include "job.h"
#include "jws_payload.h"

typedef struct _JOB_PIX_JWS_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;  // -kn
  const char *pszHeader;   // --header
  const char *pszChain;    // --chain
  const char *pszCrl;      // --crl
  const char *pszOutFile;  // --out; absent: the console
  const Bytes *pPayload;   // --payload
  const Bytes *pJws;       // --jws
  uint32_t dwFlags;        // --flags: QL_JWS_ADD_X5C, QL_JWS_DETACHED
} JOB_PIX_JWS_INFO;

unsigned int JobPIXSignJWSThread(void *p);
unsigned int JobPIXCheckJWSThread(void *p);

namespace {

void ShowJwsInform(const char *inputs) {
  ScreenOutput("     -inform   [OPTIONAL] Format of %s. Default \"file\".\r\n", inputs);
  ScreenOutput("               A text holds at most 254 characters.\r\n");
  ShowHelpDataTextInformParameters();
  ScreenOutput("     --flags   [OPTIONAL] Sum of: 1 - add x5c with the key's certificate,\r\n");
  ScreenOutput("               2 - detached payload. Default 0.\r\n");
}

void ShowJobPIXSignJWSHelp() {
  JobHelpHeader(false, {"Sign a payload as a compact JWS (RS256, PS256 or ES256, as the header's",
                        "alg says)."});
  ScreenOutput("     -kn       Name of the signing key.\r\n");
  ScreenOutput("     --header  JWS protected header (JSON), signed as given.\r\n");
  ScreenOutput("     --payload Payload to sign.\r\n");
  ShowJwsInform("--payload");
  ScreenOutput("     --out     [OPTIONAL] Output file of the JWS. If not defined, it is\r\n");
  ScreenOutput("               printed.\r\n");
  JobHelpExamples("pix-jws-sign", {"-kn pixkey --header '{\"alg\":\"RS256\"}' --payload qr.json "
                                   "--flags 1 --out qr.jws"});
}

void ShowJobPIXCheckJWSHelp() {
  JobHelpHeader(false, {"Check a compact JWS. The signer is the first certificate of its x5c",
                        "header, validated against the chain."});
  ScreenOutput("     --chain   Name of the certificate chain that verifies the signer.\r\n");
  ScreenOutput("     --crl     [OPTIONAL] Name of the CRL checked.\r\n");
  ScreenOutput("     --jws     JWS to check.\r\n");
  ScreenOutput("     --payload [OPTIONAL] Payload of a detached JWS.\r\n");
  ShowJwsInform("--jws and --payload");
  JobHelpExamples("pix-jws-check", {"--chain pixchain --jws qr.jws"});
}

// The value of an input option: the text itself, or the whole file it names. False when the
// option is absent or empty, the file cannot be read, or a text fills the parameter's whole
// buffer (it may have been cut: a JWS with x5c is longer, and goes in a file).
bool ReadJwsInput(TEST_PARAMETER *pTestParam, int nParameters, const char *name, TextInform inform,
                  Bytes *out) {
  const char *value = GetParameterStr(pTestParam, nParameters, name);
  if (!IsGivenText(value)) return false;
  if (inform == kTextString) {
    if (std::strlen(value) >= sizeof(TEST_PARAMETER::szValue) - 1) return false;
    out->assign(value, value + std::strlen(value));
    return true;
  }
  return ReadLocalFile(value, out);
}

// -inform (file or text), --flags and --out, shared by both jobs.
bool LoadJwsCommon(JOB_PIX_JWS_INFO *job, TEST_PARAMETER *pTestParam, int nParameters,
                   TextInform *inform) {
  LoadJobParameters(&job->ti, pTestParam, nParameters, false);
  const char *word = GetParameterStr(pTestParam, nParameters, "-inform");
  *inform = GetParameterTextInform(pTestParam, nParameters, "-inform", kTextFile);
  job->pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  return (word == nullptr || std::strcmp(word, "file") == 0 || std::strcmp(word, "text") == 0) &&
         (!IsParameterDefined(pTestParam, nParameters, "--flags") ||
          GetParameterDword(pTestParam, nParameters, "--flags", &job->dwFlags)) &&
         IsOptionalTextGood(pTestParam, nParameters, "--out");
}

int SignJwsWork(JOB_PIX_JWS_INFO *job, HSESSIONCTX session) {
  LibBuffer jws;
  uint32_t jws_len = 0;
  const Bytes &payload = *job->pPayload;
  const int rc =
      CheckJobCall("QPIXJWSSign", QPIXJWSSign(session, job->pszKeyName, job->pszHeader,
                                              payload.data(), static_cast<uint32_t>(payload.size()),
                                              jws.PutText(), &jws_len, job->dwFlags));
  if (rc != 0) return rc;
  if (job->pszOutFile != nullptr) {
    return WriteLocalFile(job->pszOutFile, jws.Get(), jws_len) ? 0 : QL_ERR_FILE_IO;
  }
  ScreenOutput("%s\r\n", reinterpret_cast<const char *>(jws.Get()));
  return 0;
}

int CheckJwsWork(JOB_PIX_JWS_INFO *job, HSESSIONCTX session) {
  std::string jws(job->pJws->begin(), job->pJws->end());
  // A file written by an editor may end with a line break.
  while (!jws.empty() && (jws.back() == '\n' || jws.back() == '\r')) jws.pop_back();
  const Bytes &payload = *job->pPayload;
  if (!AttachJwsPayload(&jws, payload.data(), payload.size())) {
    ScreenOutput("Not a compact JWS.\r\n");
    return QL_ERR_BAD_ARGUMENT;
  }
  const int rc =
      CheckJobCall("QPIXJWSCheck", QPIXJWSCheck(session, job->pszChain, job->pszCrl, jws.c_str(),
                                                static_cast<uint32_t>(jws.size()), job->dwFlags));
  if (rc == 0) ScreenOutput("Signature verified.\r\n");
  return rc;
}

}  // namespace

unsigned int JobPIXSignJWSThread(void *p) {
  auto *job = static_cast<JOB_PIX_JWS_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return SignJwsWork(job, session); });
}

unsigned int JobPIXCheckJWSThread(void *p) {
  auto *job = static_cast<JOB_PIX_JWS_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return CheckJwsWork(job, session); });
}

int JobPIXSignJWS(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_PIX_JWS_INFO job{};
  Bytes payload;
  TextInform inform = kTextFile;
  bool ok = LoadJwsCommon(&job, pTestParam, nParameters, &inform);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszHeader = GetParameterStr(pTestParam, nParameters, "--header");
  job.pPayload = &payload;
  ok = ok && IsGivenText(job.pszKeyName) && IsGivenText(job.pszHeader) &&
       ReadJwsInput(pTestParam, nParameters, "--payload", inform, &payload);
  return StartJob(&JobPIXSignJWSThread, &job.ti, sizeof job, false, ok, &ShowJobPIXSignJWSHelp);
}

int JobPIXCheckJWS(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_PIX_JWS_INFO job{};
  Bytes jws, payload;
  TextInform inform = kTextFile;
  bool ok = LoadJwsCommon(&job, pTestParam, nParameters, &inform);
  job.pszChain = GetParameterStr(pTestParam, nParameters, "--chain");
  job.pszCrl = GetParameterStr(pTestParam, nParameters, "--crl");
  job.pJws = &jws;
  job.pPayload = &payload;
  ok = ok && IsGivenText(job.pszChain) && IsOptionalTextGood(pTestParam, nParameters, "--crl") &&
       ReadJwsInput(pTestParam, nParameters, "--jws", inform, &jws) &&
       (!IsParameterDefined(pTestParam, nParameters, "--payload") ||
        ReadJwsInput(pTestParam, nParameters, "--payload", inform, &payload));
  return StartJob(&JobPIXCheckJWSThread, &job.ti, sizeof job, false, ok, &ShowJobPIXCheckJWSHelp);
}
