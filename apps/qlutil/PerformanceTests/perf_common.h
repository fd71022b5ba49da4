#pragma once
// Pieces shared by the performance tests (-p): temporary object names, the loop's failure
// report, the owners of the buffers a record holds, and the frame of every help page.
//
// A test record is copied byte for byte by the runner, so it holds raw handles and pointers;
// ThreadInit acquires them through owners (QLUniquePtr, HeapBuffer) and hands them over to the
// record only once every step succeeded, so a failing ThreadInit releases all it made.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <utility>

#include "Output.h"
#include "ql_client_helper.h"
#include "qlapi.h"
#include "qlutil.h"
#include "util.h"

// 32 upper-case hexadecimal digits and the terminating zero.
constexpr size_t kTempKeyNameSize = 33;

// Draws 16 random bytes from the HSM (QGetRandom) and writes them into pszName as 32 upper-case
// hexadecimal digits and a terminating zero (pszName holds kTempKeyNameSize bytes). True on
// success; on failure pszName is an empty text and *pRc (when given) the library's code.
bool GetTempKeyName(char *pszName, HSESSIONCTX hSession, int *pRc = nullptr);

// The same name from the local random generator, without a round trip: for names made inside
// the timed loop.
void GetTempKeyNameOffline(char *pszName);

// Init's whole-test keys: generates a stored key of alg under a temporary name (name holds
// kTempKeyNameSize bytes) and prints "[tag] Fail in ..." on failure; the name is left empty
// when nothing was made. RemoveTempKey removes it (when named) and empties the name.
int GenTempKey(const char *tag, HSESSIONCTX hSession, int alg, char *name);
void RemoveTempKey(HSESSIONCTX hSession, char *name);

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

// Removes a persistent key from the HSM through its handle (QDestroyKey flag 32). For
// QLUniquePtr owners of keys that a test made under a temporary name.
inline int DestroyAndRemoveKey(HKEYCTX *phKey) {
  return QDestroyKey(phKey, QL_DESTROY_REMOVE);
}

using SessionOwner = QLUniquePtr<HSESSIONCTX, &CloseSession>;
using KeyOwner = QLUniquePtr<HKEYCTX, &DestroyKeyHandle>;
using RemovedKeyOwner = QLUniquePtr<HKEYCTX, &DestroyAndRemoveKey>;
using HashOwner = QLUniquePtr<HHASHCTX, &DestroyHashHandle>;

// A malloc'ed buffer owned until Release hands it to a record (which frees it in ThreadFin).
class HeapBuffer {
 public:
  HeapBuffer() = default;
  explicit HeapBuffer(size_t size) : data_(static_cast<unsigned char *>(std::calloc(size, 1))) {}
  ~HeapBuffer() { std::free(data_); }
  HeapBuffer(const HeapBuffer &) = delete;
  HeapBuffer &operator=(const HeapBuffer &) = delete;
  HeapBuffer(HeapBuffer &&other) noexcept : data_(other.Release()) {}
  HeapBuffer &operator=(HeapBuffer &&other) noexcept {
    if (this != &other) {
      std::free(data_);
      data_ = other.Release();
    }
    return *this;
  }

  unsigned char *Get() const { return data_; }
  unsigned char *Release() { return std::exchange(data_, nullptr); }
  explicit operator bool() const { return data_ != nullptr; }

 private:
  unsigned char *data_ = nullptr;
};

// Frees a buffer the record owns and clears the pointer.
template <typename T>
inline void FreeRecordBuffer(T **ppBuffer) {
  std::free(*ppBuffer);
  *ppBuffer = nullptr;
}

// Releases a key handle, a hash handle or a session the record owns, if set.
inline void DestroyRecordKey(HKEYCTX *phKey, uint32_t dwFlags = 0) {
  if (*phKey != nullptr) QDestroyKey(phKey, dwFlags);
  *phKey = nullptr;
}
inline void DestroyRecordHash(HHASHCTX *phHash) {
  if (*phHash != nullptr) QDestroyHash(phHash);
  *phHash = nullptr;
}
inline void CloseRecordSession(HSESSIONCTX *phSession) {
  if (*phSession != nullptr) QCloseSession(phSession, 0);
  *phSession = nullptr;
}

// The help page of a performance test: "DESCRIPTION" with its lines, "OPTIONS" with the global
// performance options; the caller prints its own options, then calls PerfHelpExamples, which
// prints "EXAMPLE" and its lines and returns -1 (kResultUsage), the entry's answer.
void PerfHelpDescription(std::initializer_list<const char *> lines);
int PerfHelpExamples(std::initializer_list<const char *> lines);
