// Payment jobs: "gen-cvv", "export-tr31", "import-tr31", and the EFT daemon's "eftd-authorize",
// "eftd-deauthorize", "eftd-info", "eftd-reset", "eftd-set-conf".

#include <cstring>
#include <ctime>
#include <string>
#include <utility>

#include "harness/harness.h"
#include "job.h"
#include "section_table.h"

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

// ---------------------------------------------------------------------------------------------
// export-tr31, import-tr31

typedef struct _JOB_EXPORT_TR31_INFO {
  THREAD_INFO ti;
  const char *pszKbpkName;  // --kbpk
  const char *pszKeyName;   // -kn
  int Usage;                // --tr31-usage (0: auto)
  int Mode;                 // --tr31-mode (0: auto)
  int Exportability;        // --tr31-exp (0: auto)
  const char *pszOutFile;   // --out (absent: the console)
} JOB_EXPORT_TR31_INFO;

typedef struct _JOB_IMPORT_TR31_INFO {
  THREAD_INFO ti;
  const char *pszKbpkName;  // --kbpk
  const char *pszKeyName;   // -kn: the new key's name
  const char *pszIn;        // -in: a file name or the block's text
  TextInform eInform;       // -inform
  uint32_t dwFlags;         // -tmp 1: QL_KEY_TEMPORARY
} JOB_IMPORT_TR31_INFO;

namespace {

// A key block attribute switch: 0 (auto) when absent, -1 when its word is unknown.
int Tr31Option(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
               int (*getter)(TEST_PARAMETER *, int, const char *)) {
  return IsParameterDefined(pTestParam, nParameters, pszName)
             ? getter(pTestParam, nParameters, pszName)
             : 0;
}

void ShowJobExportTR31Help() {
  JobHelpHeader(false, {"Export a key of the HSM in a TR-31 key block under a key block",
                        "protection key (triple DES: version B; AES: version D)."});
  ScreenOutput("     --kbpk  Key block protection key name\r\n");
  ScreenOutput("     -kn     Name of the key to export (it must be exportable)\r\n");
  ScreenOutput("     --tr31-usage [OPTIONAL] Key usage. auto (default):\r\n");
  ShowHelpExportTR31Usage();
  ScreenOutput("     --tr31-mode [OPTIONAL] Mode of use. auto (default):\r\n");
  ShowHelpExportTR31Mode();
  ScreenOutput("     --tr31-exp  [OPTIONAL] Exportability. auto (default):\r\n");
  ShowHelpExportTR31Exp();
  ScreenOutput("     --out   [OPTIONAL] Output file. If not defined the key block is printed.\r\n");
  JobHelpExamples("export-tr31", {"--kbpk mykbpk -kn mykey --tr31-usage p0 --tr31-mode e",
                                  "--kbpk mykbpk -kn mykey --out mykey.tr31"});
}

void ShowJobImportTR31Help() {
  JobHelpHeader(false, {"Import the key of a TR-31 key block (versions B and D) under a key",
                        "block protection key of the HSM."});
  ScreenOutput("     --kbpk  Key block protection key name\r\n");
  ScreenOutput("     -kn     Name of the imported key\r\n");
  ScreenOutput("     -in     The key block: a file name, or its text with -inform text\r\n");
  ScreenOutput("     -inform [OPTIONAL] Form of -in. Default \"file\".\r\n");
  ShowHelpDataTextInformParameters();
  ShowHelpExportTR31KeyAttributesParameters();
  JobHelpExamples("import-tr31", {"--kbpk mykbpk -kn mykey -in mykey.tr31",
                                  "--kbpk mykbpk -kn mykey -inform text -in D0112P0AE00E0000..."});
}

int ExportTR31Work(JOB_EXPORT_TR31_INFO *job, HSESSIONCTX session) {
  const auto usage = static_cast<uint32_t>(job->Usage);
  const auto mode = static_cast<uint32_t>(job->Mode);
  const auto exportability = static_cast<uint32_t>(job->Exportability);
  uint32_t len = 0;
  int rc = QEFTExportTR31(session, job->pszKbpkName, job->pszKeyName, usage, mode, exportability,
                          nullptr, &len, 0);
  if (rc != QL_ERR_BUFFER_TOO_SMALL) return CheckJobCall("QEFTExportTR31", rc == 0 ? -1 : rc);
  std::string block(len, '\0');
  rc = QEFTExportTR31(session, job->pszKbpkName, job->pszKeyName, usage, mode, exportability,
                      block.data(), &len, 0);
  if (rc != 0) return CheckJobCall("QEFTExportTR31", rc);
  block.resize(std::strlen(block.c_str()));
  if (job->pszOutFile == nullptr) {
    ScreenOutput("%s\r\n", block.c_str());
    return 0;
  }
  return WriteLocalFile(job->pszOutFile, reinterpret_cast<const unsigned char *>(block.data()),
                        block.size())
             ? 0
             : QL_ERR_FILE_IO;
}

int ImportTR31Work(JOB_IMPORT_TR31_INFO *job, HSESSIONCTX session, const std::string &block) {
  const int rc = QEFTImportTR31(session, job->pszKbpkName, job->pszKeyName, block.c_str(),
                                static_cast<uint32_t>(block.size()), job->dwFlags);
  if (rc != 0) return CheckJobCall("QEFTImportTR31", rc);
  ScreenOutput("Key %s imported.\r\n", job->pszKeyName);
  return 0;
}

}  // namespace

unsigned int JobExportTR31Thread(void *p) {
  auto *job = static_cast<JOB_EXPORT_TR31_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return ExportTR31Work(job, session); });
}

unsigned int JobImportTR31Thread(void *p) {
  auto *job = static_cast<JOB_IMPORT_TR31_INFO *>(p);
  std::string block;
  if (job->eInform == kTextString) {
    block = job->pszIn;
  } else {
    Bytes data;
    if (!ReadLocalFile(job->pszIn, &data)) {
      ScreenOutput("Error opening file %s\r\n", job->pszIn);
      PublishJobError(&job->ti, QL_ERR_FILE_IO);
      return 1;
    }
    block.assign(data.begin(), data.end());
  }
  // A file written by an editor may end with a line break.
  while (!block.empty() && (block.back() == '\n' || block.back() == '\r')) block.pop_back();
  return RunSessionJob(
      &job->ti, [job, &block](HSESSIONCTX session) { return ImportTR31Work(job, session, block); });
}

int JobExportTR31(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_EXPORT_TR31_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKbpkName = GetParameterStr(pTestParam, nParameters, "--kbpk");
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.Usage = Tr31Option(pTestParam, nParameters, "--tr31-usage", GetParameterTR31Usage);
  job.Mode = Tr31Option(pTestParam, nParameters, "--tr31-mode", GetParameterTR31Mode);
  job.Exportability = Tr31Option(pTestParam, nParameters, "--tr31-exp", GetParameterTR31Exp);
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const bool ok = IsGivenText(job.pszKbpkName) && IsGivenText(job.pszKeyName) && job.Usage != -1 &&
                  job.Mode != -1 && job.Exportability != -1 &&
                  IsOptionalTextGood(pTestParam, nParameters, "--out");
  return StartJob(&JobExportTR31Thread, &job.ti, sizeof job, false, ok, &ShowJobExportTR31Help);
}

int JobImportTR31(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_IMPORT_TR31_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKbpkName = GetParameterStr(pTestParam, nParameters, "--kbpk");
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszIn = GetParameterStr(pTestParam, nParameters, "-in");
  job.eInform = GetParameterTextInform(pTestParam, nParameters, "-inform", kTextFile);
  const char *inform = GetParameterStr(pTestParam, nParameters, "-inform");
  const int tmp = GetParameterInt(pTestParam, nParameters, "-tmp");
  job.dwFlags = tmp == 1 ? QL_KEY_TEMPORARY : 0;
  const bool ok =
      IsGivenText(job.pszKbpkName) && IsGivenText(job.pszKeyName) && IsGivenText(job.pszIn) &&
      (inform == nullptr || strcmp(inform, "file") == 0 || strcmp(inform, "text") == 0) &&
      (tmp == -1 || tmp == 0 || tmp == 1);
  return StartJob(&JobImportTR31Thread, &job.ti, sizeof job, false, ok, &ShowJobImportTR31Help);
}

// ---------------------------------------------------------------------------------------------
// eftd-authorize, eftd-deauthorize, eftd-info, eftd-reset, eftd-set-conf

typedef struct _JOB_EFTD_INFO {
  THREAD_INFO ti;
  uint32_t dwOperation;  // QL_ADM_EFTD_*
  QL_EFTD_AUTH stAuth;   // authorize, deauthorize
  // set-conf: the options given (null: unchanged)
  const char *pszDecTable;  // --dectab
  int nPinMin;              // --pin-min (-1: unchanged)
  int nPinMax;              // --pin-max
  uint32_t dwFormats;       // --formats (0: unchanged)
  int nAuthRequired;        // --auth-req (-1: unchanged)
} JOB_EFTD_INFO;

namespace {

// An activity word: clear-pin, pin-format1, all; "none" only where allowed. -1 otherwise.
int EftdActivity(const char *word, bool none_allowed) {
  if (word == nullptr) return -1;
  if (std::strcmp(word, "clear-pin") == 0) return QL_EFTD_ACT_CLEAR_PIN;
  if (std::strcmp(word, "pin-format1") == 0) return QL_EFTD_ACT_PIN_FORMAT1;
  if (std::strcmp(word, "all") == 0) return QL_EFTD_ACT_ALL;
  if (none_allowed && std::strcmp(word, "none") == 0) return 0;
  return -1;
}

// "0,3,4": the format bits, 0 when a part is not one of 0, 1, 3, 4.
uint32_t EftdFormats(const char *text) {
  if (!IsGivenText(text)) return 0;
  uint32_t bits = 0;
  std::string part;
  const std::string all = std::string(text) + ",";
  for (char c : all) {
    if (c != ',') {
      part += c;
      continue;
    }
    if (part != "0" && part != "1" && part != "3" && part != "4") return 0;
    bits |= QL_EFTD_FORMAT(part[0] - '0');
    part.clear();
  }
  return bits;
}

std::string ActivityWords(uint32_t activities) {
  std::string out;
  if (activities & QL_EFTD_ACT_CLEAR_PIN) out = "clear-pin";
  if (activities & QL_EFTD_ACT_PIN_FORMAT1) out += out.empty() ? "pin-format1" : ",pin-format1";
  return out.empty() ? "none" : out;
}

std::string FormatList(uint32_t formats) {
  std::string out;
  for (int f : {0, 1, 3, 4}) {
    if (!(formats & QL_EFTD_FORMAT(f))) continue;
    if (!out.empty()) out += ",";
    out += static_cast<char>('0' + f);
  }
  return out;
}

void ShowJobEftdAuthorizeHelp() {
  JobHelpHeader(false, {"Authorize activities of the EFT daemon for a while."});
  ScreenOutput("     --act   Activities: clear-pin, pin-format1 or all\r\n");
  ScreenOutput("     --min   [OPTIONAL] Minutes (1 to 720). Default 60.\r\n");
  JobHelpExamples("eftd-authorize", {"--act pin-format1 --min 30"});
}

void ShowJobEftdDeauthorizeHelp() {
  JobHelpHeader(false, {"End authorizations of the EFT daemon."});
  ScreenOutput("     --act   [OPTIONAL] Activities: clear-pin, pin-format1 or all (default)\r\n");
  JobHelpExamples("eftd-deauthorize", {"--act all"});
}

void ShowJobEftdInfoHelp() {
  JobHelpHeader(
      false, {"Show the configuration, the authorizations and the counters of the", "EFT daemon."});
  JobHelpExamples("eftd-info", {""});
}

void ShowJobEftdResetHelp() {
  JobHelpHeader(false, {"End every authorization of the EFT daemon and zero its counters.",
                        "The configuration stays."});
  JobHelpExamples("eftd-reset", {""});
}

void ShowJobEftdSetConfHelp() {
  JobHelpHeader(false, {"Change the configuration of the EFT daemon (at least one option)."});
  ScreenOutput("     --dectab   [OPTIONAL] Decimalization table (16 digits)\r\n");
  ScreenOutput("     --pin-min  [OPTIONAL] Shortest PIN (4 to 12)\r\n");
  ScreenOutput("     --pin-max  [OPTIONAL] Longest PIN (4 to 12)\r\n");
  ScreenOutput("     --formats  [OPTIONAL] Enabled PIN block formats, such as \"0,3,4\"\r\n");
  ScreenOutput("     --auth-req [OPTIONAL] Activities that need an authorization:\r\n");
  ScreenOutput("                clear-pin, pin-format1, all or none\r\n");
  JobHelpExamples("eftd-set-conf",
                  {"--dectab 0123456789012345 --formats 0,1,3,4", "--auth-req all"});
}

const char *const kEftdOperationNames[QL_EFTD_OP_COUNT] = {
    "generate-cvv",        "verify-cvv",     "generate-pin", "verify-pin-block",
    "pin-block-translate", "generate-dukpt", "export-tr31",  "import-tr31"};

int EftdInfoWork(HSESSIONCTX session) {
  QL_EFTD_INFO info{};
  uint32_t len = sizeof info;
  const int rc = QAdmOperation(session, QL_ADM_EFTD_INFO, nullptr, 0, &info, &len, 0);
  if (rc != 0) return CheckJobCall("QAdmOperation", rc);
  SectionTable conf("Configuration", 16);
  conf.AddRow("Decimalization", "%s", info.stConf.szDecTable);
  conf.AddRow("PIN length", "%u to %u", info.stConf.dwPinMin, info.stConf.dwPinMax);
  conf.AddRow("Formats", "%s", FormatList(info.stConf.dwFormats).c_str());
  conf.AddRow("Needs auth", "%s", ActivityWords(info.stConf.dwAuthRequired).c_str());
  conf.Print();
  ScreenOutput("\r\n");
  SectionTable auth("Authorization", 16);
  auth.AddRow("Activities", "%s", ActivityWords(info.dwAuthActivities).c_str());
  if (info.dwAuthActivities != 0) {
    char until[32] = "-";
    const time_t t = static_cast<time_t>(info.qwAuthUntil);
    struct tm utc;
#ifdef _WIN32
    gmtime_s(&utc, &t);
#else
    gmtime_r(&t, &utc);
#endif
    std::strftime(until, sizeof until, "%Y-%m-%d %H:%M:%S UTC", &utc);
    auth.AddRow("By", "%s", info.szAuthUser);
    auth.AddRow("Until", "%s", until);
  }
  auth.Print();
  ScreenOutput("\r\n");
  SectionTable counters("Counters", 20);
  for (int i = 0; i < QL_EFTD_OP_COUNT; ++i) {
    counters.AddRow(kEftdOperationNames[i], "%llu ok, %llu failed",
                    static_cast<unsigned long long>(info.astCounters[i].qwSuccesses),
                    static_cast<unsigned long long>(info.astCounters[i].qwFailures));
  }
  counters.Print();
  return 0;
}

// Reads the configuration, changes what the options give, writes it back.
int EftdSetConfWork(const JOB_EFTD_INFO *job, HSESSIONCTX session) {
  QL_EFTD_INFO info{};
  uint32_t len = sizeof info;
  int rc = QAdmOperation(session, QL_ADM_EFTD_INFO, nullptr, 0, &info, &len, 0);
  if (rc != 0) return CheckJobCall("QAdmOperation", rc);
  QL_EFTD_CONF conf = info.stConf;
  if (job->pszDecTable != nullptr) {
    std::memset(conf.szDecTable, 0, sizeof conf.szDecTable);
    std::strncpy(conf.szDecTable, job->pszDecTable, sizeof conf.szDecTable - 1);
  }
  if (job->nPinMin != -1) conf.dwPinMin = static_cast<uint32_t>(job->nPinMin);
  if (job->nPinMax != -1) conf.dwPinMax = static_cast<uint32_t>(job->nPinMax);
  if (job->dwFormats != 0) conf.dwFormats = job->dwFormats;
  if (job->nAuthRequired != -1) conf.dwAuthRequired = static_cast<uint32_t>(job->nAuthRequired);
  rc = QAdmOperation(session, QL_ADM_EFTD_SET_CONF, &conf, sizeof conf, nullptr, nullptr, 0);
  if (rc != 0) return CheckJobCall("QAdmOperation", rc);
  ScreenOutput("EFT daemon configuration written.\r\n");
  return 0;
}

int EftdWork(const JOB_EFTD_INFO *job, HSESSIONCTX session) {
  switch (job->dwOperation) {
    case QL_ADM_EFTD_INFO:
      return EftdInfoWork(session);
    case QL_ADM_EFTD_SET_CONF:
      return EftdSetConfWork(job, session);
    default: {
      const bool with_auth = job->dwOperation != QL_ADM_EFTD_RESET;
      const int rc = QAdmOperation(session, job->dwOperation, with_auth ? &job->stAuth : nullptr,
                                   with_auth ? sizeof job->stAuth : 0, nullptr, nullptr, 0);
      return CheckJobCall("QAdmOperation", rc);
    }
  }
}

int StartEftdJob(JOB_EFTD_INFO *job, pfn_TestThread routine, bool ok, void (*help)()) {
  return StartJob(routine, &job->ti, sizeof *job, false, ok, help);
}

}  // namespace

// The shared routine of eftd-authorize and eftd-deauthorize.
unsigned int JobEftdAuthorization(void *p) {
  auto *job = static_cast<JOB_EFTD_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return EftdWork(job, session); });
}

unsigned int JobEftdThread(void *p) {
  auto *job = static_cast<JOB_EFTD_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return EftdWork(job, session); });
}

int JobEftdAuthorize(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_EFTD_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.dwOperation = QL_ADM_EFTD_AUTHORIZE;
  const int act = EftdActivity(GetParameterStr(pTestParam, nParameters, "--act"), false);
  uint32_t minutes = 60;
  const bool minutes_ok = !IsParameterDefined(pTestParam, nParameters, "--min") ||
                          GetParameterDword(pTestParam, nParameters, "--min", &minutes);
  job.stAuth.dwActivities = act > 0 ? static_cast<uint32_t>(act) : 0;
  job.stAuth.dwMinutes = minutes;
  const bool ok = act > 0 && minutes_ok && minutes >= 1 && minutes <= QL_EFTD_MAX_MINUTES;
  return StartEftdJob(&job, &JobEftdAuthorization, ok, &ShowJobEftdAuthorizeHelp);
}

int JobEftdDeauthorize(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_EFTD_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.dwOperation = QL_ADM_EFTD_DEAUTHORIZE;
  const int act = IsParameterDefined(pTestParam, nParameters, "--act")
                      ? EftdActivity(GetParameterStr(pTestParam, nParameters, "--act"), false)
                      : QL_EFTD_ACT_ALL;
  job.stAuth.dwActivities = act > 0 ? static_cast<uint32_t>(act) : 0;
  return StartEftdJob(&job, &JobEftdAuthorization, act > 0, &ShowJobEftdDeauthorizeHelp);
}

int JobEftdInfo(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_EFTD_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.dwOperation = QL_ADM_EFTD_INFO;
  return StartEftdJob(&job, &JobEftdThread, true, &ShowJobEftdInfoHelp);
}

int JobEftdReset(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_EFTD_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.dwOperation = QL_ADM_EFTD_RESET;
  return StartEftdJob(&job, &JobEftdThread, true, &ShowJobEftdResetHelp);
}

int JobEftdSetConf(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_EFTD_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.dwOperation = QL_ADM_EFTD_SET_CONF;
  bool ok = true;
  int given = 0;
  if (IsParameterDefined(pTestParam, nParameters, "--dectab")) {
    job.pszDecTable = GetParameterStr(pTestParam, nParameters, "--dectab");
    ok = ok && job.pszDecTable != nullptr && std::strlen(job.pszDecTable) == 16 &&
         IsDigitString(job.pszDecTable);
    ++given;
  }
  job.nPinMin = job.nPinMax = job.nAuthRequired = -1;
  for (auto [name, value] : {std::pair{"--pin-min", &job.nPinMin}, {"--pin-max", &job.nPinMax}}) {
    if (!IsParameterDefined(pTestParam, nParameters, name)) continue;
    uint32_t n = 0;
    ok = ok && GetParameterDword(pTestParam, nParameters, name, &n) && n >= 4 && n <= 12;
    *value = static_cast<int>(n);
    ++given;
  }
  if (IsParameterDefined(pTestParam, nParameters, "--formats")) {
    job.dwFormats = EftdFormats(GetParameterStr(pTestParam, nParameters, "--formats"));
    ok = ok && job.dwFormats != 0;
    ++given;
  }
  if (IsParameterDefined(pTestParam, nParameters, "--auth-req")) {
    job.nAuthRequired = EftdActivity(GetParameterStr(pTestParam, nParameters, "--auth-req"), true);
    ok = ok && job.nAuthRequired != -1;
    ++given;
  }
  return StartEftdJob(&job, &JobEftdThread, ok && given > 0, &ShowJobEftdSetConfHelp);
}
