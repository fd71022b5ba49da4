// The HSM's store: one SQLite database in the data directory, its schema, and the lock that
// serialises access to the one connection. One transaction per change.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "engine/store/db.h"

namespace qlhsm::store {

inline constexpr const char *kDbFile = "store.db";
inline constexpr int kSchemaVersion = 1;

class Store {
 public:
  // create: make a new database (the file must not exist yet); otherwise open an existing one.
  static Result<std::unique_ptr<Store>> Open(const std::string &data_dir, bool create);

  // Runs `fn(Connection&)` with the store locked; returns what fn returns.
  template <typename F>
  auto Locked(F &&fn) {
    std::lock_guard<std::mutex> lock(mu_);
    return fn(*conn_);
  }

  Result<std::string> GetSetting(const std::string &key);
  Status SetSetting(const std::string &key, const std::string &value);
  // Writes a consistent copy of the database to `path`.
  Status CopyTo(const std::string &path);
  // Whether `text` is one JSON object (RFC 8259), by SQLite's own JSON parser. The text must hold
  // no NUL byte (the parser would stop there); the caller checks that, and UTF-8.
  Result<bool> IsJsonObject(std::string_view text);

 private:
  explicit Store(std::unique_ptr<Connection> conn) : conn_(std::move(conn)) {}
  std::mutex mu_;
  std::unique_ptr<Connection> conn_;
};

// Reads a setting on a connection already locked.
Result<std::string> ReadSetting(Connection &conn, const std::string &key);

}  // namespace qlhsm::store
