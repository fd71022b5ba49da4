// Shared pieces of the performance tests: temporary names, the digest identifier map and the
// help page frame.

#include "perf_common.h"

#include <cstdio>
#include <random>

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

int GenTempKey(const char *tag, HSESSIONCTX hSession, int alg, char *name) {
  int rc = 0;
  if (!GetTempKeyName(name, hSession, &rc)) {
    ScreenOutput("[%s] Fail in GetTempKeyName. rc = %d\r\n", tag, rc);
    return rc;
  }
  rc = QGenerateKey(hSession, name, static_cast<uint32_t>(alg), 0, nullptr);
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

int GetHashOIDFromAlgId(int nHashAlgId) {
  switch (nHashAlgId) {
    case QL_ALG_MD5:
      return QL_DIGEST_ID_MD5;
    case QL_ALG_SHA1:
      return QL_DIGEST_ID_SHA1;
    case QL_ALG_SHA256:
    case QL_ALG_SHA384:
    case QL_ALG_SHA512:
    case QL_ALG_SHA224:
      return nHashAlgId;
    default:
      return QL_DIGEST_ID_NONE;
  }
}

void PerfHelpDescription(std::initializer_list<const char *> lines) {
  ScreenOutput("\r\nDESCRIPTION\r\n");
  for (const char *line : lines) ScreenOutput("     %s\r\n", line);
  ScreenOutput("\r\nOPTIONS\r\n");
  ShowHelpGlobalPerfParameters();
}

int PerfHelpCommandExamples(const char *command, std::initializer_list<const char *> options) {
  ScreenOutput("\r\nEXAMPLE\r\n");
  for (const char *opts : options) {
    ScreenOutput("     qlutil -a 10.10.10.10 -u master -w 24681357 -p %s %s\r\n", command, opts);
  }
  return kResultUsage;
}

int PerfPassFailed(const char *tag, const char *call, int rc, unsigned long counter) {
  ScreenOutput("[%s] Fail in %s rc = %d. Iteration = %lu\r\n", tag, call, rc, counter);
  return rc;
}

void PerfSetup::Fail(const char *call, int rc) {
  ScreenOutput("[%s] Fail in %s. rc = %d\r\n", tag_, call, rc);
  rc_ = rc;
}

PerfSetup &PerfSetup::Connect(const THREAD_INFO *ti, SessionOwner *session) {
  return Do("ConnectEx", [&] { return ConnectEx(session->Put(), ti); });
}

PerfSetup &PerfSetup::Connect(const THREAD_INFO *ti, HSESSIONCTX *phSession) {
  return Do("ConnectEx", [&] { return ConnectEx(phSession, ti); });
}

PerfSetup &PerfSetup::TempKeyName(HSESSIONCTX hSession, char *pszName) {
  return Do("GetTempKeyName", [&] {
    int rc = 0;
    GetTempKeyName(pszName, hSession, &rc);
    return rc;
  });
}

PerfSetup &PerfSetup::Alloc(HeapBuffer *buffer, size_t size, const char *call) {
  return Do(call, [&] {
    *buffer = HeapBuffer(size);
    return *buffer ? 0 : -1;
  });
}

PerfSetup &PerfSetup::Random(HSESSIONCTX hSession, unsigned char *data, uint32_t len) {
  return Do("QGetRandom", [&] { return QGetRandom(hSession, data, len); });
}

PerfSetup &PerfSetup::CreateHash(HSESSIONCTX hSession, int alg, HashOwner *hash) {
  return Do("QCreateHash", [&] {
    return QCreateHash(hSession, static_cast<uint32_t>(alg), nullptr, 0, hash->Put());
  });
}

PerfSetup &PerfSetup::HashData(HashOwner *hash, const unsigned char *data, uint32_t len) {
  return Do("QHashData", [&] { return QHashData(hash->Get(), data, len, 0); });
}

PerfSetup &PerfSetup::SessionKey(HSESSIONCTX hSession, int alg, uint32_t flags, KeyOwner *key) {
  return Do("QGenerateKey", [&] {
    return QGenerateKey(hSession, nullptr, static_cast<uint32_t>(alg), flags, key->Put());
  });
}

PerfSetup &PerfSetup::TestKey(HSESSIONCTX hSession, bool shared, const char *name, int alg,
                              uint32_t flags, KeyOwner *key) {
  return shared ? UserKey(hSession, name, key) : SessionKey(hSession, alg, flags, key);
}

PerfSetup &PerfSetup::UserKey(HSESSIONCTX hSession, const char *name, KeyOwner *key) {
  return Do("QGetUserKey", [&] { return QGetUserKey(hSession, name, 0, key->Put()); });
}
