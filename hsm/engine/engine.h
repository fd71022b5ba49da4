// The HSM engine: every service the daemon offers, callable in-process. The daemon owns one
// Engine and gives each connection a Session; tests and the fuzzer call the engine directly.
//
// The services (users, objects, keys, hashes, system, logs, pki, payment, vault, oath, sharing)
// share the engine's core (store, users, objects, audit log, clock, key cache) and one guard
// (guard.h) that checks every request in one fixed order: session, arguments, right, existence,
// state, then writes the audit record. Each service may be called from many threads at once,
// each with its own Session; a Session itself is used by one thread at a time.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "engine/core.h"
#include "engine/data_dir.h"
#include "engine/guard.h"
#include "engine/services/bchain.h"
#include "engine/services/byok.h"
#include "engine/services/directory.h"
#include "engine/services/hashes.h"
#include "engine/services/keys.h"
#include "engine/services/logs.h"
#include "engine/services/oath.h"
#include "engine/services/objects.h"
#include "engine/services/p11.h"
#include "engine/services/payment.h"
#include "engine/services/pki.h"
#include "engine/services/sharing.h"
#include "engine/services/skeep.h"
#include "engine/services/spb.h"
#include "engine/services/system.h"
#include "engine/services/tools.h"
#include "engine/services/users.h"
#include "engine/services/vault.h"

namespace qlhsm {

inline constexpr const char *kMasterUser = "master";

struct InitOptions {
  secure::KdfParams kdf;  // cost of password hashes; tests lower it
  // The secret that seals the master key (data_dir.h), and the cost of deriving its key.
  std::string unlock_secret;
  secure::KdfParams unlock_kdf{kUnlockKdfCost, 8, 1};
};

// Limits and tunables. Each may also be stored in the settings table under the name in the
// comment; a value given here (non-zero) wins over the stored one.
struct EngineOptions {
  size_t max_sessions = 0;     // "max_sessions", default 1024
  size_t audit_page_size = 0;  // "audit_page_size", default 4096
  size_t max_objects = 0;      // "max_objects", default 100000
  std::string unlock_secret;   // the secret master.key was sealed under
  // The endpoints PIX requests may reach, as pix::ParseEndpoint gives them ("host:port").
  std::vector<std::string> pix_endpoints;
};

class Engine {
 public:
  // Makes a new HSM in `data_dir`: store, master key, and the user "master" with every right and
  // `master_password`. Fails when the directory already holds a store.
  static Status Init(const std::string &data_dir, std::string_view master_password,
                     const InitOptions &options = {});
  static Result<std::unique_ptr<Engine>> Open(const std::string &data_dir,
                                              const EngineOptions &options = {});
  ~Engine();

  std::unique_ptr<sessions::Session> NewSession() {
    return std::make_unique<sessions::Session>(core_.registry);
  }
  const sessions::SessionRegistry &registry() const { return core_.registry; }

  UsersService &users() { return users_; }
  ObjectsService &objects() { return objects_; }
  KeysService &keys() { return keys_; }
  HashesService &hashes() { return hashes_; }
  SystemService &system() { return system_; }
  LogService &logs() { return logs_; }
  PkiService &pki() { return pki_; }
  PaymentService &payment() { return payment_; }
  VaultService &vault() { return vault_; }
  OathService &oath() { return oath_; }
  SharingService &sharing() { return sharing_; }
  SkeepService &skeep() { return skeep_; }
  ByokService &byok() { return byok_; }
  BchainService &bchain() { return bchain_; }
  SpbService &spb() { return spb_; }
  P11Service &p11() { return p11_; }
  ToolsService &tools() { return tools_; }
  DirectoryService &directory() { return directory_; }

  // The session step alone, then `refusal` (a request nothing serves).
  Status Refuse(sessions::Session &s, Status refusal) { return guard_.Refuse(s, refusal); }

  // Seconds since 1970 by the HSM's time.
  int64_t Now() const { return core_.clock.Now(); }
  // The daemon is stopping: PIX exchanges in progress end within a quarter of a second (answered
  // kRemoteFailed), and new ones fail at once. Any thread.
  void StopOutboundRequests() { core_.stopping = true; }
  audit::AuditLog &audit() { return *core_.audit; }

 private:
  Engine();

  Core core_;
  Guard guard_{core_};
  ObjectsService objects_{core_, guard_};
  UsersService users_{core_, guard_};
  KeysService keys_{core_, guard_, objects_};
  HashesService hashes_{guard_, keys_};
  SystemService system_{core_, guard_};
  LogService logs_{core_, guard_};
  PkiService pki_{core_, guard_, objects_, keys_};
  PaymentService payment_{core_, guard_, keys_};
  VaultService vault_{guard_, keys_};
  OathService oath_{core_, guard_, keys_};
  SharingService sharing_{guard_};
  SkeepService skeep_{core_, guard_};
  ByokService byok_{guard_, keys_};
  BchainService bchain_{core_, guard_, objects_};
  SpbService spb_{core_, guard_};
  P11Service p11_{core_, guard_};
  ToolsService tools_{core_, guard_};
  DirectoryService directory_{core_, guard_};
};

}  // namespace qlhsm
