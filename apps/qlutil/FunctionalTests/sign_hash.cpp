// -f sign-hash: each thread signs the hash of 1,024 random bytes with a temporary session key
// and verifies every signature in the HSM. Its messages keep the tag of the performance test it
// grew from, [PerfSignHashThread], which scripts match.

#include <cstddef>
#include <cstring>
#include <memory>

#include "FunctionalTests.h"
#include "Output.h"
#include "harness/harness.h"

namespace {

typedef struct tag_FUNC_SIGN_HASH_INFO {
  THREAD_INFO ti;
  int nHashAlg;      // -h
  int nKeyAlg;       // -k
  int nKeepAlive;    // -keepalive: 1 sends the keep-alive request after every operation
  int nIgnoreError;  // -ignoreerror: 1 reports a failure and goes on
} FUNC_SIGN_HASH_INFO;

// The runner copies the record byte for byte: the descriptor and the four values, nothing else.
constexpr size_t AlignUp(size_t n, size_t a) {
  return (n + a - 1) / a * a;
}
static_assert(sizeof(FUNC_SIGN_HASH_INFO) ==
                  AlignUp(sizeof(THREAD_INFO) + 4 * sizeof(int), alignof(THREAD_INFO)),
              "the sign-hash record is the descriptor followed by its four values");

constexpr uint32_t kSignDataLen = 1024;

// One session's work: set-up, then operations until the count is reached (or a failure when
// errors are not ignored). Returns the code that stops the thread (0 to go on).
int SignHashSession(FUNC_SIGN_HASH_INFO *info, unsigned long *pOpCounter, bool bOneOperation) {
  THREAD_INFO *ti = &info->ti;
  const unsigned tid = static_cast<unsigned>(ti->ThreadId);
  const bool ignore = info->nIgnoreError == 1;
  SessionOwner session;
  int rc = ConnectEx(session.Put(), ti);
  if (rc != 0) {
    ScreenOutput("[PerfSignHashThread] [%u] Error in ConnectEx. Err = %lu\r\n", tid,
                 static_cast<unsigned long>(rc));
    return ignore ? 0 : rc;
  }
  unsigned char data[kSignDataLen];
  rc = QGetRandom(session.Get(), data, sizeof data);
  if (rc != 0) {
    ScreenOutput("[PerfSignHashThread] [%u] Fail in QGetRandom. rc = %d\r\n", tid, rc);
    return ignore ? 0 : rc;
  }
  // Released in the order the session ends: the signature, the key, the hash, the session.
  HashOwner hash;
  KeyOwner key;
  rc = QGenerateKey(session.Get(), nullptr, static_cast<uint32_t>(info->nKeyAlg), QL_KEY_TEMPORARY,
                    key.Put());
  if (rc != 0) {
    ScreenOutput("[PerfSignHashThread] [%u] Fail in QGenerateKey. rc = %d\r\n", tid, rc);
    return ignore ? 0 : rc;
  }
  rc = QCreateHash(session.Get(), static_cast<uint32_t>(info->nHashAlg), nullptr, 0, hash.Put());
  if (rc != 0) {
    ScreenOutput("[PerfSignHashThread] [%u] Fail in QCreateHash. rc = %d\r\n", tid, rc);
    return ignore ? 0 : rc;
  }
  rc = QHashData(hash.Get(), data, sizeof data, 0);
  if (rc != 0) {
    ScreenOutput("[PerfSignHashThread] [%u] Fail in QHashData. rc = %d\r\n", tid, rc);
    return ignore ? 0 : rc;
  }
  uint32_t sigLen = 0;
  rc = QSignHash(hash.Get(), key.Get(), 0, nullptr, &sigLen);
  if (rc != QL_ERR_BUFFER_TOO_SMALL) {
    ScreenOutput("[PerfSignHashThread] [%u] Fail in QSignHash. rc = %d\r\n", tid, rc);
    if (rc == 0) rc = QL_ERR_LIB_INTERNAL;  // a size query must answer 1005
    return ignore ? 0 : rc;
  }
  std::unique_ptr<unsigned char[]> signature(new (std::nothrow) unsigned char[sigLen]);
  if (!signature) {
    ScreenOutput("[PerfSignHashThread] [%u] Fail in malloc. rc = %d\r\n", tid, QL_ERR_NO_MEMORY);
    return ignore ? 0 : QL_ERR_NO_MEMORY;
  }

  do {
    if (!bOneOperation && ShouldStopFuncLoop(pOpCounter, ti->Iterations)) break;
    const unsigned long iteration = *pOpCounter;
    uint32_t len = sigLen;
    rc = QSignHash(hash.Get(), key.Get(), 0, signature.get(), &len);
    if (rc != 0) {
      ScreenOutput("[PerfSignHashThread] [%u] Fail in QSignHash rc = %d. Iteration = %lu\r\n", tid,
                   rc, iteration);
      if (!ignore) return rc;
    } else {
      rc = QVerifySignature(hash.Get(), signature.get(), len, key.Get());
      if (rc != 0) {
        ScreenOutput(
            "[PerfSignHashThread] [%u] Fail in QVerifySignature rc = %d. Iteration = %lu\r\n", tid,
            rc, iteration);
        if (!ignore) return rc;
      }
    }
    QlOperationSleep(&ti->stOpSleepInfo);
    if (info->nKeepAlive == 1) {
      rc = SendKeepAlive(session.Get());
      if (rc != 0) {
        ScreenOutput("Error in QAdmOperation. Err = %d [Thread %lu / Iteration %lu]\r\n", rc,
                     static_cast<unsigned long>(tid), iteration);
        if (!ignore) return rc;
      }
    }
    if (RunFailed(ti)) break;
  } while (!bOneOperation);
  return 0;
}

unsigned int FuncSignHashThread(void *pvInfo) {
  auto *info = static_cast<FUNC_SIGN_HASH_INFO *>(pvInfo);
  int rc = 0;
  ThreadErrorSignaling signaling(rc, info->ti);
  unsigned long counter = 0;
  if (info->ti.ReuseSession == 1) {
    rc = SignHashSession(info, &counter, false);
  } else {
    // A session per operation; -i 0 goes on until another thread fails.
    while (!ShouldStopFuncLoop(&counter, info->ti.Iterations)) {
      rc = SignHashSession(info, &counter, true);
      if (rc != 0 || RunFailed(&info->ti)) break;
    }
  }
  return 1;
}

int ShowFuncSignHashHelp() {
  FuncHelpDescription({"     Functional hash signature and verification test.\r\n",
                       "     This test returns the number of signatures generated and verified "
                       "per second.\r\n"});
  ScreenOutput("     -h            Hash algorithm\r\n");
  ShowHelpHashAlgorithms();
  ScreenOutput("     -k            Key algorithm\r\n");
  ShowHelpAsymSigAlgorithms();
  ScreenOutput(
      "     -opsleep      [OPTIONAL] Sleep between operations in seconds: <n> or <min>:<max>\r\n");
  ScreenOutput("     -keepalive    [OPTIONAL] 0: No keep alive (default)\r\n");
  ScreenOutput("                             1: Send a keep alive after each operation\r\n");
  ScreenOutput("     -ignoreerror  [OPTIONAL] 0: Stop at the first error (default)\r\n");
  ScreenOutput("                             1: Report errors and go on\r\n");
  return FuncHelpExample(
      "     qlutil -a 10.10.10.10 -u master -w 24681357 -f sign-hash -t 5 -i 10 -h sha1 -k "
      "rsa1024 -opsleep 5:10 -keepalive 0 -ignoreerror 0\r\n");
}

}  // namespace

int FuncSignHash(TEST_PARAMETER *pTestParam, int nParameters) {
  FUNC_SIGN_HASH_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  GetParameterOpSleepInfo(pTestParam, nParameters, "-opsleep", &info.ti.stOpSleepInfo);
  info.nHashAlg = GetParameterAlg(pTestParam, nParameters, "-h");
  info.nKeyAlg = GetParameterAlg(pTestParam, nParameters, "-k");
  info.nKeepAlive = GetParameterSwitch01(pTestParam, nParameters, "-keepalive");
  info.nIgnoreError = GetParameterSwitch01(pTestParam, nParameters, "-ignoreerror");
  if (info.ti.Threads == -1 || info.ti.Iterations == -1 || info.nHashAlg == -1 ||
      info.nKeyAlg == -1 || !CheckConnectionFlags(&info.ti, false)) {
    return ShowFuncSignHashHelp();
  }
  return ExecuteTestThreads(FuncSignHashThread, &info, sizeof info);
}
