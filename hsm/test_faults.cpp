// The fault switches of the test build of the daemon (qlhsmd_test, never the release qlhsmd):
// `serve --test-fault NAME` makes the HSM answer wrongly on purpose, so that the functional and
// access tests can prove they catch a wrong HSM.
#include "test_faults.h"

#include "engine/fault_points.h"

namespace qlhsm {
namespace {

enum class Fault { kSignBitflip, kDecryptCorrupt, kGrantRights };

class TestFaults final : public FaultPoints {
 public:
  explicit TestFaults(Fault fault) : fault_(fault) {}
  bool GrantEveryRight() const override { return fault_ == Fault::kGrantRights; }
  // The last bit of every signature flipped.
  void AlterSignature(std::vector<uint8_t> &signature) const override {
    if (fault_ == Fault::kSignBitflip && !signature.empty()) signature.back() ^= 1;
  }
  // The first bit of every decryption flipped.
  void AlterPlaintext(std::vector<uint8_t> &plaintext) const override {
    if (fault_ == Fault::kDecryptCorrupt && !plaintext.empty()) plaintext.front() ^= 1;
  }

 private:
  Fault fault_;
};

}  // namespace

bool InstallTestFault(std::string_view name) {
  static const TestFaults sign(Fault::kSignBitflip);
  static const TestFaults decrypt(Fault::kDecryptCorrupt);
  static const TestFaults grant(Fault::kGrantRights);
  if (name == "sign-bitflip")
    InstallFaultPoints(&sign);
  else if (name == "decrypt-corrupt")
    InstallFaultPoints(&decrypt);
  else if (name == "grant-rights")
    InstallFaultPoints(&grant);
  else
    return false;
  return true;
}

}  // namespace qlhsm
