// The files of an HSM's data directory:
//   store.db (+ -wal, -shm)  the SQLite store
//   master.key               the 32-byte master key, mode 0600
//   tls.key, tls.crt         the daemon's TLS identity (made by qlhsmd init)
//
// The master key lies in a file so that `qlhsmd serve` starts unattended. Every piece of key
// material in the store is sealed under it, so a copy of store.db alone reveals no key; whoever
// can read master.key and store.db together can read every key. The file is refused when group or
// others may read it, as ssh refuses a loose private key.
#pragma once

#include <string>

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

Status CreateMasterKey(const std::string &data_dir);
Result<secure::Bytes> LoadMasterKey(const std::string &data_dir);

}  // namespace qlhsm
