#include "arch.h"

#include <atomic>
#include <new>
#include <system_error>
#include <thread>

#ifndef _WIN32
#include <sys/syscall.h>
#include <unistd.h>
#endif

namespace {

// The error event of a run. Only ever polled, never waited on, so a flag is all it needs; the
// release/acquire pair makes what a failing thread wrote before signalling visible to the
// threads that see the flag.
struct ErrorEvent {
  std::atomic<bool> signaled{false};
};

ErrorEvent *AsEvent(QL_EVENT_HANDLE *phEvent) {
  return phEvent != nullptr ? static_cast<ErrorEvent *>(*phEvent) : nullptr;
}

}  // namespace

int InitEvent(QL_EVENT_HANDLE *phEvent) {
  if (phEvent == nullptr) return 1;
  *phEvent = new (std::nothrow) ErrorEvent;
  return *phEvent != nullptr ? 0 : 1;
}

void SignalErrorEvent(QL_EVENT_HANDLE *phEvent) {
  if (ErrorEvent *event = AsEvent(phEvent)) event->signaled.store(true, std::memory_order_release);
}

bool IsErrorEventSignaled(QL_EVENT_HANDLE *phEvent) {
  ErrorEvent *event = AsEvent(phEvent);
  return event != nullptr && event->signaled.load(std::memory_order_acquire);
}

void CloseEventHandle(QL_EVENT_HANDLE *phEvent) {
  if (phEvent == nullptr) return;
  delete static_cast<ErrorEvent *>(*phEvent);
  *phEvent = nullptr;
}

#ifndef _WIN32

namespace {
struct PosixThread {
  std::thread thread;
};
}  // namespace

QL_THREAD_HANDLE CreateThreadNow(pfn_TestThread fnThreadFunc, void *pvAttr) {
  auto *handle = new (std::nothrow) PosixThread;
  if (handle == nullptr) return nullptr;
  try {
    handle->thread = std::thread([fnThreadFunc, pvAttr] { fnThreadFunc(pvAttr); });
  } catch (const std::system_error &) {
    delete handle;
    return nullptr;
  }
  return handle;
}

void WaitForThreads(QL_THREAD_HANDLE *phHandleList, uint32_t dwThreadCount) {
  if (phHandleList == nullptr) return;
  for (uint32_t i = 0; i < dwThreadCount; ++i) {
    auto *handle = static_cast<PosixThread *>(phHandleList[i]);
    if (handle != nullptr && handle->thread.joinable()) handle->thread.join();
  }
}

void CloseThreadHandle(QL_THREAD_HANDLE hHandle) {
  auto *handle = static_cast<PosixThread *>(hHandle);
  if (handle == nullptr) return;
  if (handle->thread.joinable()) handle->thread.join();
  delete handle;
}

unsigned long SSLLockThreadId() {
#ifdef __linux__
  return static_cast<unsigned long>(syscall(SYS_gettid));
#else
  return static_cast<unsigned long>(std::hash<std::thread::id>{}(std::this_thread::get_id()));
#endif
}

#endif  // !_WIN32
