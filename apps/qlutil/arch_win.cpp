// Windows forms of the thread primitives of arch.h (the error event is shared, in arch.cpp).
#include <process.h>
#include <windows.h>

#include <new>

#include "arch.h"

namespace {

// _beginthreadex wants a __stdcall routine; the test's routine is a plain one.
struct ThreadStart {
  pfn_TestThread fn;
  void *arg;
};

unsigned __stdcall ThreadTrampoline(void *pv) {
  ThreadStart start = *static_cast<ThreadStart *>(pv);
  delete static_cast<ThreadStart *>(pv);
  return start.fn(start.arg);
}

}  // namespace

QL_THREAD_HANDLE CreateThreadNow(pfn_TestThread fnThreadFunc, void *pvAttr) {
  auto *start = new (std::nothrow) ThreadStart{fnThreadFunc, pvAttr};
  if (start == nullptr) return nullptr;
  uintptr_t handle = _beginthreadex(nullptr, 0, ThreadTrampoline, start, 0, nullptr);
  if (handle == 0) {
    delete start;
    return nullptr;
  }
  return reinterpret_cast<QL_THREAD_HANDLE>(handle);
}

void WaitForThreads(QL_THREAD_HANDLE *phHandleList, uint32_t dwThreadCount) {
  if (phHandleList == nullptr) return;
  for (uint32_t i = 0; i < dwThreadCount; ++i) {
    if (phHandleList[i] != nullptr) WaitForSingleObject(phHandleList[i], INFINITE);
  }
}

void CloseThreadHandle(QL_THREAD_HANDLE hHandle) {
  if (hHandle == nullptr) return;
  WaitForSingleObject(hHandle, INFINITE);
  CloseHandle(hHandle);
}

unsigned long SSLLockThreadId() {
  return GetCurrentThreadId();
}
