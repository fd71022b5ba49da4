#include "session.h"

#include <openssl/evp.h>

#include <array>
#include <cstring>
#include <unordered_set>
#include <vector>

#include "frame.h"
#include "key_handle.h"
#include "version.h"

namespace qlapi {
namespace {

// Sends one request on a link and reads its response; any transport failure closes the link.
Result<pb::Response> Exchange(Link &link, pb::Request &request) {
  request.set_id(link.next_id++);
  std::string frame;
  if (qlproto::EncodeFrame(request, link.max_frame, &frame) != qlproto::FrameStatus::kOk) {
    // Too large to send: the HSM would refuse it; the connection stays usable.
    return Status(QL_ERR_LIMIT_REACHED);
  }
  Status st = link.conn->Write(frame);
  if (!st.ok()) return st;
  std::string body;
  st = link.conn->ReadFrame(link.max_frame, &body);
  if (!st.ok()) return st;
  pb::Response response;
  if (qlproto::DecodeFrameBody(body, &response) != qlproto::FrameStatus::kOk ||
      response.id() != request.id()) {
    link.conn.reset();
    return Status(QL_ERR_PROTOCOL);
  }
  return response;
}

void FillLogin(const Credentials &creds, pb::Login *login) {
  login->set_kind(creds.kind);
  if (creds.kind == QL_AUTH_USER_PWD) {
    login->set_user(creds.user);
    login->set_password(creds.secret);
    if (creds.strong_auth_type != 0) login->set_strong_auth_type(creds.strong_auth_type);
    if (creds.strong_auth_type == QL_STRONG_AUTH_OTP) login->set_strong_auth(creds.otp);
  } else if (creds.kind == QL_AUTH_ATOKEN) {
    login->set_user(creds.user);
    login->set_token_key(creds.secret);
  }
}

Status ReadLogin(const pb::Response &response, uint64_t *session_id, uint32_t *acl) {
  if (response.code() != QL_OK) return Status(response.code());
  if (!response.has_login()) return Status(QL_ERR_PROTOCOL);
  *session_id = response.login().session_id();
  *acl = response.login().acl();
  return Status::Ok();
}

constexpr std::size_t kShards = 32;

struct RegistryShard {
  std::mutex mu;
  std::unordered_set<HandleBase *> handles;
};

std::array<RegistryShard, kShards> &Registry() {
  static auto *shards = new std::array<RegistryShard, kShards>();  // lives until exit
  return *shards;
}

RegistryShard &ShardOf(const void *p) {
  return Registry()[(reinterpret_cast<uintptr_t>(p) >> 4) % kShards];
}

}  // namespace

std::string Credentials::CacheKey() const {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_Digest(secret.data(), secret.size(), md, &len, LocalDigest(QL_ALG_SHA256), nullptr);
  std::string key;
  key.reserve(host.size() + user.size() + 48);
  key.append(host).push_back('\0');
  key.append(std::to_string(port)).push_back(tls ? 'T' : 'P');
  key.append(std::to_string(kind)).push_back('\0');
  key.append(user).push_back('\0');
  key.append(reinterpret_cast<char *>(md), len);
  if (identity) key.append(identity->sha256());
  return key;
}

Result<std::unique_ptr<Link>> Connect(const Credentials &creds, uint64_t *session_id,
                                      uint32_t *acl) {
  auto opened = Connection::Open(creds.host, creds.port, creds.tls, creds.identity.get());
  if (!opened.ok()) return opened.status();
  auto link = std::make_unique<Link>();
  link->conn = std::move(opened.value());
  link->max_frame = qlproto::kDefaultMaxFrame;

  // Hello and Login leave together: the HSM answers them in order, so a new session costs one
  // round trip after the handshake.
  pb::Request hello;
  hello.set_id(link->next_id++);
  hello.mutable_hello()->set_protocol_version(qlproto::kProtocolVersion);
  hello.mutable_hello()->set_client_version(kLibraryVersion);
  pb::Request login;
  login.set_id(link->next_id++);
  FillLogin(creds, login.mutable_login());
  std::string frames;
  if (qlproto::EncodeFrame(hello, link->max_frame, &frames) != qlproto::FrameStatus::kOk ||
      qlproto::EncodeFrame(login, link->max_frame, &frames) != qlproto::FrameStatus::kOk) {
    return Status(QL_ERR_BAD_ARGUMENT);
  }
  Status st = link->conn->Write(frames);
  if (!st.ok()) return Status(QL_ERR_CONNECTION_FAILED);

  std::string body;
  st = link->conn->ReadFrame(link->max_frame, &body);
  if (!st.ok()) {
    return Status(st.code() == QL_ERR_SESSION_CLOSED ? QL_ERR_CONNECTION_FAILED : st.code());
  }
  pb::Response reply;
  if (qlproto::DecodeFrameBody(body, &reply) != qlproto::FrameStatus::kOk ||
      reply.id() != hello.id()) {
    return Status(QL_ERR_PROTOCOL);
  }
  if (reply.code() != QL_OK) return Status(reply.code());
  if (!reply.has_hello() || qlproto::ProtocolMajor(reply.hello().protocol_version()) !=
                                qlproto::ProtocolMajor(qlproto::kProtocolVersion)) {
    return Status(QL_ERR_VERSION_MISMATCH);
  }
  const uint32_t announced = reply.hello().max_frame();
  if (announced >= 1024 && announced <= qlproto::kAbsoluteMaxFrame) link->max_frame = announced;
  link->server_version = reply.hello().server_version();

  st = link->conn->ReadFrame(link->max_frame, &body);
  if (!st.ok()) return st;
  pb::Response answer;
  if (qlproto::DecodeFrameBody(body, &answer) != qlproto::FrameStatus::kOk ||
      answer.id() != login.id()) {
    return Status(QL_ERR_PROTOCOL);
  }
  st = ReadLogin(answer, session_id, acl);
  if (!st.ok()) return st;
  return link;
}

Status Login(Link &link, const Credentials &creds, uint64_t *session_id, uint32_t *acl) {
  pb::Request request;
  FillLogin(creds, request.mutable_login());
  auto response = Exchange(link, request);
  if (!response.ok()) return response.status();
  return ReadLogin(response.value(), session_id, acl);
}

Result<pb::Response> SessionCore::Call(pb::Request &request) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!link_ || !link_->conn || link_->conn->broken()) return Status(QL_ERR_SESSION_CLOSED);
  auto response = Exchange(*link_, request);
  if (!response.ok() && (!link_->conn || link_->conn->broken())) link_.reset();
  // The HSM ended this session's service: its connection must not serve another.
  if (response.ok() && response.value().code() == QL_ERR_SESSION_REVOKED) revoked_ = true;
  return response;
}

Status SessionCore::Follow(pb::Request &request, int tick_ms,
                           const std::function<bool(const std::string *line)> &on_line) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!link_ || !link_->conn || link_->conn->broken()) return Status(QL_ERR_SESSION_CLOSED);
  auto started = Exchange(*link_, request);
  if (!started.ok()) {
    if (!link_->conn || link_->conn->broken()) link_.reset();
    return started.status();
  }
  if (started.value().code() != QL_OK) return Status(started.value().code());
  const uint64_t id = request.id();
  // From here on the connection carries pushed lines only: it never serves another request.
  Status outcome = Status::Ok();
  for (bool more = true; more;) {
    if (!link_->conn->WaitReadable(tick_ms)) {
      more = on_line(nullptr);
      continue;
    }
    std::string body;
    Status st = link_->conn->ReadFrame(link_->max_frame, &body);
    if (!st.ok()) {
      outcome = st;
      break;
    }
    pb::Response push;
    if (qlproto::DecodeFrameBody(body, &push) != qlproto::FrameStatus::kOk || push.id() != id ||
        !push.has_log_lines()) {
      outcome = Status(QL_ERR_PROTOCOL);
      break;
    }
    for (const std::string &line : push.log_lines().lines()) {
      if (!on_line(&line)) {
        more = false;
        break;
      }
    }
  }
  link_.reset();
  return outcome;
}

Status SessionCore::CallSimple(pb::Request &request) {
  auto response = Call(request);
  if (!response.ok()) return response.status();
  return Status(response.value().code());
}

Status SessionCore::Close(bool keep, std::unique_ptr<Link> *link) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!link_) return Status(QL_ERR_SESSION_CLOSED);
  // The HSM ends the session before the call returns, whether or not the connection stays: a
  // count of open sessions read right after a close never still holds it.
  if (link_->conn && !link_->conn->broken()) {
    pb::Request request;
    request.mutable_logout();
    auto response = Exchange(*link_, request);
    const bool logged_out = response.ok() && response.value().code() == QL_OK;
    if (logged_out && keep && cacheable_ && !revoked_ && link_->conn && !link_->conn->broken()) {
      *link = std::move(link_);
      return Status::Ok();
    }
  }
  link_.reset();
  return Status::Ok();
}

void SessionCore::Abandon() {
  std::lock_guard<std::mutex> lock(mu_);
  link_.reset();
}

std::string SessionCore::peer_sha256() {
  std::lock_guard<std::mutex> lock(mu_);
  return link_ && link_->conn ? link_->conn->peer_sha256() : std::string();
}

std::string SessionCore::server_version() {
  std::lock_guard<std::mutex> lock(mu_);
  return link_ ? link_->server_version : std::string();
}

void RegisterHandle(HandleBase *h) {
  RegistryShard &shard = ShardOf(h);
  std::lock_guard<std::mutex> lock(shard.mu);
  shard.handles.insert(h);
}

bool UnregisterHandle(HandleBase *h) {
  RegistryShard &shard = ShardOf(h);
  std::lock_guard<std::mutex> lock(shard.mu);
  return shard.handles.erase(h) == 1;
}

void ReleaseAllHandles() {
  std::vector<HandleBase *> all;
  for (RegistryShard &shard : Registry()) {
    std::lock_guard<std::mutex> lock(shard.mu);
    all.insert(all.end(), shard.handles.begin(), shard.handles.end());
    shard.handles.clear();
  }
  for (HandleBase *h : all) {
    if (h->magic == kSessionMagic) {
      auto *s = static_cast<SessionHandle *>(h);
      if (s->core) s->core->Abandon();
    }
  }
  for (HandleBase *h : all) delete h;
}

std::shared_ptr<SessionCore> CoreOf(HSESSIONCTX h) {
  SessionHandle *s = AsHandle<SessionHandle>(h, kSessionMagic);
  return s ? s->core : nullptr;
}

Status CopyOut(const std::string &data, void *out, uint32_t *out_len) {
  if (out_len == nullptr) return Status(QL_ERR_BAD_ARGUMENT);
  const uint32_t needed = static_cast<uint32_t>(data.size());
  if (out == nullptr || *out_len < needed) {
    *out_len = needed;
    return Status(QL_ERR_BUFFER_TOO_SMALL);
  }
  if (needed) std::memcpy(out, data.data(), needed);
  *out_len = needed;
  return Status::Ok();
}

Status TooSmall(const pb::Response &response, uint32_t *out_len) {
  if (out_len) *out_len = static_cast<uint32_t>(response.needed_length());
  return Status(QL_ERR_BUFFER_TOO_SMALL);
}

}  // namespace qlapi
