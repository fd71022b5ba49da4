// A thin RAII wrapper over SQLite: Connection, Statement and Transaction. Nothing outside this
// folder calls sqlite3_* directly.
//
// Durability: the store runs in WAL mode with synchronous=FULL, so every committed transaction is
// in the WAL file and synced before Commit() returns. A change the HSM acknowledged therefore
// survives a kill -9 of the daemon and a power loss alike.
//
// Threads: a Connection is not thread safe; the owner (Store) serialises access with its mutex.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "engine/status.h"

namespace qlhsm::store {

using Bytes = std::vector<uint8_t>;

class Statement {
 public:
  Statement() = default;
  Statement(Statement &&) = default;
  Statement &operator=(Statement &&) = default;

  // Binds are 1-based, as in SQL.
  Statement &Bind(int index, int64_t value);
  Statement &Bind(int index, std::string_view text);
  Statement &BindBlob(int index, const Bytes &blob);
  Statement &BindNull(int index);

  // Runs one step: true when a row is ready to read, false when done.
  Result<bool> Step();
  // Runs to completion (for statements that return no rows).
  Status Run();
  void Reset();

  int64_t Int(int column) const;
  std::string Text(int column) const;
  Bytes Blob(int column) const;
  bool IsNull(int column) const;

 private:
  friend class Connection;
  struct Deleter {
    void operator()(sqlite3_stmt *s) const { sqlite3_finalize(s); }
  };
  Statement(sqlite3_stmt *stmt, sqlite3 *db) : stmt_(stmt), db_(db) {}
  std::unique_ptr<sqlite3_stmt, Deleter> stmt_;
  sqlite3 *db_ = nullptr;
  Status bind_status_;
};

class Connection {
 public:
  // Opens (creating when `create`) the database file and sets WAL and synchronous=FULL.
  static Result<std::unique_ptr<Connection>> Open(const std::string &path, bool create);

  Status Exec(std::string_view sql);
  Result<Statement> Prepare(std::string_view sql);
  int64_t LastInsertId() const;
  int Changes() const;
  // Writes a consistent copy of the whole database to `path` (which must not exist).
  Status CopyTo(const std::string &path);

 private:
  struct Deleter {
    void operator()(sqlite3 *db) const { sqlite3_close_v2(db); }
  };
  explicit Connection(sqlite3 *db) : db_(db) {}
  std::unique_ptr<sqlite3, Deleter> db_;
};

// BEGIN IMMEDIATE on construction; rolls back on destruction unless Commit() succeeded.
class Transaction {
 public:
  explicit Transaction(Connection &conn);
  ~Transaction();
  Transaction(const Transaction &) = delete;
  Transaction &operator=(const Transaction &) = delete;

  const Status &begin_status() const { return begin_; }
  Status Commit();

 private:
  Connection &conn_;
  Status begin_;
  bool done_ = false;
};

}  // namespace qlhsm::store
