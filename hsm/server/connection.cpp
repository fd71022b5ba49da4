#include "server/connection.h"

#include <openssl/err.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "frame.h"
#include "server/connection_manager.h"

namespace qlhsm::server {

namespace pb = qlhsm::v1;

namespace {
constexpr unsigned char kTlsHandshakeRecord = 0x16;
// The receive buffer a connection keeps between requests; a larger frame grows it for as long as
// it is being read.
constexpr std::size_t kReadBuffer = 16 * 1024;
}  // namespace

Connection::Connection(asio::ip::tcp::socket socket, SSL_CTX *tls, ConnectionManager &manager,
                       RequestHandler &handler, bool over_limit, std::atomic<int> *load)
    : socket_(std::move(socket)),
      tls_ctx_(tls),
      manager_(manager),
      handler_(handler),
      over_limit_(over_limit),
      load_(load) {
  if (load_) load_->fetch_add(1, std::memory_order_relaxed);
}

Connection::~Connection() {
  if (load_) load_->fetch_sub(1, std::memory_order_relaxed);
}

void Connection::Start() {
  auto self = shared_from_this();
  socket_.async_receive(asio::buffer(first_), asio::socket_base::message_peek,
                        [self](const asio::error_code &ec, size_t) { self->OnFirstByte(ec); });
}

void Connection::Stop() {
  auto self = shared_from_this();
  asio::post(socket_.get_executor(), [self] { self->CloseNow(); });
}

void Connection::CloseNow() {
  asio::error_code ec;
  socket_.shutdown(asio::ip::tcp::socket::shutdown_both, ec);
  socket_.close(ec);
}

void Connection::OnFirstByte(const asio::error_code &ec) {
  if (ec) return Finish();
  asio::error_code nb;
  socket_.non_blocking(true, nb);
  if (nb) return Finish();
  in_.resize(kReadBuffer);
  state_.tls = first_[0] == kTlsHandshakeRecord;
  if (!state_.tls) return Pump();
  ssl_.reset(SSL_new(tls_ctx_));
  if (!ssl_ || SSL_set_fd(ssl_.get(), socket_.native_handle()) != 1) {
    ERR_clear_error();
    return Finish();
  }
  SSL_set_mode(ssl_.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  // A record's header and body in one receive; records read ahead stay in OpenSSL's buffer,
  // which Pump() drains before it waits on the socket.
  SSL_set_read_ahead(ssl_.get(), 1);
  SSL_set_accept_state(ssl_.get());
  Handshake();
}

void Connection::Handshake() {
  ERR_clear_error();  // SSL_get_error reads the thread's queue, which engine calls may have left
  std::size_t unused = 0;
  const Io io = TlsOutcome(SSL_do_handshake(ssl_.get()), 0, &unused);
  if (io == Io::kDone) return Pump();
  if (io == Io::kClosed) return Finish();
  WaitFor(io, &Connection::Handshake);
}

bool Connection::ServeOne(std::size_t *wanted) {
  const std::size_t avail = end_ - begin_;
  *wanted = qlproto::kFrameHeaderSize;
  if (avail < qlproto::kFrameHeaderSize) return false;
  uint32_t length = 0;
  qlproto::FrameStatus fs = qlproto::DecodeFrameHeader(
      reinterpret_cast<const unsigned char *>(in_.data() + begin_), handler_.max_frame(), &length);
  if (fs == qlproto::FrameStatus::kOk) {
    *wanted = qlproto::kFrameHeaderSize + length;
    if (avail < *wanted) return false;
    std::string_view body(in_.data() + begin_ + qlproto::kFrameHeaderSize, length);
    if (over_limit_) {
      RequestHandler::Refusal(Code::kLimitReached, "too many connections", &response_);
      state_.close_after = true;
    } else {
      handler_.HandleFrame(body, state_, &response_);
    }
    begin_ += *wanted;
    if (begin_ == end_) begin_ = end_ = 0;
  } else {
    // Refused before anything is allocated for the body; say why, then close.
    RequestHandler::Refusal(
        Code::kProtocol, fs == qlproto::FrameStatus::kTooLarge ? "frame too large" : "empty frame",
        &response_);
    state_.close_after = true;
  }
  out_.clear();
  sent_ = 0;
  if (qlproto::EncodeFrame(response_, handler_.max_frame(), &out_) != qlproto::FrameStatus::kOk) {
    // A result too large for a frame: answer the limit instead of the result.
    pb::Response small;
    RequestHandler::Refusal(Code::kLimitReached, "answer larger than a frame", &small);
    small.set_id(response_.id());
    out_.clear();
    (void)qlproto::EncodeFrame(small, handler_.max_frame(), &out_);
  }
  return true;
}

void Connection::Pump() {
  for (;;) {
    if (sent_ < out_.size()) {
      const Io io = WriteSome();
      if (io == Io::kClosed) return Finish();
      if (io != Io::kDone) return WaitFor(io, &Connection::Pump);
      if (sent_ < out_.size()) continue;
      if (state_.close_after) return Finish();
      if (out_.capacity() > kReadBuffer) {
        // A large answer's buffers go (a cleared message keeps its strings' capacity).
        std::string().swap(out_);
        response_ = pb::Response();
      }
      out_.clear();
      sent_ = 0;
    }
    std::size_t wanted = 0;
    if (ServeOne(&wanted)) continue;
    // Room for the whole frame after what is buffered: move the rest to the front, and grow only
    // for a frame larger than the buffer (its size was checked against the frame limit).
    if (begin_ > 0) {
      std::memmove(in_.data(), in_.data() + begin_, end_ - begin_);
      end_ -= begin_;
      begin_ = 0;
    }
    if (in_.size() < wanted) {
      in_.resize(wanted);
    } else if (in_.size() > kReadBuffer && wanted <= kReadBuffer && end_ <= kReadBuffer) {
      in_.resize(kReadBuffer);
      in_.shrink_to_fit();
    }
    const Io io = ReadSome();
    if (io == Io::kClosed) return Finish();
    if (io != Io::kDone) return WaitFor(io, &Connection::Pump);
  }
}

Connection::Io Connection::TlsOutcome(int r, std::size_t n, std::size_t *moved) {
  if (r == 1) {
    *moved += n;
    return Io::kDone;
  }
  switch (SSL_get_error(ssl_.get(), r)) {
    case SSL_ERROR_WANT_READ:
      return Io::kWantRead;
    case SSL_ERROR_WANT_WRITE:
      return Io::kWantWrite;
    default:
      ERR_clear_error();
      return Io::kClosed;  // the peer closed, or TLS failed
  }
}

Connection::Io Connection::ReadSome() {
  char *to = in_.data() + end_;
  const std::size_t room = in_.size() - end_;
  if (ssl_) {
    std::size_t n = 0;
    ERR_clear_error();
    const int r = SSL_read_ex(ssl_.get(), to, room, &n);
    return TlsOutcome(r, n, &end_);
  }
  for (;;) {
    const ssize_t n = ::recv(socket_.native_handle(), to, room, 0);
    if (n > 0) {
      end_ += static_cast<std::size_t>(n);
      return Io::kDone;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Io::kWantRead;
    return Io::kClosed;  // the peer closed, or the socket failed
  }
}

Connection::Io Connection::WriteSome() {
  const char *from = out_.data() + sent_;
  const std::size_t left = out_.size() - sent_;
  if (ssl_) {
    std::size_t n = 0;
    ERR_clear_error();
    const int r = SSL_write_ex(ssl_.get(), from, left, &n);
    return TlsOutcome(r, n, &sent_);
  }
  for (;;) {
    const ssize_t n = ::send(socket_.native_handle(), from, left, MSG_NOSIGNAL);
    if (n >= 0) {
      sent_ += static_cast<std::size_t>(n);
      return Io::kDone;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return Io::kWantWrite;
    return Io::kClosed;
  }
}

void Connection::WaitFor(Io io, void (Connection::*then)()) {
  auto self = shared_from_this();
  socket_.async_wait(
      io == Io::kWantWrite ? asio::socket_base::wait_write : asio::socket_base::wait_read,
      [self, then](const asio::error_code &ec) {
        if (ec) return self->Finish();
        ((*self).*then)();
      });
}

void Connection::Finish() {
  if (finished_) return;
  finished_ = true;
  // Dropping the session here (not at destruction) makes the open-session count fall as soon as
  // the peer is gone.
  if (state_.session) state_.session->Reset();
  manager_.Remove(shared_from_this());
  CloseNow();
}

}  // namespace qlhsm::server
