#include "engine/guard.h"

namespace qlhsm {

using sessions::AuthKind;

Result<users::UserInfo> Guard::Caller(sessions::Session &s) {
  switch (s.auth()) {
    case AuthKind::kNone:
      return Status::Error(Code::kNotLoggedIn, "not logged in");
    case AuthKind::kAnonymous:
      return users::UserInfo{};
    case AuthKind::kPassword:
    case AuthKind::kToken:
      break;
  }
  // A session serves only while what it logged in with holds: the user is there, not blocked,
  // has the same password, and its token (for a token login) was not revoked.
  Result<users::UserInfo> me = core_.users->Find(s.user());
  if (!me.ok()) return Status::Error(Code::kSessionRevoked, "the session's user was removed");
  if (me->blocked) return Status::Error(Code::kSessionRevoked, "the session's user was blocked");
  if (me->credential != s.credential())
    return Status::Error(Code::kSessionRevoked, "the user's password changed");
  if (s.auth() == AuthKind::kToken &&
      core_.tokens->RevokedSince(s.token_id(), s.seen_revocations()))
    return Status::Error(Code::kSessionRevoked, "the session's token was revoked");
  return me;
}

Status Guard::Right(sessions::Session &s, const Op &op, const users::UserInfo &me) const {
  if (const FaultPoints *f = InstalledFaults(); f && f->GrantEveryRight()) return Status::Ok();
  const bool anonymous = s.auth() == AuthKind::kAnonymous;
  QL_RETURN_IF_ERROR(access::Check(op.right, me.mask, anonymous));
  // A second right of kFree (the default) adds nothing to the first.
  if (op.also == access::Request::kFree) return Status::Ok();
  return access::Check(op.also, me.mask, anonymous);
}

Status Guard::Grant(const users::UserInfo &me, uint32_t mask) const {
  if (const FaultPoints *f = InstalledFaults(); f && f->GrantEveryRight()) return Status::Ok();
  return access::CheckGrant(me.mask, mask);
}

Status Guard::Audit(sessions::Session &s, const Op &op, Status st) {
  if (op.audit == AuditMode::kRefusal && st.ok()) return st;
  core_.audit->Append(s.user(), op.name, op.target, ToWire(st.code()));
  // A change's line is on disk before the answer leaves; a filled page is the log's writer's.
  // With the log cache off, every line is.
  if ((op.audit == AuditMode::kChange && st.ok()) || !core_.audit->cache()) {
    Status flushed = core_.audit->Flush();
    (void)flushed;  // the change itself is committed; a log write failure must not undo it
  }
  return st;
}

}  // namespace qlhsm
