// Secret-sharing jobs: "mofn-split", "mofn-recover" and "skeep-calc-cks". The HSM splits and
// recovers through the facade; parts go to one file each (--out is a prefix) or are printed in
// hex. A share's checksum is computed here, without a session.

#include <string>
#include <string_view>
#include <vector>

#include "harness/harness.h"
#include "job.h"
#include "ql_string_helper.h"

namespace {

// The items of a comma-separated list; an empty item makes the list invalid (false).
bool SplitList(std::string_view text, std::vector<std::string> *items) {
  items->clear();
  size_t start = 0;
  while (true) {
    const size_t comma = text.find(',', start);
    const std::string_view item = text.substr(
        start, comma == std::string_view::npos ? std::string_view::npos : comma - start);
    if (item.empty()) return false;
    items->emplace_back(item);
    if (comma == std::string_view::npos) return true;
    start = comma + 1;
  }
}

// Each item of --parts: a file (the default form) or hex text. False, after saying which item,
// when one cannot be read or is empty.
bool ReadParts(const char *list, DataInform inform, std::vector<Bytes> *parts) {
  std::vector<std::string> items;
  if (list == nullptr || !SplitList(list, &items)) return false;
  parts->clear();
  for (const std::string &item : items) {
    Bytes part;
    const bool ok = inform == kHexData ? TryConvertHexStrToByteVector(item, &part)
                                       : ReadLocalFile(item.c_str(), &part);
    if (!ok || part.empty()) {
      ScreenOutput("Invalid part in --parts: %s\r\n", item.c_str());
      return false;
    }
    parts->push_back(std::move(part));
  }
  return true;
}

// Clears a secret's bytes through a volatile pointer, so the stores are not optimised away.
void Wipe(Bytes *b) {
  volatile unsigned char *p = b->data();
  for (size_t i = 0; i < b->size(); ++i) p[i] = 0;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// mofn-split

typedef struct _JOB_MOFN_SPLIT_INFO {
  THREAD_INFO ti;
  uint32_t dwM;            // -m
  uint32_t dwN;            // -n
  const Bytes *pSecret;    // --secret
  const char *pszOutFile;  // --out: the prefix of the part files
} JOB_MOFN_SPLIT_INFO;

unsigned int JobMofNSplitThread(void *p);

namespace {

void ShowJobMofNSplitHelp() {
  JobHelpHeader(false, {"Split a secret into N parts of which any M recover it."});
  ScreenOutput("     -m           Parts needed to recover the secret (2 to N)\r\n");
  ScreenOutput("     -n           Parts made (M to 255)\r\n");
  ScreenOutput("     --secret     The secret (1 to 4096 bytes)\r\n");
  ScreenOutput("     --secretform [OPTIONAL] Format of --secret. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
  ScreenOutput("     --out        [OPTIONAL] Prefix of the part files: part x goes to\r\n");
  ScreenOutput("                  <prefix>.<x>. If not defined, the parts are printed in hex.\r\n");
  JobHelpExamples("mofn-split", {"-m 2 -n 3 --secret secret.bin --out part",
                                 "-m 3 -n 5 --secretform hex --secret 00112233445566778899"});
}

int MofNSplitWork(JOB_MOFN_SPLIT_INFO *job, QueltaClient &client) {
  std::vector<Bytes> parts;
  const int rc =
      CheckJobCall("MofNSplit", client.MofNSplit(job->dwM, job->dwN, *job->pSecret, &parts));
  if (rc != 0) return rc;
  bool written = true;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (job->pszOutFile != nullptr) {
      const std::string path = std::string(job->pszOutFile) + "." + std::to_string(i + 1);
      written = WriteLocalFile(path.c_str(), parts[i].data(), parts[i].size(), true) && written;
    } else {
      ScreenOutput("Part %u: %s\r\n", static_cast<unsigned>(i + 1),
                   ToHex(parts[i].data(), parts[i].size()).c_str());
    }
    Wipe(&parts[i]);
  }
  if (!written) return QL_ERR_FILE_IO;
  if (job->pszOutFile != nullptr) {
    ScreenOutput("%u parts written to %s.1 to %s.%u.\r\n", static_cast<unsigned>(parts.size()),
                 job->pszOutFile, job->pszOutFile, static_cast<unsigned>(parts.size()));
  }
  return 0;
}

}  // namespace

unsigned int JobMofNSplitThread(void *p) {
  auto *job = static_cast<JOB_MOFN_SPLIT_INFO *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) { return MofNSplitWork(job, client); });
}

int JobMofNSplit(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_MOFN_SPLIT_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  Bytes secret;
  DataInform inform = kFile;
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  job.pSecret = &secret;
  const bool ok = GetJobNumber(pTestParam, nParameters, "-m", &job.dwM) &&
                  GetJobNumber(pTestParam, nParameters, "-n", &job.dwN) &&
                  LoadDataInform(pTestParam, nParameters, "--secretform", &inform) &&
                  ReadJobData(pTestParam, nParameters, "--secret", inform, &secret) &&
                  IsOptionalTextGood(pTestParam, nParameters, "--out");
  const int result =
      StartJob(&JobMofNSplitThread, &job.ti, sizeof job, false, ok, &ShowJobMofNSplitHelp);
  Wipe(&secret);
  return result;
}

// ---------------------------------------------------------------------------------------------
// mofn-recover

typedef struct _JOB_MOFN_RECOVER_INFO {
  THREAD_INFO ti;
  const std::vector<Bytes> *pParts;  // --parts
  const char *pszOutFile;            // --out
} JOB_MOFN_RECOVER_INFO;

unsigned int JobMofNRecoverThread(void *p);

namespace {

void ShowJobMofNRecoverHelp() {
  JobHelpHeader(false, {"Recover a secret from M or more of its N parts."});
  ScreenOutput("     --parts      The parts, comma-separated\r\n");
  ScreenOutput("     --partsform  [OPTIONAL] Format of each part. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
  ScreenOutput(
      "     --out        [OPTIONAL] Output file. If not defined, the secret is printed\r\n");
  ScreenOutput("                  in hex.\r\n");
  JobHelpExamples("mofn-recover", {"--parts part.1,part.3 --out secret.bin"});
}

int MofNRecoverWork(JOB_MOFN_RECOVER_INFO *job, QueltaClient &client) {
  Bytes secret;
  int rc = CheckJobCall("MofNRecover", client.MofNRecover(*job->pParts, &secret));
  if (rc == 0 && !WriteJobOutput(job->pszOutFile, secret.data(), secret.size(), true)) {
    rc = QL_ERR_FILE_IO;
  }
  Wipe(&secret);
  return rc;
}

}  // namespace

unsigned int JobMofNRecoverThread(void *p) {
  auto *job = static_cast<JOB_MOFN_RECOVER_INFO *>(p);
  return RunClientJob(&job->ti,
                      [job](QueltaClient &client) { return MofNRecoverWork(job, client); });
}

int JobMofNRecover(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_MOFN_RECOVER_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  std::vector<Bytes> parts;
  DataInform inform = kFile;
  job.pParts = &parts;
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const bool ok = LoadDataInform(pTestParam, nParameters, "--partsform", &inform) &&
                  ReadParts(GetParameterStr(pTestParam, nParameters, "--parts"), inform, &parts) &&
                  IsOptionalTextGood(pTestParam, nParameters, "--out");
  const int result =
      StartJob(&JobMofNRecoverThread, &job.ti, sizeof job, false, ok, &ShowJobMofNRecoverHelp);
  for (Bytes &part : parts) Wipe(&part);
  return result;
}

// ---------------------------------------------------------------------------------------------
// skeep-calc-cks

typedef struct _JOB_SKEEP_CALC_CKS_INFO {
  THREAD_INFO ti;
  const std::vector<Bytes> *pParts;  // --parts
} JOB_SKEEP_CALC_CKS_INFO;

unsigned int JobSKeepCalcCksThread(void *p);

namespace {

void ShowJobSKeepCalcCksHelp() {
  JobHelpHeader(true, {"Compute the checksum of kept-secret shares, for their custodians to",
                       "compare. Opens no session."});
  ScreenOutput("     --parts      The shares, comma-separated\r\n");
  ScreenOutput("     --partsform  [OPTIONAL] Format of each share. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
  JobHelpExamples("skeep-calc-cks", {"--parts share.1,share.2"});
}

}  // namespace

unsigned int JobSKeepCalcCksThread(void *p) {
  auto *job = static_cast<JOB_SKEEP_CALC_CKS_INFO *>(p);
  int rc = 0;
  for (size_t i = 0; i < job->pParts->size() && rc == 0; ++i) {
    const Bytes &share = (*job->pParts)[i];
    uint32_t cks = 0;
    rc = CheckJobCall("QSKeepCalcShareCks",
                      QSKeepCalcShareCks(share.data(), static_cast<uint32_t>(share.size()), &cks));
    if (rc == 0) {
      ScreenOutput("Part %u: %04X-%04X\r\n", static_cast<unsigned>(i + 1),
                   static_cast<unsigned>(cks >> 16), static_cast<unsigned>(cks & 0xFFFF));
    }
  }
  PublishJobError(&job->ti, rc);
  return 1;
}

int JobSKeepCalcCks(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SKEEP_CALC_CKS_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, true);
  std::vector<Bytes> parts;
  DataInform inform = kFile;
  job.pParts = &parts;
  const bool ok = LoadDataInform(pTestParam, nParameters, "--partsform", &inform) &&
                  ReadParts(GetParameterStr(pTestParam, nParameters, "--parts"), inform, &parts);
  return StartJob(&JobSKeepCalcCksThread, &job.ti, sizeof job, true, ok, &ShowJobSKeepCalcCksHelp);
}
