#include "engine/store/store.h"

#include <filesystem>

namespace qlhsm::store {
namespace {

// Users own objects and tokens; removing a user removes what it owns.
constexpr const char *kSchema = R"sql(
CREATE TABLE IF NOT EXISTS settings (
  key TEXT PRIMARY KEY,
  value TEXT NOT NULL
);
CREATE TABLE IF NOT EXISTS users (
  name TEXT PRIMARY KEY,
  password_hash TEXT NOT NULL,
  mask INTEGER NOT NULL,
  blocked INTEGER NOT NULL DEFAULT 0,
  created INTEGER NOT NULL
);
CREATE TABLE IF NOT EXISTS objects (
  id INTEGER PRIMARY KEY,
  owner TEXT NOT NULL REFERENCES users(name) ON DELETE CASCADE,
  name TEXT NOT NULL,
  type INTEGER NOT NULL,
  algorithm INTEGER NOT NULL,
  flags INTEGER NOT NULL,
  material BLOB NOT NULL,
  blocked INTEGER NOT NULL DEFAULT 0,
  metadata TEXT NOT NULL DEFAULT '{}',
  created INTEGER NOT NULL,
  UNIQUE(owner, name)
);
CREATE TABLE IF NOT EXISTS tokens (
  id INTEGER PRIMARY KEY,
  owner TEXT NOT NULL REFERENCES users(name) ON DELETE CASCADE,
  key_hash BLOB NOT NULL UNIQUE,
  expires INTEGER NOT NULL,
  created INTEGER NOT NULL
);
CREATE TABLE IF NOT EXISTS object_records (
  object_id INTEGER NOT NULL REFERENCES objects(id) ON DELETE CASCADE,
  record INTEGER NOT NULL,
  value BLOB NOT NULL,
  PRIMARY KEY(object_id, record)
);
CREATE TABLE IF NOT EXISTS user_otp (
  name TEXT PRIMARY KEY REFERENCES users(name) ON DELETE CASCADE,
  type INTEGER NOT NULL,
  hash INTEGER NOT NULL,
  digits INTEGER NOT NULL,
  step INTEGER NOT NULL,
  t0 INTEGER NOT NULL,
  counter INTEGER NOT NULL,
  drift INTEGER NOT NULL,
  failures INTEGER NOT NULL,
  seed BLOB NOT NULL
);
CREATE TABLE IF NOT EXISTS user_x509 (
  name TEXT PRIMARY KEY REFERENCES users(name) ON DELETE CASCADE,
  cert BLOB NOT NULL
);
CREATE TABLE IF NOT EXISTS audit_pages (
  page_no INTEGER PRIMARY KEY,
  compressed INTEGER NOT NULL,
  raw_len INTEGER NOT NULL,
  data BLOB NOT NULL
);
)sql";

}  // namespace

Result<std::unique_ptr<Store>> Store::Open(const std::string &data_dir, bool create) {
  std::string path = (std::filesystem::path(data_dir) / kDbFile).string();
  std::error_code ec;
  bool exists = std::filesystem::exists(path, ec);
  if (create && exists) return Status::Error(Code::kBadArgument, "store already exists: " + path);
  if (!create && !exists) return Status::Error(Code::kBadArgument, "no store at " + path);
  Result<std::unique_ptr<Connection>> conn = Connection::Open(path, create);
  if (!conn.ok()) return conn.status();
  std::unique_ptr<Store> store(new Store(std::move(conn.value())));
  if (create) {
    Transaction tx(*store->conn_);
    QL_RETURN_IF_ERROR(tx.begin_status());
    QL_RETURN_IF_ERROR(store->conn_->Exec(kSchema));
    Result<Statement> st =
        store->conn_->Prepare("INSERT INTO settings(key, value) VALUES('schema_version', ?1)");
    if (!st.ok()) return st.status();
    st->Bind(1, std::to_string(kSchemaVersion));
    QL_RETURN_IF_ERROR(st->Run());
    QL_RETURN_IF_ERROR(tx.Commit());
  } else {
    Result<std::string> v = ReadSetting(*store->conn_, "schema_version");
    if (!v.ok()) return v.status();
    if (v.value() != std::to_string(kSchemaVersion))
      return Status::Error(Code::kInternal, "unknown store schema version " + v.value());
    // Tables added since the schema's version was set; creating them changes nothing else.
    QL_RETURN_IF_ERROR(store->conn_->Exec(kSchema));
  }
  return store;
}

Result<std::string> ReadSetting(Connection &conn, const std::string &key) {
  Result<Statement> st = conn.Prepare("SELECT value FROM settings WHERE key = ?1");
  if (!st.ok()) return st.status();
  st->Bind(1, key);
  Result<bool> row = st->Step();
  if (!row.ok()) return row.status();
  if (!row.value()) return Status::Error(Code::kObjectNotFound, "no setting " + key);
  return st->Text(0);
}

Result<std::string> Store::GetSetting(const std::string &key) {
  return Locked([&](Connection &conn) { return ReadSetting(conn, key); });
}

Status Store::SetSetting(const std::string &key, const std::string &value) {
  return Locked([&](Connection &conn) -> Status {
    Result<Statement> st = conn.Prepare(
        "INSERT INTO settings(key, value) VALUES(?1, ?2) "
        "ON CONFLICT(key) DO UPDATE SET value = excluded.value");
    if (!st.ok()) return st.status();
    st->Bind(1, key).Bind(2, value);
    return st->Run();
  });
}

Result<bool> Store::IsJsonObject(std::string_view text) {
  return Locked([&](Connection &conn) -> Result<bool> {
    // CASE evaluates json_type only for valid text (json_type raises an error on invalid JSON).
    Result<Statement> st =
        conn.Prepare("SELECT CASE WHEN json_valid(?1) THEN json_type(?1) = 'object' ELSE 0 END");
    if (!st.ok()) return st.status();
    st->Bind(1, text);
    Result<bool> row = st->Step();
    if (!row.ok()) return row.status();
    if (!row.value()) return Status::Error(Code::kInternal, "no answer from the JSON check");
    return st->Int(0) != 0;
  });
}

Status Store::CopyTo(const std::string &path) {
  return Locked([&](Connection &conn) { return conn.CopyTo(path); });
}

}  // namespace qlhsm::store
