#include "ql_arch.h"

#ifndef _WIN32

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <new>
#include <thread>

int InitMutexObj(QL_MUTEX_OBJ *pMutex) {
  pMutex->pvLock = new (std::nothrow) std::mutex;
  return pMutex->pvLock != nullptr ? 0 : 1;
}

void FinalizeMutexObj(QL_MUTEX_OBJ *pMutex) {
  delete static_cast<std::mutex *>(pMutex->pvLock);
  pMutex->pvLock = nullptr;
}

int LockObject(QL_MUTEX_OBJ *pMutex) {
  static_cast<std::mutex *>(pMutex->pvLock)->lock();
  return 0;
}

int UnlockObject(QL_MUTEX_OBJ *pMutex) {
  static_cast<std::mutex *>(pMutex->pvLock)->unlock();
  return 0;
}

void QL_Sleep(unsigned long ulMilliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ulMilliseconds));
}

double ChronStart() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double ChronEndDelta(double dStart) {
  return ChronStart() - dStart;
}

#endif  // !_WIN32

int WriteSecretFile(const char *pszPath, const void *pvData, unsigned long long ullLen) {
  if (pszPath == nullptr || (pvData == nullptr && ullLen > 0)) return -1;
  const int fd = ::open(pszPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return -1;
  // O_CREAT's mode applies to a new file only: an older, looser file is narrowed too.
  bool ok = fchmod(fd, 0600) == 0;
  const auto *p = static_cast<const unsigned char *>(pvData);
  unsigned long long done = 0;
  while (ok && done < ullLen) {
    const ssize_t n = ::write(fd, p + done, static_cast<size_t>(ullLen - done));
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += static_cast<unsigned long long>(n);
  }
  return ::close(fd) == 0 && ok ? 0 : -1;
}
