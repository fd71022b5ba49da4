// Backups: the whole store plus the master key, sealed with AES-256-GCM under a key derived from
// a PIN with scrypt. Layout: "QLHSMBK1" | salt (16) | nonce (12) | ciphertext | tag (16), the
// plaintext being u32 (big-endian) master-key length | master key | the store's database file.
#pragma once

#include <string>
#include <string_view>

#include "engine/data_dir.h"
#include "engine/secure/secure.h"
#include "engine/store/store.h"

namespace qlhsm::backup {

inline constexpr std::string_view kMagic = "QLHSMBK1";

// A consistent snapshot of `store` with `master_key`, sealed under `pin`. `scratch_dir` holds the
// snapshot for a moment (the data directory).
Result<secure::Bytes> MakeBackup(store::Store &store, const secure::Bytes &master_key,
                                 std::string_view pin, const std::string &scratch_dir,
                                 const secure::KdfParams &kdf = {});

// Writes the store and master key of a backup into `data_dir`, which must hold no store yet; the
// master key is sealed there under `unlock_secret` (data_dir.h). kBadPin for a wrong PIN or a
// damaged file.
Status RestoreBackup(const secure::Bytes &backup, std::string_view pin, const std::string &data_dir,
                     std::string_view unlock_secret = {},
                     const secure::KdfParams &unlock_kdf = {kUnlockKdfCost, 8, 1});

}  // namespace qlhsm::backup
