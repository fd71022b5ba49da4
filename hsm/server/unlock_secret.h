// The unlock secret that seals the HSM's master key (engine/data_dir.h), as the operator gives
// it to `qlhsmd init`, `serve` and `restore`.
#pragma once

#include <string>

#include "engine/status.h"

namespace qlhsm::server {

// The secret from `file` when given (its whole content, without one trailing line break; the
// file must not be readable by group or others), else from $QLHSMD_UNLOCK, else typed on the
// terminal without echo (twice when `confirm`, as a new secret). Never empty.
Result<std::string> ReadUnlockSecret(const std::string &file, bool confirm);

}  // namespace qlhsm::server
