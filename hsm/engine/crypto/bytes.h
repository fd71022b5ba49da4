// bytes.h: byte buffers of the crypto library.
#ifndef QLHSM_CRYPTO_BYTES_H_
#define QLHSM_CRYPTO_BYTES_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace qlhsm::crypto {

// Wipes its memory before giving it back, so secrets do not linger on the heap.
template <typename T>
struct WipingAllocator {
  using value_type = T;
  WipingAllocator() = default;
  template <typename U>
  WipingAllocator(const WipingAllocator<U> &) {}
  T *allocate(size_t n) { return std::allocator<T>().allocate(n); }
  void deallocate(T *p, size_t n) {
    Wipe(p, n * sizeof(T));
    std::allocator<T>().deallocate(p, n);
  }
  template <typename U>
  bool operator==(const WipingAllocator<U> &) const {
    return true;
  }

 private:
  static void Wipe(void *p, size_t n);
};

using Bytes = std::vector<uint8_t>;
// Key material and plaintext that must not outlive its use.
using SecretBytes = std::vector<uint8_t, WipingAllocator<uint8_t>>;
using ByteView = std::span<const uint8_t>;

void WipeMemory(void *p, size_t n);
template <typename T>
void WipingAllocator<T>::Wipe(void *p, size_t n) {
  WipeMemory(p, n);
}

}  // namespace qlhsm::crypto

#endif  // QLHSM_CRYPTO_BYTES_H_
