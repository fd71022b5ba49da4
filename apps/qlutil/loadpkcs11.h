#pragma once
// The table of a PKCS#11 module's entry points, filled by name from a module loaded at run time.
//
// The PKCS#11 performance tests load the module named by -p11 in their TestInit, keep the module
// handle and this table in their test record for the whole run (every thread's copy then holds
// the table, filled before the threads start and only read by them) and unload it in TestFin.

#include <p11-kit/pkcs11.h>

// The 68 entry points in the table's order, which is also the order they are looked up in.
#define QL_P11_ENTRY_POINTS(X) \
  X(C_Initialize)              \
  X(C_Finalize)                \
  X(C_GetSlotList)             \
  X(C_GetSlotInfo)             \
  X(C_GetInfo)                 \
  X(C_OpenSession)             \
  X(C_Login)                   \
  X(C_DigestInit)              \
  X(C_Digest)                  \
  X(C_DigestUpdate)            \
  X(C_DigestFinal)             \
  X(C_EncryptInit)             \
  X(C_EncryptUpdate)           \
  X(C_Encrypt)                 \
  X(C_EncryptFinal)            \
  X(C_DecryptInit)             \
  X(C_DecryptUpdate)           \
  X(C_Decrypt)                 \
  X(C_DecryptFinal)            \
  X(C_GenerateKey)             \
  X(C_GenerateKeyPair)         \
  X(C_DeriveKey)               \
  X(C_SignInit)                \
  X(C_Sign)                    \
  X(C_SignUpdate)              \
  X(C_SignFinal)               \
  X(C_VerifyInit)              \
  X(C_Verify)                  \
  X(C_VerifyUpdate)            \
  X(C_VerifyFinal)             \
  X(C_WrapKey)                 \
  X(C_UnwrapKey)               \
  X(C_SeedRandom)              \
  X(C_GenerateRandom)          \
  X(C_InitToken)               \
  X(C_InitPIN)                 \
  X(C_SetPIN)                  \
  X(C_FindObjectsInit)         \
  X(C_FindObjects)             \
  X(C_FindObjectsFinal)        \
  X(C_DestroyObject)           \
  X(C_GetSessionInfo)          \
  X(C_GetFunctionStatus)       \
  X(C_CancelFunction)          \
  X(C_GetTokenInfo)            \
  X(C_SignRecoverInit)         \
  X(C_SignRecover)             \
  X(C_VerifyRecoverInit)       \
  X(C_VerifyRecover)           \
  X(C_Logout)                  \
  X(C_CloseSession)            \
  X(C_CloseAllSessions)        \
  X(C_DigestKey)               \
  X(C_WaitForSlotEvent)        \
  X(C_GetAttributeValue)       \
  X(C_SetAttributeValue)       \
  X(C_CopyObject)              \
  X(C_GetObjectSize)           \
  X(C_GetOperationState)       \
  X(C_SetOperationState)       \
  X(C_GetFunctionList)         \
  X(C_DecryptVerifyUpdate)     \
  X(C_SignEncryptUpdate)       \
  X(C_DecryptDigestUpdate)     \
  X(C_DigestEncryptUpdate)     \
  X(C_CreateObject)            \
  X(C_GetMechanismInfo)        \
  X(C_GetMechanismList)

// One member per entry point, typed with its standard signature and named as the entry point.
// A member is null when the module does not export that name.
typedef struct tag_DL_PKCS11_FUNCTIONS {
#define QL_P11_MEMBER(name) CK_##name name;
  QL_P11_ENTRY_POINTS(QL_P11_MEMBER)
#undef QL_P11_MEMBER
} DL_PKCS11_FUNCTIONS;

// Number of entry points in the table.
constexpr int kP11EntryPointCount = 68;
static_assert(sizeof(DL_PKCS11_FUNCTIONS) == kP11EntryPointCount * sizeof(void *));

// Loads the module at pszPath and looks each of the 68 names up in table order, storing what it
// finds (null for a name the module does not export: missing names are neither counted nor
// reported, and do not make the load fail). Returns the module handle, or null when the module
// cannot be loaded; *pFunctions is then left untouched. Neither C_GetFunctionList nor
// C_Initialize is called: initialising the module is the caller's step. Main thread only.
void *P11_LoadSymbols(const char *pszPath, DL_PKCS11_FUNCTIONS *pFunctions);

// Unloads the module: the result of DL_Close (0 released; 1 refused, null or already unloaded).
// The table filled from it must not be used afterwards.
int P11_UnloadSymbols(void *hModule);
