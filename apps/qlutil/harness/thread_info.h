#pragma once
// The per-thread descriptor THREAD_INFO at the head of every test and job record, and the
// constants of its fields and of the runners.

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "arch.h"
#include "ql_arch.h"
#include "ql_client_helper.h"
#include "qlapi.h"
#include "qlutil.h"

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
