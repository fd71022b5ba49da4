// What every service of the engine shares: the store and its parts (users, tokens, objects, audit
// log), the open sessions, the HSM's clock, and the keys in use, parsed once.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "crypto/key.h"
#include "engine/audit/audit_log.h"
#include "engine/clock.h"
#include "engine/objects/object_store.h"
#include "engine/secure/secure.h"
#include "engine/sessions/session.h"
#include "engine/stats/system_stats.h"
#include "engine/status.h"
#include "engine/store/store.h"
#include "engine/system/ip_filter.h"
#include "engine/users/login_throttle.h"
#include "engine/users/otp_tokens.h"
#include "engine/users/tokens.h"
#include "engine/users/user_certificates.h"
#include "engine/users/user_directory.h"

namespace qlhsm {

// Keys in use, parsed once: stored keys by full name, with their object record, so that no
// operation decrypts or parses a stored key again. Any change of the object drops its entry.
class KeyCache {
 public:
  struct Entry {
    objects::ObjectInfo info;
    crypto::KeyPtr key;
  };
  // The entry, from memory or else read, opened and parsed (kBadKeyUsage for a file or a
  // certificate, which are no keys, and for a blockchain key, which only its service uses).
  Result<Entry> Load(objects::ObjectStore &store, const objects::ObjectRef &ref);
  // The same for the blockchain service: a blockchain key's entry holds its stored record as the
  // secret of a Key of secp256k1 (kBadKeyUsage for any other object).
  Result<Entry> LoadBlockchain(objects::ObjectStore &store, const objects::ObjectRef &ref);
  // Only what a use needs, when the key is in memory, not blocked and no blockchain key; no copy
  // of the record.
  bool FindUsable(const std::string &full_name, crypto::KeyPtr *key, uint32_t *flags);
  void Forget(const std::string &full_name);
  void ForgetAll();
  // The records of the keys in memory now, as they were read (the self-check compares them with
  // the store).
  std::vector<objects::ObjectInfo> Snapshot();

 private:
  Result<Entry> LoadEntry(objects::ObjectStore &store, const objects::ObjectRef &ref,
                          bool blockchain);

  std::shared_mutex mu_;
  std::unordered_map<std::string, Entry> entries_;
};

struct Core {
  std::string data_dir;
  // Before every part that reads it, so it outlives them all.
  Clock clock;
  std::mutex clock_mu;  // one offset change at a time, so store and memory agree
  secure::Bytes master_key;
  std::unique_ptr<store::Store> store;
  std::unique_ptr<users::UserDirectory> users;
  std::unique_ptr<users::TokenStore> tokens;
  std::unique_ptr<users::OtpTokens> otp;                // the users' OATH tokens
  std::unique_ptr<users::UserCertificates> user_certs;  // the users' login certificates
  // One assignment of a second factor at a time, so that a user never ends up with two.
  std::mutex second_factor_mu;
  std::unique_ptr<objects::ObjectStore> objects;
  std::unique_ptr<audit::AuditLog> audit;
  sessions::SessionRegistry registry;
  stats::CpuSampler cpu;
  size_t max_objects = 100000;
  // The endpoints ("host:port", host lowercased) PIX requests may reach; empty: none.
  std::vector<std::string> pix_endpoints;
  // Set when the daemon stops: PIX exchanges in progress end at once instead of at their timeout.
  std::atomic<bool> stopping{false};
  // One change at a time of what makes a user an administrator (removal, block, mask), so that
  // two of them can never take away the last one between them.
  std::mutex administrators_mu;
  KeyCache keys;
  // Failed logins by name and by address, and the delay of the next answer.
  users::LoginThrottle throttle;
  // The addresses the daemon accepts connections from.
  std::unique_ptr<system::IpFilter> ip_filter;

  // An object's name as the session's user sees it ("object" or "owner/object"): an argument
  // check, kBadName for a malformed name.
  // kLimitReached unless `n` more objects fit under the HSM's object limit.
  Status RoomForObjects(size_t n) const {
    Result<int64_t> count = objects->Count();
    if (!count.ok()) return count.status();
    if (static_cast<size_t>(count.value()) + n > max_objects)
      return Status::Error(Code::kLimitReached, "object limit reached");
    return Status::Ok();
  }

  Status Ref(const sessions::Session &s, std::string_view name, objects::ObjectRef *out) const {
    // An anonymous caller owns nothing; "-" stands in so that the name's syntax is still checked.
    Result<objects::ObjectRef> ref =
        objects::ParseObjectName(name, s.user().empty() ? std::string_view("-") : s.user());
    if (!ref.ok()) return ref.status();
    *out = std::move(ref.value());
    return Status::Ok();
  }
};

}  // namespace qlhsm
