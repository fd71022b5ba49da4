#pragma once
// Pieces shared by the functional tests (-f), the access-control test and the stress tests:
// owners of library handles, the odd 0/1 switches, the result of a failed check, files.
//
// A functional thread works on its own copy of the test record and owns everything it makes
// through the owners below, so that whichever way it leaves, its keys, hashes and sessions are
// released before the runner frees the copy.

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>

#include "ql_client_helper.h"
#include "qlapi.h"
#include "qlutil.h"
#include "util.h"

namespace qlfunc {

// The result a thread records when the HSM answered success but the result is wrong (a
// decryption that differs, a CVV or PIN block that is not the known answer, an access check
// that passed where it had to be refused). It is not a library code, so it cannot be mistaken
// for one; as an exit code it is never 0.
constexpr int kResultCheckFailed = 100004;

using SessionOwner = QLUniquePtr<HSESSIONCTX, &CloseSession>;
using KeyOwner = QLUniquePtr<HKEYCTX, &DestroyKeyHandle>;
using HashOwner = QLUniquePtr<HHASHCTX, &DestroyHashHandle>;

// A library buffer (QAlloc) freed with QFree.
struct LibBufferDeleter {
  void operator()(unsigned char *p) const { QFree(p); }
};

// -keepalive and -ignoreerror: 0 or 1; absent or any other value gives 1, although the help
// calls 0 the default (the behaviour scripts rely on).
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

// The keep-alive request (QAdmOperation 4).
int SendKeepAlive(HSESSIONCTX hSession);

// Fills len bytes with the HSM's random bytes (in requests of at most 64 KiB).
int GetRandomBytes(HSESSIONCTX hSession, unsigned char *pbData, size_t len);

// Reads / writes a whole local file. False when it cannot be opened or read / written.
bool ReadWholeFile(const std::string &path, std::string *data);
bool WriteWholeFile(const std::string &path, const void *data, size_t len);
// True when both files can be read and hold the same bytes.
bool FileCompare(const std::string &path1, const std::string &path2);

// The help page frame: "DESCRIPTION" and its lines, "OPTIONS" and the global options; the
// caller prints its own options, then FuncHelpExample prints "EXAMPLE" and its line and returns
// -1 (kResultUsage), the entry's answer.
void FuncHelpDescription(std::initializer_list<const char *> lines);
int FuncHelpExample(const char *line);

}  // namespace qlfunc
