// Secret-sharing jobs: "mofn-split", "mofn-recover", the kept-secret jobs ("skeep-*") and
// "skeep-calc-cks". The HSM splits and recovers through the facade; parts go to one file each
// (--out is a prefix) or are printed in hex. A share's checksum is computed here, without a
// session.

#include <cstdio>
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

// ---------------------------------------------------------------------------------------------
// Kept secrets: skeep-new and skeep-remove (one routine), skeep-split, skeep-probe, skeep-match
// and skeep-recover (one routine). The secret never leaves the HSM; custodians hold its shares.

namespace {

void ShowKeptSecretOptions() {
  ScreenOutput("     --id         Id of the kept secret (an object name)\r\n");
  ScreenOutput("     --level      Security level: 1, 2 or 3 (16, 24 or 32 bytes)\r\n");
  ScreenOutput("     --auth       Share type: 1 plain shares, 2 shares bound to this HSM\r\n");
}

// --id, --level and --auth; false when one is missing or out of range.
bool LoadKeptSecret(TEST_PARAMETER *pTestParam, int nParameters, const char **id, uint32_t *level,
                    uint32_t *auth) {
  *id = GetParameterStr(pTestParam, nParameters, "--id");
  return IsGivenText(*id) && GetJobNumber(pTestParam, nParameters, "--level", level) &&
         *level >= 1 && *level <= 3 && GetJobNumber(pTestParam, nParameters, "--auth", auth) &&
         (*auth == 1 || *auth == 2);
}

std::string ChecksumText(uint32_t cks) {
  char text[16];
  snprintf(text, sizeof text, "%04X-%04X", static_cast<unsigned>(cks >> 16),
           static_cast<unsigned>(cks & 0xFFFF));
  return text;
}

}  // namespace

typedef struct _JOB_SKEEP_SECRET_INFO {
  THREAD_INFO ti;
  const char *pszId;  // --id
  uint32_t dwLevel;   // --level
  uint32_t dwAuth;    // --auth
  int bRemove;        // skeep-remove
} JOB_SKEEP_SECRET_INFO;

unsigned int JobSKeepSecretThread(void *p);

namespace {

void ShowJobSKeepNewHelp() {
  JobHelpHeader(false, {"Create a secret that the HSM draws and keeps under an id. It never",
                        "leaves the HSM in the clear; skeep-split gives its shares."});
  ShowKeptSecretOptions();
  JobHelpExamples("skeep-new", {"--id vault1 --level 3 --auth 1"});
}

void ShowJobSKeepRemoveHelp() {
  JobHelpHeader(false, {"Remove a kept secret. Its level and share type must be the ones it",
                        "was created with."});
  ShowKeptSecretOptions();
  JobHelpExamples("skeep-remove", {"--id vault1 --level 3 --auth 1"});
}

int KeptSecretJob(TEST_PARAMETER *pTestParam, int nParameters, bool remove) {
  JOB_SKEEP_SECRET_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.bRemove = remove;
  const bool ok = LoadKeptSecret(pTestParam, nParameters, &job.pszId, &job.dwLevel, &job.dwAuth);
  return StartJob(&JobSKeepSecretThread, &job.ti, sizeof job, false, ok,
                  remove ? &ShowJobSKeepRemoveHelp : &ShowJobSKeepNewHelp);
}

}  // namespace

unsigned int JobSKeepSecretThread(void *p) {
  auto *job = static_cast<JOB_SKEEP_SECRET_INFO *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    if (job->bRemove) {
      const int rc = CheckJobCall("SKeepRemoveSecret",
                                  client.SKeepRemoveSecret(job->pszId, job->dwLevel, job->dwAuth));
      if (rc == 0) ScreenOutput("Secret %s removed.\r\n", job->pszId);
      return rc;
    }
    const int rc = CheckJobCall("SKeepNewSecret",
                                client.SKeepNewSecret(job->pszId, job->dwLevel, job->dwAuth));
    if (rc == 0) ScreenOutput("Secret %s created.\r\n", job->pszId);
    return rc;
  });
}

int JobSKeepNew(TEST_PARAMETER *pTestParam, int nParameters) {
  return KeptSecretJob(pTestParam, nParameters, false);
}

int JobSKeepRemove(TEST_PARAMETER *pTestParam, int nParameters) {
  return KeptSecretJob(pTestParam, nParameters, true);
}

// skeep-split

typedef struct _JOB_SKEEP_SPLIT_INFO {
  THREAD_INFO ti;
  const char *pszId;       // --id
  uint32_t dwLevel;        // --level
  uint32_t dwAuth;         // --auth
  uint32_t dwM;            // -m
  uint32_t dwN;            // -n
  const char *pszOutFile;  // --out: the prefix of the share files
} JOB_SKEEP_SPLIT_INFO;

unsigned int JobSKeepSplitThread(void *p);

namespace {

void ShowJobSKeepSplitHelp() {
  JobHelpHeader(false, {"Split a kept secret into N shares of which any M put it back, and",
                        "print each share's checksum for its custodian."});
  ShowKeptSecretOptions();
  ScreenOutput("     -m           Shares needed to put the secret back (2 to N)\r\n");
  ScreenOutput("     -n           Shares made (M to 255)\r\n");
  ScreenOutput("     --out        [OPTIONAL] Prefix of the share files: share x goes to\r\n");
  ScreenOutput(
      "                  <prefix>.<x>. If not defined, the shares are printed in hex.\r\n");
  JobHelpExamples("skeep-split", {"--id vault1 --level 3 --auth 1 -m 2 -n 3 --out share"});
}

int SKeepSplitWork(JOB_SKEEP_SPLIT_INFO *job, QueltaClient &client) {
  std::vector<Bytes> shares;
  int rc = CheckJobCall(
      "SKeepSplitSecret",
      client.SKeepSplitSecret(job->pszId, job->dwLevel, job->dwAuth, job->dwM, job->dwN, &shares));
  bool written = true;
  for (size_t i = 0; i < shares.size() && rc == 0; ++i) {
    uint32_t cks = 0;
    rc = CheckJobCall("SKeepCalcShareCks", client.SKeepCalcShareCks(shares[i], &cks));
    if (rc != 0) break;
    if (job->pszOutFile != nullptr) {
      const std::string path = std::string(job->pszOutFile) + "." + std::to_string(i + 1);
      written = WriteLocalFile(path.c_str(), shares[i].data(), shares[i].size(), true) && written;
      ScreenOutput("Part %u: %s\r\n", static_cast<unsigned>(i + 1), ChecksumText(cks).c_str());
    } else {
      ScreenOutput("Part %u: %s %s\r\n", static_cast<unsigned>(i + 1),
                   ToHex(shares[i].data(), shares[i].size()).c_str(), ChecksumText(cks).c_str());
    }
  }
  for (Bytes &share : shares) Wipe(&share);
  if (rc != 0) return rc;
  if (!written) return QL_ERR_FILE_IO;
  if (job->pszOutFile != nullptr) {
    ScreenOutput("%u shares written to %s.1 to %s.%u.\r\n", static_cast<unsigned>(shares.size()),
                 job->pszOutFile, job->pszOutFile, static_cast<unsigned>(shares.size()));
  }
  return 0;
}

}  // namespace

unsigned int JobSKeepSplitThread(void *p) {
  auto *job = static_cast<JOB_SKEEP_SPLIT_INFO *>(p);
  return RunClientJob(&job->ti,
                      [job](QueltaClient &client) { return SKeepSplitWork(job, client); });
}

int JobSKeepSplit(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SKEEP_SPLIT_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const bool ok = LoadKeptSecret(pTestParam, nParameters, &job.pszId, &job.dwLevel, &job.dwAuth) &&
                  GetJobNumber(pTestParam, nParameters, "-m", &job.dwM) &&
                  GetJobNumber(pTestParam, nParameters, "-n", &job.dwN) &&
                  IsOptionalTextGood(pTestParam, nParameters, "--out");
  return StartJob(&JobSKeepSplitThread, &job.ti, sizeof job, false, ok, &ShowJobSKeepSplitHelp);
}

// skeep-probe

typedef struct _JOB_SKEEP_PROBE_INFO {
  THREAD_INFO ti;
  const char *pszId;  // --id
} JOB_SKEEP_PROBE_INFO;

unsigned int JobSKeepProbeThread(void *p);

namespace {

void ShowJobSKeepProbeHelp() {
  JobHelpHeader(false, {"Tell whether a kept secret exists, was split and was put back."});
  ScreenOutput("     --id         Id of the kept secret (an object name)\r\n");
  JobHelpExamples("skeep-probe", {"--id vault1"});
}

}  // namespace

unsigned int JobSKeepProbeThread(void *p) {
  auto *job = static_cast<JOB_SKEEP_PROBE_INFO *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    uint32_t state = 0;
    const int rc = CheckJobCall("SKeepProbeSecret", client.SKeepProbeSecret(job->pszId, &state));
    if (rc != 0) return rc;
    if (state == 0) {
      ScreenOutput("Secret %s: absent\r\n", job->pszId);
    } else {
      ScreenOutput("Secret %s: exists%s%s\r\n", job->pszId, (state & 2) ? ", split" : "",
                   (state & 4) ? ", restored" : "");
    }
    return 0;
  });
}

int JobSKeepProbe(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SKEEP_PROBE_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszId = GetParameterStr(pTestParam, nParameters, "--id");
  return StartJob(&JobSKeepProbeThread, &job.ti, sizeof job, false, IsGivenText(job.pszId),
                  &ShowJobSKeepProbeHelp);
}

// skeep-match and skeep-recover

typedef struct _JOB_SKEEP_SHARES_INFO {
  THREAD_INFO ti;
  const char *pszId;                  // --id
  const std::vector<Bytes> *pShares;  // --parts
  int bRecover;                       // skeep-recover
} JOB_SKEEP_SHARES_INFO;

unsigned int JobSKeepSharesThread(void *p);

namespace {

void ShowSharesOptions() {
  ScreenOutput("     --id         Id of the kept secret (an object name)\r\n");
  ScreenOutput("     --parts      The shares, comma-separated\r\n");
  ScreenOutput("     --partsform  [OPTIONAL] Format of each share. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
}

void ShowJobSKeepMatchHelp() {
  JobHelpHeader(false, {"Check that M or more shares give the kept secret."});
  ShowSharesOptions();
  JobHelpExamples("skeep-match", {"--id vault1 --parts share.1,share.3"});
}

void ShowJobSKeepRecoverHelp() {
  JobHelpHeader(false, {"Put a kept secret back from M or more of its shares. A secret that is",
                        "present must be equal; it is then left as it is."});
  ShowSharesOptions();
  JobHelpExamples("skeep-recover", {"--id vault1 --parts share.1,share.3"});
}

int SharesJob(TEST_PARAMETER *pTestParam, int nParameters, bool recover) {
  JOB_SKEEP_SHARES_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  std::vector<Bytes> shares;
  DataInform inform = kFile;
  job.pszId = GetParameterStr(pTestParam, nParameters, "--id");
  job.pShares = &shares;
  job.bRecover = recover;
  const bool ok = IsGivenText(job.pszId) &&
                  LoadDataInform(pTestParam, nParameters, "--partsform", &inform) &&
                  ReadParts(GetParameterStr(pTestParam, nParameters, "--parts"), inform, &shares);
  const int result = StartJob(&JobSKeepSharesThread, &job.ti, sizeof job, false, ok,
                              recover ? &ShowJobSKeepRecoverHelp : &ShowJobSKeepMatchHelp);
  for (Bytes &share : shares) Wipe(&share);
  return result;
}

}  // namespace

unsigned int JobSKeepSharesThread(void *p) {
  auto *job = static_cast<JOB_SKEEP_SHARES_INFO *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    if (!job->bRecover) {
      const int rc =
          CheckJobCall("SKeepMatchSecret", client.SKeepMatchSecret(job->pszId, *job->pShares));
      if (rc == 0) ScreenOutput("Secret %s matches the shares.\r\n", job->pszId);
      return rc;
    }
    uint32_t outcome = 0;
    const int rc = CheckJobCall("SKeepRecoverSecret",
                                client.SKeepRecoverSecret(job->pszId, *job->pShares, &outcome));
    if (rc == 0) {
      ScreenOutput(
          outcome == 1 ? "Secret %s put back.\r\n" : "Secret %s already present and equal.\r\n",
          job->pszId);
    }
    return rc;
  });
}

int JobSKeepMatch(TEST_PARAMETER *pTestParam, int nParameters) {
  return SharesJob(pTestParam, nParameters, false);
}

int JobSKeepRecover(TEST_PARAMETER *pTestParam, int nParameters) {
  return SharesJob(pTestParam, nParameters, true);
}
