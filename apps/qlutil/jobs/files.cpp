// File-object jobs: "read-file", "write-file".

#include <cstring>

#include "harness/harness.h"
#include "job.h"

typedef struct _JOB_FILE_INFO {
  THREAD_INFO ti;
  const char *pszObjName;  // -kn
  const char *pszOutFile;  // read: --out; null: hex on the console
  const Bytes *pData;      // write: -in, read by the front function, which outlives the run
  uint32_t dwFlags;        // write: -replace QL_WRITE_FILE_REPLACE, -typed QL_WRITE_FILE_TYPED
} JOB_FILE_INFO;

namespace {

void ShowJobReadFileHelp() {
  JobHelpHeader(false, {"Read a file object from the HSM."});
  ScreenOutput("     -kn     Object name\r\n");
  ScreenOutput("     --out   [OPTIONAL] Output file. If not defined, the content is printed\r\n");
  ScreenOutput("             in hex.\r\n");
  JobHelpExamples("read-file", {"-kn myfile --out myfile.bin"});
}

void ShowJobWriteFileHelp() {
  JobHelpHeader(false, {"Write data into a file object of the HSM."});
  ScreenOutput("     -kn      Object name\r\n");
  ScreenOutput("     -in      The data\r\n");
  ScreenOutput("     -inform  [OPTIONAL] Format of -in. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
  ScreenOutput("     -replace [OPTIONAL] Replace an existing object of that name.\r\n");
  ScreenOutput(
      "     -typed   [OPTIONAL] The data is a certificate, a chain (PEM certificates or\r\n");
  ScreenOutput(
      "              PKCS#7) or a CRL, DER or PEM, kept as a certificate, chain or CRL\r\n");
  ScreenOutput("              object.\r\n");
  JobHelpExamples("write-file", {"-kn myfile -in data.bin", "-kn myfile -inform hex -in 0A0B0C",
                                 "-kn mycert -in cert.pem -typed"});
}

int AppendChunk(void *param, const unsigned char *chunk, uint32_t len) {
  if (chunk != nullptr)
    static_cast<Bytes *>(param)->insert(static_cast<Bytes *>(param)->end(), chunk, chunk + len);
  return 0;
}

int ReadFileWork(JOB_FILE_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  Bytes data;
  rc = QReadFile(session, job->pszObjName, &AppendChunk, &data);
  if (rc != 0) {
    PrintJobError("QReadFile", rc);
    return rc;
  }
  return WriteJobOutput(job->pszOutFile, data.data(), data.size()) ? 0 : QL_ERR_FILE_IO;
}

int WriteFileWork(JOB_FILE_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  rc = QWriteFileBuffer(session, job->pszObjName, job->pData->data(),
                        static_cast<uint32_t>(job->pData->size()), job->dwFlags);
  if (rc != 0) {
    PrintJobError("QWriteFileBuffer", rc);
    return rc;
  }
  ScreenOutput("File %s written (%lu bytes).\r\n", job->pszObjName,
               static_cast<unsigned long>(job->pData->size()));
  return 0;
}

}  // namespace

unsigned int JobReadFileThread(void *p) {
  auto *job = static_cast<JOB_FILE_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return ReadFileWork(job, session); });
}

unsigned int JobWriteFileThread(void *p) {
  auto *job = static_cast<JOB_FILE_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return WriteFileWork(job, session); });
}

int JobReadFile(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_FILE_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszObjName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const bool ok =
      IsGivenText(job.pszObjName) &&
      (!IsParameterDefined(pTestParam, nParameters, "--out") || IsGivenText(job.pszOutFile));
  return StartJob(&JobReadFileThread, &job.ti, sizeof job, false, ok, &ShowJobReadFileHelp);
}

int JobWriteFile(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_FILE_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszObjName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.dwFlags = IsParameterDefined(pTestParam, nParameters, "-replace") ? QL_WRITE_FILE_REPLACE : 0;
  if (IsParameterDefined(pTestParam, nParameters, "-typed")) job.dwFlags |= QL_WRITE_FILE_TYPED;
  const char *word = GetParameterStr(pTestParam, nParameters, "-inform");
  const DataInform inform = GetParameterDataInform(pTestParam, nParameters, "-inform", kFile);
  Bytes data;
  const bool ok = IsGivenText(job.pszObjName) &&
                  (word == nullptr || strcmp(word, "file") == 0 || strcmp(word, "hex") == 0) &&
                  ReadJobData(pTestParam, nParameters, "-in", inform, &data);
  job.pData = &data;
  return StartJob(&JobWriteFileThread, &job.ti, sizeof job, false, ok, &ShowJobWriteFileHelp);
}
