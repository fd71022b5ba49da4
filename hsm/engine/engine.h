// The HSM engine: every service the daemon offers, callable in-process. The daemon owns one
// Engine and gives each connection a Session; tests and the fuzzer call the engine directly.
//
// Every service checks in one fixed order: session, arguments, right, existence, state (see
// access/rules.h). Each service may be called from many threads at once, each with its own
// Session; a Session itself is used by one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "crypto/key.h"
#include "engine/access/rules.h"
#include "engine/audit/audit_log.h"
#include "engine/clock.h"
#include "engine/data_dir.h"
#include "engine/objects/object_store.h"
#include "engine/secure/secure.h"
#include "engine/sessions/session.h"
#include "engine/stats/system_stats.h"
#include "engine/status.h"
#include "engine/store/store.h"
#include "engine/users/tokens.h"
#include "engine/users/user_directory.h"

namespace qlhsm {

inline constexpr const char *kMasterUser = "master";
inline constexpr const char *kHsmVersion = "4.10.0.0";
// QGetStatInfo's unit field: the memory figures are in MiB.
inline constexpr uint32_t kStatUnitMiB = 2;

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
};

struct StatInfo {
  uint32_t session_count = 0;
  uint32_t cpu_percent = 0;
  uint32_t unit = kStatUnitMiB;
  uint32_t mem_total = 0;
  uint32_t mem_used = 0;
  uint32_t swap_total = 0;
  uint32_t swap_used = 0;
};

struct HsmInfo {
  // model, firmware version, serial number, hardware version, HSM name, engine build
  std::vector<std::string> versions;
  uint64_t pending_transaction = 0;  // 0: no cluster, nothing pending
};

// A key as a session sees it.
struct KeyDesc {
  uint64_t handle = 0;  // 0 when no handle was asked for
  uint32_t algorithm = 0;
  uint32_t flags = 0;
  uint32_t key_length = 0;  // bytes (RSA: modulus bytes)
};

// Names the key of an operation: a handle of this session (temporary or opened), else a stored
// object's name ("object" or "owner/object").
struct KeyArg {
  uint64_t handle = 0;
  std::string name;
  bool empty() const { return handle == 0 && name.empty(); }
};

struct FileChunk {
  secure::Bytes data;
  uint64_t total_size = 0;
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
    return std::make_unique<sessions::Session>(registry_);
  }
  const sessions::SessionRegistry &registry() const { return registry_; }

  // --- log in ---
  // kAuthFailed, kUserBlocked, kLimitReached.
  Status Login(sessions::Session &s, std::string_view user, std::string_view password);
  Status LoginToken(sessions::Session &s, std::string_view user, const secure::Bytes &key);
  // Anonymous: only requests that need no right.
  Status LoginAnonymous(sessions::Session &s);
  // Back to the state of a new connection: no login, no temporary objects.
  void ResetSession(sessions::Session &s);
  // Whether the session's user may still use it (exists, not blocked, password unchanged since
  // login is not tracked here: the library checks again on reuse by logging in).
  Status CheckSession(sessions::Session &s);

  // --- users ---
  Status CreateUser(sessions::Session &s, std::string_view name, std::string_view password,
                    uint32_t mask);
  Status RemoveUser(sessions::Session &s, std::string_view name);
  Result<std::vector<std::string>> ListUsers(sessions::Session &s);
  Status SetUserPassword(sessions::Session &s, std::string_view name, std::string_view password);
  Status SetUserMask(sessions::Session &s, std::string_view name, uint32_t mask);
  Status SetUserBlocked(sessions::Session &s, std::string_view name, bool blocked);
  Result<users::UserInfo> GetUser(sessions::Session &s, std::string_view name);

  // --- access tokens (the caller's own; an operator sees everyone's) ---
  Result<secure::Bytes> IssueToken(sessions::Session &s, int64_t expires);
  // One's own token needs no right; another user's (owner not empty and not the caller) needs
  // the operator right.
  Status RevokeToken(sessions::Session &s, std::string_view owner, const secure::Bytes &key);
  Result<std::vector<users::TokenInfo>> ListTokens(sessions::Session &s);
  Result<int64_t> TokenCount(sessions::Session &s);
  Result<int64_t> CollectTokenGarbage(sessions::Session &s);

  // --- objects; names are "object" (the caller's) or "owner/object" ---
  Status CreateObject(sessions::Session &s, std::string_view name, int type, int algorithm,
                      uint32_t flags, const secure::Bytes &material);
  Result<objects::ObjectInfo> OpenObject(sessions::Session &s, std::string_view name);
  // The plaintext material of an object about to be used (export, sign, ...): right, existence,
  // then kObjectBlocked for a blocked object.
  Result<secure::Bytes> UseObject(sessions::Session &s, std::string_view name,
                                  objects::ObjectInfo *info = nullptr);
  Result<std::vector<std::string>> ListObjects(sessions::Session &s);
  Status RemoveObject(sessions::Session &s, std::string_view name);
  Status RenameObject(sessions::Session &s, std::string_view name, std::string_view new_name);
  Status SetObjectBlocked(sessions::Session &s, std::string_view name, bool blocked);
  // Object metadata as JSON (engine_meta.cpp). Writing: one JSON object in UTF-8 of at most
  // QL_MAX_JSON_METADATA bytes (kBadLength, kBadJson), right ACL_OBJ_UPDATE. Reading: type
  // QL_JSON_METADATA_OBJECT only (kBadArgument), the right to use the object; "{}" when never
  // written.
  Status SetObjectMetadata(sessions::Session &s, std::string_view name, std::string_view json);
  Result<std::string> GetObjectMetadata(sessions::Session &s, std::string_view name,
                                        uint32_t type = QL_JSON_METADATA_OBJECT);
  // Creates a file object; with `replace`, an existing object of that name is overwritten, which
  // needs the update right (ACL_OBJ_UPDATE) besides the create right for a new one.
  Status WriteFile(sessions::Session &s, std::string_view name, const secure::Bytes &data,
                   bool replace = false);
  // The number of objects the caller owns.
  Result<int64_t> CountOwnObjects(sessions::Session &s);
  Result<FileChunk> ReadFile(sessions::Session &s, std::string_view name, uint64_t offset,
                             uint32_t max_len);

  // --- keys (engine_keys.cpp) ---
  // A temporary key (empty name or QL_KEY_TEMPORARY: no right needed, lives in the session) or a
  // stored one (right ACL_OBJ_CREATE; a taken name answers 5022).
  Result<KeyDesc> GenerateKey(sessions::Session &s, std::string_view name, uint32_t algorithm,
                              uint32_t flags, bool want_handle);
  // A handle to a stored key (QGetUserKey flag 0): right, then existence.
  Result<KeyDesc> OpenKey(sessions::Session &s, std::string_view name);
  Result<KeyDesc> ImportKey(sessions::Session &s, std::string_view name, const KeyArg &kek,
                            const secure::Bytes &blob, uint32_t blob_type, uint32_t algorithm,
                            uint32_t flags, bool want_handle);
  // Public-key blobs need no exportable flag; every other blob does (else 5016).
  Result<secure::Bytes> ExportKey(sessions::Session &s, const KeyArg &key, const KeyArg &kek,
                                  uint32_t blob_type);
  // Signs `digest` with the key. `longest`, when given, receives the longest signature the key
  // can make, found with the same key lookup: the answer to a size query, since ECDSA signatures
  // vary in length from one signature to the next.
  Result<secure::Bytes> SignHash(sessions::Session &s, const KeyArg &key, uint32_t hash_algorithm,
                                 const secure::Bytes &digest, uint32_t flags,
                                 size_t *longest = nullptr);
  Status VerifySignature(sessions::Session &s, const KeyArg &key, uint32_t hash_algorithm,
                         const secure::Bytes &digest, const secure::Bytes &signature);
  // Encrypts or decrypts one piece of a message. With a handle the cipher state (mode, padding,
  // IV, the message in progress) stays with the handle between pieces; with a name the piece must
  // be the whole message. capacity 0: no limit; past it 1005 with *needed set and nothing
  // consumed. *iv receives the IV the message used (GCM).
  Result<secure::Bytes> Cipher(sessions::Session &s, const KeyArg &key, bool encrypt, bool final,
                               const secure::Bytes &data, size_t capacity, uint64_t *needed,
                               secure::Bytes *iv);
  // Cipher parameters of a key handle: QKP_IV, QKP_MODE, QKP_PADDING, QKP_AAD, QKP_TAG_LEN.
  Status SetCipherParam(sessions::Session &s, uint64_t handle, uint32_t param, uint64_t number,
                        const secure::Bytes &data);
  Result<uint64_t> GetCipherParam(sessions::Session &s, uint64_t handle, uint32_t param,
                                  secure::Bytes *data);

  // `count` blocks of the key's length, each already padded, signed with the raw RSA private
  // operation; the signatures in the same order.
  Result<secure::Bytes> BatchSign(sessions::Session &s, const KeyArg &key, uint32_t count,
                                  const secure::Bytes &blocks);
  // A private key as PKCS#8 EncryptedPrivateKeyInfo under a password (needs the exportable
  // flag), and the import of one as a stored key (right ACL_OBJ_CREATE).
  Result<secure::Bytes> Pkcs8Export(sessions::Session &s, std::string_view name,
                                    std::string_view password);
  Result<KeyDesc> Pkcs8Import(sessions::Session &s, std::string_view name,
                              std::string_view password, const secure::Bytes &der, uint32_t flags);

  // --- key material and key agreement (engine_derive.cpp) ---
  // Key material of `algorithm` made and handed out, never kept: a symmetric or HMAC key's secret
  // (DES keys with odd parity), an asymmetric key's PKCS#8 PrivateKeyInfo (DER). Like a temporary
  // key it needs no right. Of the flags, QL_KEY_RSA_EXP3 is acted on; QL_KEY_BLOCKCHAIN answers
  // kNotSupported; the others describe a stored key and mean nothing here.
  Result<secure::Bytes> GenerateKeyMaterial(sessions::Session &s, uint32_t algorithm,
                                            uint32_t flags);
  struct EcdhArgs {
    uint32_t kdf = 0;               // QL_GEN_KEY_KDF_RAW_SECRET or QL_GEN_KEY_X9_63_SHA256
    std::string private_key;        // a stored EC, X25519 or X448 private key
    secure::Bytes peer_public_key;  // SubjectPublicKeyInfo (DER) of the same algorithm
    secure::Bytes shared_info;      // X9.63 only
    std::string target_name;        // X9.63 only: keep the derived bytes as this key
    uint32_t target_algorithm = 0;  // the kept key's algorithm (a symmetric or HMAC key)
    uint32_t flags = 0;             // the kept key's QL_KEY_* flags
    uint32_t out_length = 0;        // X9.63: bytes to derive (1..1024); raw: the caller's
                                    // capacity, 0 for none
  };
  // ECDH (or X25519/X448) between a stored private key and a peer public key: the secret handed
  // out, or nothing when it was kept as args.target_name. Rights: ACL_OBJ_CREATE for a kept key
  // that is not temporary, then the use of the private key. A raw secret longer than a given
  // capacity answers kBufferTooSmall with *needed set.
  Result<secure::Bytes> GenEcdhKey(sessions::Session &s, const EcdhArgs &args, uint64_t *needed);

  // Hashes: a digest, or an HMAC/CMAC under a key (right to use it, when stored).
  Result<uint64_t> CreateHash(sessions::Session &s, uint32_t algorithm, const KeyArg &key);
  Status HashData(sessions::Session &s, uint64_t hash, const secure::Bytes &data);
  Result<secure::Bytes> GetHashValue(sessions::Session &s, uint64_t hash);
  Status DestroyHash(sessions::Session &s, uint64_t hash);

  // What a key handle or name refers to (QGetKeyParam): temporary keys need no right, stored
  // ones the right to open them.
  struct KeyFacts {
    KeyDesc desc;
    std::string full_name;  // "" for a temporary key
    int type = 0;
    bool blocked = false;
    uint32_t bits = 0;
  };
  Result<KeyFacts> DescribeKey(sessions::Session &s, const KeyArg &key);
  // Releases a handle; with `remove` also removes the stored object (right ACL_OBJ_DEL), by the
  // handle's name or by `remove_name` when handle is 0.
  Status DestroyKey(sessions::Session &s, uint64_t handle, bool remove,
                    std::string_view remove_name);

  // --- system ---
  Result<secure::Bytes> GetRandom(sessions::Session &s, uint32_t len);
  Result<StatInfo> GetStatInfo(sessions::Session &s);
  Result<uint64_t> GetLogSize(sessions::Session &s);
  Result<audit::Page> ReadLogPage(sessions::Session &s, uint64_t number);
  Result<HsmInfo> GetHsmInfo(sessions::Session &s);
  Status KeepAlive(sessions::Session &s);
  Result<secure::Bytes> Backup(sessions::Session &s, std::string_view pin);
  Status PushUpdatePackage(sessions::Session &s, const secure::Bytes &package);
  // Administrative requests not built yet: right first, then kNotSupported.
  Status Administer(sessions::Session &s, std::string_view what);

  // --- the HSM's time (engine_time.cpp) ---
  // Sets the HSM's date and time: `input` is the new time in seconds since 1970 (UTC), as a
  // little-endian uint64 (8 bytes; kBadLength otherwise), at most 9999-12-31 23:59:59
  // (kBadArgument beyond). Needs the operator right. The HSM keeps the difference to this
  // machine's clock in its settings and never changes the machine's clock.
  Status SetDateTime(sessions::Session &s, const secure::Bytes &input);
  // Seconds since 1970 by the HSM's time.
  int64_t Now() const { return clock_.Now(); }

  audit::AuditLog &audit() { return *audit_; }
  size_t max_random() const { return 1 << 16; }

 private:
  Engine() = default;
  // The session step of every check: the caller's current record (mask read now, so a change
  // applies from the next request).
  Result<users::UserInfo> Caller(sessions::Session &s);
  Status Done(sessions::Session &s, std::string_view op, std::string_view target, Status st,
              bool change);
  template <typename T>
  Result<T> Done(sessions::Session &s, std::string_view op, std::string_view target, Result<T> r,
                 bool change) {
    Status st = Done(s, op, target, r.ok() ? Status::Ok() : r.status(), change);
    (void)st;
    return r;
  }
  Result<objects::ObjectRef> Ref(sessions::Session &s, std::string_view name);
  // Reads the time offset from the settings into clock_ (engine_time.cpp).
  Status LoadTimeOffset();

  // Keys in use, parsed once: stored keys by full name, with their object record, so that no
  // operation decrypts or parses a stored key again. Any change of the object drops its entry.
  struct CachedKey {
    objects::ObjectInfo info;
    crypto::KeyPtr key;
  };
  struct UsableKey {
    crypto::KeyPtr key;
    uint32_t flags = 0;
  };
  Result<UsableKey> ResolveKey(sessions::Session &s, const KeyArg &arg, const char *op);
  Result<CachedKey> LoadStoredKey(const objects::ObjectRef &ref);
  void ForgetKey(const std::string &full_name);
  void ForgetAllKeys();
  Result<KeyDesc> StoreOrHold(sessions::Session &s, std::string_view name, crypto::KeyPtr key,
                              uint32_t flags, bool want_handle, const char *op);

  std::string data_dir_;
  // Before every part that reads it, so it outlives them all.
  Clock clock_;
  std::mutex clock_mu_;  // one offset change at a time, so store and memory agree
  secure::Bytes master_key_;
  std::unique_ptr<store::Store> store_;
  std::unique_ptr<users::UserDirectory> users_;
  std::unique_ptr<users::TokenStore> tokens_;
  std::unique_ptr<objects::ObjectStore> objects_;
  std::unique_ptr<audit::AuditLog> audit_;
  sessions::SessionRegistry registry_;
  stats::CpuSampler cpu_;
  size_t max_objects_ = 100000;
  std::shared_mutex keys_mu_;
  std::unordered_map<std::string, CachedKey> keys_;
};

}  // namespace qlhsm
