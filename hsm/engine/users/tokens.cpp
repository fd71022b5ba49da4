#include "engine/users/tokens.h"

#include <chrono>

namespace qlhsm::users {
namespace {}  // namespace

Result<secure::Bytes> TokenStore::Issue(std::string_view owner, int64_t expires) {
  if (expires < 0) return Status::Error(Code::kBadArgument, "negative token expiry");
  Result<secure::Bytes> key = secure::RandomBytes(kTokenKeyLen);
  if (!key.ok()) return key.status();
  int64_t now = clock_->Now();
  Status s = store_.Locked([&](store::Connection &conn) -> Status {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    Result<store::Statement> st = conn.Prepare(
        "INSERT INTO tokens(owner, key_hash, expires, created) VALUES(?1, ?2, ?3, ?4)");
    if (!st.ok()) return st.status();
    st->Bind(1, owner).BindBlob(2, secure::Sha256(*key)).Bind(3, expires);
    st->Bind(4, now);
    QL_RETURN_IF_ERROR(st->Run());
    return tx.Commit();
  });
  if (!s.ok()) return s;
  return key;
}

bool TokenStore::RevokedSince(const secure::Bytes &id, uint64_t *seen) {
  uint64_t now = revocations_.load(std::memory_order_acquire);
  if (now == *seen) return false;
  std::lock_guard<std::mutex> lock(revoked_mu_);
  *seen = now;
  return revoked_.count(id) != 0;
}

Status TokenStore::Revoke(std::string_view owner, const secure::Bytes &key) {
  Status st = store_.Locked([&](store::Connection &conn) -> Status {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    Result<store::Statement> st =
        conn.Prepare("DELETE FROM tokens WHERE owner = ?1 AND key_hash = ?2");
    if (!st.ok()) return st.status();
    st->Bind(1, owner).BindBlob(2, secure::Sha256(key));
    QL_RETURN_IF_ERROR(st->Run());
    if (conn.Changes() == 0) return Status::Error(Code::kObjectNotFound, "no such token");
    return tx.Commit();
  });
  if (st.ok()) {
    std::lock_guard<std::mutex> lock(revoked_mu_);
    revoked_.insert(secure::Sha256(key));
    revocations_.fetch_add(1, std::memory_order_release);
  }
  return st;
}

Result<std::vector<TokenInfo>> TokenStore::List(std::string_view owner) {
  return store_.Locked([&](store::Connection &conn) -> Result<std::vector<TokenInfo>> {
    Result<store::Statement> st = conn.Prepare(
        "SELECT owner, key_hash, expires, created FROM tokens WHERE ?1 = '' OR owner = ?1 "
        "ORDER BY id");
    if (!st.ok()) return st.status();
    st->Bind(1, owner);
    std::vector<TokenInfo> out;
    for (;;) {
      Result<bool> row = st->Step();
      if (!row.ok()) return row.status();
      if (!row.value()) break;
      secure::Bytes hash = st->Blob(1);
      hash.resize(8);
      out.push_back({st->Text(0), hash, st->Int(3), st->Int(2)});
    }
    return out;
  });
}

Result<int64_t> TokenStore::Count() {
  return store_.Locked([&](store::Connection &conn) -> Result<int64_t> {
    Result<store::Statement> st = conn.Prepare("SELECT COUNT(*) FROM tokens");
    if (!st.ok()) return st.status();
    Result<bool> row = st->Step();
    if (!row.ok()) return row.status();
    return st->Int(0);
  });
}

Result<int64_t> TokenStore::CollectGarbage() {
  int64_t now = clock_->Now();
  return store_.Locked([&](store::Connection &conn) -> Result<int64_t> {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    Result<store::Statement> st =
        conn.Prepare("DELETE FROM tokens WHERE expires != 0 AND expires <= ?1");
    if (!st.ok()) return st.status();
    st->Bind(1, now);
    QL_RETURN_IF_ERROR(st->Run());
    int64_t removed = conn.Changes();
    QL_RETURN_IF_ERROR(tx.Commit());
    return removed;
  });
}

Result<bool> TokenStore::Verify(std::string_view owner, const secure::Bytes &key) {
  if (key.size() != kTokenKeyLen) return false;
  int64_t now = clock_->Now();
  return store_.Locked([&](store::Connection &conn) -> Result<bool> {
    Result<store::Statement> st = conn.Prepare(
        "SELECT 1 FROM tokens WHERE owner = ?1 AND key_hash = ?2 AND (expires = 0 OR expires > "
        "?3)");
    if (!st.ok()) return st.status();
    st->Bind(1, owner).BindBlob(2, secure::Sha256(key)).Bind(3, now);
    return st->Step();
  });
}

}  // namespace qlhsm::users
