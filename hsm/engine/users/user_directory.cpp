#include "engine/users/user_directory.h"

#include <algorithm>
#include <chrono>
#include <mutex>

namespace qlhsm::users {
namespace {}  // namespace

bool ValidUserName(std::string_view name) {
  if (name.empty() || name.size() > kMaxUserName) return false;
  return std::all_of(name.begin(), name.end(),
                     [](char c) { return c > ' ' && c < 0x7f && c != '/' && c != '\\'; });
}

Status CheckUserName(std::string_view name) {
  if (name.size() > kMaxUserName)
    return Status::Error(Code::kUserNameTooLong, "user name longer than 16 characters");
  if (!ValidUserName(name)) return Status::Error(Code::kBadName, "bad user name");
  return Status::Ok();
}

bool ValidPassword(std::string_view password) {
  return !password.empty() && password.size() <= kMaxPassword &&
         password.find('\0') == std::string_view::npos;
}

UserDirectory::UserDirectory(store::Store &store, secure::KdfParams kdf, const Clock *clock)
    : store_(store), kdf_(kdf), clock_(clock ? clock : &MachineClock()) {
  Result<secure::Bytes> key = secure::RandomBytes(secure::kKeyLen);
  // Without randomness the login memory stays empty (every login hashes); Authenticate checks.
  if (key.ok()) {
    auto prepared = std::make_unique<secure::HmacSha256Key>(*key);
    if (prepared->ok()) process_key_ = std::move(prepared);
  }
}

Status UserDirectory::Load() {
  return store_.Locked([&](store::Connection &conn) -> Status {
    Result<store::Statement> st =
        conn.Prepare("SELECT name, password_hash, mask, blocked FROM users");
    if (!st.ok()) return st.status();
    std::unique_lock lock(mu_);
    users_.clear();
    for (;;) {
      Result<bool> row = st->Step();
      if (!row.ok()) return row.status();
      if (!row.value()) break;
      Entry e;
      e.info.name = st->Text(0);
      e.password_hash = st->Text(1);
      e.info.mask = static_cast<uint32_t>(st->Int(2));
      e.info.blocked = st->Int(3) != 0;
      e.info.generation = next_generation_++;
      e.info.credential = e.info.generation;
      users_.emplace(e.info.name, std::move(e));
    }
    return Status::Ok();
  });
}

Result<UserInfo> UserDirectory::Authenticate(std::string_view name, std::string_view password) {
  const Status kFailed = Status::Error(Code::kAuthFailed, "authentication failed");
  // A name that is no user costs the same slow hash as a wrong password, so the time of the
  // answer does not tell which names exist.
  auto unknown = [&] {
    (void)secure::VerifyPassword(password, DummyHash());
    return kFailed;
  };
  if (!ValidUserName(name) || !ValidPassword(password)) return unknown();
  secure::Bytes mac;
  if (process_key_) mac = process_key_->Mac(password);
  std::string hash;
  UserInfo info;
  {
    std::shared_lock lock(mu_);
    auto it = users_.find(std::string(name));
    if (it == users_.end()) {
      lock.unlock();
      return unknown();
    }
    info = it->second.info;
    if (!mac.empty() && secure::Equal(mac, it->second.verified_mac)) {
      if (info.blocked) return Status::Error(Code::kUserBlocked, "user blocked");
      return info;
    }
    hash = it->second.password_hash;
  }
  // The slow hash runs without the lock so that other logins go on.
  Result<bool> match = secure::VerifyPassword(password, hash);
  if (!match.ok()) return match.status();
  if (!match.value()) return kFailed;
  if (info.blocked) return Status::Error(Code::kUserBlocked, "user blocked");
  {
    std::unique_lock lock(mu_);
    auto it = users_.find(std::string(name));
    // Remember only when nothing changed meanwhile.
    if (it != users_.end() && it->second.info.generation == info.generation && !mac.empty())
      it->second.verified_mac = std::move(mac);
  }
  return info;
}

const std::string &UserDirectory::DummyHash() {
  std::call_once(dummy_once_, [this] {
    // A random password nobody knows, hashed at the cost new passwords get.
    Result<secure::Bytes> pwd = secure::RandomBytes(16);
    Result<std::string> hash =
        secure::HashPassword(pwd.ok() ? secure::Hex(pwd.value()) : std::string("-"), kdf_);
    if (hash.ok()) dummy_hash_ = std::move(hash.value());
  });
  return dummy_hash_;
}

Result<UserInfo> UserDirectory::Find(std::string_view name) const {
  std::shared_lock lock(mu_);
  auto it = users_.find(std::string(name));
  if (it == users_.end()) return Status::Error(Code::kUserNotFound, "no such user");
  return it->second.info;
}

Status UserDirectory::Create(std::string_view name, std::string_view password, uint32_t mask) {
  QL_RETURN_IF_ERROR(CheckUserName(name));
  if (!ValidPassword(password)) return Status::Error(Code::kBadArgument, "bad password");
  if (Find(name).ok()) return Status::Error(Code::kUserExists, "user exists");
  Result<std::string> hash = secure::HashPassword(password, kdf_);
  if (!hash.ok()) return hash.status();
  return store_.Locked([&](store::Connection &conn) -> Status {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    Result<store::Statement> st = conn.Prepare(
        "INSERT INTO users(name, password_hash, mask, blocked, created) VALUES(?1, ?2, ?3, 0, ?4)");
    if (!st.ok()) return st.status();
    st->Bind(1, name)
        .Bind(2, hash.value())
        .Bind(3, static_cast<int64_t>(mask))
        .Bind(4, clock_->Now());
    Status s = st->Run();
    if (s.code() == Code::kObjectExists) return Status::Error(Code::kUserExists, "user exists");
    QL_RETURN_IF_ERROR(s);
    QL_RETURN_IF_ERROR(tx.Commit());
    std::unique_lock lock(mu_);
    Entry e;
    e.info = UserInfo{std::string(name), mask, false, next_generation_++};
    e.info.credential = e.info.generation;
    e.password_hash = std::move(hash.value());
    users_[e.info.name] = std::move(e);
    return Status::Ok();
  });
}

template <typename Bind, typename Update>
Status UserDirectory::Change(std::string_view name, const char *sql, Bind bind, Update update) {
  return store_.Locked([&](store::Connection &conn) -> Status {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    Result<store::Statement> st = conn.Prepare(sql);
    if (!st.ok()) return st.status();
    st->Bind(1, name);
    bind(*st);
    QL_RETURN_IF_ERROR(st->Run());
    if (conn.Changes() == 0) return Status::Error(Code::kUserNotFound, "no such user");
    QL_RETURN_IF_ERROR(tx.Commit());
    std::unique_lock lock(mu_);
    auto it = users_.find(std::string(name));
    if (it != users_.end()) update(it);
    return Status::Ok();
  });
}

Status UserDirectory::Remove(std::string_view name) {
  return Change(
      name, "DELETE FROM users WHERE name = ?1", [](store::Statement &) {},
      [&](auto it) { users_.erase(it); });
}

Status UserDirectory::SetPassword(std::string_view name, std::string_view password) {
  if (!ValidPassword(password)) return Status::Error(Code::kBadArgument, "bad password");
  if (!Find(name).ok()) return Status::Error(Code::kUserNotFound, "no such user");
  Result<std::string> hash = secure::HashPassword(password, kdf_);
  if (!hash.ok()) return hash.status();
  return Change(
      name, "UPDATE users SET password_hash = ?2 WHERE name = ?1",
      [&](store::Statement &st) { st.Bind(2, hash.value()); },
      [&](auto it) {
        it->second.password_hash = hash.value();
        it->second.verified_mac.clear();
        it->second.info.generation = next_generation_++;
        it->second.info.credential = it->second.info.generation;
      });
}

Status UserDirectory::SetMask(std::string_view name, uint32_t mask) {
  return Change(
      name, "UPDATE users SET mask = ?2 WHERE name = ?1",
      [&](store::Statement &st) { st.Bind(2, static_cast<int64_t>(mask)); },
      [&](auto it) {
        it->second.info.mask = mask;
        it->second.verified_mac.clear();
        it->second.info.generation = next_generation_++;
      });
}

Status UserDirectory::SetBlocked(std::string_view name, bool blocked) {
  return Change(
      name, "UPDATE users SET blocked = ?2 WHERE name = ?1",
      [&](store::Statement &st) { st.Bind(2, static_cast<int64_t>(blocked ? 1 : 0)); },
      [&](auto it) {
        it->second.info.blocked = blocked;
        it->second.verified_mac.clear();
        it->second.info.generation = next_generation_++;
        // A block ends the sessions of before, even once the user is unblocked.
        if (blocked) it->second.info.credential = it->second.info.generation;
      });
}

std::vector<std::string> UserDirectory::List() const {
  std::shared_lock lock(mu_);
  std::vector<std::string> names;
  names.reserve(users_.size());
  for (const auto &[name, e] : users_) names.push_back(name);
  std::sort(names.begin(), names.end());
  return names;
}

size_t UserDirectory::Count() const {
  std::shared_lock lock(mu_);
  return users_.size();
}

}  // namespace qlhsm::users
