#pragma once
// Files the library keeps for the calling user live in the home directory that the password
// database names for it (getpwuid_r), never in $HOME, which anything may set.

#include <string>

#include "status.h"

namespace qlapi {

// "<home>/<name>"; `error` when the home directory cannot be found.
Result<std::string> UserHomeFile(const char *name, int error);

// The text of the caller's private file `path`: a regular file of the caller's, opened not
// through a link, that no one else may read or write. Status(missing) when it does not exist (with
// missing == QL_OK: an empty text instead); `error` when it is not private or cannot be read.
// (On Windows: read as it is.)
Result<std::string> ReadPrivateFile(const std::string &path, int missing, int error);

// Replaces `path` with `text` as a whole: written to a new private file (0600, not through a
// link) next to it, flushed to disk, then renamed over it. `error` when any step fails; nothing
// of a failed write is left behind. (On Windows: written in place.)
Status WriteFileAtomically(const std::string &path, const std::string &text, int error);

}  // namespace qlapi
