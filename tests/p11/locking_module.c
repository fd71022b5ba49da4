/* A stand-in PKCS#11 module that exports every name p11-gen-key calls and accepts C_Initialize
 * only as qlutil must call it: with CKF_OS_LOCKING_OK and no locking callbacks of its own.
 * It has no token, so the run stops at the first C_OpenSession with CKR_TOKEN_NOT_PRESENT. */

#include <p11-kit/pkcs11.h>
#include <stddef.h>

#if defined(_WIN32)
#define LOCKING_EXPORT __declspec(dllexport)
#else
#define LOCKING_EXPORT __attribute__((visibility("default")))
#endif

static int initialized;

LOCKING_EXPORT CK_RV C_Initialize(void *init_args) {
  const CK_C_INITIALIZE_ARGS *args = init_args;
  if (args == NULL || (args->flags & CKF_OS_LOCKING_OK) == 0 || args->CreateMutex != NULL ||
      args->DestroyMutex != NULL || args->LockMutex != NULL || args->UnlockMutex != NULL ||
      args->pReserved != NULL) {
    return CKR_ARGUMENTS_BAD;
  }
  initialized = 1;
  return CKR_OK;
}

LOCKING_EXPORT CK_RV C_Finalize(void *reserved) {
  (void)reserved;
  if (!initialized) return CKR_CRYPTOKI_NOT_INITIALIZED;
  initialized = 0;
  return CKR_OK;
}

LOCKING_EXPORT CK_RV C_OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, void *application,
                                   CK_NOTIFY notify, CK_SESSION_HANDLE *session) {
  (void)slot;
  (void)flags;
  (void)application;
  (void)notify;
  (void)session;
  return initialized ? CKR_TOKEN_NOT_PRESENT : CKR_CRYPTOKI_NOT_INITIALIZED;
}

LOCKING_EXPORT CK_RV C_Login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR *pin,
                             CK_ULONG pin_len) {
  (void)session;
  (void)user;
  (void)pin;
  (void)pin_len;
  return CKR_SESSION_HANDLE_INVALID;
}

LOCKING_EXPORT CK_RV C_CloseSession(CK_SESSION_HANDLE session) {
  (void)session;
  return CKR_SESSION_HANDLE_INVALID;
}

LOCKING_EXPORT CK_RV C_DestroyObject(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) {
  (void)session;
  (void)object;
  return CKR_SESSION_HANDLE_INVALID;
}

LOCKING_EXPORT CK_RV C_GenerateKey(CK_SESSION_HANDLE session, CK_MECHANISM *mechanism,
                                   CK_ATTRIBUTE *templ, CK_ULONG count, CK_OBJECT_HANDLE *key) {
  (void)session;
  (void)mechanism;
  (void)templ;
  (void)count;
  (void)key;
  return CKR_SESSION_HANDLE_INVALID;
}
