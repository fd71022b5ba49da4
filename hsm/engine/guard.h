// The one check sequence every service runs, written once: the session, the arguments, the
// caller's right (through the rules table), then the service's own body, which checks existence
// and state and does the work; the outcome from the right on goes to the audit log.
//
// A right is always checked before existence, so a caller without the right learns nothing about
// which objects or users exist. Refusals of the session and of malformed arguments are not
// audited: they say nothing about the HSM's contents.
#pragma once

#include <string_view>
#include <type_traits>
#include <utility>

#include "engine/access/rules.h"
#include "engine/core.h"
#include "engine/fault_points.h"

namespace qlhsm {

// How a request is written to the audit log.
enum class AuditMode {
  kRead,     // a line kept in memory and written with the next change (signatures too)
  kChange,   // a change: its line is on disk before the answer leaves
  kRefusal,  // only when refused (the hot paths of ciphers, hashes and verification)
};

struct Op {
  std::string_view name;  // the audit line's operation
  std::string_view target = "-";
  access::Request right = access::Request::kFree;
  AuditMode audit = AuditMode::kRead;
  access::Request also = access::Request::kFree;  // a second right some requests need
};

// Argument checks that find nothing to refuse.
inline Status NoArgs() {
  return Status::Ok();
}

class Guard {
 public:
  explicit Guard(Core &core) : core_(core) {}

  // The session step alone: the caller's current record (the mask is read now, so a change
  // applies from the next request). An anonymous caller has an empty record (mask 0).
  Result<users::UserInfo> Caller(sessions::Session &s);

  // The session step, then `refusal`: an argument no service takes, a service not built yet.
  Status Refuse(sessions::Session &s, Status refusal) {
    Result<users::UserInfo> me = Caller(s);
    return me.ok() ? refusal : me.status();
  }

  // session, args(), the rights op.right and op.also, then body(caller).
  template <typename Args, typename Body>
  auto Run(sessions::Session &s, const Op &op, Args &&args, Body &&body)
      -> decltype(body(std::declval<const users::UserInfo &>())) {
    using R = decltype(body(std::declval<const users::UserInfo &>()));
    Result<users::UserInfo> me = Caller(s);
    if (!me.ok()) return R(me.status());
    if (Status st = args(); !st.ok()) return R(st);
    if (Status st = Right(s, op, *me); !st.ok()) return Audit(s, op, R(st));
    return Audit(s, op, body(*me));
  }

  // The right step: op.right and op.also through the rules table.
  Status Right(sessions::Session &s, const Op &op, const users::UserInfo &me) const;
  // A mask the caller hands to a new user: only bits it holds, unless it is an operator.
  Status Grant(const users::UserInfo &me, uint32_t mask) const;

  // The audit record of one outcome, by op.audit; returns the outcome.
  Status Audit(sessions::Session &s, const Op &op, Status st);
  template <typename T>
  Result<T> Audit(sessions::Session &s, const Op &op, Result<T> r) {
    Status st = Audit(s, op, r.ok() ? Status::Ok() : r.status());
    (void)st;
    return r;
  }

 private:
  Core &core_;
};

}  // namespace qlhsm
