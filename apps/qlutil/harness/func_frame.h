#pragma once
// The frame of the functional tests (-f), the access-control tests and the stress tests (-s):
// the thread loop (RunFuncLoop, RunFuncSessionLoop), the odd 0/1 switches, the result of a failed
// check, files. An entry starts with LoadFuncRecord and ends with ExecuteTestThreads.
//
// A thread works on its own copy of the test record and owns everything it makes through the
// owners of handles.h, so that whichever way it leaves, its keys, hashes and sessions are
// released before the runner frees the copy.

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>

#include "harness/connection.h"
#include "harness/handles.h"
#include "harness/threads.h"
#include "ql_client_helper.h"
#include "qlapi.h"
#include "qlutil.h"

// The result a thread records when the HSM answered success but the result is wrong (a
// decryption that differs, a CVV or PIN block that is not the known answer, an access check
// that passed where it had to be refused). It is not a library code, so it cannot be mistaken
// for one; as an exit code it is never 0.
constexpr int kResultCheckFailed = 100004;

// -keepalive and -ignoreerror: 0 or 1; absent or any other value gives 1, although the help
// calls 0 the default.
int GetParameterSwitch01(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);

// True once another thread announced a failure.
inline bool RunFailed(const THREAD_INFO *ti) {
  return IsErrorEventSignaled(ti->phErrorEvent);
}

// Loop guard where -i 0 means "no limit": true when the counter has reached iterations (> 0);
// otherwise counts one up.
inline bool ShouldStopFuncLoop(unsigned long *counter, int iterations) {
  if (iterations <= 0) return false;
  if (*counter >= static_cast<unsigned long>(iterations)) return true;
  ++*counter;
  return false;
}

// The thread loop: pass(counter) runs until `passes` passes are done (for ever with -1), a pass
// answers a non-zero code or another thread announced a failure; counter counts from 1. Answers
// the last pass's code.
template <typename Pass>
int FuncLoop(THREAD_INFO *ti, int passes, Pass &&pass) {
  unsigned long counter = 0;
  int rc = 0;
  while (!ShouldStopPerfTestLoop(&counter, passes)) {
    rc = pass(counter);
    if (rc != 0 || RunFailed(ti)) break;
  }
  return rc;
}

// The thread body of a test without a session of its own: FuncLoop over Iterations, then a
// non-zero code is published (ThreadErrorSignaling). Answers 1, the body's answer.
template <typename Pass>
unsigned int RunFuncLoop(THREAD_INFO *ti, Pass &&pass) {
  int rc = 0;
  ThreadErrorSignaling signaling(rc, *ti);
  rc = FuncLoop(ti, ti->Iterations, pass);
  return 1;
}

// The thread body of a test on one session: ConnectEx (on a failure on_connect_error(rc) prints
// the test's line and no pass runs), FuncLoop with pass(session, counter), the session closed,
// then a non-zero code published. Answers 1.
template <typename OnConnectError, typename Pass>
unsigned int RunFuncSessionLoop(THREAD_INFO *ti, OnConnectError &&on_connect_error, Pass &&pass) {
  int rc = 0;
  ThreadErrorSignaling signaling(rc, *ti);
  SessionOwner session;
  rc = ConnectEx(session.Put(), ti);
  if (rc != 0) {
    on_connect_error(rc);
    return 1;
  }
  rc = FuncLoop(ti, ti->Iterations,
                [&](unsigned long counter) { return pass(session.Get(), counter); });
  return 1;
}

// The keep-alive request (QAdmOperation 4).
int SendKeepAlive(HSESSIONCTX hSession);

// Fills len bytes with the HSM's random bytes (in requests of at most 64 KiB).
int GetRandomBytes(HSESSIONCTX hSession, unsigned char *pbData, size_t len);

// Reads / writes a whole local file. False when it cannot be opened or read / written.
bool ReadWholeFile(const std::string &path, std::string *data);
bool WriteWholeFile(const std::string &path, const void *data, size_t len);
// True when both files can be read and hold the same bytes.
bool FileCompare(const std::string &path1, const std::string &path2);
