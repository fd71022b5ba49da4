#include "raw_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "frame.h"

namespace qltest {

struct RawClient::Tls {
  SSL_CTX *ctx = nullptr;
  SSL *ssl = nullptr;
  ~Tls() {
    if (ssl) SSL_free(ssl);
    if (ctx) SSL_CTX_free(ctx);
  }
};

RawClient::RawClient(const std::string &host, int port, bool tls) {
  fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) throw std::runtime_error("socket failed");
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  if (inet_pton(AF_INET, host.c_str(), &addr.sin_addr) != 1 ||
      connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
    close(fd_);
    throw std::runtime_error("cannot connect to " + host + ":" + std::to_string(port));
  }
  int one = 1;
  setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  if (tls) {
    tls_ = std::make_unique<Tls>();
    tls_->ctx = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_min_proto_version(tls_->ctx, TLS1_3_VERSION);
    tls_->ssl = SSL_new(tls_->ctx);
    SSL_set_fd(tls_->ssl, fd_);
    if (SSL_connect(tls_->ssl) != 1) {
      tls_.reset();
      close(fd_);
      throw std::runtime_error("TLS handshake failed");
    }
  }
}

RawClient::~RawClient() {
  if (tls_ && tls_->ssl) SSL_shutdown(tls_->ssl);
  tls_.reset();
  if (fd_ >= 0) close(fd_);
}

bool RawClient::WriteAll(const void *buf, size_t n) {
  const char *p = static_cast<const char *>(buf);
  while (n > 0) {
    ssize_t w = tls_ ? SSL_write(tls_->ssl, p, static_cast<int>(n)) : send(fd_, p, n, MSG_NOSIGNAL);
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

bool RawClient::ReadExact(void *buf, size_t n, int timeout_ms) {
  char *p = static_cast<char *>(buf);
  while (n > 0) {
    if (!(tls_ && SSL_pending(tls_->ssl) > 0)) {
      pollfd pfd{fd_, POLLIN, 0};
      if (poll(&pfd, 1, timeout_ms) <= 0) return false;
    }
    ssize_t r = tls_ ? SSL_read(tls_->ssl, p, static_cast<int>(n)) : recv(fd_, p, n, 0);
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

bool RawClient::SendRaw(const std::string &bytes) {
  return WriteAll(bytes.data(), bytes.size());
}

bool RawClient::Send(qlhsm::v1::Request request) {
  if (request.id() == 0) request.set_id(next_id_++);
  std::string frame;
  if (qlproto::EncodeFrame(request, qlproto::kAbsoluteMaxFrame, &frame) !=
      qlproto::FrameStatus::kOk)
    return false;
  return SendRaw(frame);
}

std::optional<qlhsm::v1::Response> RawClient::Receive(int timeout_ms) {
  unsigned char header[4];
  if (!ReadExact(header, 4, timeout_ms)) return std::nullopt;
  uint32_t len = 0;
  if (qlproto::DecodeFrameHeader(header, qlproto::kDefaultMaxFrame, &len) !=
      qlproto::FrameStatus::kOk)
    return std::nullopt;
  std::string body(len, '\0');
  if (!ReadExact(body.data(), len, timeout_ms)) return std::nullopt;
  qlhsm::v1::Response r;
  if (qlproto::DecodeFrameBody(body, &r) != qlproto::FrameStatus::kOk) return std::nullopt;
  return r;
}

std::optional<qlhsm::v1::Response> RawClient::Call(qlhsm::v1::Request request) {
  if (!Send(std::move(request))) return std::nullopt;
  return Receive();
}

bool RawClient::PeerClosed(int timeout_ms) {
  char c;
  for (;;) {
    if (!(tls_ && SSL_pending(tls_->ssl) > 0)) {
      pollfd pfd{fd_, POLLIN, 0};
      if (poll(&pfd, 1, timeout_ms) <= 0) return false;  // still open, nothing said
    }
    ssize_t r = tls_ ? SSL_read(tls_->ssl, &c, 1) : recv(fd_, &c, 1, 0);
    if (r <= 0) return true;
  }
}

int RawClient::Hello() {
  qlhsm::v1::Request r;
  r.mutable_hello()->set_protocol_version(qlproto::kProtocolVersion);
  r.mutable_hello()->set_client_version("raw test client");
  auto resp = Call(r);
  return resp ? resp->code() : -1;
}

int RawClient::Login(const std::string &user, const std::string &password) {
  qlhsm::v1::Request r;
  r.mutable_login()->set_kind(16);
  r.mutable_login()->set_user(user);
  r.mutable_login()->set_password(password);
  auto resp = Call(r);
  return resp ? resp->code() : -1;
}

}  // namespace qltest
