// Windows forms of ql_arch.h: critical sections, Sleep and the performance counter.
#include <windows.h>

#include <new>

#include "ql_arch.h"

int InitMutexObj(QL_MUTEX_OBJ *pMutex) {
  auto *section = new (std::nothrow) CRITICAL_SECTION;
  if (section == nullptr) return 1;
  InitializeCriticalSection(section);
  pMutex->pvLock = section;
  return 0;
}

void FinalizeMutexObj(QL_MUTEX_OBJ *pMutex) {
  auto *section = static_cast<CRITICAL_SECTION *>(pMutex->pvLock);
  if (section == nullptr) return;
  DeleteCriticalSection(section);
  delete section;
  pMutex->pvLock = nullptr;
}

int LockObject(QL_MUTEX_OBJ *pMutex) {
  EnterCriticalSection(static_cast<CRITICAL_SECTION *>(pMutex->pvLock));
  return 0;
}

int UnlockObject(QL_MUTEX_OBJ *pMutex) {
  LeaveCriticalSection(static_cast<CRITICAL_SECTION *>(pMutex->pvLock));
  return 0;
}

void QL_Sleep(unsigned long ulMilliseconds) {
  Sleep(ulMilliseconds);
}

double ChronStart() {
  LARGE_INTEGER counter, frequency;
  QueryPerformanceCounter(&counter);
  QueryPerformanceFrequency(&frequency);
  return static_cast<double>(counter.QuadPart) / static_cast<double>(frequency.QuadPart);
}

double ChronEndDelta(double dStart) {
  return ChronStart() - dStart;
}

int WriteSecretFile(const char *pszPath, const void *pvData, unsigned long long ullLen) {
  if (pszPath == nullptr || (pvData == nullptr && ullLen > 0)) return -1;
  HANDLE h = CreateFileA(pszPath, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                         nullptr);
  if (h == INVALID_HANDLE_VALUE) return -1;
  const auto *p = static_cast<const unsigned char *>(pvData);
  bool ok = true;
  unsigned long long done = 0;
  while (ok && done < ullLen) {
    const unsigned long long left = ullLen - done;
    DWORD chunk = left > 0x40000000ULL ? 0x40000000UL : static_cast<DWORD>(left);
    DWORD written = 0;
    ok = WriteFile(h, p + done, chunk, &written, nullptr) && written > 0;
    done += written;
  }
  return CloseHandle(h) && ok ? 0 : -1;
}
