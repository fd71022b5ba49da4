// The access rules: which rights (bits of the caller's access mask) each kind of request needs.
// Rights are global: they apply to the caller's own objects and to other users' (owner/object)
// alike. Every request is checked in one fixed order: session, arguments, right, existence,
// state. A right is always checked before existence, so a caller without the right learns nothing
// about which objects exist.
//
// | request                                         | allowed with          | otherwise |
// |-------------------------------------------------|-----------------------|-----------|
// | log in                                          | any mask, 0 included  | -         |
// | create or remove another user                   | 0x10 or 0x80          | 5002      |
// | set another user's mask, password, block state  | 0x80                  | 5002      |
// | read another user's mask                        | 0x40 or 0x80          | 5002      |
// | change one's own password                       | nothing               | -         |
// | list users                                      | 0x40 or 0x80          | 5002      |
// | log size, log pages, statistics                 | 0x20 or 0x80          | 5002      |
// | create an object (generate, import, write file) | 0x4                   | 5002      |
// | open an object (get user key, flag 0)           | 0x1, 0x2, 0x4 or 0x8  | 5002      |
// | read or use an object (export, sign, read file) | 0x1, 0x2 or 0x4       | 5002      |
// | remove or rename an object                      | 0x1                   | 5002      |
// | block/unblock an object, write its metadata     | 0x8                   | 5002      |
// | back up, restore                                | 0x100 or 0x80         | 5002      |
// | push an update package                          | 0x200 or 0x80         | 5002      |
// | set the date and time, other administration     | 0x80                  | 5002      |
// | everything else (hash, one's own session, ...)  | nothing               | -         |
//
// Anonymous sessions read public information only (the HSM's information and certificate,
// probe, keep-alive, random bytes: kPublic) and get 5002 for everything else.
//
// The services map onto these rows: reading an object's JSON metadata is a read (kUseObject),
// writing it an update (kUpdateObject); ECDH uses its private key (kUseObject) and, when it keeps
// the derived key in the store, creates an object (kCreateObject, checked first); key material
// that is handed out and never stored needs nothing (kFree), as a temporary key does; setting the
// HSM's date and time is administration (kAdminister).
//
// After the right: a user that exists 5013, no such user 5020, object name taken 5022, missing
// object 5004, an update package that does not verify 5034; a new user's mask may hold only bits
// its creator holds, and a user may be removed only when its mask holds only bits the remover
// holds, unless the creator or remover has 0x80; the last user with 0x80 can never be removed,
// blocked or lose 0x80 (5043).
#pragma once

#include <array>
#include <cstdint>

#include "engine/codes.h"
#include "engine/status.h"

namespace qlhsm::access {

// The rights, as the library's header names them.
inline constexpr uint32_t kObjDel = 0x1;
inline constexpr uint32_t kObjRead = 0x2;
inline constexpr uint32_t kObjCreate = 0x4;
inline constexpr uint32_t kObjUpdate = 0x8;
inline constexpr uint32_t kUsrCreate = 0x10;
inline constexpr uint32_t kUsrRemoteLog = 0x20;
inline constexpr uint32_t kUsrList = 0x40;
inline constexpr uint32_t kSysOperator = 0x80;
inline constexpr uint32_t kSysBackup = 0x100;
inline constexpr uint32_t kSysUpdateHsm = 0x200;
// Every right, as the user made at init holds it (the bits above plus the two the user-creation
// options add, 0x400 and 0x800, which no rule checks yet).
inline constexpr uint32_t kAllRights = 0xFFF;

enum class Request {
  kLogin,
  kCreateUser,
  kRemoveUser,
  kSetOtherUser,
  kReadOtherUserMask,
  kChangeOwnPassword,
  kListUsers,
  kReadStats,
  kCreateObject,
  kOpenObject,
  kUseObject,
  kRemoveObject,
  kRenameObject,
  kUpdateObject,
  kBackup,
  kRestore,
  kUpdatePackage,
  kAdminister,
  kFree,
  kPublic,
  kCount
};

struct Rule {
  Request request;
  uint32_t any_of;         // 0: no right needed
  bool anonymous = false;  // whether an anonymous session may make the request
};

inline constexpr std::array<Rule, static_cast<size_t>(Request::kCount)> kRules{{
    {Request::kLogin, 0, true},
    {Request::kCreateUser, kUsrCreate | kSysOperator},
    {Request::kRemoveUser, kUsrCreate | kSysOperator},
    {Request::kSetOtherUser, kSysOperator},
    {Request::kReadOtherUserMask, kUsrList | kSysOperator},
    {Request::kChangeOwnPassword, 0},
    {Request::kListUsers, kUsrList | kSysOperator},
    {Request::kReadStats, kUsrRemoteLog | kSysOperator},
    {Request::kCreateObject, kObjCreate},
    {Request::kOpenObject, kObjDel | kObjRead | kObjCreate | kObjUpdate},
    {Request::kUseObject, kObjDel | kObjRead | kObjCreate},
    {Request::kRemoveObject, kObjDel},
    {Request::kRenameObject, kObjDel},
    {Request::kUpdateObject, kObjUpdate},
    {Request::kBackup, kSysBackup | kSysOperator},
    {Request::kRestore, kSysBackup | kSysOperator},
    {Request::kUpdatePackage, kSysUpdateHsm | kSysOperator},
    {Request::kAdminister, kSysOperator},
    {Request::kFree, 0},
    {Request::kPublic, 0, true},
}};

// The table is indexed by the enum: keep the rows in the enum's order.
constexpr bool RowsInOrder() {
  for (size_t i = 0; i < kRules.size(); ++i)
    if (static_cast<size_t>(kRules[i].request) != i) return false;
  return true;
}
static_assert(RowsInOrder(), "kRules rows must follow the Request enum");

constexpr bool Allowed(Request request, uint32_t mask, bool anonymous = false) {
  const Rule &rule = kRules[static_cast<size_t>(request)];
  if (anonymous && !rule.anonymous) return false;
  return rule.any_of == 0 || (mask & rule.any_of) != 0;
}

// The one way a request is refused for want of a right.
inline Status Check(Request request, uint32_t mask, bool anonymous = false) {
  if (Allowed(request, mask, anonymous)) return Status::Ok();
  return Status::Error(Code::kAccessDenied, "access denied");
}

// A new user's mask may hold only bits its creator holds, unless the creator is an operator.
constexpr bool MayGrant(uint32_t creator_mask, uint32_t new_mask) {
  return (creator_mask & kSysOperator) != 0 || (new_mask & ~creator_mask) == 0;
}

inline Status CheckGrant(uint32_t creator_mask, uint32_t new_mask) {
  if (MayGrant(creator_mask, new_mask)) return Status::Ok();
  return Status::Error(Code::kAccessDenied, "access denied");
}

// A user may be removed only when its mask holds only bits the remover holds, unless the remover
// is an operator: the rule of creation, read the other way.
constexpr bool MayRemove(uint32_t remover_mask, uint32_t target_mask) {
  return MayGrant(remover_mask, target_mask);
}

inline Status CheckRemoval(uint32_t remover_mask, uint32_t target_mask) {
  if (MayRemove(remover_mask, target_mask)) return Status::Ok();
  return Status::Error(Code::kAccessDenied, "access denied");
}

}  // namespace qlhsm::access
