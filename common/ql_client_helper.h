#pragma once
// Scoped ownership of client-library handles.

#include <cstring>
#include <utility>

#include "qlapi.h"

// Destroy functions for QLUniquePtr: each releases the handle through its address (which the
// library clears) and returns the library's code.
inline int CloseSession(HSESSIONCTX *phSession) {
  return QCloseSession(phSession, 0);
}
// The object stays in the HSM.
inline int DestroyKeyHandle(HKEYCTX *phKey) {
  return QDestroyKey(phKey, 0);
}
inline int DestroyHashHandle(HHASHCTX *phHash) {
  return QDestroyHash(phHash);
}

// Copies text into a fixed record field the way the library's records expect it: at most
// field_len bytes, the rest zero (no terminator when the text fills the field). Null copies
// nothing.
inline void CopyFixedField(char *field, size_t field_len, const char *text) {
  if (text == nullptr) return;
  const size_t n = strnlen(text, field_len);
  memcpy(field, text, n);
  memset(field + n, 0, field_len - n);
}

// Owns one library handle and destroys it with Destroy when it goes out of scope. Movable, not
// copyable. Typical use: QLUniquePtr<HSESSIONCTX, &CloseSession> session;
// ConnectEx(session.Put(), ti); ... session.Get() ...
template <typename Handle, int (*Destroy)(Handle *)>
class QLUniquePtr {
 public:
  QLUniquePtr() = default;
  explicit QLUniquePtr(Handle handle) : handle_(handle) {}
  ~QLUniquePtr() { CleanUp(); }

  QLUniquePtr(const QLUniquePtr &) = delete;
  QLUniquePtr &operator=(const QLUniquePtr &) = delete;
  QLUniquePtr(QLUniquePtr &&other) noexcept : handle_(other.Detach()) {}
  QLUniquePtr &operator=(QLUniquePtr &&other) noexcept {
    if (this != &other) {
      CleanUp();
      handle_ = other.Detach();
    }
    return *this;
  }

  // The handle, still owned.
  Handle Get() const { return handle_; }
  // Gives up ownership and returns the handle.
  Handle Detach() { return std::exchange(handle_, Handle{}); }
  // Destroys the handle now (whatever it holds) and returns the library's code.
  int Free() {
    const int rc = Destroy(&handle_);
    handle_ = Handle{};
    return rc;
  }
  // Destroys the handle if one is held.
  void CleanUp() {
    if (handle_ != Handle{}) Free();
  }
  // Releases any held handle and gives the address to fill (an output argument of the library).
  Handle *Put() {
    CleanUp();
    return &handle_;
  }
  explicit operator bool() const { return handle_ != Handle{}; }

 private:
  Handle handle_{};
};
