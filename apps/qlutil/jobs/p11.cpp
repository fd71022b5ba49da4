// Jobs of what PKCS#11 modules see of the HSM: p11-info, gen-map, remove-map.
#include <cinttypes>
#include <cstring>
#include <string>
#include <vector>

#include "harness/harness.h"
#include "job.h"
#include "section_table.h"

namespace {

using P11InfoOwner = QLUniquePtr<HP11INFOCTX, &QDestroyHSMP11Info>;

int CollectLine(void *param, const char *line, int last) {
  if (!last && line != nullptr) static_cast<std::vector<std::string> *>(param)->push_back(line);
  return 0;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// p11-info

typedef struct _JOB_P11_INFO_INFO {
  THREAD_INFO ti;
} JOB_P11_INFO_INFO;

namespace {

void ShowJobP11InfoHelp() {
  JobHelpHeader(true, {"Show the HSM as a PKCS#11 token sees it: the library and token",
                       "information, then one line per mechanism (name, smallest and largest",
                       "key, flags)."});
  JobHelpExamples("p11-info", {""});
}

struct P11Field {
  uint32_t id;
  const char *name;
  char kind;  // t text, v version, n number, x flags
};

constexpr P11Field kP11Fields[] = {
    {QL_P11_INFO_CRYPTOKI_VERSION, "Cryptoki version", 'v'},
    {QL_P11_INFO_MANUFACTURER, "Manufacturer", 't'},
    {QL_P11_INFO_FLAGS, "Library flags", 'x'},
    {QL_P11_INFO_LIBRARY_DESCRIPTION, "Library", 't'},
    {QL_P11_INFO_LIBRARY_VERSION, "Library version", 'v'},
    {QL_P11_INFO_TOKEN_LABEL, "Token label", 't'},
    {QL_P11_INFO_TOKEN_MANUFACTURER, "Token manufacturer", 't'},
    {QL_P11_INFO_TOKEN_MODEL, "Token model", 't'},
    {QL_P11_INFO_TOKEN_SERIAL, "Serial number", 't'},
    {QL_P11_INFO_TOKEN_FLAGS, "Token flags", 'x'},
    {QL_P11_INFO_MAX_SESSION_COUNT, "Max sessions", 'n'},
    {QL_P11_INFO_SESSION_COUNT, "Sessions", 'n'},
    {QL_P11_INFO_MAX_RW_SESSION_COUNT, "Max RW sessions", 'n'},
    {QL_P11_INFO_RW_SESSION_COUNT, "RW sessions", 'n'},
    {QL_P11_INFO_MAX_PIN_LEN, "Max PIN length", 'n'},
    {QL_P11_INFO_MIN_PIN_LEN, "Min PIN length", 'n'},
    {QL_P11_INFO_TOTAL_PUBLIC_MEMORY, "Public memory", 'n'},
    {QL_P11_INFO_FREE_PUBLIC_MEMORY, "Free public memory", 'n'},
    {QL_P11_INFO_TOTAL_PRIVATE_MEMORY, "Private memory", 'n'},
    {QL_P11_INFO_FREE_PRIVATE_MEMORY, "Free private memory", 'n'},
    {QL_P11_INFO_HARDWARE_VERSION, "Hardware version", 'v'},
    {QL_P11_INFO_FIRMWARE_VERSION, "Firmware version", 'v'},
    {QL_P11_INFO_UTC_TIME, "UTC time", 't'},
};

int P11InfoWork(HSESSIONCTX session) {
  P11InfoOwner info;
  int rc = CheckJobCall("QGetHSMP11Info", QGetHSMP11Info(session, info.Put(), 0));
  if (rc != 0) return rc;
  SectionTable table("PKCS#11", 20);
  for (const P11Field &f : kP11Fields) {
    unsigned char value[256] = {};
    uint32_t len = sizeof value;
    rc = CheckJobCall("QGetHSMP11InfoAttr", QGetHSMP11InfoAttr(info.Get(), f.id, value, &len));
    if (rc != 0) return rc;
    uint64_t number = 0;
    if ((f.kind == 'n' || f.kind == 'x') && len == sizeof number)
      std::memcpy(&number, value, sizeof number);
    switch (f.kind) {
      case 'v':
        table.AddRow(f.name, "%u.%u", value[0], value[1]);
        break;
      case 'n':
        table.AddRow(f.name, "%" PRIu64, number);
        break;
      case 'x':
        table.AddRow(f.name, "0x%08" PRIX64, number);
        break;
      default:
        table.AddRow(f.name, "%.*s",
                     static_cast<int>(strnlen(reinterpret_cast<char *>(value), len)),
                     reinterpret_cast<char *>(value));
    }
  }
  table.Print();
  std::vector<std::string> mechanisms;
  rc = CheckJobCall("QGetHSMP11TypeInfoList",
                    QGetHSMP11TypeInfoList(session, &CollectLine, &mechanisms));
  if (rc != 0) return rc;
  ScreenOutput("\r\nMechanisms (name, min, max, flags)\r\n");
  for (const std::string &m : mechanisms) ScreenOutput("%s\r\n", m.c_str());
  return 0;
}

}  // namespace

unsigned int JobP11InfoThread(void *p) {
  auto *job = static_cast<JOB_P11_INFO_INFO *>(p);
  return RunSessionJob(&job->ti, &P11InfoWork, kAnonymousSession);
}

int JobP11Info(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_P11_INFO_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, true);
  return StartJob(&JobP11InfoThread, &job.ti, sizeof job, true, true, &ShowJobP11InfoHelp);
}

// ---------------------------------------------------------------------------------------------
// gen-map

typedef struct _JOB_CREATE_MAP_INFO {
  THREAD_INFO ti;
  const char *pszMapName;   // -name
  const char *pszPrivKey;   // -kn
  const char *pszPubKey;    // -pk
  const char *pszCertName;  // -c
} JOB_CREATE_MAP_INFO;

namespace {

void ShowJobCreateMapHelp() {
  JobHelpPage("gen-map",
              {"Create a map object: the private key, public key and certificate a PKCS#11",
               "module shows as one identity. Each name given must exist and be of its kind."},
              {"-name   Map name", "-kn     [OPTIONAL] Private key name",
               "-pk     [OPTIONAL] Public key name (a key pair serves too)",
               "-c      [OPTIONAL] Certificate name", "        At least one of -kn, -pk and -c."},
              {"-name mymap -kn mykey -c mycert"});
}

// Copies an optional name into a map field; false when it does not fit.
bool MapField(const char *name, char *field, size_t size) {
  if (name == nullptr) return true;
  const size_t len = strlen(name);
  if (len >= size) return false;
  std::memcpy(field, name, len + 1);
  return true;
}

}  // namespace

unsigned int JobCreateMapThread(void *p) {
  auto *job = static_cast<JOB_CREATE_MAP_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    QL_PKCS11_MAP map{};
    MapField(job->pszPrivKey, map.szPrivateKey, sizeof map.szPrivateKey);
    MapField(job->pszPubKey, map.szPublicKey, sizeof map.szPublicKey);
    MapField(job->pszCertName, map.szCertificate, sizeof map.szCertificate);
    return CheckJobCall("QGenerateMapObj", QGenerateMapObj(session, job->pszMapName, &map, 0));
  });
}

int JobCreateMap(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_CREATE_MAP_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszMapName = GetParameterStr(pTestParam, nParameters, "-name");
  job.pszPrivKey = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszPubKey = GetParameterStr(pTestParam, nParameters, "-pk");
  job.pszCertName = GetParameterStr(pTestParam, nParameters, "-c");
  QL_PKCS11_MAP probe{};
  bool ok = job.pszMapName != nullptr && *job.pszMapName != '\0' &&
            MapField(job.pszPrivKey, probe.szPrivateKey, sizeof probe.szPrivateKey) &&
            MapField(job.pszPubKey, probe.szPublicKey, sizeof probe.szPublicKey) &&
            MapField(job.pszCertName, probe.szCertificate, sizeof probe.szCertificate);
  ok = ok && (probe.szPrivateKey[0] || probe.szPublicKey[0] || probe.szCertificate[0]);
  return StartJob(&JobCreateMapThread, &job.ti, sizeof job, false, ok, &ShowJobCreateMapHelp);
}

// ---------------------------------------------------------------------------------------------
// remove-map

typedef struct _JOB_REMOVE_MAP_INFO {
  THREAD_INFO ti;
  const char *pszMapName;  // -name
} JOB_REMOVE_MAP_INFO;

namespace {

void ShowJobRemoveMapHelp() {
  JobHelpPage(
      "remove-map",
      {"Remove a map object. The objects it names stay; other kinds of object are", "refused."},
      {"-name   Map name"}, {"-name mymap"});
}

}  // namespace

unsigned int JobRemoveMapThread(void *p) {
  auto *job = static_cast<JOB_REMOVE_MAP_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    return CheckJobCall("QRemoveMapObj", QRemoveMapObj(session, job->pszMapName));
  });
}

int JobRemoveMap(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_REMOVE_MAP_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszMapName = GetParameterStr(pTestParam, nParameters, "-name");
  const bool ok = job.pszMapName != nullptr && *job.pszMapName != '\0';
  return StartJob(&JobRemoveMapThread, &job.ti, sizeof job, false, ok, &ShowJobRemoveMapHelp);
}
