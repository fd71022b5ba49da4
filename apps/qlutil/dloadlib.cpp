#include "dloadlib.h"

#include <map>
#include <mutex>

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace {

// Open handles and how many loads each still holds.
struct OpenHandles {
  std::mutex lock;
  std::map<void *, unsigned long> loads;
};

OpenHandles &Registry() {
  static OpenHandles registry;
  return registry;
}

bool IsOpen(void *hLibrary) {
  OpenHandles &registry = Registry();
  std::lock_guard<std::mutex> guard(registry.lock);
  return registry.loads.count(hLibrary) != 0;
}

}  // namespace

void *DL_OpenLazy(const char *pszPath) {
  // An empty path would give the main program's own handle on some systems: not a library.
  if (pszPath == nullptr || pszPath[0] == '\0') return nullptr;
#ifdef _WIN32
  void *hLibrary = reinterpret_cast<void *>(LoadLibraryA(pszPath));
#else
  void *hLibrary = dlopen(pszPath, RTLD_LAZY);
#endif
  if (hLibrary == nullptr) return nullptr;
  OpenHandles &registry = Registry();
  std::lock_guard<std::mutex> guard(registry.lock);
  ++registry.loads[hLibrary];
  return hLibrary;
}

void *DL_GetSymbol(void *hLibrary, const char *pszName) {
  if (hLibrary == nullptr || pszName == nullptr || !IsOpen(hLibrary)) return nullptr;
#ifdef _WIN32
  return reinterpret_cast<void *>(GetProcAddress(static_cast<HMODULE>(hLibrary), pszName));
#else
  return dlsym(hLibrary, pszName);
#endif
}

int DL_Close(void *hLibrary) {
  if (hLibrary == nullptr) return 1;
  OpenHandles &registry = Registry();
  std::lock_guard<std::mutex> guard(registry.lock);
  auto it = registry.loads.find(hLibrary);
  if (it == registry.loads.end()) return 1;
  // The load is given back whatever the system answers: a handle it refused to release once is
  // not one to release again.
  if (--it->second == 0) registry.loads.erase(it);
#ifdef _WIN32
  return FreeLibrary(static_cast<HMODULE>(hLibrary)) ? 0 : 1;
#else
  return dlclose(hLibrary) == 0 ? 0 : 1;
#endif
}
