// The parameter getters: handlers learn everything about the command line through these.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "Output.h"
#include "common/ql_string_helper.h"
#include "option_usage.h"
#include "qlutil.h"

namespace {

// "NULL" as a value means the switch was not given, for the getters of text and bytes.
bool IsNullWord(const char *psz) {
  return strcmp(psz, "NULL") == 0;
}

uint32_t ToDword(const char *psz) {
  return static_cast<uint32_t>(strtoul(psz, nullptr, 10));
}

struct FileCloser {
  void operator()(FILE *f) const { fclose(f); }
};

}  // namespace

void ResetDblob(DBLOB *pBlob) {
  if (pBlob == nullptr) {
    return;
  }
  if (pBlob->pvData != nullptr) {
    QFree(pBlob->pvData);
  }
  pBlob->pvData = nullptr;
  pBlob->dwDataLen = 0;
}

int FindParameter(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                  char **ppszValue) {
  if (ppszValue != nullptr) {
    *ppszValue = nullptr;
  }
  if (pTestParam == nullptr || pszName == nullptr) {
    return 0;
  }
  for (int i = 0; i < nParameters; ++i) {
    if (strcmp(pTestParam[i].szParameter, pszName) == 0) {
      MarkOptionRead(pTestParam, i);
      if (ppszValue != nullptr) {
        *ppszValue = pTestParam[i].szValue;
      }
      return 1;
    }
  }
  return 0;
}

int IsParameterDefined(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  return FindParameter(pTestParam, nParameters, pszName, nullptr);
}

char *GetParameterStr(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  char *pszValue = nullptr;
  if (!FindParameter(pTestParam, nParameters, pszName, &pszValue) || IsNullWord(pszValue)) {
    return nullptr;
  }
  return pszValue;
}

int GetParameterInt(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  char *pszValue = nullptr;
  if (!FindParameter(pTestParam, nParameters, pszName, &pszValue) || pszValue[0] == '\0') {
    return -1;
  }
  return atoi(pszValue);
}

bool IsDigitString(const char *psz) {
  if (psz == nullptr) {
    return false;
  }
  for (; *psz != '\0'; ++psz) {
    if (*psz < '0' || *psz > '9') {
      return false;
    }
  }
  return true;
}

bool GetParameterDword(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                       uint32_t *pdwValue) {
  char *pszValue = nullptr;
  if (!FindParameter(pTestParam, nParameters, pszName, &pszValue) || pszValue[0] == '\0' ||
      !IsDigitString(pszValue)) {
    return false;
  }
  errno = 0;
  const unsigned long long value = strtoull(pszValue, nullptr, 10);
  if (errno == ERANGE || value > 0xFFFFFFFFull) {
    return false;
  }
  *pdwValue = static_cast<uint32_t>(value);
  return true;
}

std::vector<unsigned char> GetParameterHex(TEST_PARAMETER *pTestParam, int nParameters,
                                           const char *pszName) {
  const char *pszValue = GetParameterStr(pTestParam, nParameters, pszName);
  if (pszValue == nullptr) {
    return {};
  }
  std::vector<unsigned char> bytes;
  if (!TryConvertHexStrToByteVector(pszValue, &bytes)) {
    const std::string text = std::string(pszName) + " is not valid hex";
    ReportOptionValue(pszName, text.c_str());
  }
  return bytes;  // empty when the text is not valid hex
}

char *GetParameterFileContent(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                              DBLOB *pBlob) {
  char *pszFile = GetParameterStr(pTestParam, nParameters, pszName);
  if (pszFile == nullptr) {
    return nullptr;
  }
  pBlob->pvData = nullptr;
  pBlob->dwDataLen = 0;
  const std::unique_ptr<FILE, FileCloser> file(fopen(pszFile, "rb"));
  if (!file || fseek(file.get(), 0, SEEK_END) != 0) {
    ReportInputFile(pszName, pszFile, "cannot be read");
    return pszFile;
  }
  const long size = ftell(file.get());
  if (size == 0) {
    ReportInputFile(pszName, pszFile, "is empty");
  }
  // An empty file gives an empty blob; a file of 4 GiB or more does not fit a DBLOB.
  if (size <= 0 || static_cast<unsigned long long>(size) > 0xFFFFFFFFull ||
      fseek(file.get(), 0, SEEK_SET) != 0) {
    return pszFile;
  }
  auto *data = static_cast<unsigned char *>(QAlloc(static_cast<unsigned int>(size)));
  if (data == nullptr) {
    return pszFile;
  }
  if (fread(data, 1, static_cast<size_t>(size), file.get()) != static_cast<size_t>(size)) {
    QFree(data);
    return pszFile;
  }
  pBlob->pvData = data;
  pBlob->dwDataLen = static_cast<uint32_t>(size);
  return pszFile;
}

int GetParameterOpSleepInfo(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                            OP_SLEEP_INFO *pInfo) {
  char *pszValue = nullptr;
  if (!FindParameter(pTestParam, nParameters, pszName, &pszValue)) {
    return 0;
  }
  pInfo->dwInit = 0;
  pInfo->dwEnd = 0;
  if (pszValue[0] == '\0') {
    return 0;
  }
  if (strchr(pszValue, ':') == nullptr) {
    pInfo->dwInit = ToDword(pszValue);
    return 0;
  }
  // A range "A:B". Tokens are the non-empty runs between colons (so "5::9" is 5 to 9); a range
  // without two numbers ("5:", ":", ":5") is refused. The value is read without being changed.
  const char *tokens[2] = {nullptr, nullptr};
  int found = 0;
  for (const char *p = pszValue; *p != '\0' && found < 2;) {
    if (*p == ':') {
      ++p;
      continue;
    }
    tokens[found++] = p;
    while (*p != '\0' && *p != ':') {
      ++p;
    }
  }
  if (found < 2) {
    return -1;
  }
  uint32_t a = ToDword(tokens[0]);  // strtoul stops at the colon
  uint32_t b = ToDword(tokens[1]);
  if (a > b) {
    const uint32_t t = a;
    a = b;
    b = t;
  }
  pInfo->dwInit = a;
  pInfo->dwEnd = b;
  return 0;
}

int GetParameterOptionInt(TEST_PARAMETER *pTestParam, const COMMAND_OPTION_TYPE *pOptions,
                          int nOptions, int nParameters, const char *pszName) {
  char *pszValue = nullptr;
  if (!FindParameter(pTestParam, nParameters, pszName, &pszValue) || pszValue[0] == '\0' ||
      pOptions == nullptr) {
    return -1;
  }
  for (int i = 0; i < nOptions; ++i) {
    if (pOptions[i].pszStringId != nullptr && strcmp(pOptions[i].pszStringId, pszValue) == 0) {
      return pOptions[i].nId;
    }
  }
  return -1;
}

uint32_t GetFlagRSAKeySize(int nBits) {
  switch (nBits) {
    case 1024:
      return 0x4000000;
    case 2048:
      return 0x8000000;
    default:
      return 0;
  }
}

bool GetCertFindInfo(TEST_PARAMETER *pTestParam, int nParameters, CERT_FIND_INFO *pInfo) {
  constexpr uint32_t kCurrentUser = 0x10000;
  memset(pInfo, 0, sizeof(*pInfo));
  const char *pszStore = GetParameterStr(pTestParam, nParameters, "--store");
  const char *pszHash = GetParameterStr(pTestParam, nParameters, "--certhash");
  if (pszStore != nullptr) {
    snprintf(pInfo->szStoreName, sizeof(pInfo->szStoreName), "%s", pszStore);
  }
  if (pszHash != nullptr) {
    snprintf(pInfo->szCertHash, sizeof(pInfo->szCertHash), "%s", pszHash);
  }
  const int scope = GetParameterCertStore(pTestParam, nParameters, "--scope");
  pInfo->dwStoreLocation = scope == -1 ? kCurrentUser : static_cast<uint32_t>(scope);
  return pszStore != nullptr && pszHash != nullptr;
}
