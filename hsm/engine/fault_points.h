// Where the test build of the daemon (qlhsmd_test) makes the HSM answer wrongly on purpose, to
// prove that the client's checks catch a wrong HSM. The release daemon has no way to set them:
// the switches and what they do live in the test build's own source (hsm/test_faults.cpp).
// Installed once, before any thread starts, and only read afterwards: the request path takes no
// lock and, in service, finds a null pointer.
#pragma once

#include <cstdint>
#include <vector>

namespace qlhsm {

class FaultPoints {
 public:
  virtual ~FaultPoints() = default;
  // Every right check passes.
  virtual bool GrantEveryRight() const = 0;
  // A signature about to be answered.
  virtual void AlterSignature(std::vector<uint8_t> &signature) const = 0;
  // Decrypted data about to be answered.
  virtual void AlterPlaintext(std::vector<uint8_t> &plaintext) const = 0;
};

namespace fault_detail {
inline const FaultPoints *g_installed = nullptr;
}  // namespace fault_detail

// Before any thread starts; the object must outlive the engine.
inline void InstallFaultPoints(const FaultPoints *faults) {
  fault_detail::g_installed = faults;
}

// Null unless a test build installed some.
inline const FaultPoints *InstalledFaults() {
  return fault_detail::g_installed;
}

}  // namespace qlhsm
