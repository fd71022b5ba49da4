#include "engine/engine.h"

#include <openssl/crypto.h>
#include <openssl/opensslv.h>
#include <unistd.h>

#include <algorithm>

#include "engine/backup/backup.h"
#include "engine/data_dir.h"

namespace qlhsm {

using access::Request;
using sessions::AuthKind;
using sessions::Session;

namespace {

size_t SettingOr(store::Store &store, const char *key, size_t given, size_t fallback) {
  if (given != 0) return given;
  Result<std::string> v = store.GetSetting(key);
  if (!v.ok()) return fallback;
  try {
    size_t n = std::stoull(v.value());
    return n ? n : fallback;
  } catch (const std::exception &) {
    return fallback;
  }
}

Status Denied() {
  return Status::Error(Code::kAccessDenied, "access denied");
}

}  // namespace

Status Engine::Init(const std::string &data_dir, std::string_view master_password,
                    const InitOptions &options) {
  if (!users::ValidPassword(master_password))
    return Status::Error(Code::kBadArgument, "the master password must be 1 to 64 characters");
  QL_RETURN_IF_ERROR(EnsureDataDir(data_dir));
  Result<std::unique_ptr<store::Store>> store = store::Store::Open(data_dir, true);
  if (!store.ok()) return store.status();
  QL_RETURN_IF_ERROR(CreateMasterKey(data_dir, options.unlock_secret, options.unlock_kdf));
  QL_RETURN_IF_ERROR((*store)->SetSetting("kdf_n", std::to_string(options.kdf.n)));
  Result<secure::Bytes> serial = secure::RandomBytes(6);
  if (!serial.ok()) return serial.status();
  QL_RETURN_IF_ERROR((*store)->SetSetting("serial_number", "QL-" + secure::Hex(*serial)));
  users::UserDirectory dir(**store, options.kdf);
  QL_RETURN_IF_ERROR(dir.Create(kMasterUser, master_password, access::kAllRights));
  audit::AuditLog log(**store);
  QL_RETURN_IF_ERROR(log.Load());
  log.Append("-", "init", kMasterUser, 0);
  return log.Flush();
}

Result<std::unique_ptr<Engine>> Engine::Open(const std::string &data_dir,
                                             const EngineOptions &options) {
  std::unique_ptr<Engine> e(new Engine());
  e->data_dir_ = data_dir;
  Result<secure::Bytes> key = LoadMasterKey(data_dir, options.unlock_secret);
  if (!key.ok()) return key.status();
  e->master_key_ = std::move(key.value());
  Result<std::unique_ptr<store::Store>> store = store::Store::Open(data_dir, false);
  if (!store.ok()) return store.status();
  e->store_ = std::move(store.value());

  secure::KdfParams kdf;
  kdf.n = SettingOr(*e->store_, "kdf_n", 0, kdf.n);
  e->registry_.set_max_open(SettingOr(*e->store_, "max_sessions", options.max_sessions, 1024));
  e->max_objects_ = SettingOr(*e->store_, "max_objects", options.max_objects, 100000);
  size_t page = SettingOr(*e->store_, "audit_page_size", options.audit_page_size, 4096);

  QL_RETURN_IF_ERROR(e->LoadTimeOffset());

  e->users_ = std::make_unique<users::UserDirectory>(*e->store_, kdf, &e->clock_);
  QL_RETURN_IF_ERROR(e->users_->Load());
  e->tokens_ = std::make_unique<users::TokenStore>(*e->store_, &e->clock_);
  e->objects_ = std::make_unique<objects::ObjectStore>(*e->store_, e->master_key_, &e->clock_);
  e->audit_ = std::make_unique<audit::AuditLog>(*e->store_, page, &e->clock_);
  QL_RETURN_IF_ERROR(e->audit_->Load());
  return e;
}

Engine::~Engine() {
  if (audit_) (void)audit_->Flush();
  OPENSSL_cleanse(master_key_.data(), master_key_.size());
}

Status Engine::Done(Session &s, std::string_view op, std::string_view target, Status st,
                    bool change) {
  audit_->Append(s.user(), op, target, ToWire(st.code()));
  // A change's line is on disk before the answer leaves; a filled page is the log's writer's.
  if (change && st.ok()) {
    Status flushed = audit_->Flush();
    (void)flushed;  // the change itself is committed; a log write failure must not undo it
  }
  return st;
}

Result<users::UserInfo> Engine::Caller(Session &s) {
  switch (s.auth()) {
    case AuthKind::kNone:
      return Status::Error(Code::kNotLoggedIn, "not logged in");
    case AuthKind::kAnonymous:
      return users::UserInfo{};
    case AuthKind::kPassword:
    case AuthKind::kToken:
      break;
  }
  Result<users::UserInfo> me = users_->Find(s.user());
  if (!me.ok()) return Status::Error(Code::kNotLoggedIn, "the session's user was removed");
  if (me->blocked) return Status::Error(Code::kUserBlocked, "user blocked");
  return me;
}

Result<objects::ObjectRef> Engine::Ref(Session &s, std::string_view name) {
  // An anonymous caller owns nothing; "-" stands in so that the name's syntax is still checked.
  return objects::ParseObjectName(name, s.user().empty() ? std::string_view("-") : s.user());
}

// --- log in ---

Status Engine::Login(Session &s, std::string_view user, std::string_view password) {
  ResetSession(s);
  Result<users::UserInfo> info = users_->Authenticate(user, password);
  Status st = info.ok() ? s.Attach(AuthKind::kPassword, std::string(user)) : info.status();
  audit_->Append(user, "login", "-", ToWire(st.code()));
  return st;
}

Status Engine::LoginToken(Session &s, std::string_view user, const secure::Bytes &key) {
  ResetSession(s);
  Status st;
  Result<users::UserInfo> info = users_->Find(user);
  if (!info.ok()) {
    st = Status::Error(Code::kAuthFailed, "authentication failed");
  } else {
    Result<bool> valid = tokens_->Verify(user, key);
    if (!valid.ok())
      st = valid.status();
    else if (!valid.value())
      st = Status::Error(Code::kAuthFailed, "authentication failed");
    else if (info->blocked)
      st = Status::Error(Code::kUserBlocked, "user blocked");
    else
      st = s.Attach(AuthKind::kToken, std::string(user));
  }
  audit_->Append(user, "login-token", "-", ToWire(st.code()));
  return st;
}

Status Engine::LoginAnonymous(Session &s) {
  ResetSession(s);
  return s.Attach(AuthKind::kAnonymous, "");
}

void Engine::ResetSession(Session &s) {
  s.Reset();
}

Status Engine::CheckSession(Session &s) {
  return Caller(s).status();
}

// --- users ---

Status Engine::CreateUser(Session &s, std::string_view name, std::string_view password,
                          uint32_t mask) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Status st;
  if (Status bad = users::CheckUserName(name); !bad.ok())
    st = bad;
  else if (!users::ValidPassword(password))
    st = Status::Error(Code::kBadArgument, "bad password");
  else if (!access::Allowed(Request::kCreateUser, me->mask) || !access::MayGrant(me->mask, mask))
    st = Denied();
  else
    st = users_->Create(name, password, mask);
  return Done(s, "create-user", name, st, true);
}

Status Engine::RemoveUser(Session &s, std::string_view name) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Status st;
  if (Status bad = users::CheckUserName(name); !bad.ok())
    st = bad;
  else if (!access::Allowed(Request::kRemoveUser, me->mask))
    st = Denied();
  else
    st = users_->Remove(name);
  if (st.ok()) ForgetAllKeys();  // the user's objects went with it
  return Done(s, "remove-user", name, st, true);
}

Result<std::vector<std::string>> Engine::ListUsers(Session &s) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  if (!access::Allowed(Request::kListUsers, me->mask))
    return Done<std::vector<std::string>>(s, "list-users", "-", Denied(), false);
  return Done<std::vector<std::string>>(s, "list-users", "-", users_->List(), false);
}

Status Engine::SetUserPassword(Session &s, std::string_view name, std::string_view password) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Status st;
  bool own = s.logged_in() && name == s.user();
  if (Status bad = users::CheckUserName(name); !bad.ok())
    st = bad;
  else if (!users::ValidPassword(password))
    st = Status::Error(Code::kBadArgument, "bad password");
  else if (!access::Allowed(own ? Request::kChangeOwnPassword : Request::kSetOtherUser, me->mask))
    st = Denied();
  else
    st = users_->SetPassword(name, password);
  return Done(s, "set-user-password", name, st, true);
}

Status Engine::SetUserMask(Session &s, std::string_view name, uint32_t mask) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Status st;
  if (Status bad = users::CheckUserName(name); !bad.ok())
    st = bad;
  else if (!access::Allowed(Request::kSetOtherUser, me->mask))
    st = Denied();
  else
    st = users_->SetMask(name, mask);
  return Done(s, "set-user-mask", name, st, true);
}

Status Engine::SetUserBlocked(Session &s, std::string_view name, bool blocked) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Status st;
  if (Status bad = users::CheckUserName(name); !bad.ok())
    st = bad;
  else if (!access::Allowed(Request::kSetOtherUser, me->mask))
    st = Denied();
  else
    st = users_->SetBlocked(name, blocked);
  return Done(s, blocked ? "block-user" : "unblock-user", name, st, true);
}

Result<users::UserInfo> Engine::GetUser(Session &s, std::string_view name) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  QL_RETURN_IF_ERROR(users::CheckUserName(name));
  bool own = s.logged_in() && name == s.user();
  if (!own && !access::Allowed(Request::kReadOtherUserMask, me->mask))
    return Done<users::UserInfo>(s, "get-user", name, Denied(), false);
  return Done<users::UserInfo>(s, "get-user", name, users_->Find(name), false);
}

// --- tokens ---

Result<secure::Bytes> Engine::IssueToken(Session &s, int64_t expires) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  if (expires < 0) return Status::Error(Code::kBadArgument, "negative token expiry");
  if (!s.logged_in()) return Done<secure::Bytes>(s, "issue-token", "-", Denied(), false);
  return Done(s, "issue-token", s.user(), tokens_->Issue(s.user(), expires), true);
}

Status Engine::RevokeToken(Session &s, std::string_view owner, const secure::Bytes &key) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  if (key.size() != users::kTokenKeyLen) return Status::Error(Code::kBadArgument, "bad token");
  if (owner.empty()) owner = s.user();
  bool own = s.logged_in() && owner == s.user();
  if (!own && !access::Allowed(Request::kAdminister, me->mask))
    return Done(s, "revoke-token", owner, Denied(), false);
  return Done(s, "revoke-token", owner, tokens_->Revoke(owner, key), true);
}

Result<std::vector<users::TokenInfo>> Engine::ListTokens(Session &s) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  if (!s.logged_in())
    return Done<std::vector<users::TokenInfo>>(s, "list-tokens", "-", Denied(), false);
  bool everyone = access::Allowed(Request::kAdminister, me->mask);
  return Done(s, "list-tokens", "-", tokens_->List(everyone ? "" : s.user()), false);
}

Result<int64_t> Engine::TokenCount(Session &s) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  if (!access::Allowed(Request::kAdminister, me->mask))
    return Done<int64_t>(s, "token-count", "-", Denied(), false);
  return Done(s, "token-count", "-", tokens_->Count(), false);
}

Result<int64_t> Engine::CollectTokenGarbage(Session &s) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  if (!access::Allowed(Request::kAdminister, me->mask))
    return Done<int64_t>(s, "token-gc", "-", Denied(), false);
  return Done(s, "token-gc", "-", tokens_->CollectGarbage(), true);
}

// --- objects ---

Status Engine::CreateObject(Session &s, std::string_view name, int type, int algorithm,
                            uint32_t flags, const secure::Bytes &material) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Result<objects::ObjectRef> ref = Ref(s, name);
  Status st;
  if (!ref.ok()) {
    st = ref.status();
  } else if (!access::Allowed(Request::kCreateObject, me->mask)) {
    st = Denied();
  } else {
    Result<int64_t> count = objects_->Count();
    if (!count.ok())
      st = count.status();
    else if (static_cast<size_t>(count.value()) >= max_objects_)
      st = Status::Error(Code::kLimitReached, "object limit reached");
    else {
      objects::ObjectInfo info;
      info.ref = *ref;
      info.type = type;
      info.algorithm = algorithm;
      info.flags = flags;
      st = objects_->Create(info, material);
    }
  }
  return Done(s, "create-object", name, st, true);
}

Result<objects::ObjectInfo> Engine::OpenObject(Session &s, std::string_view name) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Result<objects::ObjectRef> ref = Ref(s, name);
  if (!ref.ok()) return ref.status();
  if (!access::Allowed(Request::kOpenObject, me->mask))
    return Done<objects::ObjectInfo>(s, "open-object", name, Denied(), false);
  return Done(s, "open-object", name, objects_->Get(*ref), false);
}

Result<secure::Bytes> Engine::UseObject(Session &s, std::string_view name,
                                        objects::ObjectInfo *info_out) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Result<objects::ObjectRef> ref = Ref(s, name);
  if (!ref.ok()) return ref.status();
  if (!access::Allowed(Request::kUseObject, me->mask))
    return Done<secure::Bytes>(s, "use-object", name, Denied(), false);
  Result<objects::ObjectInfo> info = objects_->Get(*ref);
  if (!info.ok()) return Done<secure::Bytes>(s, "use-object", name, info.status(), false);
  if (info->blocked)
    return Done<secure::Bytes>(s, "use-object", name,
                               Status::Error(Code::kObjectBlocked, "object blocked"), false);
  if (info_out) *info_out = *info;
  return Done(s, "use-object", name, objects_->ReadMaterial(*ref), false);
}

Result<std::vector<std::string>> Engine::ListObjects(Session &s) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  if (!s.logged_in()) return std::vector<std::string>{};
  return Done(s, "list-objects", "-", objects_->List(s.user()), false);
}

Status Engine::RemoveObject(Session &s, std::string_view name) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Result<objects::ObjectRef> ref = Ref(s, name);
  Status st;
  if (!ref.ok())
    st = ref.status();
  else if (!access::Allowed(Request::kRemoveObject, me->mask))
    st = Denied();
  else
    st = objects_->Remove(*ref);
  if (st.ok()) ForgetKey(ref->Full());
  return Done(s, "remove-object", name, st, true);
}

Status Engine::RenameObject(Session &s, std::string_view name, std::string_view new_name) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Result<objects::ObjectRef> ref = Ref(s, name);
  Status st;
  if (!ref.ok())
    st = ref.status();
  else if (!objects::ValidObjectName(new_name))
    st = Status::Error(Code::kBadName, "bad object name");
  else if (!access::Allowed(Request::kRenameObject, me->mask))
    st = Denied();
  else
    st = objects_->Rename(*ref, new_name);
  if (st.ok()) ForgetKey(ref->Full());
  return Done(s, "rename-object", name, st, true);
}

Status Engine::SetObjectBlocked(Session &s, std::string_view name, bool blocked) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Result<objects::ObjectRef> ref = Ref(s, name);
  Status st;
  if (!ref.ok())
    st = ref.status();
  else if (!access::Allowed(Request::kUpdateObject, me->mask))
    st = Denied();
  else
    st = objects_->SetBlocked(*ref, blocked);
  if (st.ok()) ForgetKey(ref->Full());
  return Done(s, blocked ? "block-object" : "unblock-object", name, st, true);
}

Status Engine::WriteFile(Session &s, std::string_view name, const secure::Bytes &data,
                         bool replace) {
  const int kFileType = static_cast<int>(objects::ObjectType::kFile);
  if (!replace) return CreateObject(s, name, kFileType, 0, 0, data);
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Result<objects::ObjectRef> ref = Ref(s, name);
  if (!ref.ok()) return ref.status();
  if (!access::Allowed(Request::kUpdateObject, me->mask))
    return Done(s, "write-file", name, Denied(), false);
  Result<objects::ObjectInfo> info = objects_->Get(*ref);
  if (!info.ok() && info.status().code() == Code::kObjectNotFound)
    return CreateObject(s, name, kFileType, 0, 0, data);
  Status st = info.ok() ? objects_->WriteMaterial(*ref, data) : info.status();
  if (st.ok()) ForgetKey(ref->Full());
  return Done(s, "write-file", name, st, true);
}

Result<int64_t> Engine::CountOwnObjects(Session &s) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  if (!s.logged_in()) return int64_t{0};
  Result<std::vector<std::string>> names = objects_->List(s.user());
  if (!names.ok()) return names.status();
  return static_cast<int64_t>(names->size());
}

Result<FileChunk> Engine::ReadFile(Session &s, std::string_view name, uint64_t offset,
                                   uint32_t max_len) {
  if (max_len == 0) {
    Result<users::UserInfo> me = Caller(s);
    if (!me.ok()) return me.status();
    return Status::Error(Code::kBadArgument, "zero chunk length");
  }
  objects::ObjectInfo info;
  Result<secure::Bytes> data = UseObject(s, name, &info);
  if (!data.ok()) return data.status();
  if (info.type != static_cast<int>(objects::ObjectType::kFile))
    return Status::Error(Code::kBadArgument, "not a file");
  FileChunk chunk;
  chunk.total_size = data->size();
  if (offset < data->size()) {
    size_t n = std::min<uint64_t>(max_len, data->size() - offset);
    chunk.data.assign(data->begin() + static_cast<ptrdiff_t>(offset),
                      data->begin() + static_cast<ptrdiff_t>(offset + n));
  }
  return chunk;
}

// --- system ---

Result<secure::Bytes> Engine::GetRandom(Session &s, uint32_t len) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  if (len == 0 || len > max_random()) return Status::Error(Code::kBadArgument, "random length");
  return secure::RandomBytes(len);
}

Result<StatInfo> Engine::GetStatInfo(Session &s) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  if (!access::Allowed(Request::kReadStats, me->mask))
    return Done<StatInfo>(s, "stat-info", "-", Denied(), false);
  StatInfo info;
  info.session_count = static_cast<uint32_t>(registry_.OpenCount());
  info.cpu_percent = cpu_.Sample();
  if (std::optional<stats::MemoryFigures> mem = stats::ReadMemory()) {
    info.mem_total = mem->total_mib;
    info.mem_used = mem->used_mib;
    info.swap_total = mem->swap_total_mib;
    info.swap_used = mem->swap_used_mib;
  }
  return info;
}

Result<uint64_t> Engine::GetLogSize(Session &s) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  if (!access::Allowed(Request::kReadStats, me->mask))
    return Done<uint64_t>(s, "log-size", "-", Denied(), false);
  return audit_->Size();
}

Result<audit::Page> Engine::ReadLogPage(Session &s, uint64_t number) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  if (number == 0) return Status::Error(Code::kBadArgument, "log pages count from 1");
  if (!access::Allowed(Request::kReadStats, me->mask))
    return Done<audit::Page>(s, "log-page", "-", Denied(), false);
  return audit_->ReadPage(number);
}

Result<HsmInfo> Engine::GetHsmInfo(Session &s) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  HsmInfo info;
  Result<std::string> serial = store_->GetSetting("serial_number");
  char host[256] = {};
  if (gethostname(host, sizeof host - 1) != 0) host[0] = '\0';
  info.versions = {"qlhsmd software HSM",
                   kHsmVersion,
                   serial.ok() ? serial.value() : std::string("unknown"),
                   std::string("software, ") + OpenSSL_version(OPENSSL_VERSION),
                   host,
                   std::string("engine schema ") + std::to_string(store::kSchemaVersion)};
  for (std::string &v : info.versions)
    std::replace(v.begin(), v.end(), '%', ' ');  // version texts never carry '%'
  return info;
}

Status Engine::KeepAlive(Session &s) {
  return Caller(s).status();
}

Result<secure::Bytes> Engine::Backup(Session &s, std::string_view pin) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  // At least 8 characters, as the library documents.
  if (pin.size() < 8 || pin.size() > 64)
    return Status::Error(Code::kBadArgument, "a backup PIN has 8 to 64 characters");
  if (!access::Allowed(Request::kBackup, me->mask))
    return Done<secure::Bytes>(s, "backup", "-", Denied(), false);
  // Flush first so the backup carries the log up to this request.
  (void)audit_->Flush();
  return Done(s, "backup", "-", backup::MakeBackup(*store_, master_key_, pin, data_dir_), false);
}

Status Engine::PushUpdatePackage(Session &s, const secure::Bytes &package) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Status st;
  if (!access::Allowed(Request::kUpdatePackage, me->mask))
    st = Denied();
  else
    // No signing key is trusted yet, so no package can verify; nothing is ever applied unverified.
    st = Status::Error(Code::kUpdateRefused, "package signature does not verify (" +
                                                 std::to_string(package.size()) + " bytes)");
  return Done(s, "update-package", "-", st, false);
}

Status Engine::Administer(Session &s, std::string_view what) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Status st = access::Allowed(Request::kAdminister, me->mask)
                  ? Status::Error(Code::kNotSupported, std::string(what) + " is not built yet")
                  : Denied();
  return Done(s, what, "-", st, false);
}

}  // namespace qlhsm
