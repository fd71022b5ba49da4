// The functional test frame: switches, keep-alive, random bytes and files.
#include "harness/func_frame.h"

#include <algorithm>
#include <cstdio>
#include <memory>

#include "Output.h"

int GetParameterSwitch01(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  const int value = GetParameterInt(pTestParam, nParameters, pszName);
  return (value == 0 || value == 1) ? value : 1;
}

int SendKeepAlive(HSESSIONCTX hSession) {
  return QAdmOperation(hSession, QL_ADM_KEEPALIVE, nullptr, 0, nullptr, nullptr, 0);
}

int GetRandomBytes(HSESSIONCTX hSession, unsigned char *pbData, size_t len) {
  constexpr size_t kMaxRequest = 65536;
  for (size_t done = 0; done < len;) {
    const size_t n = std::min(kMaxRequest, len - done);
    const int rc = QGetRandom(hSession, pbData + done, static_cast<uint32_t>(n));
    if (rc != 0) return rc;
    done += n;
  }
  return 0;
}

namespace {
struct FileCloser {
  void operator()(FILE *f) const { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;
}  // namespace

bool ReadWholeFile(const std::string &path, std::string *data) {
  FilePtr f(fopen(path.c_str(), "rb"));
  if (!f) return false;
  data->clear();
  char buffer[65536];
  size_t n = 0;
  while ((n = fread(buffer, 1, sizeof buffer, f.get())) > 0) data->append(buffer, n);
  return ferror(f.get()) == 0;
}

bool WriteWholeFile(const std::string &path, const void *data, size_t len) {
  FilePtr f(fopen(path.c_str(), "wb"));
  if (!f) return false;
  if (len > 0 && fwrite(data, 1, len, f.get()) != len) return false;
  return fflush(f.get()) == 0;
}

bool FileCompare(const std::string &path1, const std::string &path2) {
  std::string a, b;
  return ReadWholeFile(path1, &a) && ReadWholeFile(path2, &b) && a == b;
}
