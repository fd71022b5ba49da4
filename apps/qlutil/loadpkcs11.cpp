#include "loadpkcs11.h"

#include "dloadlib.h"

void *P11_LoadSymbols(const char *pszPath, DL_PKCS11_FUNCTIONS *pFunctions) {
  void *hModule = DL_OpenLazy(pszPath);
  if (hModule == nullptr) return nullptr;
    // A symbol's address converts to its function type; the module exports them with the
    // standard signatures.
#define QL_P11_LOOKUP(name) \
  pFunctions->name = reinterpret_cast<CK_##name>(DL_GetSymbol(hModule, #name));
  QL_P11_ENTRY_POINTS(QL_P11_LOOKUP)
#undef QL_P11_LOOKUP
  return hModule;
}

int P11_UnloadSymbols(void *hModule) {
  return DL_Close(hModule);
}
