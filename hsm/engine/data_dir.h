// The files of an HSM's data directory:
//   store.db (+ -wal, -shm)  the SQLite store
//   master.key               the 32-byte master key, sealed under the unlock secret, mode 0600
//   tls.key, tls.crt         the daemon's TLS identity (made by qlhsmd init)
//
// Every piece of key material in the store is sealed under the master key, and the master key
// itself is sealed (AES-256-GCM) under a key derived with scrypt from an unlock secret that the
// operator gives at init and at every start. A copy of the data directory without that secret
// yields no key. master.key is refused when group or others may read it, as ssh refuses a loose
// private key.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "engine/secure/secure.h"
#include "engine/status.h"

namespace qlhsm {

inline constexpr const char *kMasterKeyFile = "master.key";
inline constexpr const char *kTlsKeyFile = "tls.key";
inline constexpr const char *kTlsCertFile = "tls.crt";

std::string DataPath(const std::string &data_dir, const char *file);

// Makes the directory (mode 0700) when missing.
Status EnsureDataDir(const std::string &data_dir);
// Writes `data` to `path` with mode 0600; fails when the file exists.
Status WritePrivateFile(const std::string &path, const secure::Bytes &data);
Result<secure::Bytes> ReadFileBytes(const std::string &path);
Status WriteFileBytes(const std::string &path, const secure::Bytes &data);

// Default scrypt cost of the key that seals the master key (tests lower it).
inline constexpr uint64_t kUnlockKdfCost = 1 << 15;

// A new random master key, sealed under `unlock_secret` into master.key.
Status CreateMasterKey(const std::string &data_dir, std::string_view unlock_secret,
                       const secure::KdfParams &kdf);
// Seals `key` under `unlock_secret` into master.key (fails when the file exists).
Status WriteMasterKey(const std::string &data_dir, const secure::Bytes &key,
                      std::string_view unlock_secret, const secure::KdfParams &kdf);
// Opens master.key; kBadPin when `unlock_secret` is not the one it was sealed under.
Result<secure::Bytes> LoadMasterKey(const std::string &data_dir, std::string_view unlock_secret);

}  // namespace qlhsm
