#pragma once
// Owners of what the library hands out (sessions, keys, hashes, buffers) and of the heap buffers a
// test record holds, for every command kind. A record is copied byte for byte by the runners, so
// it holds raw handles and pointers; set-up code acquires them through these owners and hands
// them to the record only once every step succeeded, and the record's clean-up releases them
// with the Destroy/Close/Free helpers below.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include "ql_client_helper.h"
#include "qlapi.h"

// Removes a persistent key from the HSM through its handle (QDestroyKey flag 32). For
// QLUniquePtr owners of keys that a test made under a temporary name.
inline int DestroyAndRemoveKey(HKEYCTX *phKey) {
  return QDestroyKey(phKey, QL_DESTROY_REMOVE);
}

using SessionOwner = QLUniquePtr<HSESSIONCTX, &CloseSession>;
using KeyOwner = QLUniquePtr<HKEYCTX, &DestroyKeyHandle>;
using RemovedKeyOwner = QLUniquePtr<HKEYCTX, &DestroyAndRemoveKey>;
using HashOwner = QLUniquePtr<HHASHCTX, &DestroyHashHandle>;

// A buffer the library handed out (QAlloc), freed with QFree.
class LibBuffer {
 public:
  LibBuffer() = default;
  ~LibBuffer() { QFree(data_); }
  LibBuffer(const LibBuffer &) = delete;
  LibBuffer &operator=(const LibBuffer &) = delete;
  unsigned char **Put() { return &data_; }
  char **PutText() { return reinterpret_cast<char **>(&data_); }
  unsigned char *Get() const { return data_; }

 private:
  unsigned char *data_ = nullptr;
};

// A malloc'ed buffer owned until Release hands it to a record (which frees it in ThreadFin).
class HeapBuffer {
 public:
  HeapBuffer() = default;
  explicit HeapBuffer(size_t size) : data_(static_cast<unsigned char *>(std::calloc(size, 1))) {}
  ~HeapBuffer() { std::free(data_); }
  HeapBuffer(const HeapBuffer &) = delete;
  HeapBuffer &operator=(const HeapBuffer &) = delete;
  HeapBuffer(HeapBuffer &&other) noexcept : data_(other.Release()) {}
  HeapBuffer &operator=(HeapBuffer &&other) noexcept {
    if (this != &other) {
      std::free(data_);
      data_ = other.Release();
    }
    return *this;
  }

  unsigned char *Get() const { return data_; }
  unsigned char *Release() { return std::exchange(data_, nullptr); }
  explicit operator bool() const { return data_ != nullptr; }

 private:
  unsigned char *data_ = nullptr;
};

// Frees a buffer the record owns and clears the pointer.
template <typename T>
inline void FreeRecordBuffer(T **ppBuffer) {
  std::free(*ppBuffer);
  *ppBuffer = nullptr;
}

// Releases a key handle, a hash handle or a session the record owns, if set.
inline void DestroyRecordKey(HKEYCTX *phKey, uint32_t dwFlags = 0) {
  if (*phKey != nullptr) QDestroyKey(phKey, dwFlags);
  *phKey = nullptr;
}
inline void DestroyRecordHash(HHASHCTX *phHash) {
  if (*phHash != nullptr) QDestroyHash(phHash);
  *phHash = nullptr;
}
inline void CloseRecordSession(HSESSIONCTX *phSession) {
  if (*phSession != nullptr) QCloseSession(phSession, 0);
  *phSession = nullptr;
}
