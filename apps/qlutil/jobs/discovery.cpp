// "find-hsm": finds the HSMs on the local network (QFindHSM, no session) and prints one line per
// HSM that answered, as plain lines or CSV, optionally only those of one product family.

#include <cstdio>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "harness/harness.h"
#include "job.h"
#include "option_usage.h"

namespace {

constexpr int kOutLine = 1;
constexpr int kOutCsv = 2;
// The family words of the --filter switch: "any", then the families in the order of their
// numbers (value - kFamilyBase is the family's number; 0 is any).
constexpr int kFamilyBase = 0x100;
const char *const kFamilyWords[] = {"any", "soft", "net", "pcie", "usb", "cloud", "lab"};
constexpr uint32_t kDefaultTimeoutMs = 2000;

}  // namespace

typedef struct _JOB_FIND_HSM_INFO {
  THREAD_INFO ti;
  uint32_t dwServiceType;  // --type
  const char *pszFamily;   // --filter; null: any
  int nOutForm;            // --outform
  uint32_t dwTimeoutMs;    // --timeout
} JOB_FIND_HSM_INFO;

unsigned int JobFindHSMThread(void *p);

namespace {

void ShowJobFindHSMHelp() {
  JobHelpHeader(true, {"Find the HSMs on the local network: asks every network the host is on",
                       "(or $QLAPI_DISCOVERY_ADDR, HOST:PORT) and prints one line per HSM that",
                       "answered: address, TLS port, name, application port, family, version",
                       "and the SHA-256 fingerprint of its TLS certificate (\"-\" for what the",
                       "service type does not ask for). Opens no session."});
  ScreenOutput("     --type       Service type\r\n");
  ShowHelpFindHSMServiceType();
  ScreenOutput(
      "     --filter     [OPTIONAL] Only HSMs of this product family. Default \"any\".\r\n");
  ShowHelpFindHSMFilter();
  ScreenOutput("     --outform    [OPTIONAL] Output format. Default \"line\".\r\n");
  ShowHelpFindHSMOutFormat();
  ScreenOutput("     --timeout    [OPTIONAL] Milliseconds to wait for answers, 1 to 60000.\r\n");
  ScreenOutput("                  Default 2000.\r\n");
  JobHelpExamples("find-hsm", {"--type s_all", "--type ip --filter soft --outform csv"});
}

struct Found {
  const JOB_FIND_HSM_INFO *job;
  unsigned count = 0;
};

std::vector<std::string> Fields(const char *line) {
  std::vector<std::string> out;
  std::istringstream in(line);
  for (std::string f; in >> f;) out.push_back(f);
  return out;
}

int OnHsm(void *param, const char *line, int last) {
  auto *found = static_cast<Found *>(param);
  if (last) return 0;
  const std::vector<std::string> f = Fields(line);
  // address port name app_port family version fingerprint
  if (f.size() != 7) return 0;
  if (found->job->pszFamily != nullptr && f[4] != found->job->pszFamily) return 0;
  if (found->job->nOutForm == kOutCsv) {
    if (found->count == 0) ScreenOutput("address,tls_port,name,app_port,family,version,sha256\r\n");
    std::string row;
    for (const std::string &field : f) row += (row.empty() ? "" : ",") + field;
    ScreenOutput("%s\r\n", row.c_str());
  } else {
    ScreenOutput("%s\r\n", line);
  }
  ++found->count;
  return 0;
}

}  // namespace

unsigned int JobFindHSMThread(void *p) {
  auto *job = static_cast<JOB_FIND_HSM_INFO *>(p);
  Found found{job};
  int rc = CheckJobCall("QFindHSM", QFindHSM(job->dwServiceType, job->dwTimeoutMs, &OnHsm, &found));
  if (rc == 0 && found.count == 0)
    ScreenOutput("No HSM answered within %u ms.\r\n", static_cast<unsigned>(job->dwTimeoutMs));
  else if (rc == 0 && job->nOutForm == kOutLine)
    ScreenOutput("%u HSM(s) found.\r\n", found.count);
  PublishJobError(&job->ti, rc);
  return 1;
}

int JobFindHSM(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_FIND_HSM_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, true);
  // One word table serves the three switches: a word of another group whose number is in the
  // switch's range is taken as that number (--outform ip is line); out of range is refused.
  const int type = GetParameterFindHSM(pTestParam, nParameters, "--type");
  bool ok = type >= QL_FIND_HSM_IP && type <= QL_FIND_HSM_ALL;
  job.dwServiceType = static_cast<uint32_t>(type);

  job.nOutForm = kOutLine;
  if (IsParameterDefined(pTestParam, nParameters, "--outform")) {
    job.nOutForm = GetParameterFindHSM(pTestParam, nParameters, "--outform");
    ok = ok && (job.nOutForm == kOutLine || job.nOutForm == kOutCsv);
  }
  if (IsParameterDefined(pTestParam, nParameters, "--filter")) {
    const int family = GetParameterFindHSM(pTestParam, nParameters, "--filter") - kFamilyBase;
    const int words = static_cast<int>(std::size(kFamilyWords));
    ok = ok && family >= 0 && family < words;
    if (ok && family > 0) job.pszFamily = kFamilyWords[family];
  }
  job.dwTimeoutMs = kDefaultTimeoutMs;
  if (IsParameterDefined(pTestParam, nParameters, "--timeout"))
    ok = ok && GetJobNumber(pTestParam, nParameters, "--timeout", &job.dwTimeoutMs) &&
         job.dwTimeoutMs >= 1 && job.dwTimeoutMs <= 60000;
  // No HSM address is needed: the job asks the network, not one HSM.
  if (ok && !CheckUnreadOptions())
    return ExecuteTestThreads(&JobFindHSMThread, &job.ti, sizeof job);
  ShowJobFindHSMHelp();
  return kResultUsage;
}
