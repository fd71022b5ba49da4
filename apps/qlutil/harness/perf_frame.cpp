// The performance test frame: the set-up steps and the loop's failure line.
#include "harness/perf_frame.h"

#include <cstdio>

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
