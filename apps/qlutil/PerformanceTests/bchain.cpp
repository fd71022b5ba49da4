// The blockchain performance test: bchain-sign-hash. An extended private key is made under a
// temporary name (one per thread, or one for the whole test with --key-per-test) and removed
// afterwards; the loop signs one digest made beforehand (compact ECDSA, the digest a SHA-256).

#include <cstring>

#include "PerformanceTests.h"
#include "harness/harness.h"

namespace {

constexpr uint32_t kBchainKeyType = QL_BCHAIN_XPRV_BIP32;
constexpr uint32_t kBchainSigType = QL_BCHAIN_SIG_COMPACT;
constexpr uint32_t kBchainHashMode = QL_BCHAIN_HASH_SHA256;
constexpr uint32_t kSeedLen = 32;
constexpr uint32_t kDigestLen = 32;
constexpr uint32_t kSignatureLen = 128;

}  // namespace

typedef struct _PERF_BCHAIN_SIGN_HASH_INFO {
  THREAD_INFO ti;
  bool bKeyPerTest;  // --key-per-test
  bool bExportable;  // --exp
  bool bTemporary;   // --tmp: the thread's key lives in its session (not with --key-per-test)
  HSESSIONCTX hSrcSession;
  char szTestKey[kTempKeyNameSize];  // --key-per-test
  HSESSIONCTX hSession;
  char szThreadKey[kTempKeyNameSize];
  unsigned char pbDigest[kDigestLen];
  unsigned char pbSignature[kSignatureLen];
} PERF_BCHAIN_SIGN_HASH_INFO;

namespace {

uint32_t KeyAttributes(const PERF_BCHAIN_SIGN_HASH_INFO *info, bool temporary) {
  return (info->bExportable ? QL_KEY_EXPORTABLE : 0u) | (temporary ? QL_KEY_TEMPORARY : 0u);
}

// BchainCreateXPrv: a master key from a random seed, under a temporary name (left empty when
// nothing was made).
void BchainCreateXPrv(PerfSetup *setup, HSESSIONCTX session, uint32_t attributes, char *name) {
  unsigned char seed[kSeedLen];
  setup->Random(session, seed, sizeof(seed));
  setup->TempKeyName(session, name);
  setup->Do("QBchainCreateXPrv", [&] {
    const int rc = QBchainCreateXPrv(session, name, kBchainKeyType, seed, sizeof(seed), attributes);
    if (rc != 0) name[0] = '\0';
    return rc;
  });
}

const char *SigningKey(const PERF_BCHAIN_SIGN_HASH_INFO *info) {
  return info->bKeyPerTest ? info->szTestKey : info->szThreadKey;
}

}  // namespace

int PerfBchainSignHashFin(void *pTestInfo) {
  auto *info = static_cast<PERF_BCHAIN_SIGN_HASH_INFO *>(pTestInfo);
  RemoveTempKey(info->hSrcSession, info->szTestKey);
  CloseRecordSession(&info->hSrcSession);
  return 0;
}

int PerfBchainSignHashInit(void *pTestInfo) {
  auto *info = static_cast<PERF_BCHAIN_SIGN_HASH_INFO *>(pTestInfo);
  if (!info->bKeyPerTest) return 0;
  PerfSetup setup("PerfBchainSignHashInit");
  setup.Connect(&info->ti, &info->hSrcSession);
  BchainCreateXPrv(&setup, info->hSrcSession, KeyAttributes(info, false), info->szTestKey);
  if (!setup.Ok()) PerfBchainSignHashFin(info);
  return setup.Rc();
}

int PerfBchainSignHashThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_BCHAIN_SIGN_HASH_INFO *>(pThreadInfo);
  // A session key ends with the session.
  if (!info->bTemporary) RemoveTempKey(info->hSession, info->szThreadKey);
  CloseRecordSession(&info->hSession);
  return 0;
}

int PerfBchainSignHashThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_BCHAIN_SIGN_HASH_INFO *>(pThreadInfo);
  info->hSession = nullptr;
  info->szThreadKey[0] = '\0';
  PerfSetup setup("PerfBchainSignHashThreadInit");
  setup.Connect(&info->ti, &info->hSession);
  if (!info->bKeyPerTest) {
    BchainCreateXPrv(&setup, info->hSession, KeyAttributes(info, info->bTemporary),
                     info->szThreadKey);
  }
  unsigned char data[kSeedLen];
  setup.Random(info->hSession, data, sizeof(data));
  setup.Do("QBchainHashData", [&] {
    uint32_t digest_len = kDigestLen;
    return QBchainHashData(info->hSession, kBchainHashMode, data, sizeof(data), info->pbDigest,
                           &digest_len);
  });
  if (!setup.Ok()) PerfBchainSignHashThreadFin(info);
  return setup.Rc();
}

unsigned int PerfBchainSignHashThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_BCHAIN_SIGN_HASH_INFO *>(pThreadInfo);
  const char *key = SigningKey(info);
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    uint32_t signature_len = kSignatureLen;
    const int rc = QBchainSignHash(info->hSession, key, kBchainSigType, kBchainHashMode,
                                   info->pbDigest, kDigestLen, info->pbSignature, &signature_len);
    return rc == 0 ? 0 : PerfPassFailed("PerfBchainSignHashThread", "QBchainSignHash", rc, counter);
  });
}

int PerfBchainSignHash(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_BCHAIN_SIGN_HASH_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
  info.bKeyPerTest = IsParameterDefined(pTestParam, nParameters, "--key-per-test") != 0;
  info.bExportable = IsParameterDefined(pTestParam, nParameters, "--exp") != 0;
  // A key shared by the threads is stored: a session key would be seen by Init's session only.
  info.bTemporary = !info.bKeyPerTest && IsParameterDefined(pTestParam, nParameters, "--tmp") != 0;

  if (IsValidTestCountersConfig(&info.ti) && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfBchainSignHashThread, PerfBchainSignHashInit,
                                  PerfBchainSignHashFin, PerfBchainSignHashThreadInit,
                                  PerfBchainSignHashThreadFin, &info, sizeof(info));
  }
  PerfHelpDescription({"Blockchain hash signature performance test.",
                       "This test returns the number of digests signed per second with an",
                       "extended private key (secp256k1)."});
  ScreenOutput("     --key-per-test [OPTIONAL] One key for the whole test instead of one per\r\n");
  ScreenOutput("                    thread.\r\n");
  ScreenOutput("     --exp          [OPTIONAL] Exportable keys.\r\n");
  ScreenOutput("     --tmp          [OPTIONAL] Session keys (one per thread only).\r\n");
  return PerfHelpCommandExamples("bchain-sign-hash", {"-t 5 -i 10", "-t 5 -i 10 --key-per-test"});
}
