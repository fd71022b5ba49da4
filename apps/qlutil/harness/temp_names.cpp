// Temporary object names.
#include "harness/temp_names.h"

#include <cstdint>
#include <random>

#include "Output.h"

namespace {

constexpr size_t kTempNameBytes = 16;

void WriteHexName(const unsigned char *bytes, char *pszName) {
  static const char kHex[] = "0123456789ABCDEF";
  for (size_t i = 0; i < kTempNameBytes; ++i) {
    pszName[2 * i] = kHex[bytes[i] >> 4];
    pszName[2 * i + 1] = kHex[bytes[i] & 0x0F];
  }
  pszName[2 * kTempNameBytes] = '\0';
}

}  // namespace

bool GetTempKeyName(char *pszName, HSESSIONCTX hSession, int *pRc) {
  unsigned char random[kTempNameBytes];
  const int rc = QGetRandom(hSession, random, sizeof(random));
  if (pRc != nullptr) *pRc = rc;
  if (rc != 0) {
    pszName[0] = '\0';
    return false;
  }
  WriteHexName(random, pszName);
  return true;
}

void GetTempKeyNameOffline(char *pszName) {
  // One generator per thread, seeded from the system: names made in the timed loop cost no
  // system call and never collide between threads.
  thread_local std::mt19937_64 generator{std::random_device{}()};
  unsigned char random[kTempNameBytes];
  for (size_t i = 0; i < kTempNameBytes; i += 8) {
    uint64_t value = generator();
    for (size_t j = 0; j < 8; ++j) random[i + j] = static_cast<unsigned char>(value >> (8 * j));
  }
  WriteHexName(random, pszName);
}

int GenTempKey(const char *tag, HSESSIONCTX hSession, int alg, char *name, uint32_t flags) {
  int rc = 0;
  if (!GetTempKeyName(name, hSession, &rc)) {
    ScreenOutput("[%s] Fail in GetTempKeyName. rc = %d\r\n", tag, rc);
    return rc;
  }
  rc = QGenerateKey(hSession, name, static_cast<uint32_t>(alg), flags, nullptr);
  if (rc != 0) {
    ScreenOutput("[%s] Fail in QGenerateKey. rc = %d\r\n", tag, rc);
    name[0] = '\0';
  }
  return rc;
}

void RemoveTempKey(HSESSIONCTX hSession, char *name) {
  if (hSession != nullptr && name[0] != '\0') QRemoveObj(hSession, name);
  name[0] = '\0';
}
