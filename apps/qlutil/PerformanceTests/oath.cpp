// The OATH performance test: oath-sa-auth measures logins authenticated by a one-time password.
// Each thread creates a test user of its own with a random seed (ThreadInit) and removes it
// (ThreadFin); each pass computes the next password locally and opens and closes a session
// with it. A time token's value is accepted once per step, so a time run sleeps a step between
// logins (-timestep 1 -sleep 1000).

#include <cstdio>
#include <cstring>
#include <ctime>

#include "PerformanceTests.h"
#include "harness/harness.h"

namespace {

constexpr const char kDefaultOathPassword[] = "12345678";
constexpr uint32_t kOathEvent = 2;
constexpr uint32_t kOathTime = 3;
constexpr uint32_t kSeedLen = 20;
constexpr uint32_t kOtpDigits = 6;
constexpr uint32_t kDefaultTimeStep = 30;
// The strong-authentication kind of a login that carries a one-time password.
constexpr uint32_t kStrongAuthOtp = 1;
// The test users' rights: none beyond logging in.
constexpr uint32_t kOathUserAcl = ACL_NOP;

}  // namespace

typedef struct _PERF_OATH_SA_AUTH_INFO {
  THREAD_INFO ti;
  const char *pszUserPassword;  // -oathusrpwd
  uint32_t dwType;              // -oathtype: 2 event, 3 time
  uint64_t qwT0;                // -t0
  uint32_t dwTimeStep;          // -timestep
  uint32_t dwSleepMs;           // -sleep: pause after each login
  uint32_t dwOtpSessionFlags;   // -oathlb, -oathsc, -oathtls
  bool bShowSeed;               // -showseed
  HSESSIONCTX hSession;         // the thread's administrative session
  char szUser[QL_MAX_USER_NAME + 1];
  unsigned char pbSeed[kSeedLen];
  uint64_t qwCounter;  // the event counter of the next password
} PERF_OATH_SA_AUTH_INFO;

int PerfOathSAAuthThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_OATH_SA_AUTH_INFO *>(pThreadInfo);
  if (info->hSession != nullptr && info->szUser[0] != '\0') {
    QRemoveUser(info->hSession, info->szUser);
  }
  info->szUser[0] = '\0';
  CloseRecordSession(&info->hSession);
  return 0;
}

int PerfOathSAAuthThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_OATH_SA_AUTH_INFO *>(pThreadInfo);
  info->hSession = nullptr;
  info->szUser[0] = '\0';
  info->qwCounter = 0;
  PerfSetup setup("PerfOathSAAuthThreadInit");
  setup.Connect(&info->ti, &info->hSession);
  char name[kTempKeyNameSize];
  setup.TempKeyName(info->hSession, name);
  setup.Do("QCreateUser", [&] {
    QL_USER_INFO user;
    std::memset(&user, 0, sizeof(user));
    std::snprintf(user.szUserId, sizeof(user.szUserId), "qo%.14s", name);
    std::snprintf(user.szPassword, sizeof(user.szPassword), "%s", info->pszUserPassword);
    user.dwAcl = kOathUserAcl;
    const int rc = QCreateUser(info->hSession, &user);
    if (rc == 0) std::memcpy(info->szUser, user.szUserId, sizeof(info->szUser));
    return rc;
  });
  setup.Random(info->hSession, info->pbSeed, kSeedLen);
  setup.Do("QAssignToken", [&] {
    return QAssignToken(info->hSession, info->szUser, info->dwType, info->pbSeed, kSeedLen,
                        info->dwTimeStep, info->qwT0, 0);
  });
  if (setup.Ok() && info->bShowSeed) {
    char hex[2 * kSeedLen + 1];
    for (uint32_t i = 0; i < kSeedLen; ++i) {
      std::snprintf(hex + 2 * i, 3, "%02X", info->pbSeed[i]);
    }
    ScreenOutput("[%s] User %s seed %s\r\n", setup.Tag(), info->szUser, hex);
  }
  if (!setup.Ok()) PerfOathSAAuthThreadFin(info);
  return setup.Rc();
}

unsigned int PerfOathSAAuthThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_OATH_SA_AUTH_INFO *>(pThreadInfo);
  AUTH_PWD_EX auth;
  SetAuthPwdEx(&auth, info->ti.stAuthPwdEx.szAddr, info->szUser, info->pszUserPassword,
               info->ti.stAuthPwdEx.nPort, kStrongAuthOtp);
  char otp[kOtpDigits + 1];
  const char *tag = "PerfOathSAAuthThread";
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    const uint64_t moving_factor =
        info->dwType == kOathTime ? static_cast<uint64_t>(std::time(nullptr)) : info->qwCounter++;
    int rc = QGenerateHOTPOffline(info->pbSeed, kSeedLen, info->dwType, moving_factor,
                                  info->dwTimeStep, info->qwT0, kOtpDigits, otp);
    if (rc != 0) return PerfPassFailed(tag, "QGenerateHOTPOffline", rc, counter);
    auth.pbStrongAuth = reinterpret_cast<unsigned char *>(otp);
    auth.nStrongAuthLen = static_cast<int32_t>(kOtpDigits);
    HSESSIONCTX session = nullptr;
    rc = QOpenSession(&session, kAuthUserPwd, &auth, sizeof(auth), info->dwOtpSessionFlags);
    if (rc != 0) return PerfPassFailed(tag, "QOpenSession", rc, counter);
    rc = QCloseSession(&session, 0);
    if (rc != 0) return PerfPassFailed(tag, "QCloseSession", rc, counter);
    if (info->dwSleepMs != 0) QlSleep(info->dwSleepMs);
    return 0;
  });
}

namespace {

// -oathlb, -oathsc, -oathtls: 0 or 1 each, as -lb, -sc and -tls read them (defaults 0, 1, 1).
uint32_t GetOtpSessionFlags(TEST_PARAMETER *pTestParam, int nParameters) {
  const int lb = GetParameterInt(pTestParam, nParameters, "-oathlb");
  const int sc = GetParameterInt(pTestParam, nParameters, "-oathsc");
  const int tls = GetParameterInt(pTestParam, nParameters, "-oathtls");
  uint32_t flags = tls == 0 ? kSessionUnencrypted : kSessionEncrypted;
  if (lb != 1) flags |= kSessionBypassLoadBalance;
  if (sc == 0) flags |= kSessionBypassCache;
  return flags;
}

}  // namespace

int PerfOathSAAuth(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_OATH_SA_AUTH_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
  info.pszUserPassword = GetParameterStr(pTestParam, nParameters, "-oathusrpwd");
  if (info.pszUserPassword == nullptr || info.pszUserPassword[0] == '\0') {
    info.pszUserPassword = kDefaultOathPassword;
  }
  bool options_ok = std::strlen(info.pszUserPassword) <= QL_MAX_PASSWORD;
  info.dwType = kOathEvent;
  if (IsParameterDefined(pTestParam, nParameters, "-oathtype")) {
    const int type = GetParameterOathType(pTestParam, nParameters, "-oathtype");
    options_ok =
        options_ok && (type == static_cast<int>(kOathEvent) || type == static_cast<int>(kOathTime));
    info.dwType = static_cast<uint32_t>(type);
  }
  uint32_t value = 0;
  if (IsParameterDefined(pTestParam, nParameters, "-t0")) {
    options_ok = options_ok && GetParameterDword(pTestParam, nParameters, "-t0", &value);
    info.qwT0 = value;
  }
  info.dwTimeStep = kDefaultTimeStep;
  if (IsParameterDefined(pTestParam, nParameters, "-timestep")) {
    options_ok =
        options_ok && GetParameterDword(pTestParam, nParameters, "-timestep", &value) && value > 0;
    info.dwTimeStep = value;
  }
  if (IsParameterDefined(pTestParam, nParameters, "-sleep")) {
    options_ok = options_ok && GetParameterDword(pTestParam, nParameters, "-sleep", &value);
    info.dwSleepMs = value;
  }
  info.dwOtpSessionFlags = GetOtpSessionFlags(pTestParam, nParameters);
  info.bShowSeed = IsParameterDefined(pTestParam, nParameters, "-showseed") != 0;

  if (IsValidTestCountersConfig(&info.ti) && options_ok && info.ti.dwAuthParam == kAuthUserPwd &&
      CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfOathSAAuthThread, nullptr, nullptr, PerfOathSAAuthThreadInit,
                                  PerfOathSAAuthThreadFin, &info, sizeof(info));
  }
  PerfHelpDescription({"OATH session authentication performance test.",
                       "This test returns the number of logins per second authenticated by a",
                       "one-time password. Each thread creates a test user with a token and",
                       "removes it at the end."});
  ScreenOutput("     -oathusrpwd [OPTIONAL] Password of the test users. 12345678 (default).\r\n");
  ScreenOutput("     -oathtype   [OPTIONAL] Token type. event (default):\r\n");
  ShowHelpOathTypes();
  ScreenOutput(
      "     -t0         [OPTIONAL] Time tokens: T0 in seconds since 1970. 0 (default).\r\n");
  ScreenOutput("     -timestep   [OPTIONAL] Time tokens: time step in seconds. 30 (default).\r\n");
  ScreenOutput("     -sleep      [OPTIONAL] Pause after each login, in ms. 0 (default).\r\n");
  ScreenOutput("     -oathlb     [OPTIONAL] -lb of the one-time password logins.\r\n");
  ScreenOutput("     -oathsc     [OPTIONAL] -sc of the one-time password logins.\r\n");
  ScreenOutput("     -oathtls    [OPTIONAL] -tls of the one-time password logins.\r\n");
  ScreenOutput("     -showseed   [OPTIONAL] Print each test user's seed.\r\n");
  return PerfHelpCommandExamples("oath-sa-auth",
                                 {"-t 5 -i 10", "-t 5 -i 10 -oathtype time -sleep 1000"});
}
