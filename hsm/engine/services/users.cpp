// Logins, users and access tokens.
#include "engine/services/users.h"

#include "crypto/pki.h"
#include "engine/services/objects.h"
#include "engine/utf8.h"

namespace qlhsm {

using access::Request;
using sessions::AuthKind;
using sessions::Session;

namespace {

// User names and passwords are UTF-8 text.
Status CheckText(std::string_view name, std::string_view password) {
  if (!IsUtf8(name) || !IsUtf8(password))
    return Status::Error(Code::kBadUtf8, "a user name or password that is not UTF-8");
  return Status::Ok();
}

// A request naming a user: the name is UTF-8 text, then a valid user name.
Status CheckName(std::string_view name) {
  QL_RETURN_IF_ERROR(CheckText(name, {}));
  return users::CheckUserName(name);
}

Status CheckNameAndPassword(std::string_view name, std::string_view password) {
  QL_RETURN_IF_ERROR(CheckText(name, password));
  QL_RETURN_IF_ERROR(users::CheckUserName(name));
  if (!users::ValidPassword(password)) return Status::Error(Code::kBadArgument, "bad password");
  return Status::Ok();
}

bool IsAdministrator(const users::UserInfo &u) {
  return !u.blocked && (u.mask & access::kSysOperator) != 0;
}

// The one certificate of `input` (DER or PEM) as DER, valid at `now`: kBadCert for anything
// else, kCertExpired for one expired or not yet valid.
Result<secure::Bytes> CurrentCertificate(const secure::Bytes &input, int64_t now) {
  crypto::Result<std::vector<crypto::Bytes>> certs =
      crypto::pki::ReadCertificates(crypto::ByteView(input.data(), input.size()));
  if (!certs.ok() || certs->size() != 1)
    return Status::Error(Code::kBadCert, "not one certificate in DER or PEM");
  const crypto::Bytes &der = certs->front();
  crypto::Result<crypto::pki::PathCheck> check =
      crypto::pki::ValidatePath(der, {der}, std::nullopt, static_cast<time_t>(now));
  if (!check.ok()) return Status::Error(Code::kBadCert, "an unreadable certificate");
  if (check->problem == crypto::pki::PathProblem::kExpired)
    return Status::Error(Code::kCertExpired, "the certificate is expired or not yet valid");
  if (check->problem != crypto::pki::PathProblem::kNone)
    return Status::Error(Code::kBadCert, "a certificate that does not verify");
  return secure::Bytes(der.begin(), der.end());
}

bool Own(const Session &s, std::string_view name) {
  return s.logged_in() && name == s.user();
}

}  // namespace

// --- log in ---

Status UsersService::CheckSecondFactor(std::string_view user, const std::string *otp,
                                       const secure::Bytes *certificate) {
  const Status failed = Status::Error(Code::kAuthFailed, "authentication failed");
  if (std::optional<secure::Bytes> bound = core_.user_certs->Get(user)) {
    if (otp || !certificate || *certificate != *bound) return failed;
    // The handshake proved the key; the certificate must still be current at the HSM's time.
    return CurrentCertificate(*bound, core_.clock.Now()).ok() ? Status::Ok() : failed;
  }
  if (certificate) return failed;
  if (!core_.otp->Has(user)) return otp ? failed : Status::Ok();
  // A login without the OTP is refused but not counted: only a wrong OTP is a guess.
  if (!otp) return failed;
  Result<users::OtpTokens::Outcome> outcome = core_.otp->Check(user, *otp, core_.clock.Now());
  if (!outcome.ok()) return outcome.status().code() == Code::kNoToken ? failed : outcome.status();
  if (outcome->matched) return Status::Ok();
  if (outcome->failures >= users::kOtpMaxFailures) {
    // RFC 4226 section 7.3; the password was right, so only its holder can get here.
    std::lock_guard<std::mutex> lock(core_.administrators_mu);
    if (KeepAnAdministrator(user, false).ok())
      QL_RETURN_IF_ERROR(core_.users->SetBlocked(user, true));
  }
  return failed;
}

Status UsersService::Login(Session &s, std::string_view user, std::string_view password,
                           std::string_view source, std::chrono::milliseconds *delay,
                           const std::string *otp, const secure::Bytes *certificate) {
  ResetSession(s);
  const std::chrono::milliseconds wait = core_.throttle.Delay(user, source);
  Result<users::UserInfo> info = core_.users->Authenticate(user, password);
  // The OTP is checked on every login, the remembered ones included.
  Status st = info.ok() ? s.Attach(AuthKind::kPassword, std::string(user)) : info.status();
  // After the session's slot is taken, so that a refusal for want of one spends no OTP.
  if (st.ok()) {
    st = CheckSecondFactor(user, otp, certificate);
    if (!st.ok()) ResetSession(s);
  }
  if (st.ok()) s.set_credential(info->credential);
  if (st.code() == Code::kAuthFailed) core_.throttle.Failed(user, source);
  if (info.ok() && st.code() != Code::kAuthFailed) core_.throttle.Succeeded(user, source);
  core_.audit->Append(user, "login", source.empty() ? std::string_view("-") : source,
                      ToWire(st.code()));
  if (delay) *delay = wait;
  return st;
}

Status UsersService::LoginToken(Session &s, std::string_view user, const secure::Bytes &key) {
  ResetSession(s);
  Status st;
  Result<users::UserInfo> info = core_.users->Find(user);
  if (!info.ok()) {
    st = Status::Error(Code::kAuthFailed, "authentication failed");
  } else {
    Result<bool> valid = core_.tokens->Verify(user, key);
    if (!valid.ok())
      st = valid.status();
    else if (!valid.value())
      st = Status::Error(Code::kAuthFailed, "authentication failed");
    else if (info->blocked)
      st = Status::Error(Code::kUserBlocked, "user blocked");
    else
      st = s.Attach(AuthKind::kToken, std::string(user));
    if (st.ok()) {
      s.set_credential(info->credential, secure::Sha256(key));
      *s.seen_revocations() = 0;
      core_.tokens->RevokedSince(s.token_id(), s.seen_revocations());
    }
  }
  core_.audit->Append(user, "login-token", "-", ToWire(st.code()));
  return st;
}

Status UsersService::LoginAnonymous(Session &s) {
  ResetSession(s);
  return s.Attach(AuthKind::kAnonymous, "");
}

Result<uint32_t> UsersService::LogIn(Session &s, uint32_t kind, std::string_view user,
                                     std::string_view password, const secure::Bytes &token_key,
                                     std::string_view source, std::chrono::milliseconds *delay,
                                     uint32_t strong_kind, const std::string &otp,
                                     const secure::Bytes &peer_certificate) {
  if (strong_kind != 0 &&
      (kind != qlproto::kAuthUserPassword ||
       (strong_kind != qlproto::kStrongAuthOtp && strong_kind != qlproto::kStrongAuthX509)))
    return Status::Error(Code::kBadArgument, "a second factor goes with a password login");
  if (kind != qlproto::kAuthAnonymous) {
    Status text = CheckText(user, kind == qlproto::kAuthUserPassword ? password : "");
    if (!text.ok()) return text;
  }
  Status st;
  switch (kind) {
    case qlproto::kAuthAnonymous:
      st = LoginAnonymous(s);
      break;
    case qlproto::kAuthUserPassword:
      st = Login(s, user, password, source, delay,
                 strong_kind == qlproto::kStrongAuthOtp ? &otp : nullptr,
                 strong_kind == qlproto::kStrongAuthX509 ? &peer_certificate : nullptr);
      break;
    case qlproto::kAuthToken:
      st = LoginToken(s, user, token_key);
      break;
    default:
      return Status::Error(Code::kBadAuthKind, "unknown login kind");
  }
  if (!st.ok()) return st;
  Result<users::UserInfo> me = guard_.Caller(s);
  if (!me.ok()) return me.status();
  return me->mask;
}

void UsersService::ResetSession(Session &s) {
  s.Reset();
}

// --- users ---

Status UsersService::CreateUser(Session &s, std::string_view name, std::string_view password,
                                uint32_t mask) {
  Op op{"create-user", name, Request::kCreateUser, AuditMode::kChange};
  return guard_.Run(
      s, op, [&] { return CheckNameAndPassword(name, password); },
      [&](const users::UserInfo &me) -> Status {
        QL_RETURN_IF_ERROR(guard_.Grant(me, mask));
        return core_.users->Create(name, password, mask);
      });
}

Status UsersService::RemoveUser(Session &s, std::string_view name) {
  Op op{"remove-user", name, Request::kRemoveUser, AuditMode::kChange};
  return guard_.Run(
      s, op, [&] { return CheckName(name); },
      [&](const users::UserInfo &me) -> Status {
        Result<users::UserInfo> target = core_.users->Find(name);
        if (!target.ok()) return target.status();
        QL_RETURN_IF_ERROR(access::CheckRemoval(me.mask, target->mask));
        std::lock_guard<std::mutex> lock(core_.administrators_mu);
        QL_RETURN_IF_ERROR(KeepAnAdministrator(name, false));
        QL_RETURN_IF_ERROR(core_.users->Remove(name));
        core_.otp->Forget(name);  // the store dropped its token and certificate with it
        core_.user_certs->Forget(name);
        core_.keys.ForgetAll();  // the user's objects went with it
        return Status::Ok();
      });
}

Result<std::vector<std::string>> UsersService::ListUsers(Session &s) {
  Op op{"list-users", "-", Request::kListUsers};
  return guard_.Run(s, op, NoArgs, [&](const users::UserInfo &) {
    return Result<std::vector<std::string>>(core_.users->List());
  });
}

template <typename Change>
Status UsersService::ChangeUser(Session &s, std::string_view op_name, std::string_view name,
                                Change &&change) {
  Op op{op_name, name, Request::kSetOtherUser, AuditMode::kChange};
  return guard_.Run(
      s, op, [&] { return CheckName(name); },
      [&](const users::UserInfo &) -> Status { return change(); });
}

Status UsersService::KeepAnAdministrator(std::string_view name, bool stays) {
  Result<users::UserInfo> target = core_.users->Find(name);
  if (!target.ok() || stays || !IsAdministrator(*target)) return Status::Ok();
  for (const std::string &other : core_.users->List()) {
    if (other == name) continue;
    Result<users::UserInfo> u = core_.users->Find(other);
    if (u.ok() && IsAdministrator(*u)) return Status::Ok();
  }
  return Status::Error(Code::kLastAdministrator, "the last administrator stays one");
}

Status UsersService::SetUserPassword(Session &s, std::string_view name, std::string_view password) {
  Op op{"set-user-password", name,
        Own(s, name) ? Request::kChangeOwnPassword : Request::kSetOtherUser, AuditMode::kChange};
  return guard_.Run(
      s, op, [&] { return CheckNameAndPassword(name, password); },
      [&](const users::UserInfo &) -> Status {
        QL_RETURN_IF_ERROR(core_.users->SetPassword(name, password));
        // The session that changed its own password goes on; the user's others end.
        if (Own(s, name)) {
          Result<users::UserInfo> me = core_.users->Find(name);
          if (me.ok()) s.set_credential(me->credential, s.token_id());
        }
        return Status::Ok();
      });
}

Status UsersService::SetUserMask(Session &s, std::string_view name, uint32_t mask) {
  return ChangeUser(s, "set-user-mask", name, [&]() -> Status {
    std::lock_guard<std::mutex> lock(core_.administrators_mu);
    QL_RETURN_IF_ERROR(KeepAnAdministrator(name, (mask & access::kSysOperator) != 0));
    return core_.users->SetMask(name, mask);
  });
}

Status UsersService::SetUserBlocked(Session &s, std::string_view name, bool blocked) {
  return ChangeUser(s, blocked ? "block-user" : "unblock-user", name, [&]() -> Status {
    std::lock_guard<std::mutex> lock(core_.administrators_mu);
    if (blocked) QL_RETURN_IF_ERROR(KeepAnAdministrator(name, false));
    QL_RETURN_IF_ERROR(core_.users->SetBlocked(name, blocked));
    // An unblocked user's OTP failures start again from none.
    return blocked ? Status::Ok() : core_.otp->ClearFailures(name);
  });
}

Result<users::UserInfo> UsersService::GetUser(Session &s, std::string_view name) {
  Op op{"get-user", name, Own(s, name) ? Request::kFree : Request::kReadOtherUserMask};
  return guard_.Run(
      s, op, [&] { return CheckName(name); },
      [&](const users::UserInfo &) { return core_.users->Find(name); });
}

Status UsersService::SetUserParam(Session &s, uint32_t param, std::string_view name,
                                  std::string_view password, uint32_t mask,
                                  const secure::Bytes &data) {
  switch (param) {
    case qlproto::kUpPassword:
      return SetUserPassword(s, s.user(), password);
    case qlproto::kUpUserPassword:
      return SetUserPassword(s, name, password);
    case qlproto::kUpAcl:
      return SetUserMask(s, name, mask);
    case qlproto::kUpBlock:
    case qlproto::kUpUnblock:
      return SetUserBlocked(s, name, param == qlproto::kUpBlock);
    case qlproto::kUpX509Assign:
      return AssignCertificate(s, data);
    case qlproto::kUpX509Unassign:
      return UnassignCertificate(s, name);
    default:
      return guard_.Refuse(s, Status::Error(Code::kBadArgument, "unknown user parameter"));
  }
}

Status UsersService::AssignCertificate(Session &s, const secure::Bytes &certificate) {
  Op op{"assign-x509", s.user(), Request::kFree, AuditMode::kChange};
  return guard_.Run(s, op, NoArgs, [&](const users::UserInfo &) -> Status {
    Result<secure::Bytes> der = CurrentCertificate(certificate, core_.clock.Now());
    if (!der.ok()) return der.status();
    std::lock_guard<std::mutex> lock(core_.second_factor_mu);
    if (core_.otp->Has(s.user()))
      return Status::Error(Code::kSecondFactorExists, "the user has an OATH token");
    return core_.user_certs->Assign(s.user(), der.value());
  });
}

Status UsersService::UnassignCertificate(Session &s, std::string_view name) {
  const bool own = name.empty() || Own(s, name);
  const std::string_view user = own ? std::string_view(s.user()) : name;
  Op op{"unassign-x509", user, own ? Request::kFree : Request::kSetOtherUser, AuditMode::kChange};
  return guard_.Run(
      s, op, [&] { return own ? Status::Ok() : CheckName(name); },
      [&](const users::UserInfo &) -> Status {
        if (!own) QL_RETURN_IF_ERROR(core_.users->Find(user).status());
        return core_.user_certs->Unassign(user);
      });
}

Result<uint64_t> UsersService::GetUserParam(Session &s, uint32_t param, std::string_view name) {
  if (param == qlproto::kUpObjCount) {
    Result<int64_t> n = objects_->CountOwnObjects(s);
    if (!n.ok()) return n.status();
    return static_cast<uint64_t>(*n);
  }
  if (param != qlproto::kUpAcl && param != qlproto::kUpBlocked) {
    return guard_.Refuse(s, Status::Error(Code::kBadArgument, "unknown user parameter"));
  }
  Result<users::UserInfo> u = GetUser(s, name);
  if (!u.ok()) return u.status();
  return param == qlproto::kUpAcl ? uint64_t{u->mask} : uint64_t{u->blocked ? 1u : 0u};
}

// --- tokens ---

Result<secure::Bytes> UsersService::IssueToken(Session &s, uint64_t expires) {
  Op op{"issue-token", s.user(), Request::kFree, AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        if (expires > static_cast<uint64_t>(INT64_MAX))
          return Status::Error(Code::kBadArgument, "expiry out of range");
        return Status::Ok();
      },
      [&](const users::UserInfo &) {
        return core_.tokens->Issue(s.user(), static_cast<int64_t>(expires));
      });
}

Status UsersService::RevokeToken(Session &s, std::string_view owner, const secure::Bytes &key) {
  if (owner.empty()) owner = s.user();
  Op op{"revoke-token", owner, Own(s, owner) ? Request::kFree : Request::kAdminister,
        AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        if (key.size() != users::kTokenKeyLen)
          return Status::Error(Code::kBadArgument, "bad token");
        return Status::Ok();
      },
      [&](const users::UserInfo &) { return core_.tokens->Revoke(owner, key); });
}

Result<std::vector<users::TokenInfo>> UsersService::ListTokens(Session &s) {
  return guard_.Run(s, Op{"list-tokens", "-", Request::kFree}, NoArgs,
                    [&](const users::UserInfo &me) {
                      // An operator sees every user's tokens.
                      bool everyone = access::Allowed(Request::kAdminister, me.mask);
                      return core_.tokens->List(everyone ? "" : s.user());
                    });
}

Result<TokenAnswer> UsersService::ManageToken(Session &s, const TokenRequest &request) {
  TokenAnswer answer;
  switch (request.operation) {
    case qlproto::kTokenIssue: {
      Result<secure::Bytes> key = IssueToken(s, request.expires);
      if (!key.ok()) return key.status();
      answer.key = std::move(key.value());
      return answer;
    }
    case qlproto::kTokenRevoke:
      QL_RETURN_IF_ERROR(RevokeToken(s, request.owner, request.key));
      return answer;
    case qlproto::kTokenList: {
      Result<std::vector<users::TokenInfo>> tokens = ListTokens(s);
      if (!tokens.ok()) return tokens.status();
      answer.tokens = std::move(tokens.value());
      return answer;
    }
    default:
      return guard_.Refuse(s, Status::Error(Code::kBadArgument, "unknown token operation"));
  }
}

Result<int64_t> UsersService::TokenCount(Session &s) {
  return guard_.Run(s, Op{"token-count", "-", Request::kAdminister}, NoArgs,
                    [&](const users::UserInfo &) { return core_.tokens->Count(); });
}

Result<int64_t> UsersService::CollectTokenGarbage(Session &s) {
  return guard_.Run(s, Op{"token-gc", "-", Request::kAdminister, AuditMode::kChange}, NoArgs,
                    [&](const users::UserInfo &) { return core_.tokens->CollectGarbage(); });
}

Result<int64_t> UsersService::ManageTokenCache(Session &s, uint32_t operation) {
  if (operation == qlproto::kTokenCacheCount) return TokenCount(s);
  if (operation == qlproto::kTokenCacheGc) return CollectTokenGarbage(s);
  return guard_.Refuse(s, Status::Error(Code::kBadArgument, "unknown token cache operation"));
}

}  // namespace qlhsm
