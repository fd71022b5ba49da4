// The job frame: its loaders, start, error lines and data in and out.
#include "harness/job_frame.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "option_usage.h"
#include "ql_arch.h"

uint32_t LoadGenericKeyFlagsParameters(TEST_PARAMETER *pTestParam, int nParameters) {
  uint32_t flags = 0;
  if (GetParameterInt(pTestParam, nParameters, "-exp") == 1) flags |= QL_KEY_EXPORTABLE;
  if (GetParameterInt(pTestParam, nParameters, "-tmp") == 1) flags |= QL_KEY_TEMPORARY;
  if (GetParameterInt(pTestParam, nParameters, "-rsaexp3") == 1) flags |= QL_KEY_RSA_EXP3;
  if (GetParameterInt(pTestParam, nParameters, "-nocrypt") == 1) flags |= QL_KEY_NO_CRYPT;
  if (IsParameterDefined(pTestParam, nParameters, "-bchain")) flags |= QL_KEY_BLOCKCHAIN;
  return flags;
}

void ForceSingleJobRun(THREAD_INFO *ti) {
  ti->Iterations = 1;
  ti->Threads = 1;
  ti->Metric = 1;
  ti->UseTLS = 1;
  ti->UseLoadBalance = 0;
}

int StartJob(pfn_TestThread routine, THREAD_INFO *ti, size_t record_size, bool is_anonymous,
             bool options_ok, void (*show_help)()) {
  int result = kResultSuccess;
  if (CheckConnectionFlags(ti, is_anonymous) && options_ok && !CheckUnreadOptions()) {
    result = kResultJobStarting;
    result = ExecuteTestThreads(routine, ti, record_size);
    return result;
  }
  show_help();
  return kResultUsage;
}

void LoadJobParameters(THREAD_INFO *ti, TEST_PARAMETER *pTestParam, int nParameters,
                       bool is_anonymous) {
  LoadGenericJobParameters(ti, pTestParam, nParameters, is_anonymous);
  ti->Metric = 1;
}

void PublishJobError(THREAD_INFO *ti, int rc) {
  if (rc == 0) return;
  ti->Error = rc;
  SignalErrorEvent(ti->phErrorEvent);
}

void PrintJobError(const char *call, int rc) {
  ScreenOutput("Error in %s. Err = %d\r\n", call, rc);
}

int CheckJobCall(const char *call, int rc) {
  if (rc != 0) PrintJobError(call, rc);
  return rc;
}

bool ReadLocalFile(const char *path, Bytes *data) {
  data->clear();
  std::unique_ptr<FILE, int (*)(FILE *)> f(fopen(path, "rb"), &fclose);
  if (!f) return false;
  unsigned char buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f.get())) > 0) data->insert(data->end(), buf, buf + n);
  return ferror(f.get()) == 0;
}

bool ReadJobData(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                 DataInform inform, Bytes *data) {
  data->clear();
  if (inform == kHexData) {
    *data = GetParameterHex(pTestParam, nParameters, pszName);
    return !data->empty();
  }
  if (inform != kFile) return false;
  const char *path = GetParameterStr(pTestParam, nParameters, pszName);
  if (path == nullptr || *path == '\0') return false;
  if (!ReadLocalFile(path, data)) {
    ReportInputFile(pszName, path, "cannot be read");
    return false;
  }
  if (data->empty()) ReportInputFile(pszName, path, "is empty");
  return !data->empty();
}

bool WriteLocalFile(const char *path, const unsigned char *data, size_t len, bool secret) {
  if (secret) {
    if (WriteSecretFile(path, data, len) == 0) return true;
    ScreenOutput("Error opening file %s\r\n", path);
    return false;
  }
  std::unique_ptr<FILE, int (*)(FILE *)> f(fopen(path, "wb"), &fclose);
  if (!f || (len > 0 && fwrite(data, 1, len, f.get()) != len)) {
    ScreenOutput("Error opening file %s\r\n", path);
    return false;
  }
  return true;
}

std::string ToHex(const unsigned char *data, size_t len) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string hex;
  hex.reserve(len * 2);
  for (size_t i = 0; i < len; ++i) {
    hex += kDigits[data[i] >> 4];
    hex += kDigits[data[i] & 0xF];
  }
  return hex;
}

bool WriteJobOutput(const char *path, const unsigned char *data, size_t len, bool secret) {
  if (path != nullptr && *path != '\0') return WriteLocalFile(path, data, len, secret);
  ScreenOutput("%s\r\n", ToHex(data, len).c_str());
  return true;
}

bool GetJobNumber(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                  uint32_t *value) {
  const char *text = GetParameterStr(pTestParam, nParameters, pszName);
  if (text == nullptr || *text == '\0' || *text == '-' || *text == '+') return false;
  char *end = nullptr;
  errno = 0;
  const bool hex = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const unsigned long long v = strtoull(hex ? text + 2 : text, &end, hex ? 16 : 10);
  if (hex && end == text + 2) return false;
  if (errno != 0 || *end != '\0' || v > 0xFFFFFFFFull) return false;
  *value = static_cast<uint32_t>(v);
  return true;
}

bool IsOptionalTextGood(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  return !IsParameterDefined(pTestParam, nParameters, pszName) ||
         IsGivenText(GetParameterStr(pTestParam, nParameters, pszName));
}

bool LoadDataInform(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                    DataInform *inform) {
  const char *word = GetParameterStr(pTestParam, nParameters, pszName);
  *inform = GetParameterDataInform(pTestParam, nParameters, pszName, kFile);
  return word == nullptr || strcmp(word, "file") == 0 || strcmp(word, "hex") == 0;
}
