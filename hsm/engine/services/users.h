// Logins, users and access tokens.
#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>
#include <vector>

#include "engine/guard.h"

namespace qlhsm {

class ObjectsService;

struct TokenRequest {
  uint32_t operation = 0;  // issue, revoke or list
  std::string owner;       // revoke: the token's owner ("" the caller)
  secure::Bytes key;       // revoke: the token's secret
  uint64_t expires = 0;    // issue: seconds since 1970, 0 never
};

struct TokenAnswer {
  secure::Bytes key;                     // issue: the new token's secret
  std::vector<users::TokenInfo> tokens;  // list
};

class UsersService {
 public:
  UsersService(Core &core, Guard &guard) : core_(core), guard_(guard) {}

  // --- log in ---
  // kAuthFailed, kUserBlocked, kLimitReached. `source` (the client's address, may be empty) is
  // counted with the user's failures; *delay (when given) receives how long the caller must hold
  // the answer back (see users/login_throttle.h).
  // `otp` (null: none) is the one-time password of a user with an OATH token: such a user needs
  // it, and a user without one is refused with it. Ten OTP failures in a row that came with the
  // right password block the user (never the last administrator).
  // `certificate` (null: none) is the certificate (DER) the client presented in the TLS
  // handshake of a certificate login: a user with a bound certificate needs exactly that one, and
  // a user without one is refused with it.
  Status Login(sessions::Session &s, std::string_view user, std::string_view password,
               std::string_view source = {}, std::chrono::milliseconds *delay = nullptr,
               const std::string *otp = nullptr, const secure::Bytes *certificate = nullptr);
  Status LoginToken(sessions::Session &s, std::string_view user, const secure::Bytes &key);
  // Anonymous: only requests that need no right.
  Status LoginAnonymous(sessions::Session &s);
  // A login of any kind (the wire's login kinds); the caller's mask on success. `source` and
  // `delay` as for Login (a password login is throttled).
  // `strong_kind` (kind 16 only): 0 none, 1 (QL_STRONG_AUTH_OTP) `otp` is a one-time password,
  // 2 (QL_STRONG_AUTH_X509) `peer_certificate` (DER; empty when the client presented none) is
  // the certificate the connection's client proved in its TLS handshake.
  Result<uint32_t> LogIn(sessions::Session &s, uint32_t kind, std::string_view user,
                         std::string_view password, const secure::Bytes &token_key,
                         std::string_view source = {}, std::chrono::milliseconds *delay = nullptr,
                         uint32_t strong_kind = 0, const std::string &otp = {},
                         const secure::Bytes &peer_certificate = {});
  // Back to the state of a new connection: no login, no temporary objects.
  void ResetSession(sessions::Session &s);

  // --- users ---
  Status CreateUser(sessions::Session &s, std::string_view name, std::string_view password,
                    uint32_t mask);
  Status RemoveUser(sessions::Session &s, std::string_view name);
  Result<std::vector<std::string>> ListUsers(sessions::Session &s);
  Status SetUserPassword(sessions::Session &s, std::string_view name, std::string_view password);
  Status SetUserMask(sessions::Session &s, std::string_view name, uint32_t mask);
  Status SetUserBlocked(sessions::Session &s, std::string_view name, bool blocked);
  Result<users::UserInfo> GetUser(sessions::Session &s, std::string_view name);
  // The wire's user parameters: one's own password, another's password, mask, block state, one's
  // own login certificate (`data`: DER or PEM).
  Status SetUserParam(sessions::Session &s, uint32_t param, std::string_view name,
                      std::string_view password, uint32_t mask, const secure::Bytes &data = {});
  // Binds a certificate (one, DER or PEM, valid now) to the caller as the second factor of its
  // logins: no right needed; kBadCert, kCertExpired, kSecondFactorExists for a user with an
  // OATH token. A certificate held before is replaced.
  Status AssignCertificate(sessions::Session &s, const secure::Bytes &certificate);
  // Removes a user's login certificate (`name` empty: the caller's, no right needed; another's
  // needs the operator right); nothing when it holds none.
  Status UnassignCertificate(sessions::Session &s, std::string_view name);
  // A user's mask or block state (1 blocked), or the number of objects the caller owns.
  Result<uint64_t> GetUserParam(sessions::Session &s, uint32_t param, std::string_view name);

  // --- access tokens (the caller's own; an operator sees everyone's) ---
  Result<secure::Bytes> IssueToken(sessions::Session &s, uint64_t expires);
  // One's own token needs no right; another user's (owner not empty and not the caller) needs
  // the operator right.
  Status RevokeToken(sessions::Session &s, std::string_view owner, const secure::Bytes &key);
  Result<std::vector<users::TokenInfo>> ListTokens(sessions::Session &s);
  Result<TokenAnswer> ManageToken(sessions::Session &s, const TokenRequest &request);
  Result<int64_t> TokenCount(sessions::Session &s);
  Result<int64_t> CollectTokenGarbage(sessions::Session &s);
  // The token cache's count or garbage collection.
  Result<int64_t> ManageTokenCache(sessions::Session &s, uint32_t operation);

  void set_objects(ObjectsService *objects) { objects_ = objects; }

 private:
  // The checks every change of another user's record shares: the name, the operator right,
  // then the change itself.
  template <typename Change>
  Status ChangeUser(sessions::Session &s, std::string_view op, std::string_view name,
                    Change &&change);

  // The state step of a change that may take the operator right from `name` (removal, block,
  // a mask without it; `stays`: the change keeps it): kLastAdministrator when no other unblocked
  // user with the operator right would remain. Run under core_.administrators_mu.
  Status KeepAnAdministrator(std::string_view name, bool stays);
  // The second factor of a password login that passed: kAuthFailed for a missing or wrong OTP
  // (counted, and blocking at the limit), an OTP for a user without a token, a missing, other or
  // expired certificate of a user with one, or a certificate login of a user without one.
  Status CheckSecondFactor(std::string_view user, const std::string *otp,
                           const secure::Bytes *certificate);

  Core &core_;
  Guard &guard_;
  ObjectsService *objects_ = nullptr;
};

}  // namespace qlhsm
