#pragma once
// A session: one logged-in connection to an HSM. The C handles (HSESSIONCTX, HKEYCTX, HHASHCTX)
// point at the Handle objects below; key and hash handles share their session's core, so a
// handle outliving its session fails cleanly with QL_ERR_SESSION_CLOSED instead of touching
// freed memory.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "connection.h"
#include "qlhsm.pb.h"
#include "status.h"

namespace qlapi {

namespace pb = qlhsm::v1;

// What a connection logs in with; the session cache keys idle connections by it.
struct Credentials {
  std::string host;
  int port = QL_DEFAULT_PORT;
  bool tls = true;
  uint32_t kind = QL_AUTH_ANONYMOUS;  // on the wire: 1, 16 or 32
  std::string user;
  std::string secret;  // password, or the token's 16-byte key
  // The second factor (QL_STRONG_AUTH_OTP): sent with every login, never part of the cache key,
  // so a cached connection logs in again with the next one-time password.
  uint32_t strong_auth_type = 0;
  std::string otp;
  // QL_STRONG_AUTH_X509: the client certificate every connection presents; part of the cache
  // key, so a cached connection is only reused with the same certificate.
  std::shared_ptr<const ClientIdentity> identity;

  // Cache key: the secret enters only as a digest, so the cache never compares passwords.
  std::string CacheKey() const;
};

// The connection with its negotiated limits, as the cache keeps it between sessions.
struct Link {
  std::unique_ptr<Connection> conn;
  uint32_t max_frame = 0;
  std::string server_version;
  uint64_t next_id = 1;
};

class SessionCore {
 public:
  // cache_key: creds.CacheKey(), worked out once when the session opens.
  SessionCore(Credentials creds, std::string cache_key, std::unique_ptr<Link> link, bool cacheable)
      : creds_(std::move(creds)),
        cache_key_(std::move(cache_key)),
        link_(std::move(link)),
        cacheable_(cacheable) {}

  // Sends one request and waits for its response. The response's own code is the caller's to
  // read; a failure here is the transport's (closed session, protocol) and leaves the core
  // closed.
  Result<pb::Response> Call(pb::Request &request);
  // Call, then the response's code: for the requests that answer nothing more.
  Status CallSimple(pb::Request &request);

  // Follows the HSM's log: sends `request` (a FollowLog), then hands each pushed line to
  // on_line, and calls on_line with null about every `tick_ms` while nothing comes, until it
  // answers false. The connection then closes (the HSM goes on pushing on it): the session is
  // over. QL_OK when on_line ended it; the HSM's refusal, or the transport's code.
  Status Follow(pb::Request &request, int tick_ms,
                const std::function<bool(const std::string *line)> &on_line);

  // Ends the HSM session. With `keep`, the connection (logged out) is handed back through
  // *link for the cache; otherwise it is closed.
  Status Close(bool keep, std::unique_ptr<Link> *link);
  // Drops the connection without a word to the HSM (QFinalize, or a broken link).
  void Abandon();

  const Credentials &creds() const { return creds_; }
  const std::string &cache_key() const { return cache_key_; }
  bool cacheable() const { return cacheable_; }
  std::string peer_sha256();
  std::string server_version();
  bool tls() const { return creds_.tls; }
  uint64_t session_id = 0;
  uint32_t acl = 0;

 private:
  std::mutex mu_;  // one request at a time on the connection; uncontended in normal use
  Credentials creds_;
  std::string cache_key_;
  std::unique_ptr<Link> link_;
  bool cacheable_;
  bool revoked_ = false;  // the HSM answered QL_ERR_SESSION_REVOKED: never back to the cache
};

// Opens a new connection, says Hello and logs in (both sent before either answer is read).
Result<std::unique_ptr<Link>> Connect(const Credentials &creds, uint64_t *session_id,
                                      uint32_t *acl);
// Logs in on a connection from the cache or a new one; fills core fields from the answer.
Status Login(Link &link, const Credentials &creds, uint64_t *session_id, uint32_t *acl);

// The handle objects. `magic` catches a handle of the wrong kind passed by mistake.
enum : uint32_t {
  kSessionMagic = 0x51534553,  // "QSES"
  kKeyMagic = 0x514b4559,      // "QKEY"
  kHashMagic = 0x51485348,     // "QHSH"
  kSpbMagic = 0x51535042,      // "QSPB"
  kDeadMagic = 0xdeadbeef,
};

struct HandleBase {
  explicit HandleBase(uint32_t m) : magic(m) {}
  virtual ~HandleBase() { magic = kDeadMagic; }
  uint32_t magic;
};

struct SessionHandle : HandleBase {
  SessionHandle() : HandleBase(kSessionMagic) {}
  std::shared_ptr<SessionCore> core;
};

// Every handle handed out is registered, so QFinalize can release what callers left open. The
// registry is sharded by address: opening and closing never wait on one global lock.
void RegisterHandle(HandleBase *h);
// False when h is not registered (already released, or never ours).
bool UnregisterHandle(HandleBase *h);
// Releases every registered handle: sessions are abandoned (connections closed) first.
void ReleaseAllHandles();

template <typename T>
T *AsHandle(void *p, uint32_t magic) {
  auto *h = static_cast<HandleBase *>(p);
  if (h == nullptr || h->magic != magic) return nullptr;
  return static_cast<T *>(h);
}

// The session core behind an HSESSIONCTX, or null when it is not a live session handle.
std::shared_ptr<SessionCore> CoreOf(HSESSIONCTX h);

// A request with one body set: MakeRequest().mutable_get_random()->set_length(16).
inline pb::Request MakeRequest() {
  return pb::Request();
}

// Copies a result into a caller's buffer under the size-query rule (1005 with the length).
Status CopyOut(const std::string &data, void *out, uint32_t *out_len);
// The same for a response that answered 1005 with needed_length.
Status TooSmall(const pb::Response &response, uint32_t *out_len);

}  // namespace qlapi
