#include "engine/store/db.h"

namespace qlhsm::store {
namespace {

Status SqlError(sqlite3 *db, std::string_view what) {
  int rc = db ? sqlite3_extended_errcode(db) : SQLITE_ERROR;
  Code code = (rc & 0xff) == SQLITE_BUSY || (rc & 0xff) == SQLITE_LOCKED ? Code::kBusy
              : (rc & 0xff) == SQLITE_FULL                               ? Code::kLimitReached
                                                                         : Code::kInternal;
  return Status::Error(code, std::string(what) + ": " + (db ? sqlite3_errmsg(db) : "no db"));
}

}  // namespace

Statement &Statement::Bind(int index, int64_t value) {
  if (sqlite3_bind_int64(stmt_.get(), index, value) != SQLITE_OK && bind_status_.ok())
    bind_status_ = SqlError(db_, "bind");
  return *this;
}

Statement &Statement::Bind(int index, std::string_view text) {
  if (sqlite3_bind_text(stmt_.get(), index, text.data(), static_cast<int>(text.size()),
                        SQLITE_TRANSIENT) != SQLITE_OK &&
      bind_status_.ok())
    bind_status_ = SqlError(db_, "bind");
  return *this;
}

Statement &Statement::BindBlob(int index, const Bytes &blob) {
  // An empty blob still binds as a zero-length blob, not NULL.
  static const uint8_t kEmpty = 0;
  const void *data = blob.empty() ? &kEmpty : blob.data();
  if (sqlite3_bind_blob(stmt_.get(), index, data, static_cast<int>(blob.size()),
                        SQLITE_TRANSIENT) != SQLITE_OK &&
      bind_status_.ok())
    bind_status_ = SqlError(db_, "bind");
  return *this;
}

Statement &Statement::BindNull(int index) {
  if (sqlite3_bind_null(stmt_.get(), index) != SQLITE_OK && bind_status_.ok())
    bind_status_ = SqlError(db_, "bind");
  return *this;
}

Result<bool> Statement::Step() {
  if (!bind_status_.ok()) return bind_status_;
  int rc = sqlite3_step(stmt_.get());
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  if ((rc & 0xff) == SQLITE_CONSTRAINT)
    return Status::Error(Code::kObjectExists, "constraint: " + std::string(sqlite3_errmsg(db_)));
  return SqlError(db_, "step");
}

Status Statement::Run() {
  for (;;) {
    Result<bool> r = Step();
    if (!r.ok()) return r.status();
    if (!r.value()) return Status::Ok();
  }
}

void Statement::Reset() {
  sqlite3_reset(stmt_.get());
  sqlite3_clear_bindings(stmt_.get());
  bind_status_ = Status::Ok();
}

int64_t Statement::Int(int column) const {
  return sqlite3_column_int64(stmt_.get(), column);
}

std::string Statement::Text(int column) const {
  const unsigned char *p = sqlite3_column_text(stmt_.get(), column);
  int n = sqlite3_column_bytes(stmt_.get(), column);
  return p ? std::string(reinterpret_cast<const char *>(p), static_cast<size_t>(n)) : std::string();
}

Bytes Statement::Blob(int column) const {
  const auto *p = static_cast<const uint8_t *>(sqlite3_column_blob(stmt_.get(), column));
  int n = sqlite3_column_bytes(stmt_.get(), column);
  return p ? Bytes(p, p + n) : Bytes();
}

bool Statement::IsNull(int column) const {
  return sqlite3_column_type(stmt_.get(), column) == SQLITE_NULL;
}

Result<std::unique_ptr<Connection>> Connection::Open(const std::string &path, bool create) {
  sqlite3 *raw = nullptr;
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (create ? SQLITE_OPEN_CREATE : 0);
  int rc = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
  std::unique_ptr<Connection> conn(new Connection(raw));
  if (rc != SQLITE_OK) return SqlError(raw, "open " + path);
  sqlite3_busy_timeout(raw, 5000);
  QL_RETURN_IF_ERROR(conn->Exec("PRAGMA journal_mode=WAL"));
  QL_RETURN_IF_ERROR(conn->Exec("PRAGMA synchronous=FULL"));
  QL_RETURN_IF_ERROR(conn->Exec("PRAGMA foreign_keys=ON"));
  return conn;
}

Status Connection::Exec(std::string_view sql) {
  char *err = nullptr;
  std::string s(sql);
  int rc = sqlite3_exec(db_.get(), s.c_str(), nullptr, nullptr, &err);
  if (rc == SQLITE_OK) return Status::Ok();
  std::string msg = err ? err : "exec";
  sqlite3_free(err);
  return Status::Error(Code::kInternal, msg);
}

Result<Statement> Connection::Prepare(std::string_view sql) {
  sqlite3_stmt *stmt = nullptr;
  int rc = sqlite3_prepare_v2(db_.get(), sql.data(), static_cast<int>(sql.size()), &stmt, nullptr);
  if (rc != SQLITE_OK) return SqlError(db_.get(), "prepare");
  return Statement(stmt, db_.get());
}

int64_t Connection::LastInsertId() const {
  return sqlite3_last_insert_rowid(db_.get());
}
int Connection::Changes() const {
  return sqlite3_changes(db_.get());
}

Status Connection::CopyTo(const std::string &path) {
  Result<Statement> st = Prepare("VACUUM INTO ?1");
  if (!st.ok()) return st.status();
  st->Bind(1, path);
  return st->Run();
}

Transaction::Transaction(Connection &conn) : conn_(conn) {
  begin_ = conn_.Exec("BEGIN IMMEDIATE");
  if (!begin_.ok()) done_ = true;
}

Transaction::~Transaction() {
  if (!done_) (void)conn_.Exec("ROLLBACK");
}

Status Transaction::Commit() {
  if (!begin_.ok()) return begin_;
  if (done_) return Status::Error(Code::kInternal, "transaction already finished");
  Status s = conn_.Exec("COMMIT");
  if (s.ok()) done_ = true;
  return s;
}

}  // namespace qlhsm::store
