// The key performance tests: gen-key, list-keys, gen-key-material, generate-ecdh.
//
// Every object a pass makes is removed in the same pass (gen-key, generate-ecdh), and every
// object ThreadInit or Init makes is removed by its counterpart, so the HSM holds after a run
// what it held before.

#include <cstdio>
#include <cstring>

#include "PerformanceTests.h"
#include "harness/harness.h"

namespace {

const char *const kKeysExampleHead = "qlutil -a 10.10.10.10 -u master -w 24681357";

constexpr int kDefaultListKeyCount = 10;
// Room for any blob a pass exports (an RSA-8192 PKCS#8 is below 5 KiB).
constexpr uint32_t kExportBufferLen = 16384;
// Extra room over a size query's answer: DER integers make consecutive keys differ by a few
// bytes.
constexpr uint32_t kKeyMaterialSlack = 64;

bool IsSymmetricKeyAlg(int alg) {
  switch (alg) {
    case QL_ALG_DES:
    case QL_ALG_3DES_112:
    case QL_ALG_3DES_168:
    case QL_ALG_AES128:
    case QL_ALG_AES192:
    case QL_ALG_AES256:
    case QL_ALG_ARC4:
    case QL_ALG_ARC5:
    case QL_ALG_DESX:
    case QL_ALG_HMAC_KEY:
    case QL_ALG_HMAC_KEY_512:
      return true;
    default:
      return false;
  }
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// gen-key

typedef struct _PERF_GEN_KEY_INFO {
  THREAD_INFO ti;
  int KeyAlgId;      // -k
  bool bPersistent;  // -ps: stored keys (removed in the same pass) instead of session keys
  bool bExport;      // -ged: generate, export, destroy
  HSESSIONCTX hSession;
  unsigned char *pbExport;  // heap, kExportBufferLen bytes
} PERF_GEN_KEY_INFO;

int PerfGenKeyThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_GEN_KEY_INFO *>(pThreadInfo);
  info->hSession = nullptr;
  info->pbExport = nullptr;
  HeapBuffer buffer(kExportBufferLen);
  if (!buffer) {
    ScreenOutput("[PerfGenKeyThreadInit] Fail in malloc. rc = %d\r\n", -1);
    return -1;
  }
  const int rc = ConnectEx(&info->hSession, &info->ti);
  if (rc != 0) {
    ScreenOutput("[PerfGenKeyThreadInit] Fail in ConnectEx. rc = %d\r\n", rc);
    return rc;
  }
  info->pbExport = buffer.Release();
  return 0;
}

unsigned int PerfGenKeyThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_GEN_KEY_INFO *>(pThreadInfo);
  const uint32_t flags = QL_KEY_EXPORTABLE | (info->bPersistent ? 0u : QL_KEY_TEMPORARY);
  const uint32_t blob_type =
      IsSymmetricKeyAlg(info->KeyAlgId) ? QL_PLAINTEXTKEY_BLOB : QL_PRIVATEKEY_BLOB;
  char name[kTempKeyNameSize];
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    GetTempKeyNameOffline(name);
    // A stored key is removed from the HSM whichever way the pass ends.
    RemovedKeyOwner stored;
    KeyOwner session_key;
    int rc = QGenerateKey(info->hSession, name, static_cast<uint32_t>(info->KeyAlgId), flags,
                          info->bPersistent ? stored.Put() : session_key.Put());
    if (rc != 0) {
      ScreenOutput("[PerfGenKeyThread] Fail in QGenerateKey rc = %d. Iteration = %lu\r\n", rc,
                   counter);
      return rc;
    }
    const HKEYCTX key = info->bPersistent ? stored.Get() : session_key.Get();
    if (info->bExport) {
      uint32_t len = kExportBufferLen;
      rc = QExportKey(key, nullptr, blob_type, 0, info->pbExport, &len);
      if (rc != 0) {
        ScreenOutput("[PerfGenKeyThread] Fail in QExportKey rc = %d. Iteration = %lu\r\n", rc,
                     counter);
        return rc;
      }
    }
    rc = info->bPersistent ? stored.Free() : session_key.Free();
    if (rc != 0) {
      ScreenOutput("[PerfGenKeyThread] Fail in QDestroyKey rc = %d. Iteration = %lu\r\n", rc,
                   counter);
      return rc;
    }
    return 0;
  });
}

int PerfGenKeyThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_GEN_KEY_INFO *>(pThreadInfo);
  CloseRecordSession(&info->hSession);
  FreeRecordBuffer(&info->pbExport);
  return 0;
}

int PerfGenKey(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_GEN_KEY_INFO info;
  std::memset(&info, 0, sizeof(info));
  LoadGenericParameters(&info.ti, pTestParam, nParameters);
  info.ti.Metric = 1;
  info.KeyAlgId = GetParameterAlg(pTestParam, nParameters, "-k");
  info.bPersistent = IsParameterDefined(pTestParam, nParameters, "-ps") != 0;
  info.bExport = IsParameterDefined(pTestParam, nParameters, "-ged") != 0;

  if (IsValidTestCountersConfig(&info.ti) && info.KeyAlgId != -1 &&
      CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfGenKeyThread, nullptr, nullptr, PerfGenKeyThreadInit,
                                  PerfGenKeyThreadFin, &info, sizeof(info));
  }

  PerfHelpDescription(
      {"Key generation performance test.",
       "This test returns the number of keys generated (and destroyed) per second."});
  ScreenOutput("     -k      Key algorithm:\r\n");
  ShowHelpSymmetricAlgorithms();
  ShowHelpAsymmetricAlgorithms();
  ScreenOutput(
      "     -ps     [OPTIONAL] Persistent keys: each key is stored in the HSM and removed\r\n");
  ScreenOutput("             in the same pass. Session keys by default.\r\n");
  ScreenOutput(
      "     -ged    [OPTIONAL] Generate, export and destroy: each key is also exported\r\n");
  ScreenOutput("             (plain text for symmetric keys, PKCS#8 for key pairs).\r\n");
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput("     %s -p gen-key -t 5 -i 10 -k aes256\r\n", kKeysExampleHead);
  ScreenOutput("     %s -p gen-key -t 2 -i 10 -k rsa2048 -ps -ged\r\n", kKeysExampleHead);
  return kResultUsage;
}

// ---------------------------------------------------------------------------------------------
// list-keys

typedef struct _PERF_LIST_KEYS_INFO {
  THREAD_INFO ti;
  int KeyAlgId;         // -k
  int nKeyCount;        // -kc: keys each thread makes before listing
  bool bTemporary;      // -temp: session keys
  bool bNotExportable;  // -nexp
  HSESSIONCTX hSession;
  HKEYCTX *phKeys;  // heap, nKeyCount handles (null where none was made)
  char szPrefix[kTempKeyNameSize];
} PERF_LIST_KEYS_INFO;

namespace {

// Stored keys are removed from the HSM, session keys only released.
void ReleaseListKeys(PERF_LIST_KEYS_INFO *info) {
  if (info->phKeys == nullptr) return;
  for (int i = 0; i < info->nKeyCount; ++i) {
    DestroyRecordKey(&info->phKeys[i], info->bTemporary ? 0 : QL_DESTROY_REMOVE);
  }
  FreeRecordBuffer(&info->phKeys);
}

int CountListedName(void *pvParam, const char *szName, int bLast) {
  if (!bLast && szName != nullptr) ++*static_cast<unsigned long *>(pvParam);
  return 0;
}

}  // namespace

int PerfListKeysThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_LIST_KEYS_INFO *>(pThreadInfo);
  ReleaseListKeys(info);
  CloseRecordSession(&info->hSession);
  return 0;
}

int PerfListKeysThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_LIST_KEYS_INFO *>(pThreadInfo);
  const char *tag = "PerfListKeysThreadInit";
  info->hSession = nullptr;
  info->phKeys = nullptr;
  int rc = ConnectEx(&info->hSession, &info->ti);
  if (rc != 0) ScreenOutput("[%s] Fail in ConnectEx. rc = %d\r\n", tag, rc);
  if (rc == 0) {
    info->phKeys =
        static_cast<HKEYCTX *>(std::calloc(static_cast<size_t>(info->nKeyCount), sizeof(HKEYCTX)));
    if (info->phKeys == nullptr) {
      rc = -1;
      ScreenOutput("[%s] Fail in malloc. rc = %d\r\n", tag, rc);
    }
  }
  if (rc == 0 && !GetTempKeyName(info->szPrefix, info->hSession, &rc)) {
    ScreenOutput("[%s] Fail in GetTempKeyName. rc = %d\r\n", tag, rc);
  }
  const uint32_t flags =
      (info->bNotExportable ? 0u : QL_KEY_EXPORTABLE) | (info->bTemporary ? QL_KEY_TEMPORARY : 0u);
  for (int i = 0; rc == 0 && i < info->nKeyCount; ++i) {
    char name[kTempKeyNameSize + 12];
    std::snprintf(name, sizeof(name), "%s_%d", info->szPrefix, i);
    rc = QGenerateKey(info->hSession, name, static_cast<uint32_t>(info->KeyAlgId), flags,
                      &info->phKeys[i]);
    if (rc != 0) {
      info->phKeys[i] = nullptr;
      ScreenOutput("[%s] Fail in QGenerateKey. rc = %d\r\n", tag, rc);
    }
  }
  if (rc != 0) PerfListKeysThreadFin(info);
  return rc;
}

unsigned int PerfListKeysThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_LIST_KEYS_INFO *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    unsigned long listed = 0;
    int rc = QListObjs(info->hSession, CountListedName, &listed);
    if (rc != 0) {
      ScreenOutput("[PerfListKeysThread] Fail in QListObjs rc = %d. Iteration = %lu\r\n", rc,
                   counter);
      return rc;
    }
    return 0;
  });
}

int PerfListKeys(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_LIST_KEYS_INFO info;
  std::memset(&info, 0, sizeof(info));
  LoadGenericParameters(&info.ti, pTestParam, nParameters);
  info.ti.Metric = 1;
  info.KeyAlgId = GetParameterAlg(pTestParam, nParameters, "-k");
  info.bTemporary = IsParameterDefined(pTestParam, nParameters, "-temp") != 0;
  info.bNotExportable = IsParameterDefined(pTestParam, nParameters, "-nexp") != 0;
  info.nKeyCount = kDefaultListKeyCount;
  if (IsParameterDefined(pTestParam, nParameters, "-kc")) {
    info.nKeyCount = GetParameterInt(pTestParam, nParameters, "-kc");
  }

  if (IsValidTestCountersConfig(&info.ti) && info.KeyAlgId != -1 && info.nKeyCount > 0 &&
      CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfListKeysThread, nullptr, nullptr, PerfListKeysThreadInit,
                                  PerfListKeysThreadFin, &info, sizeof(info));
  }

  PerfHelpDescription(
      {"Key listing performance test.",
       "Each thread makes -kc keys, then lists the user's objects; this test",
       "returns the number of listings per second. The keys are removed at the end."});
  ScreenOutput("     -k      Algorithm of the keys made before listing:\r\n");
  ShowHelpSymmetricAlgorithms();
  ShowHelpAsymmetricAlgorithms();
  ScreenOutput("     -kc     [OPTIONAL] Keys made by each thread. 10 (default).\r\n");
  ScreenOutput("     -temp   [OPTIONAL] Session keys instead of stored keys.\r\n");
  ScreenOutput("     -nexp   [OPTIONAL] Keys that cannot be exported.\r\n");
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput("     %s -p list-keys -t 5 -i 10 -k aes256 -kc 20\r\n", kKeysExampleHead);
  return kResultUsage;
}

// ---------------------------------------------------------------------------------------------
// gen-key-material

typedef struct _PERF_GEN_KEY_MATERIAL_INFO {
  THREAD_INFO ti;
  int KeyAlgId;  // -k
  HSESSIONCTX hSession;
  unsigned char *pbMaterial;  // heap, dwMaterialLen bytes
  uint32_t dwMaterialLen;
} PERF_GEN_KEY_MATERIAL_INFO;

int PerfGenKeyMaterialThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_GEN_KEY_MATERIAL_INFO *>(pThreadInfo);
  const char *tag = "PerfGenKeyMaterialThreadInit";
  info->hSession = nullptr;
  info->pbMaterial = nullptr;
  info->dwMaterialLen = 0;
  SessionOwner session;
  int rc = ConnectEx(session.Put(), &info->ti);
  if (rc != 0) ScreenOutput("[%s] Fail in ConnectEx. rc = %d\r\n", tag, rc);
  HeapBuffer material;
  uint32_t len = 0;
  if (rc == 0) {
    rc = QGenerateKeyMaterial(session.Get(), static_cast<uint32_t>(info->KeyAlgId), 0, nullptr,
                              &len);
    if (rc == QL_ERR_BUFFER_TOO_SMALL) {
      len += kKeyMaterialSlack;
      material = HeapBuffer(len);
      rc = material ? 0 : -1;
      if (rc != 0) ScreenOutput("[%s] Fail in malloc. rc = %d\r\n", tag, rc);
    } else {
      if (rc == 0) rc = QL_ERR_PROTOCOL;  // a size query must name the size it needs
      ScreenOutput("[%s] Fail in QGenerateKeyMaterial. rc = %d\r\n", tag, rc);
    }
  }
  if (rc != 0) return rc;
  info->dwMaterialLen = len;
  info->pbMaterial = material.Release();
  info->hSession = session.Detach();
  return 0;
}

unsigned int PerfGenKeyMaterialThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_GEN_KEY_MATERIAL_INFO *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    uint32_t len = info->dwMaterialLen;
    int rc = QGenerateKeyMaterial(info->hSession, static_cast<uint32_t>(info->KeyAlgId), 0,
                                  info->pbMaterial, &len);
    if (rc != 0) {
      ScreenOutput(
          "[PerfGenKeyMaterialThread] Fail in QGenerateKeyMaterial rc = %d. Iteration = %lu\r\n",
          rc, counter);
      return rc;
    }
    return 0;
  });
}

int PerfGenKeyMaterialThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_GEN_KEY_MATERIAL_INFO *>(pThreadInfo);
  CloseRecordSession(&info->hSession);
  FreeRecordBuffer(&info->pbMaterial);
  return 0;
}

int PerfGenKeyMaterial(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_GEN_KEY_MATERIAL_INFO info;
  std::memset(&info, 0, sizeof(info));
  LoadGenericParameters(&info.ti, pTestParam, nParameters);
  info.ti.Metric = 1;
  info.KeyAlgId = GetParameterAlg(pTestParam, nParameters, "-k");

  if (IsValidTestCountersConfig(&info.ti) && info.KeyAlgId != -1 &&
      CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfGenKeyMaterialThread, nullptr, nullptr,
                                  PerfGenKeyMaterialThreadInit, PerfGenKeyMaterialThreadFin, &info,
                                  sizeof(info));
  }

  PerfHelpDescription({"Key material generation performance test.",
                       "This test returns the number of keys made and handed out (not stored)",
                       "per second."});
  ScreenOutput("     -k      Key algorithm:\r\n");
  ShowHelpSymmetricAlgorithms();
  ShowHelpAsymmetricAlgorithms();
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput("     %s -p gen-key-material -t 5 -i 10 -k aes256\r\n", kKeysExampleHead);
  return kResultUsage;
}

// ---------------------------------------------------------------------------------------------
// generate-ecdh

typedef struct _PERF_GENERATE_ECDH_INFO {
  THREAD_INFO ti;
  int KeyAlgId;             // -alg: the curve of the test's private key
  int PeerAlgId;            // -alg2: the curve of the peer key (-alg when absent)
  int TargetAlgId;          // -algt: the algorithm of the derived key
  int Kdf;                  // -op
  uint32_t dwKdfLen;        // -kdflen: bytes derived
  bool bNoTarget;           // -ng: the secret is handed out, no key is stored
  bool bTemporaryTarget;    // -del 0: derived keys live in the session instead of being removed
  HSESSIONCTX hSrcSession;  // Init and Fin
  char szPrivKeyName[kTempKeyNameSize];
  char szPeerKeyName[kTempKeyNameSize];
  unsigned char *pbPeerPub;  // heap, shared read-only by every copy
  uint32_t dwPeerPubLen;
  HSESSIONCTX hSession;
  unsigned char *pbOut;  // heap, dwOutLen bytes
  uint32_t dwOutLen;
} PERF_GENERATE_ECDH_INFO;

namespace {

constexpr uint32_t kDefaultKdfLen = 32;
constexpr uint32_t kPeerPubBufferLen = 1024;
constexpr uint32_t kEcdhOutLen = 1024;

}  // namespace

int PerfGenerateECDHFin(void *pTestInfo) {
  auto *info = static_cast<PERF_GENERATE_ECDH_INFO *>(pTestInfo);
  RemoveTempKey(info->hSrcSession, info->szPrivKeyName);
  RemoveTempKey(info->hSrcSession, info->szPeerKeyName);
  CloseRecordSession(&info->hSrcSession);
  FreeRecordBuffer(&info->pbPeerPub);
  return 0;
}

int PerfGenerateECDHInit(void *pTestInfo) {
  auto *info = static_cast<PERF_GENERATE_ECDH_INFO *>(pTestInfo);
  const char *tag = "PerfGenerateECDHInit";
  int rc = ConnectEx(&info->hSrcSession, &info->ti);
  if (rc != 0) ScreenOutput("[%s] Fail in ConnectEx. rc = %d\r\n", tag, rc);
  if (rc == 0) rc = GenTempKey(tag, info->hSrcSession, info->KeyAlgId, info->szPrivKeyName);
  if (rc == 0) rc = GenTempKey(tag, info->hSrcSession, info->PeerAlgId, info->szPeerKeyName);
  KeyOwner peer;
  if (rc == 0) {
    rc = QGetUserKey(info->hSrcSession, info->szPeerKeyName, 0, peer.Put());
    if (rc != 0) ScreenOutput("[%s] Fail in QGetUserKey. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    info->pbPeerPub = static_cast<unsigned char *>(std::malloc(kPeerPubBufferLen));
    rc = info->pbPeerPub != nullptr ? 0 : -1;
    if (rc != 0) ScreenOutput("[%s] Fail in malloc. rc = %d\r\n", tag, rc);
  }
  if (rc == 0) {
    info->dwPeerPubLen = kPeerPubBufferLen;
    rc =
        QExportKey(peer.Get(), nullptr, QL_PUBLICKEY_BLOB, 0, info->pbPeerPub, &info->dwPeerPubLen);
    if (rc != 0) ScreenOutput("[%s] Fail in QExportKey. rc = %d\r\n", tag, rc);
  }
  peer.CleanUp();
  // The runner does not call Fin after a failing Init.
  if (rc != 0) PerfGenerateECDHFin(info);
  return rc;
}

int PerfGenerateECDHThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_GENERATE_ECDH_INFO *>(pThreadInfo);
  info->hSession = nullptr;
  info->pbOut = nullptr;
  HeapBuffer out(kEcdhOutLen);
  if (!out) {
    ScreenOutput("[PerfGenerateECDHThreadInit] Fail in malloc. rc = %d\r\n", -1);
    return -1;
  }
  const int rc = ConnectEx(&info->hSession, &info->ti);
  if (rc != 0) {
    ScreenOutput("[PerfGenerateECDHThreadInit] Fail in ConnectEx. rc = %d\r\n", rc);
    return rc;
  }
  info->dwOutLen = kEcdhOutLen;
  info->pbOut = out.Release();
  return 0;
}

unsigned int PerfGenerateECDHThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_GENERATE_ECDH_INFO *>(pThreadInfo);
  // Only the X9.63 derivation stores a key; the raw secret is always handed out.
  const bool store = !info->bNoTarget && info->Kdf == QL_GEN_KEY_X9_63_SHA256;
  const uint32_t target_flags = info->bTemporaryTarget ? QL_KEY_TEMPORARY : 0u;
  char target[kTempKeyNameSize];
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    // The raw secret fills the buffer up to its size; X9.63 derives -kdflen bytes.
    uint32_t out_len = info->Kdf == QL_GEN_KEY_KDF_RAW_SECRET ? info->dwOutLen : info->dwKdfLen;
    if (store) GetTempKeyNameOffline(target);
    int rc = QGenEcdhKey(info->hSession, static_cast<uint32_t>(info->Kdf), info->szPrivKeyName,
                         info->pbPeerPub, info->dwPeerPubLen, nullptr, 0, store ? target : nullptr,
                         store ? static_cast<uint32_t>(info->TargetAlgId) : 0u, target_flags,
                         store ? nullptr : info->pbOut, &out_len);
    if (rc != 0) {
      ScreenOutput("[PerfGenerateECDHThread] Fail in QGenEcdhKey rc = %d. Iteration = %lu\r\n", rc,
                   counter);
      return rc;
    }
    if (store && !info->bTemporaryTarget) {
      rc = QRemoveObj(info->hSession, target);
      if (rc != 0) {
        ScreenOutput("[PerfGenerateECDHThread] Fail in QRemoveObj rc = %d. Iteration = %lu\r\n", rc,
                     counter);
        return rc;
      }
    }
    return 0;
  });
}

int PerfGenerateECDHThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_GENERATE_ECDH_INFO *>(pThreadInfo);
  CloseRecordSession(&info->hSession);
  FreeRecordBuffer(&info->pbOut);
  return 0;
}

int PerfGenerateECDH(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_GENERATE_ECDH_INFO info;
  std::memset(&info, 0, sizeof(info));
  LoadGenericParameters(&info.ti, pTestParam, nParameters);
  info.ti.Metric = 1;
  info.KeyAlgId = QL_ALG_ECC_SECP256R1;
  if (IsParameterDefined(pTestParam, nParameters, "-alg")) {
    info.KeyAlgId = GetParameterAlg(pTestParam, nParameters, "-alg");
  }
  info.PeerAlgId = info.KeyAlgId;
  if (IsParameterDefined(pTestParam, nParameters, "-alg2")) {
    info.PeerAlgId = GetParameterAlg(pTestParam, nParameters, "-alg2");
  }
  info.TargetAlgId = QL_ALG_AES256;
  if (IsParameterDefined(pTestParam, nParameters, "-algt")) {
    info.TargetAlgId = GetParameterAlg(pTestParam, nParameters, "-algt");
  }
  info.Kdf = QL_GEN_KEY_X9_63_SHA256;
  if (IsParameterDefined(pTestParam, nParameters, "-op")) {
    info.Kdf = GetParameterAlg(pTestParam, nParameters, "-op");
  }
  int kdf_len = static_cast<int>(kDefaultKdfLen);
  if (IsParameterDefined(pTestParam, nParameters, "-kdflen")) {
    kdf_len = GetParameterInt(pTestParam, nParameters, "-kdflen");
  }
  info.dwKdfLen = kdf_len > 0 ? static_cast<uint32_t>(kdf_len) : 0;
  info.bNoTarget = IsParameterDefined(pTestParam, nParameters, "-ng") != 0;
  info.bTemporaryTarget = GetParameterInt(pTestParam, nParameters, "-del") == 0;

  const bool kdf_ok = info.Kdf == QL_GEN_KEY_KDF_RAW_SECRET || info.Kdf == QL_GEN_KEY_X9_63_SHA256;
  if (IsValidTestCountersConfig(&info.ti) && info.KeyAlgId != -1 && info.PeerAlgId != -1 &&
      info.TargetAlgId != -1 && kdf_ok && kdf_len > 0 &&
      static_cast<uint32_t>(kdf_len) <= kEcdhOutLen && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfGenerateECDHThread, PerfGenerateECDHInit, PerfGenerateECDHFin,
                                  PerfGenerateECDHThreadInit, PerfGenerateECDHThreadFin, &info,
                                  sizeof(info));
  }

  PerfHelpDescription({"ECDH key generation performance test.",
                       "This test returns the number of keys agreed per second between a private",
                       "key of the HSM and a peer public key, both made before the test."});
  ScreenOutput("     -alg    [OPTIONAL] Curve of the private key. ecc_secp256r1 (default):\r\n");
  ShowHelpECCAlgorithms();
  ShowHelpXECDHAlgorithms();
  ScreenOutput("     -alg2   [OPTIONAL] Curve of the peer key. The same as -alg (default).\r\n");
  ScreenOutput("     -algt   [OPTIONAL] Algorithm of the derived key. aes256 (default):\r\n");
  ShowHelpSymmetricAlgorithms();
  ScreenOutput("     -kdflen [OPTIONAL] Bytes derived. 32 (default).\r\n");
  ScreenOutput("     -op     [OPTIONAL] Derivation. ql_gen_key_x9_63_sha256 (default):\r\n");
  ShowHelpEcdhOpAlgorithms();
  ScreenOutput(
      "     -del    [OPTIONAL] 1: Each derived key is stored and removed in the same pass\r\n");
  ScreenOutput("                        (default).\r\n");
  ScreenOutput("                        0: Derived keys are session keys.\r\n");
  ScreenOutput("     -ng     [OPTIONAL] No key is stored: the derived bytes are handed out.\r\n");
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput("     %s -p generate-ecdh -t 5 -i 10 -alg ecc_secp256r1 -algt aes256\r\n",
               kKeysExampleHead);
  ScreenOutput("     %s -p generate-ecdh -t 5 -i 10 -op ql_gen_key_kdf_raw_secret\r\n",
               kKeysExampleHead);
  return kResultUsage;
}
