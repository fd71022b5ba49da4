// The test build's fault switches (test_faults.cpp); the release daemon does not have them.
#pragma once

#include <string_view>

namespace qlhsm {

// Installs the fault "sign-bitflip", "decrypt-corrupt" or "grant-rights"; false for any other
// name. Call before serving starts.
bool InstallTestFault(std::string_view name);

}  // namespace qlhsm
