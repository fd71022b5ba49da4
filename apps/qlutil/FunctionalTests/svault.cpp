// -f svault-gen-token: every thread makes tokens of random secrets under one test key; all
// tokens go into one set, so that a token made twice (a collision) is counted.

#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "FunctionalTests.h"
#include "Output.h"
#include "harness/harness.h"

namespace {

// Shared by every thread under its lock; the record holds only a pointer to it.
struct TokenSet {
  QL_MUTEX_OBJ lock{};
  std::set<std::string> tokens;
  unsigned collisions = 0;
  unsigned total = 0;
};

typedef struct tag_FUNC_SVAULT_INFO {
  THREAD_INFO ti;
  char szKeyName[kTempKeyNameSize];
  QL_SVAULT_TOKEN_INFO stTokenInfo;
  TokenSet *pTokens;
} FUNC_SVAULT_INFO;

// The options of the svault-gen-token job: -masktype token or secret, -cks the mask, -type the
// checksum, -rep the representation (base10 when absent).
void LoadSVaultGenTokenParams(FUNC_SVAULT_INFO *info, TEST_PARAMETER *pTestParam, int nParameters) {
  info->stTokenInfo.bType = GetParameterSVault(pTestParam, nParameters, "-masktype", 1);
  info->stTokenInfo.bMaskType = GetParameterSVault(pTestParam, nParameters, "-cks", 0);
  info->stTokenInfo.bChecksum = GetParameterSVault(pTestParam, nParameters, "-type", 0);
  info->stTokenInfo.bRepresentation = GetParameterSVault(pTestParam, nParameters, "-rep", 10);
}

int GenerateSVaultTestKey(FUNC_SVAULT_INFO *info) {
  SessionOwner session;
  int rc = ConnectEx(session.Put(), &info->ti);
  if (rc != 0) {
    ScreenOutput("Error in ConnectEx. Err = %d\r\n", rc);
    return rc;
  }
  rc = GenTempKey("GenerateSVaultTestKey", session.Get(), QL_ALG_AES256, info->szKeyName);
  if (rc != 0) ScreenOutput("[GenerateSVaultTestKey] Fail in GenerateTestKey. rc = %d\r\n", rc);
  return rc;
}

void RemoveSVaultTestKey(FUNC_SVAULT_INFO *info) {
  SessionOwner session;
  if (ConnectEx(session.Put(), &info->ti) == 0) RemoveTempKey(session.Get(), info->szKeyName);
}

unsigned int FuncSVaultGenTokenThread(void *pvInfo) {
  auto *info = static_cast<FUNC_SVAULT_INFO *>(pvInfo);
  return RunFuncSessionLoop(
      &info->ti, [](int rc) { ScreenOutput("Error in ConnectEx. Err = %d\r\n", rc); },
      [info](HSESSIONCTX session, unsigned long) {
        int rc = 0;
        // A 16-digit secret, like a card number.
        unsigned char random[16];
        rc = QGetRandom(session, random, sizeof random);
        if (rc != 0) {
          ScreenOutput("[FuncSVaultGenTokenThread] Fail in QGetRandom. rc = %d\r\n", rc);
          return rc;
        }
        char secret[17];
        for (int i = 0; i < 16; ++i) secret[i] = static_cast<char>('0' + random[i] % 10);
        secret[16] = '\0';
        char token[128] = {};
        uint32_t tokenLen = sizeof token;
        unsigned char blob[1024];
        uint32_t blobLen = sizeof blob;
        rc = QSVaultGenToken(session, info->szKeyName, &info->stTokenInfo, secret, token, &tokenLen,
                             blob, &blobLen, 0);
        if (rc != 0) {
          ScreenOutput("[FuncSVaultGenTokenThread] Fail in QSVaultGenToken. rc = %d\r\n", rc);
          return rc;
        }
        TokenSet *set = info->pTokens;
        LockObject(&set->lock);
        ++set->total;
        if (!set->tokens.insert(std::string(token, strnlen(token, sizeof token))).second) {
          ++set->collisions;
        }
        UnlockObject(&set->lock);
        return 0;
      });
}

}  // namespace

int FuncSVaultGenToken(TEST_PARAMETER *pTestParam, int nParameters) {
  FUNC_SVAULT_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  LoadSVaultGenTokenParams(&info, pTestParam, nParameters);
  if (info.ti.Threads == -1 || info.ti.Iterations == -1 || !CheckConnectionFlags(&info.ti, false)) {
    FuncHelpDescription({"     Functional token generation test. Tokens of random secrets are\r\n",
                         "     made by every thread and the collisions counted.\r\n"});
    ShowHelpSVaultGenToken();
    ScreenOutput("     -rep      [OPTIONAL] Token representation\r\n");
    ShowHelpSVaultGetTokenRepresentation();
    return FuncHelpExample(
        "     qlutil -a 10.10.10.10 -u master -w 24681357 -f svault-gen-token -t 5 -i 10\r\n");
  }
  TokenSet tokens;
  if (InitMutexObj(&tokens.lock) != 0) return QL_ERR_NO_MEMORY;
  info.pTokens = &tokens;
  int rc = GenerateSVaultTestKey(&info);
  if (rc == 0) {
    rc = ExecuteTestThreads(FuncSVaultGenTokenThread, &info, sizeof info);
    RemoveSVaultTestKey(&info);
    ScreenOutput("Total collisions: %u\r\n", tokens.collisions);
    const double rate =
        tokens.total == 0 ? 0.0 : 100.0 * tokens.collisions / static_cast<double>(tokens.total);
    ScreenOutput("Collisions rate: %.05f%%\r\n", rate);
  }
  FinalizeMutexObj(&tokens.lock);
  return rc;
}
