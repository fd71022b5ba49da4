#pragma once
// Loading a dynamic library at run time by path and looking its entry points up by name: the
// two operations the PKCS#11 tests need to reach a module chosen on the command line.
//
// dlopen/dlsym/dlclose on POSIX, LoadLibraryA/GetProcAddress/FreeLibrary on Windows.
// Handles given out by DL_OpenLazy are counted, so that DL_Close can refuse a null handle, a
// handle it never gave out or a handle already released, without passing it to the system
// (which may crash or close a library that another part of the process still uses). The count
// is locked: any thread may call these functions, though the tests load and unload on the
// main thread only.

// Loads the library at pszPath, resolving its symbols lazily where the system allows it.
// Returns its handle, or null when it cannot be loaded (null or empty path, no such file, not a
// library, a missing dependency). Loading the same library twice gives the same handle twice; each
// needs its own DL_Close.
void *DL_OpenLazy(const char *pszPath);

// The address of the exported name in the library, or null when the library does not export it.
// Null as well for a null handle or one that is not open: a null handle is never passed to the
// system, where it would mean "search the whole process".
void *DL_GetSymbol(void *hLibrary, const char *pszName);

// Releases one load of the library. 0 when the system released it; 1 when it refused, and also
// for a null handle or a handle that is not open (never given out, or already closed as many
// times as it was opened); those two are not passed to the system.
int DL_Close(void *hLibrary);
