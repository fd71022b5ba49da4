#pragma once
// The test harness and the client layer of qlutil: the per-thread descriptor THREAD_INFO and
// its loaders, the two runners, the HSM statistics sampler, and the connection set-up.
//
// How a command uses it: its handler zero-fills a record whose first member is THREAD_INFO,
// calls LoadGenericParameters (or LoadGenericJobParameters), checks CheckConnectionFlags and its
// own options, and hands the record to ExecuteTestThreads (functional tests, stress tests, jobs)
// or ExecutePerfTestThreads (performance tests). The runner's result is the handler's result.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

#include "arch.h"
#include "ql_arch.h"
#include "ql_client_helper.h"
#include "qlapi.h"
#include "qlutil.h"
#include "statistics.h"

class QueltaClient;

// Authentication kinds: which record follows in QOpenSession (0: none loaded yet).
constexpr uint32_t kAuthNone = 0;
constexpr uint32_t kAuthAnonymous = 1;
constexpr uint32_t kAuthUserPwd = 16;
constexpr uint32_t kAuthAccessToken = 32;
constexpr uint32_t kAuthWinCredential = 128;

// Session flags of QOpenSession.
constexpr uint32_t kSessionEncrypted = 1;
constexpr uint32_t kSessionUnencrypted = 4;
constexpr uint32_t kSessionBypassLoadBalance = 8;
constexpr uint32_t kSessionBypassCache = 16;

constexpr int kDefaultHsmPort = 4433;
// Runner-internal: no thread recorded an error.
constexpr int kRunnerNoError = 9999;
// Recorded in the first copy's Error when a thread clean-up throws.
constexpr int kRunnerCleanupException = 555555;
// A performance run whose threads could not all be started (the ones started are stopped).
constexpr int kRunnerThreadStartFailed = 1;
// Default HSM statistics sampling interval.
constexpr uint32_t kDefaultStatsIntervalMs = 500;

// The per-thread descriptor at the head of every test and job record. A plain record: the
// runners copy it (and the test's own fields after it) byte for byte, one copy per thread.
typedef struct _THREAD_INFO {
  QL_EVENT_HANDLE *phErrorEvent;        // the run's error event, shared by every copy
  uint32_t dwAuthParam;                 // authentication kind (kAuth*)
  AUTH_PWD_EX stAuthPwdEx;              // kinds 1 and 16
  AUTH_ATOKEN stAccessToken;            // loaded by -at/-atf
  AUTH_WIN_CREDENTIAL stWinCredential;  // kind 128
  bool useAccessToken;                  // a token was loaded
  int BlockCount;                       // library operations per loop pass; 0: one
  int Iterations;                       // -i; -1 when absent (run until an error)
  int Threads;                          // -t; -1 when absent
  char *pszTestCase;                    // -tc; may be null
  int ReuseSession;                     // -r: 1 one session per thread, 0 one per operation
  int MessageSize;                      // bytes per operation, for the byte rate
  int Metric;                           // 1 operations per second, otherwise bytes per second
  int ThreadId;                         // 0 .. Threads-1, written by the runner
  int Error;                            // the thread's first failing library code; 0 while none
  int UseLoadBalance;                   // -lb
  int SessionCache;                     // -sc
  int UseTLS;                           // -tls
  bool writeReturnFiles;                // --retfiles
  OP_SLEEP_INFO stOpSleepInfo;          // -opsleep
  uint32_t statSleepIntervalMs;         // --stats_interval
  char *pszStatsFile;                   // --stats_file; null when not asked for
  bool printStatsOnScreen;              // --stats_print

  // The active login record's view (by dwAuthParam; a loaded token counts as kind 32 while
  // dwAuthParam is 0). For kind 128 the user and password are read from the credential store at
  // every call. Kinds without a record give empty texts and port 4433.
  std::string GetAddress() const;
  std::string GetUserId() const;
  std::string GetPassword() const;
  int GetPort() const;
} THREAD_INFO;

static_assert(std::is_trivially_copyable_v<THREAD_INFO>);
static_assert(std::is_standard_layout_v<THREAD_INFO>);
static_assert(std::is_trivially_copyable_v<AUTH_PWD_EX>);
static_assert(std::is_trivially_copyable_v<AUTH_ATOKEN>);
static_assert(std::is_trivially_copyable_v<AUTH_WIN_CREDENTIAL>);

// ---------------------------------------------------------------------------------------------
// Loaders. Each reads its options from the parameter array; absent integers read as -1.

void LoadTestVolumeParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
void LoadTestStatsParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
void LoadReturnFileParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
void LoadReuseParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
// Connection, volume, statistics, result files and session reuse, in that order.
void LoadGenericParameters(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
// The connection (anonymous or not), the result-file options, then UseLoadBalance 0,
// Iterations 1 and Threads 1.
void LoadGenericJobParameters(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count,
                              bool is_anonymous);

// -lb, -sc, -tls: 0 or 1 each; anything else gives the defaults 0, 1, 1.
void LoadLibConnectionFlagsParam(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
// The connection of tests and most jobs: -a/-u/-w, else a credential target (--cm, or its
// old alias -b), else an access token (-at, -atf); --port (4433 when absent).
void LoadLibConnectionParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
// -a and --port only, kind 1. The connection flags are left as they are.
void LoadAnonymousConnectionParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
// The password (-pwd, may be null) and the access mask of the user-creation switches.
void LoadUserCreationParams(char **password, uint32_t *acl, TEST_PARAMETER *param, int param_count);

bool IsUserPwdConnection(const char *address, const char *user, const char *password);
void SetupUserPwdConnection(THREAD_INFO *ti, const char *address, const char *user,
                            const char *password, int port);
bool IsWinCredentialsConnection(const char *target);
void SetupWinCredentialsConnection(THREAD_INFO *ti, const char *target, int port);
bool IsAtokenConnection(const char *token, const char *token_file);
// Loads the token (the file's text replaces the -at text) into stAccessToken and sets
// useAccessToken. dwAuthParam is left as it is: a descriptor loaded only with a token does not
// connect (Connect answers 100001); the facade's token connection is the working path.
void SetupAtokenConnection(THREAD_INFO *thread_info, const char *addr, int port,
                           const char *atoken_b64, const char *atoken_b64_file);
// Stores port and auth type and copies 128 bytes of address, 16 of user and 16 of password
// (null texts copy nothing).
void SetAuthPwdEx(AUTH_PWD_EX *record, const char *address, const char *user, const char *password,
                  int port, uint32_t auth_type);

// ---------------------------------------------------------------------------------------------
// Connection

// The session flags for QOpenSession (and the result row): 1 with TLS else 4, +8 without load
// balancing, +16 without the session cache.
uint32_t GetConnectionFlags(const THREAD_INFO *ti);
// True when enough was given to connect (an address with a user and password, an address and a
// token, or for anonymous commands an address).
bool CheckConnectionFlags(const THREAD_INFO *test_info, bool is_anonymous);
// The record for dwAuthParam and its length; null (len untouched) for kinds without a record.
const void *GetAuthData(const THREAD_INFO *ti, uint32_t *len);
// Kind (1 when anonymous), flags and record for QOpenSession; *ret 0, or 100001 and null when
// the kind has no record.
const void *GetConnectionParams(const THREAD_INFO *ti, uint32_t *auth_type, uint32_t *flags,
                                uint32_t *data_len, bool isAnonymous, int *ret);
// Opens a session with the descriptor's connection. 100001 when it has no record (the library
// is not called), otherwise QOpenSession's code. Safe from any thread.
int Connect(const THREAD_INFO *ti, HSESSIONCTX *session, bool is_anonymous);
int ConnectEx(HSESSIONCTX *session, const THREAD_INFO *ti);
int ConnectAnonymous(HSESSIONCTX *session, const THREAD_INFO *ti);
// A user/password session to the given HSM with the given session flags.
int Connect(HSESSIONCTX *session, const char *address, const char *user, const char *password,
            int port, uint32_t flags);

// A client over the descriptor's connection, not yet connected (the caller calls Connect()).
// On a kind without a record: a default, unconnected client.
QueltaClient GetQueltaClient(const THREAD_INFO *ti, bool is_anonymous);
// The same on the heap; null when the kind has no record.
std::unique_ptr<QueltaClient> NewQueltaClient(const THREAD_INFO *ti, bool is_anonymous);

// ---------------------------------------------------------------------------------------------
// Thread helpers

// True when -t was given.
bool IsValidTestCountersConfig(const THREAD_INFO *ti);
void QlSleep(unsigned long ms);
unsigned long QlGetThreadId();
// The pause between two operations of -opsleep: none, fixed, or random in [dwInit, dwEnd - 1]
// seconds (seeded from uiRandomSeed, which it advances). Equal bounds pause exactly dwInit.
void QlOperationSleep(OP_SLEEP_INFO *pstOpSleepInfo);
// The pause QlOperationSleep makes, in milliseconds (advancing the seed the same way).
uint32_t QlOperationSleepMs(OP_SLEEP_INFO *pstOpSleepInfo);

// Publishes a thread's failure whichever way the thread function leaves: at scope exit, a
// nonzero *lib_ret_code goes into thread_info.Error and the run's error event is set.
class ThreadErrorSignaling {
 public:
  ThreadErrorSignaling(int &lib_ret_code, THREAD_INFO &thread_info)
      : lib_ret_code_(&lib_ret_code), thread_info_(&thread_info) {}
  ~ThreadErrorSignaling();
  ThreadErrorSignaling(const ThreadErrorSignaling &) = delete;
  ThreadErrorSignaling &operator=(const ThreadErrorSignaling &) = delete;

 private:
  int *lib_ret_code_;
  THREAD_INFO *thread_info_;
};

// The loop guard of every thread body: with max -1 never stops; stops once *counter has
// reached max; otherwise counts one up and lets the body go on.
inline bool ShouldStopPerfTestLoop(unsigned long *counter, int max) {
  if (max == -1) return false;
  if (static_cast<long long>(*counter) >= max) return true;
  ++*counter;
  return false;
}

// ---------------------------------------------------------------------------------------------
// Runners

// clang-format off
// A performance thread body, as every -p test writes it (the loop stays free of locks,
// allocations and system calls: the guard is a counter, the poll one atomic load):
//
//   unsigned PerfXxxThread(void *pv) {
//     auto *info = static_cast<PERF_XXX_INFO *>(pv);
//     unsigned long counter = 0;
//     int rc = 0;
//     while (!ShouldStopPerfTestLoop(&counter, info->ti.Iterations)) {
//       rc = QXxx(...);
//       if (rc != 0) {
//         ScreenOutput("[PerfXxxThread] Fail in QXxx rc = %d. Iteration = %lu\r\n", rc, counter);
//         break;
//       }
//       if (IsErrorEventSignaled(info->ti.phErrorEvent)) break;
//     }
//     if (rc != 0) {
//       info->ti.Error = rc;
//       SignalErrorEvent(info->ti.phErrorEvent);
//     }
//     return 1;
//   }
// clang-format on
//
// Callbacks of a performance test: 0 means success.
typedef int (*pfn_InitFinCallback)(void *pTestInfo);
typedef int (*pfn_InitializeThread)(void *pThreadInfo);
typedef int (*pfn_FinalizeThread)(void *pThreadInfo);

// Runs ThreadFunc on Threads byte copies of the record (cbTestInfo bytes, THREAD_INFO first),
// waits for all, prints the footer, writes the -out row and qlutil_time. Returns 100000, or the
// Error of the lowest-indexed thread that recorded one when the error event was set.
int ExecuteTestThreads(pfn_TestThread ThreadFunc, void *pTestInfo, size_t cbTestInfo);

// The performance runner: InitializeTest (may be null) on the record; per copy, in index order,
// InitializeThread; the threads, timed; FinalizeThread per copy; FinalizeTest (may be null).
// Samples the HSM's load alongside when asked. Every copy whose InitializeThread succeeded gets
// its FinalizeThread and, once InitializeTest succeeded, FinalizeTest is called, whatever failed
// in between. Any failing callback or thread start fails the run (the error footer and row):
// the result is the first such code, else the lowest-indexed thread's Error; 100000 on success.
int ExecutePerfTestThreads(pfn_TestThread ThreadFunc, pfn_InitFinCallback InitializeTest,
                           pfn_InitFinCallback FinalizeTest, pfn_InitializeThread InitializeThread,
                           pfn_FinalizeThread FinalizeThread, void *pTestInfo, size_t cbTestInfo);

// Asks the HSM at address/port (user and password, or anonymously without a user) for its six
// version texts: model, firmware, serial number, hardware, name, library. False when the
// session or the query fails. The -out row gets its texts through this.
bool QueryHsmVersionTexts(const char *address, const char *user, const char *password,
                          unsigned flags, int port, char texts[6][512]);

// ---------------------------------------------------------------------------------------------
// HSM statistics sampling

// True when a CSV file or the summary was asked for and the interval is not 0 (which turns
// sampling off).
bool IsStatsEnabled(const THREAD_INFO *thread_info);
// The sampler thread's body: its own session, one reading every statSleepIntervalMs (the first
// discarded) until stop is set. Closes its session on every path.
void GetHSMStatistics(const THREAD_INFO *thread_info, std::atomic<bool> &stop,
                      HSMStatistics &statistics_results);
