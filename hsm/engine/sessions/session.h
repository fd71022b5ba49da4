// One client session: who is logged in, and the temporary keys and hashes that live only as long
// as the session (they die at close or reset and are never stored).
//
// A Session belongs to one connection and is used by one thread at a time; the registry that
// counts open sessions is thread safe.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "crypto/cipher.h"
#include "crypto/hash.h"
#include "crypto/key.h"
#include "engine/secure/secure.h"
#include "engine/status.h"

namespace qlhsm::sessions {

enum class AuthKind { kNone, kAnonymous, kPassword, kToken };

// A key made for this session only, ready for use (parsed once).
struct TempObject {
  crypto::KeyPtr key;
  uint32_t flags = 0;
  std::string name;  // a named session key is found by its name too; "" for none
  // Numbered records, as a stored key keeps them beside it (id, value).
  std::vector<std::pair<uint32_t, secure::Bytes>> records;
};

// A multi-request operation a service keeps in the session (an SPB message being encoded or
// decoded); it dies with the session like a temporary key.
class SessionContext {
 public:
  virtual ~SessionContext() = default;
};

class SessionRegistry;

class Session {
 public:
  explicit Session(SessionRegistry &registry);
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  uint64_t id() const { return id_; }
  AuthKind auth() const { return auth_; }
  bool logged_in() const { return auth_ == AuthKind::kPassword || auth_ == AuthKind::kToken; }
  const std::string &user() const { return user_; }

  // Marks the session as logged in (counted as open). kLimitReached past the registry's limit.
  Status Attach(AuthKind kind, std::string user);
  // Drops the login and every temporary object; the session no longer counts as open.
  void Reset();

  // What the login rested on: the user's credential generation and, for a token login, the
  // token's SHA-256. A change of either ends the session's service (see the guard).
  void set_credential(uint64_t generation, std::vector<uint8_t> token_id = {}) {
    credential_ = generation;
    token_id_ = std::move(token_id);
  }
  uint64_t credential() const { return credential_; }
  const std::vector<uint8_t> &token_id() const { return token_id_; }
  // Token revocations this session has already looked at.
  uint64_t *seen_revocations() { return &seen_revocations_; }

  uint64_t AddTemp(TempObject obj);
  TempObject *FindTemp(uint64_t handle);
  // The named session key of that name, or null.
  TempObject *FindTempByName(std::string_view name);
  bool RemoveTemp(uint64_t handle);
  size_t TempCount() const { return temps_.size(); }

  // Stored objects opened in this session ("owner/object"), by handle. The handles share one
  // numbering with the temporary objects.
  uint64_t AddOpened(std::string full_name);
  const std::string *FindOpened(uint64_t handle) const;
  bool RemoveOpened(uint64_t handle);

  // The cipher state (mode, padding, IV, message in progress) of a key handle, made on first use.
  crypto::CipherState *FindCipher(uint64_t handle);
  crypto::CipherState &AddCipher(uint64_t handle, crypto::KeyPtr key);

  // Running hashes (HMAC, CMAC, digests) of this session, by handle.
  uint64_t AddHash(crypto::HashState state);
  crypto::HashState *FindHash(uint64_t handle);
  bool RemoveHash(uint64_t handle);

  // Operations in progress of this session, by handle (one numbering with keys and hashes).
  uint64_t AddContext(std::unique_ptr<SessionContext> context);
  SessionContext *FindContext(uint64_t handle);
  bool RemoveContext(uint64_t handle);

 private:
  SessionRegistry &registry_;
  uint64_t id_;
  AuthKind auth_ = AuthKind::kNone;
  bool counted_ = false;
  std::string user_;
  uint64_t credential_ = 0;
  std::vector<uint8_t> token_id_;
  uint64_t seen_revocations_ = 0;
  uint64_t next_handle_ = 1;
  std::unordered_map<uint64_t, TempObject> temps_;
  std::unordered_map<uint64_t, std::string> opened_;
  std::unordered_map<uint64_t, crypto::HashState> hashes_;
  std::unordered_map<uint64_t, crypto::CipherState> ciphers_;
  std::unordered_map<uint64_t, std::unique_ptr<SessionContext>> contexts_;
};

class SessionRegistry {
 public:
  explicit SessionRegistry(size_t max_open = 1024) : max_open_(max_open) {}
  // Sessions with an anonymous or user login.
  size_t OpenCount() const { return open_.load(std::memory_order_relaxed); }
  size_t max_open() const { return max_open_; }
  void set_max_open(size_t n) { max_open_ = n; }

 private:
  friend class Session;
  bool TryAcquire();
  void Release() { open_.fetch_sub(1, std::memory_order_relaxed); }
  uint64_t NextId() { return next_id_.fetch_add(1, std::memory_order_relaxed); }

  std::atomic<size_t> open_{0};
  std::atomic<uint64_t> next_id_{1};
  size_t max_open_;
};

}  // namespace qlhsm::sessions
