#pragma once

#include <string_view>

namespace qlhsm {

// Faults that tests switch on to prove that qlutil's checks catch a wrong HSM. Off unless
// `qlhsmd serve --test-fault NAME` asks for one; never set in normal service.
enum class TestFault {
  kNone,
  kSignBitflip,     // every signature answered has its last bit flipped
  kDecryptCorrupt,  // every decryption answered has its first bit flipped
  kGrantRights,     // every access-mask check passes
};

// Parses "sign-bitflip", "decrypt-corrupt" or "grant-rights"; false for any other name.
bool ParseTestFault(std::string_view name, TestFault *fault);
void SetTestFault(TestFault fault);
TestFault CurrentTestFault();

}  // namespace qlhsm
