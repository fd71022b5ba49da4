// Access tokens: a 16-byte secret that lets its owner log in without a password. The store keeps
// only SHA-256 of the secret; the secret itself is handed out once, at issue.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "engine/clock.h"
#include "engine/secure/secure.h"
#include "engine/store/store.h"

namespace qlhsm::users {

inline constexpr size_t kTokenKeyLen = 16;

struct TokenInfo {
  std::string owner;
  secure::Bytes key_id;  // first 8 bytes of SHA-256(secret): names a token without revealing it
  int64_t issued = 0;    // seconds since 1970
  int64_t expires = 0;   // seconds since 1970; 0 never
};

class TokenStore {
 public:
  // Issue times and expiry checks follow `clock` (the HSM's time), which must outlive the store;
  // null: the machine's clock.
  explicit TokenStore(store::Store &store, const Clock *clock = nullptr)
      : store_(store), clock_(clock ? clock : &MachineClock()) {}

  // Issues a token for `owner` valid until `expires` (seconds since 1970; 0: no expiry);
  // returns its secret.
  Result<secure::Bytes> Issue(std::string_view owner, int64_t expires);
  // kObjectNotFound when `owner` has no such token.
  Status Revoke(std::string_view owner, const secure::Bytes &key);
  // Tokens of `owner`, or of everyone when `owner` is empty.
  Result<std::vector<TokenInfo>> List(std::string_view owner);
  Result<int64_t> Count();
  // Removes expired tokens; returns how many.
  Result<int64_t> CollectGarbage();
  // True when `key` is a live token of `owner`.
  Result<bool> Verify(std::string_view owner, const secure::Bytes &key);
  // Whether the token whose SHA-256 is `id` was revoked since `*seen` (a count of revocations
  // the caller keeps, updated here): a relaxed load when nothing was revoked since.
  bool RevokedSince(const secure::Bytes &id, uint64_t *seen);

 private:
  store::Store &store_;
  const Clock *clock_;
  std::atomic<uint64_t> revocations_{0};
  std::mutex revoked_mu_;
  std::set<secure::Bytes> revoked_;  // since the daemon started; sessions do not outlive it
};

}  // namespace qlhsm::users
