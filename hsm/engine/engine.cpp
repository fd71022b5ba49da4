#include "engine/engine.h"

#include <openssl/crypto.h>

#include "engine/data_dir.h"

namespace qlhsm {

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

}  // namespace

Engine::Engine() {
  users_.set_objects(&objects_);
}

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
  Core &c = e->core_;
  c.data_dir = data_dir;
  Result<secure::Bytes> key = LoadMasterKey(data_dir, options.unlock_secret);
  if (!key.ok()) return key.status();
  c.master_key = std::move(key.value());
  Result<std::unique_ptr<store::Store>> store = store::Store::Open(data_dir, false);
  if (!store.ok()) return store.status();
  c.store = std::move(store.value());

  secure::KdfParams kdf;
  kdf.n = SettingOr(*c.store, "kdf_n", 0, kdf.n);
  c.registry.set_max_open(SettingOr(*c.store, "max_sessions", options.max_sessions, 1024));
  c.max_objects = SettingOr(*c.store, "max_objects", options.max_objects, 100000);
  c.pix_endpoints = options.pix_endpoints;
  size_t page = SettingOr(*c.store, "audit_page_size", options.audit_page_size, 4096);

  QL_RETURN_IF_ERROR(e->system_.LoadTimeOffset());

  c.users = std::make_unique<users::UserDirectory>(*c.store, kdf, &c.clock);
  QL_RETURN_IF_ERROR(c.users->Load());
  c.tokens = std::make_unique<users::TokenStore>(*c.store, &c.clock);
  c.otp = std::make_unique<users::OtpTokens>(*c.store, c.master_key);
  QL_RETURN_IF_ERROR(c.otp->Load());
  c.user_certs = std::make_unique<users::UserCertificates>(*c.store);
  QL_RETURN_IF_ERROR(c.user_certs->Load());
  c.objects = std::make_unique<objects::ObjectStore>(*c.store, c.master_key, &c.clock);
  c.audit = std::make_unique<audit::AuditLog>(*c.store, page, &c.clock);
  QL_RETURN_IF_ERROR(c.audit->Load());
  QL_RETURN_IF_ERROR(e->logs_.LoadCacheSetting());
  c.ip_filter = std::make_unique<system::IpFilter>(*c.store);
  QL_RETURN_IF_ERROR(c.ip_filter->Load());
  return e;
}

Engine::~Engine() {
  if (core_.audit) (void)core_.audit->Flush();
  OPENSSL_cleanse(core_.master_key.data(), core_.master_key.size());
}

}  // namespace qlhsm
