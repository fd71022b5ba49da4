#pragma once
// Temporary object names: 32 upper-case hexadecimal digits drawn from the HSM (or locally, inside
// a timed loop), and the whole-test keys stored under such names.

#include <cstddef>

#include "qlapi.h"

// 32 upper-case hexadecimal digits and the terminating zero.
constexpr size_t kTempKeyNameSize = 33;

// Draws 16 random bytes from the HSM (QGetRandom) and writes them into pszName as 32 upper-case
// hexadecimal digits and a terminating zero (pszName holds kTempKeyNameSize bytes). True on
// success; on failure pszName is an empty text and *pRc (when given) the library's code.
bool GetTempKeyName(char *pszName, HSESSIONCTX hSession, int *pRc = nullptr);

// The same name from the local random generator, without a round trip: for names made inside
// the timed loop.
void GetTempKeyNameOffline(char *pszName);

// Init's whole-test keys: generates a stored key of alg under a temporary name (name holds
// kTempKeyNameSize bytes) and prints "[tag] Fail in ..." on failure; the name is left empty
// when nothing was made; flags are the key's (QL_KEY_EXPORTABLE for a key a test exports).
// RemoveTempKey removes it (when named) and empties the name.
int GenTempKey(const char *tag, HSESSIONCTX hSession, int alg, char *name, uint32_t flags = 0);
void RemoveTempKey(HSESSIONCTX hSession, char *name);
