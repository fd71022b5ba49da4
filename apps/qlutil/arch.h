#pragma once
// Threads and the run's error event, the only platform code the runners use.
//
// POSIX builds use std::thread and an atomic flag (arch.cpp); Windows builds use the C runtime's
// thread start (arch_win.cpp). The error event is the same on both: a manual-reset flag whose
// poll is one atomic load, so a thread body can test it after every operation at no cost.

#include <cstdint>

// Body of a test thread: gets its private copy of the test record; the result is ignored.
typedef unsigned int (*pfn_TestThread)(void *pvParam);

// Opaque handles. A null handle means "none".
typedef void *QL_THREAD_HANDLE;
typedef void *QL_EVENT_HANDLE;

// Starts a thread running fnThreadFunc(pvAttr) at once (default stack). Returns its handle, or
// null when the thread could not be started.
QL_THREAD_HANDLE CreateThreadNow(pfn_TestThread fnThreadFunc, void *pvAttr);
// Waits without time limit for each thread of the list, in list order. Null entries are skipped.
void WaitForThreads(QL_THREAD_HANDLE *phHandleList, uint32_t dwThreadCount);
// Releases a thread handle. A thread that was never waited for is waited for first, so no thread
// outlives its handle. Null is ignored.
void CloseThreadHandle(QL_THREAD_HANDLE hHandle);

// Creates an unnamed manual-reset event, not signalled. 0 on success, nonzero when no event was
// made (*phEvent is then null).
int InitEvent(QL_EVENT_HANDLE *phEvent);
// Sets the event; it stays set. Any thread may call it. Ignores a null pointer or event.
void SignalErrorEvent(QL_EVENT_HANDLE *phEvent);
// True when the event is set. One atomic load, no system call; false for a null pointer or event.
bool IsErrorEventSignaled(QL_EVENT_HANDLE *phEvent);
// Destroys the event and clears *phEvent. No thread may use it afterwards.
void CloseEventHandle(QL_EVENT_HANDLE *phEvent);

// The calling thread's id, as the system numbers threads.
unsigned long SSLLockThreadId();
