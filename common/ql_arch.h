#pragma once
// Locks, sleeping and the chronometer, shared by the tools.

// A critical section. The record only points to the lock, so a record holding one may be byte
// copied: every copy shares the same lock. Zero-filled means "not initialised".
typedef struct tag_QL_MUTEX_OBJ {
  void *pvLock;
} QL_MUTEX_OBJ;

// Creates the lock. 0 on success, nonzero when it could not be made.
int InitMutexObj(QL_MUTEX_OBJ *pMutex);
// Destroys the lock (harmless on a zero-filled one). No thread may hold it.
void FinalizeMutexObj(QL_MUTEX_OBJ *pMutex);
// Enter / leave the critical section. Return 0.
int LockObject(QL_MUTEX_OBJ *pMutex);
int UnlockObject(QL_MUTEX_OBJ *pMutex);

// Sleeps the calling thread for the given number of milliseconds.
void QL_Sleep(unsigned long ulMilliseconds);

// A reading of the monotonic high-resolution clock in seconds. Only differences mean anything.
double ChronStart();
// Seconds elapsed since a ChronStart() reading.
double ChronEndDelta(double dStart);

// Writes a file that holds a secret (a private or secret key, a password, a token): created, or
// truncated, readable and writable by its owner only (0600; on Windows, no sharing and the
// user's default private ACL). Returns 0, or nonzero when it cannot be written whole.
int WriteSecretFile(const char *pszPath, const void *pvData, unsigned long long ullLen);
