#include "ql_arch.h"

#ifndef _WIN32

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
