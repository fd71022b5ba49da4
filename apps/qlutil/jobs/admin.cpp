// HSM jobs: "info", "backup", "probe", "set-date-time", "push-upack".

#include <cstring>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

#include "harness/harness.h"
#include "job.h"
#include "section_table.h"

typedef struct _JOB_ADMIN_INFO {
  THREAD_INFO ti;
  const char *pszFile;  // backup: -file
  const char *pszPin;   // backup: -pin
  int32_t bHasProbeOp;  // probe: -op given
  uint8_t bProbeOp;     // probe: QL_RNM_*
  uint64_t qwTime;      // set-date-time: seconds since 1970
} JOB_ADMIN_INFO;

namespace {

// ---------------------------------------------------------------------------------------------
// info

void ShowJobInfoHelp() {
  JobHelpHeader(false, {"Show the HSM's information, the session's and the HSM's figures, and",
                        "the addresses it accepts."});
  JobHelpExamples("info", {""});
}

// The value of a figure the user may not be allowed to read: the number, or the refusal's text.
std::string FigureOrReason(int rc, const std::string &value) {
  if (rc == 0) return value;
  return std::string(QGetReturnCodeString(rc, QL_RC_STR_DESCRIPTION)) + " (" + std::to_string(rc) +
         ")";
}

int CountName(void *param, const char *name, int last) {
  if (!last && name != nullptr) ++*static_cast<unsigned long *>(param);
  return 0;
}

int AddName(void *param, const char *name, int last) {
  if (!last && name != nullptr) static_cast<std::vector<std::string> *>(param)->push_back(name);
  return 0;
}

int InfoWork(HSESSIONCTX session) {
  int rc = 0;
  QL_HSM_INFO info{};
  rc = QGetHsmInfo(session, &info);
  if (rc != 0) {
    PrintJobError("QGetHsmInfo", rc);
    return rc;
  }
  SectionTable hsm("HSM", 16);
  hsm.AddRow("Model", "%s", info.szModel);
  hsm.AddRow("Firmware", "%s", info.szFirmwareVersion);
  hsm.AddRow("Serial number", "%s", info.szSerialNumber);
  hsm.AddRow("Hardware", "%s", info.szHardwareVersion);
  hsm.AddRow("Name", "%s", info.szHsmName);
  hsm.AddRow("Library", "%s", info.szLibraryVersion);
  hsm.Print();
  ScreenOutput("\r\n");

  char user[QL_MAX_USER_NAME + 1] = {};
  uint32_t len = sizeof user - 1;
  const int user_rc = QGetSessionParam(session, QL_SP_USER_NAME, user, &len, 0);
  uint32_t acl = 0;
  len = sizeof acl;
  const int acl_rc = QGetSessionParam(session, QL_SP_ACL, &acl, &len, 0);
  uint32_t tls = 0;
  len = sizeof tls;
  const int tls_rc = QGetSessionParam(session, QL_SP_TLS, &tls, &len, 0);
  char acl_text[16];
  snprintf(acl_text, sizeof acl_text, "0x%08X", acl);
  SectionTable me("Session", 16);
  me.AddRow("User", "%s", FigureOrReason(user_rc, user).c_str());
  me.AddRow("Access mask", "%s", FigureOrReason(acl_rc, acl_text).c_str());
  me.AddRow("TLS", "%s", FigureOrReason(tls_rc, tls ? "yes" : "no").c_str());
  me.Print();
  ScreenOutput("\r\n");

  uint64_t log_size = 0;
  const int log_rc = QGetStatLogSize(session, &log_size);
  unsigned long users = 0;
  const int users_rc = QListUsers(session, &CountName, &users);
  uint32_t sessions = 0, cpu = 0, unit = 0, mem_total = 0, mem_used = 0;
  const int stat_rc =
      QGetStatInfo(session, &sessions, &cpu, &unit, &mem_total, &mem_used, nullptr, nullptr);
  SectionTable figures("Figures", 16);
  figures.AddRow("Log size", "%s",
                 FigureOrReason(log_rc, std::to_string(log_size) + " bytes").c_str());
  figures.AddRow("Users", "%s", FigureOrReason(users_rc, std::to_string(users)).c_str());
  figures.AddRow("Open sessions", "%s", FigureOrReason(stat_rc, std::to_string(sessions)).c_str());
  figures.AddRow("CPU", "%s", FigureOrReason(stat_rc, std::to_string(cpu) + " %").c_str());
  figures.AddRow(
      "Memory", "%s",
      FigureOrReason(stat_rc, std::to_string(mem_used) + " / " + std::to_string(mem_total) + " MiB")
          .c_str());
  uint32_t cache = 0;
  len = sizeof cache;
  const int cache_rc = QAdmOperation(session, QL_ADM_LOG_CACHE, nullptr, 0, &cache, &len, 0);
  figures.AddRow("Log cache", "%s", FigureOrReason(cache_rc, cache ? "on" : "off").c_str());
  figures.Print();
  ScreenOutput("\r\n");

  std::vector<std::string> rules;
  const int rules_rc = QIPFilterOperation(session, QL_IPF_LIST, nullptr, &AddName, &rules);
  std::string listed;
  for (const std::string &rule : rules) listed += (listed.empty() ? "" : ", ") + rule;
  if (listed.empty()) listed = "(none: every address)";
  // "hostname=<name>" and "if.<interface>.ipv4=<address>/<prefix>" (or .ipv6) lines.
  std::string host, addresses;
  uint32_t net_len = 0;
  int net_rc = QGetNetInfo(session, nullptr, &net_len);
  if (net_rc == QL_ERR_BUFFER_TOO_SMALL) {
    std::string text(net_len, '\0');
    net_rc = QGetNetInfo(session, text.data(), &net_len);
    std::istringstream lines(text.c_str());
    for (std::string line; std::getline(lines, line);) {
      const size_t eq = line.find('=');
      if (eq == std::string::npos) continue;
      const std::string name = line.substr(0, eq), value = line.substr(eq + 1);
      if (name == "hostname") host = value;
      if (name.rfind("if.", 0) == 0 && name.find('.', 3) != std::string::npos)
        addresses +=
            (addresses.empty() ? "" : ", ") + name.substr(3, name.find('.', 3) - 3) + " " + value;
    }
  }
  SectionTable network("Network", 16);
  network.AddRow("Allow-list", "%s", FigureOrReason(rules_rc, listed).c_str());
  network.AddRow("Host", "%s", FigureOrReason(net_rc, host).c_str());
  network.AddRow("Addresses", "%s", FigureOrReason(net_rc, addresses).c_str());
  network.Print();
  ScreenOutput("\r\n");

  // "service:<name>", "openssl:<version>", "sqlite:<version>", "provider:<name> <version>".
  std::vector<std::string> modules;
  const int modules_rc = QListLoadedModules(session, &AddName, &modules);
  std::string services, openssl, sqlite, providers;
  for (const std::string &m : modules) {
    const size_t colon = m.find(':');
    if (colon == std::string::npos) continue;
    const std::string kind = m.substr(0, colon), value = m.substr(colon + 1);
    if (kind == "service") services += (services.empty() ? "" : " ") + value;
    if (kind == "openssl") openssl = value;
    if (kind == "sqlite") sqlite = value;
    if (kind == "provider") providers += (providers.empty() ? "" : ", ") + value;
  }
  SectionTable loaded("Modules", 16);
  loaded.AddRow("Services", "%s", FigureOrReason(modules_rc, services).c_str());
  loaded.AddRow("OpenSSL", "%s", FigureOrReason(modules_rc, openssl).c_str());
  loaded.AddRow("SQLite", "%s", FigureOrReason(modules_rc, sqlite).c_str());
  loaded.AddRow("Providers", "%s", FigureOrReason(modules_rc, providers).c_str());
  loaded.Print();
  return 0;
}

// ---------------------------------------------------------------------------------------------
// backup

void ShowJobBackupHelp() {
  JobHelpHeader(false, {"Write an encrypted backup of the HSM to a local file. qlhsmd restore",
                        "reads it back with the same PIN."});
  ScreenOutput("     -file   Backup file\r\n");
  ScreenOutput("     -pin    PIN that encrypts the backup (at least 8 characters)\r\n");
  JobHelpExamples("backup", {"-file hsm.bkp -pin 1234567890"});
}

int BackupWork(JOB_ADMIN_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  rc = QBackupData(session, job->pszFile, job->pszPin, 0);
  if (rc != 0) {
    PrintJobError("QBackupData", rc);
    return rc;
  }
  ScreenOutput("Backup written to %s.\r\n", job->pszFile);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// probe

void ShowJobProbeHelp() {
  JobHelpHeader(true, {"Ask the HSM for its state (no login needed)."});
  ScreenOutput("     -op     [OPTIONAL] Request option\r\n");
  ShowHelpReplicationMessages();
  JobHelpExamples("probe", {"", "-op rnm_probe"});
}

int ProbeWork(JOB_ADMIN_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  uint32_t state = 0;
  uint32_t len = sizeof state;
  rc = QAdmOperation(session, QL_ADM_PROBE, job->bHasProbeOp ? &job->bProbeOp : nullptr,
                     job->bHasProbeOp ? 1 : 0, &state, &len, 0);
  if (rc != 0) {
    PrintJobError("QAdmOperation", rc);
    return rc;
  }
  if (len != sizeof state) {
    // The HSM answered the probe but sent no state word.
    ScreenOutput("HSM state: answered, no state given\r\n");
    return 0;
  }
  ScreenOutput("HSM state: %u (%s)\r\n", state, state == 1 ? "up" : "not up");
  return 0;
}

// ---------------------------------------------------------------------------------------------
// set-date-time

void ShowJobSetDateTimeHelp() {
  JobHelpHeader(false, {"Set the HSM's date and time (UTC). The HSM keeps it as an offset to",
                        "its machine's clock, which it never changes."});
  ScreenOutput("     -dt     \"now\" (this machine's clock), \"YYYY-MM-DD hh:mm:ss\" or\r\n");
  ScreenOutput("             seconds since 1970-01-01 00:00:00\r\n");
  JobHelpExamples("set-date-time", {"-dt now", "-dt \"2026-01-31 12:00:00\""});
}

// The -dt value as seconds since 1970 (UTC). False when malformed.
bool ParseDateTime(const char *text, uint64_t *seconds) {
  if (text == nullptr || *text == '\0') return false;
  if (strcmp(text, "now") == 0) {
    *seconds = static_cast<uint64_t>(time(nullptr));
    return true;
  }
  if (IsDigitString(text)) {
    char *end = nullptr;
    *seconds = strtoull(text, &end, 10);
    return *end == '\0';
  }
  int y, mo, d, h, mi, s;
  char tail;
  if (sscanf(text, "%4d-%2d-%2d %2d:%2d:%2d%c", &y, &mo, &d, &h, &mi, &s, &tail) != 6) return false;
  if (y < 1970 || mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 60 || h < 0 ||
      mi < 0 || s < 0) {
    return false;
  }
  // Days from the civil date (proleptic Gregorian), without the local time zone of mktime.
  const int yy = y - (mo <= 2);
  const int era = yy / 400;
  const unsigned yoe = static_cast<unsigned>(yy - era * 400);
  const unsigned doy = (153 * (mo + (mo > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  const long long days = static_cast<long long>(era) * 146097 + doe - 719468;
  *seconds = static_cast<uint64_t>(days * 86400 + h * 3600 + mi * 60 + s);
  return true;
}

int SetDateTimeWork(JOB_ADMIN_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  rc = QAdmOperation(session, QL_ADM_SET_DATE_TIME, &job->qwTime, sizeof job->qwTime, nullptr,
                     nullptr, 0);
  if (rc != 0) {
    PrintJobError("QAdmOperation", rc);
    return rc;
  }
  ScreenOutput("HSM date and time set.\r\n");
  return 0;
}

}  // namespace

unsigned int JobInfoThread(void *p) {
  auto *job = static_cast<JOB_ADMIN_INFO *>(p);
  return RunSessionJob(&job->ti, [](HSESSIONCTX session) { return InfoWork(session); });
}

unsigned int JobBackupThread(void *p) {
  auto *job = static_cast<JOB_ADMIN_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return BackupWork(job, session); });
}

unsigned int JobProbeThread(void *p) {
  auto *job = static_cast<JOB_ADMIN_INFO *>(p);
  return RunSessionJob(
      &job->ti, [job](HSESSIONCTX session) { return ProbeWork(job, session); }, kAnonymousSession);
}

unsigned int JobSetDateTimeThread(void *p) {
  auto *job = static_cast<JOB_ADMIN_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return SetDateTimeWork(job, session); });
}

int JobInfo(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_ADMIN_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  return StartJob(&JobInfoThread, &job.ti, sizeof job, false, true, &ShowJobInfoHelp);
}

int JobBackup(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_ADMIN_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszFile = GetParameterStr(pTestParam, nParameters, "-file");
  job.pszPin = GetParameterStr(pTestParam, nParameters, "-pin");
  const bool ok = IsGivenText(job.pszFile) && IsGivenText(job.pszPin);
  return StartJob(&JobBackupThread, &job.ti, sizeof job, false, ok, &ShowJobBackupHelp);
}

int JobProbe(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_ADMIN_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, true);
  bool ok = true;
  if (IsParameterDefined(pTestParam, nParameters, "-op")) {
    const int op = GetParameterAlg(pTestParam, nParameters, "-op");
    const char *word = GetParameterStr(pTestParam, nParameters, "-op");
    // The general table gives these words 1 to 4, as it does to many others: the word decides.
    ok = word != nullptr && strncmp(word, "rnm_", 4) == 0 && op >= QL_RNM_PROBE &&
         op <= QL_RNM_SLP_BYPASS_DEL;
    job.bHasProbeOp = 1;
    job.bProbeOp = static_cast<uint8_t>(op);
  }
  return StartJob(&JobProbeThread, &job.ti, sizeof job, true, ok, &ShowJobProbeHelp);
}

int JobSetDateTime(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_ADMIN_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  const bool ok = ParseDateTime(GetParameterStr(pTestParam, nParameters, "-dt"), &job.qwTime);
  return StartJob(&JobSetDateTimeThread, &job.ti, sizeof job, false, ok, &ShowJobSetDateTimeHelp);
}

// ---------------------------------------------------------------------------------------------
// push-upack

typedef struct _JOB_UPACK_INFO {
  THREAD_INFO ti;
  const Bytes *pPackage;  // -in, read by the front function, which outlives the run
} JOB_UPACK_INFO;

namespace {

void ShowJobPushUpackHelp() {
  JobHelpPage("push-upack",
              {"Apply an update package: a CMS SignedData (DER) made by the key whose",
               "certificate the HSM was given at init (qlhsmd init --upack-trust), holding a",
               "JSON manifest with a version above the last one applied, e.g.",
               "{\"version\": 2, \"limits\": {\"max_sessions\": 512},",
               " \"log_cache\": {\"enabled\": true}, \"ip_allow\": [\"10.0.0.0/8\"]}.",
               "Any other package is refused and changes nothing."},
              {"-in     Package file (DER)"}, {"-in update-2.p7m"});
}

}  // namespace

unsigned int JobPushUpackThread(void *p) {
  auto *job = static_cast<JOB_UPACK_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    const int rc =
        CheckJobCall("QUPackPush", QUPackPush(session, job->pPackage->data(),
                                              static_cast<uint32_t>(job->pPackage->size()), 0));
    if (rc == 0) ScreenOutput("Update package applied.\r\n");
    return rc;
  });
}

int JobPushUpack(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_UPACK_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  const char *in = GetParameterStr(pTestParam, nParameters, "-in");
  Bytes package;
  const bool ok = IsGivenText(in) && ReadLocalFile(in, &package) && !package.empty();
  job.pPackage = &package;
  return StartJob(&JobPushUpackThread, &job.ti, sizeof job, false, ok, &ShowJobPushUpackHelp);
}
