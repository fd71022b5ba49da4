// PIX message signature jobs: "pix-sign", "pix-verify", "pix-dict-sign", "pix-dict-verify".
//
// "pix-sign" runs the thread of "pix-dict-sign" and "pix-verify" that of "pix-dict-verify"; the
// record says which call to make.

#include <string>

#include "harness/harness.h"
#include "job.h"

typedef struct _JOB_PIX_XML_INFO {
  THREAD_INFO ti;
  bool bDict;               // the DICT calls: QPIXDictSign, QPIXDictVerify
  const char *pszKeyName;   // -kn
  const char *pszCertName;  // -c
  const char *pszChain;     // --chain
  const char *pszCrl;       // --crl
  const char *pszOutFile;   // --out; absent: the console
  const Bytes *pIn;         // -x
  uint32_t dwFlags;         // --rns: QL_PIX_REMOVE_NS
} JOB_PIX_XML_INFO;

unsigned int JobPIXDictSignThread(void *p);
unsigned int JobPIXDictVerifyThread(void *p);

namespace {

void ShowPixInput(bool dict) {
  ScreenOutput("     -x        %s file.\r\n", dict ? "DICT XML message" : "ISO 20022 XML message");
  ScreenOutput("     -inform   [OPTIONAL] Format of -x. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
  if (!dict) {
    ScreenOutput("     --rns     [OPTIONAL] Remove the root's default namespace declaration\r\n");
    ScreenOutput("               first.\r\n");
  }
}

void ShowPixSignHelp(bool dict) {
  JobHelpHeader(false, {dict ? "Sign a PIX DICT message (XML-DSig, enveloped)."
                             : "Sign a PIX ISO 20022 message (signature in AppHdr/Sgntr)."});
  ScreenOutput("     -kn       Name of the signing key.\r\n");
  ScreenOutput("     -c        Name of the key's certificate.\r\n");
  ShowPixInput(dict);
  ScreenOutput("     --out     [OPTIONAL] Output file of the signed message. If not defined,\r\n");
  ScreenOutput("               it is printed.\r\n");
  JobHelpExamples(dict ? "pix-dict-sign" : "pix-sign",
                  {"-kn pixkey -c pixcert -x msg.xml --out signed.xml"});
}

void ShowPixVerifyHelp(bool dict) {
  JobHelpHeader(false, {dict ? "Verify the signature of a PIX DICT message."
                             : "Verify the signature of a PIX ISO 20022 message.",
                        "The signer is found by issuer and serial number in the chain."});
  ScreenOutput("     --chain   Name of the certificate chain that verifies the signer.\r\n");
  ScreenOutput("     --crl     [OPTIONAL] Name of the CRL checked.\r\n");
  ShowPixInput(dict);
  JobHelpExamples(dict ? "pix-dict-verify" : "pix-verify", {"--chain pixchain -x signed.xml"});
}

void ShowJobPIXSignHelp() {
  ShowPixSignHelp(false);
}
void ShowJobPIXDictSignHelp() {
  ShowPixSignHelp(true);
}
void ShowJobPIXVerifyHelp() {
  ShowPixVerifyHelp(false);
}
void ShowJobPIXDictVerifyHelp() {
  ShowPixVerifyHelp(true);
}

// The signed message into --out, or as text on the console.
bool WriteSigned(const char *path, const unsigned char *data, uint32_t len) {
  if (path != nullptr) return WriteLocalFile(path, data, len);
  ScreenOutput("%s\r\n", std::string(reinterpret_cast<const char *>(data), len).c_str());
  return true;
}

int PixSignWork(JOB_PIX_XML_INFO *job, HSESSIONCTX session) {
  LibBuffer out;
  uint32_t out_len = 0;
  const Bytes &in = *job->pIn;
  const auto in_len = static_cast<uint32_t>(in.size());
  const int rc =
      job->bDict
          ? CheckJobCall("QPIXDictSign",
                         QPIXDictSign(session, job->pszKeyName, job->pszCertName, in.data(), in_len,
                                      out.Put(), &out_len, job->dwFlags))
          : CheckJobCall("QPIXSign", QPIXSign(session, job->pszKeyName, job->pszCertName, in.data(),
                                              in_len, out.Put(), &out_len, job->dwFlags));
  if (rc != 0) return rc;
  return WriteSigned(job->pszOutFile, out.Get(), out_len) ? 0 : QL_ERR_FILE_IO;
}

int PixVerifyWork(JOB_PIX_XML_INFO *job, HSESSIONCTX session) {
  const Bytes &in = *job->pIn;
  const auto in_len = static_cast<uint32_t>(in.size());
  const int rc =
      job->bDict
          ? CheckJobCall("QPIXDictVerify", QPIXDictVerify(session, job->pszChain, job->pszCrl,
                                                          in.data(), in_len, job->dwFlags))
          : CheckJobCall("QPIXVerify", QPIXVerify(session, job->pszChain, job->pszCrl, in.data(),
                                                  in_len, job->dwFlags));
  if (rc == 0) ScreenOutput("Signature verified.\r\n");
  return rc;
}

bool LoadPixJob(JOB_PIX_XML_INFO *job, Bytes *in, TEST_PARAMETER *pTestParam, int nParameters,
                bool dict) {
  LoadJobParameters(&job->ti, pTestParam, nParameters, false);
  job->bDict = dict;
  job->pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job->pszCertName = GetParameterStr(pTestParam, nParameters, "-c");
  job->pszChain = GetParameterStr(pTestParam, nParameters, "--chain");
  job->pszCrl = GetParameterStr(pTestParam, nParameters, "--crl");
  job->pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  job->pIn = in;
  if (!dict && IsParameterDefined(pTestParam, nParameters, "--rns")) {
    job->dwFlags |= QL_PIX_REMOVE_NS;
  }
  DataInform inform = kFile;
  return LoadDataInform(pTestParam, nParameters, "-inform", &inform) &&
         ReadJobData(pTestParam, nParameters, "-x", inform, in) &&
         IsOptionalTextGood(pTestParam, nParameters, "--out") &&
         IsOptionalTextGood(pTestParam, nParameters, "--crl");
}

int StartPixSign(TEST_PARAMETER *pTestParam, int nParameters, bool dict) {
  JOB_PIX_XML_INFO job{};
  Bytes in;
  const bool ok = LoadPixJob(&job, &in, pTestParam, nParameters, dict) &&
                  IsGivenText(job.pszKeyName) && IsGivenText(job.pszCertName);
  return StartJob(&JobPIXDictSignThread, &job.ti, sizeof job, false, ok,
                  dict ? &ShowJobPIXDictSignHelp : &ShowJobPIXSignHelp);
}

int StartPixVerify(TEST_PARAMETER *pTestParam, int nParameters, bool dict) {
  JOB_PIX_XML_INFO job{};
  Bytes in;
  const bool ok = LoadPixJob(&job, &in, pTestParam, nParameters, dict) && IsGivenText(job.pszChain);
  return StartJob(&JobPIXDictVerifyThread, &job.ti, sizeof job, false, ok,
                  dict ? &ShowJobPIXDictVerifyHelp : &ShowJobPIXVerifyHelp);
}

}  // namespace

unsigned int JobPIXDictSignThread(void *p) {
  auto *job = static_cast<JOB_PIX_XML_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return PixSignWork(job, session); });
}

unsigned int JobPIXDictVerifyThread(void *p) {
  auto *job = static_cast<JOB_PIX_XML_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return PixVerifyWork(job, session); });
}

int JobPIXSign(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartPixSign(pTestParam, nParameters, false);
}

int JobPIXDictSign(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartPixSign(pTestParam, nParameters, true);
}

int JobPIXVerify(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartPixVerify(pTestParam, nParameters, false);
}

int JobPIXDictVerify(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartPixVerify(pTestParam, nParameters, true);
}
