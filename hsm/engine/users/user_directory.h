// The HSM's users: names, slow password hashes, access masks and block state, kept in the store
// and mirrored in memory so that a request reads the caller's current mask without touching the
// database.
//
// A login whose password was verified once is remembered as HMAC(process key, password), where
// the process key is random and never leaves memory: the password itself is not kept, and the next
// login by the same user with the same password skips the slow hash. Any change of the user's
// password, mask or block state forgets it.
//
// Thread safe: every method may be called from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "engine/clock.h"
#include "engine/secure/secure.h"
#include "engine/store/store.h"

namespace qlhsm::users {

inline constexpr size_t kMaxUserName = 16;
inline constexpr size_t kMaxPassword = 64;

struct UserInfo {
  std::string name;
  uint32_t mask = 0;
  bool blocked = false;
  // Bumped by every change of password, mask or block state; sessions compare it to notice.
  uint64_t generation = 0;
  // Changes when the password changes or the user is made anew: a session logged in before then
  // no longer serves.
  uint64_t credential = 0;
};

// A user name: 1 to 16 printable characters, no blanks and no '/' (which separates owner and
// object).
bool ValidUserName(std::string_view name);
// kUserNameTooLong past 16 characters, kBadName for an empty or malformed name.
Status CheckUserName(std::string_view name);
bool ValidPassword(std::string_view password);

class UserDirectory {
 public:
  // `clock` (the HSM's time, for creation stamps) must outlive the directory; null: the
  // machine's clock.
  UserDirectory(store::Store &store, secure::KdfParams kdf, const Clock *clock = nullptr);

  // Loads every user from the store into memory. Call once before use.
  Status Load();

  // Checks a password. kAuthFailed for an unknown user or a wrong password (the two are not told
  // apart), kUserBlocked for a blocked user with the right password.
  Result<UserInfo> Authenticate(std::string_view name, std::string_view password);
  // kUserNotFound when there is no such user.
  Result<UserInfo> Find(std::string_view name) const;

  Status Create(std::string_view name, std::string_view password, uint32_t mask);
  Status Remove(std::string_view name);
  Status SetPassword(std::string_view name, std::string_view password);
  Status SetMask(std::string_view name, uint32_t mask);
  Status SetBlocked(std::string_view name, bool blocked);

  std::vector<std::string> List() const;
  size_t Count() const;

 private:
  struct Entry {
    UserInfo info;
    std::string password_hash;
    secure::Bytes verified_mac;  // empty: no login remembered
  };
  // Applies `sql` (with ?1 = name, ?2 = value) in one transaction, then `update` to the memory
  // entry, both under the store lock so memory follows the database's order.
  template <typename Bind, typename Update>
  Status Change(std::string_view name, const char *sql, Bind bind, Update update);

  // The hash an unknown name's password is checked against: made once, at the current cost.
  const std::string &DummyHash();

  store::Store &store_;
  secure::KdfParams kdf_;
  std::once_flag dummy_once_;
  std::string dummy_hash_;
  const Clock *clock_;
  std::unique_ptr<secure::HmacSha256Key> process_key_;  // null: no login remembered
  mutable std::shared_mutex mu_;
  std::unordered_map<std::string, Entry> users_;
  uint64_t next_generation_ = 1;
};

}  // namespace qlhsm::users
