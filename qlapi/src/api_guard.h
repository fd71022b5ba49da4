#pragma once
// Every exported function is a thin shim: check the pointers, call C++, and turn any exception
// into a named code, so that no exception crosses qlapi.h.

#include <new>

#include "qlapi.h"

namespace qlapi {

// Starts the library when a call comes before QInitialize (defined in library.cpp).
void EnsureInitialized();

template <typename F>
int Guard(F &&body) noexcept {
  try {
    EnsureInitialized();
    return body();
  } catch (const std::bad_alloc &) {
    return QL_ERR_NO_MEMORY;
  } catch (...) {
    return QL_ERR_LIB_INTERNAL;
  }
}

}  // namespace qlapi
