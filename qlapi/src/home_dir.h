#pragma once
// Files the library keeps for the calling user live in the home directory that the password
// database names for it (getpwuid_r), never in $HOME, which anything may set.

#include <string>

#include "status.h"

namespace qlapi {

// "<home>/<name>"; `error` when the home directory cannot be found.
Result<std::string> UserHomeFile(const char *name, int error);

}  // namespace qlapi
