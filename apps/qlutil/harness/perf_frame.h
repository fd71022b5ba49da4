#pragma once
// The frame of the performance tests (-p): the steps of Init and ThreadInit (PerfSetup) and the
// thread body's loop (RunPerfLoop). A member states only its options, its set-up steps, its pass
// and its help lines; its entry starts with LoadPerfRecord and ends with ExecutePerfTestThreads.
//
// ThreadInit acquires what the record will hold through owners (handles.h) and hands them over
// to the record only once every step succeeded, so a failing ThreadInit releases all it made.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <utility>

#include "Output.h"
#include "harness/connection.h"
#include "harness/handles.h"
#include "harness/loaders.h"
#include "harness/temp_names.h"
#include "harness/threads.h"
#include "ql_client_helper.h"
#include "qlapi.h"
#include "qlutil.h"

// The digest identifier QDoRSAPadding takes for a library hash identifier: 1 gives 2, 2 gives 3,
// 4 to 7 give themselves; 3 and every other value give 0 (the bare digest).
int GetHashOIDFromAlgId(int nHashAlgId);

// The end of a thread body: a non-zero code is recorded in the copy and announced to the other
// threads through the run's error event.
inline void PublishPerfThreadError(THREAD_INFO *ti, int rc) {
  if (rc == 0) return;
  ti->Error = rc;
  SignalErrorEvent(ti->phErrorEvent);
}

// True once another thread announced a failure.
inline bool PerfRunFailed(THREAD_INFO *ti) {
  return IsErrorEventSignaled(ti->phErrorEvent);
}

// ---------------------------------------------------------------------------------------------
// The thread body

// "[<tag>] Fail in <call> rc = <rc>. Iteration = <counter>\r\n", the loop's failure line.
// Answers rc, so that a pass ends with `return PerfPassFailed(...)`.
int PerfPassFailed(const char *tag, const char *call, int rc, unsigned long counter);

// The loop of a thread body: pass(counter) runs until Iterations passes are done (for ever
// without -i), a pass answers a non-zero code or another thread announced a failure; the code
// is then published (PublishPerfThreadError). A pass prints its own failure (PerfPassFailed).
// Inlined into the body, so the timed loop holds only the counter, the pass and the poll of
// the error event. The code type is the pass's (int, or a PKCS#11 CK_RV). Answers 1, the
// body's answer.
template <typename Pass>
inline unsigned int RunPerfLoop(THREAD_INFO *ti, Pass &&pass) {
  unsigned long counter = 0;
  decltype(pass(counter)) rc = 0;
  do {
    if (ShouldStopPerfTestLoop(&counter, ti->Iterations)) break;
    rc = pass(counter);
    if (rc != 0) break;
  } while (!PerfRunFailed(ti));
  if (rc != 0) PublishPerfThreadError(ti, static_cast<int>(rc));
  return 1;
}

// ---------------------------------------------------------------------------------------------
// Init and ThreadInit

// The steps of a set-up callback (Init, ThreadInit). A step runs only while every earlier one
// succeeded; a failing step prints "[<tag>] Fail in <call>. rc = <code>\r\n" and its code is
// the callback's answer (Rc). What the steps acquire stays in the caller's owners until the
// caller hands it to the record, once Ok.
class PerfSetup {
 public:
  explicit PerfSetup(const char *tag) : tag_(tag) {}

  bool Ok() const { return rc_ == 0; }
  int Rc() const { return rc_; }
  const char *Tag() const { return tag_; }

  // Prints the failure line of call and keeps rc as the answer. A 0 is printed all the same
  // and lets the set-up go on (the lenient answers some tests keep).
  void Fail(const char *call, int rc);

  // step() answers a library code.
  template <typename Step>
  PerfSetup &Do(const char *call, Step &&step) {
    if (rc_ == 0) {
      const int rc = step();
      if (rc != 0) Fail(call, rc);
    }
    return *this;
  }

  // step() answers a code and prints its own failure line (GenTempKey and the like).
  template <typename Step>
  PerfSetup &Run(Step &&step) {
    if (rc_ == 0) rc_ = step();
    return *this;
  }

  // A size query (a call given no buffer), which succeeds with 1005 and the length it needs;
  // any other answer fails, 0 as QL_ERR_PROTOCOL (a size query must name the size it needs).
  template <typename Query>
  PerfSetup &SizeQuery(const char *call, Query &&query) {
    if (rc_ == 0) {
      const int rc = query();
      if (rc != QL_ERR_BUFFER_TOO_SMALL) Fail(call, rc == 0 ? QL_ERR_PROTOCOL : rc);
    }
    return *this;
  }

  // The usual steps. Connect: ConnectEx with the record's connection options, into an owner
  // or straight into a handle the record keeps. TempKeyName: GetTempKeyName. Alloc: a zeroed
  // heap buffer ("malloc" and -1 when there is none). HashData: QCreateHash of alg, then
  // QHashData of the data. SessionKey: an unnamed key of alg (QGenerateKey, no name).
  // UserKey: the key stored under name (QGetUserKey). TestKey: that key when shared, else a
  // SessionKey.
  PerfSetup &Connect(const THREAD_INFO *ti, SessionOwner *session);
  PerfSetup &Connect(const THREAD_INFO *ti, HSESSIONCTX *phSession);
  PerfSetup &TempKeyName(HSESSIONCTX hSession, char *pszName);
  PerfSetup &Alloc(HeapBuffer *buffer, size_t size, const char *call = "malloc");
  PerfSetup &Random(HSESSIONCTX hSession, unsigned char *data, uint32_t len);
  PerfSetup &CreateHash(HSESSIONCTX hSession, int alg, HashOwner *hash);
  PerfSetup &HashData(HashOwner *hash, const unsigned char *data, uint32_t len);
  PerfSetup &SessionKey(HSESSIONCTX hSession, int alg, uint32_t flags, KeyOwner *key);
  PerfSetup &UserKey(HSESSIONCTX hSession, const char *name, KeyOwner *key);
  PerfSetup &TestKey(HSESSIONCTX hSession, bool shared, const char *name, int alg, uint32_t flags,
                     KeyOwner *key);

 private:
  const char *tag_;
  int rc_ = 0;
};
