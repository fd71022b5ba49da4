#include "server/connection.h"

#include <openssl/err.h>
#include <openssl/x509.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "frame.h"
#include "server/connection_manager.h"

namespace qlhsm::server {

namespace pb = qlhsm::v1;

namespace {
constexpr unsigned char kTlsHandshakeRecord = 0x16;
// The receive buffer a connection starts with once its first byte has arrived; it doubles while
// a frame's bytes keep arriving, up to the frame's length.
constexpr std::size_t kFirstBuffer = 4 * 1024;
// The receive buffer a connection may keep between requests; a larger frame grows it for as long
// as it is being read.
constexpr std::size_t kReadBuffer = 16 * 1024;
// How long, and how much, a closing connection reads and drops after its last answer.
constexpr std::chrono::milliseconds kDrainTime{1000};
constexpr std::size_t kDrainBytes = 64 * 1024;
}  // namespace

Connection::Connection(asio::ip::tcp::socket socket, std::shared_ptr<SSL_CTX> tls,
                       ConnectionManager &manager, RequestHandler &handler, Admission admission,
                       std::atomic<int> *load, asio::thread_pool *away_pool)
    : socket_(std::move(socket)),
      tls_ctx_(std::move(tls)),
      manager_(manager),
      handler_(handler),
      admission_(std::move(admission)),
      limits_(admission_.quotas->limits()),
      standing_(admission_.refusal == Code::kOk ? Standing::kPending : Standing::kRefused),
      load_(load),
      away_pool_(away_pool),
      deadline_(socket_.get_executor()),
      later_(socket_.get_executor()) {
  if (load_) load_->fetch_add(1, std::memory_order_relaxed);
  state_.peer = admission_.peer;
}

Connection::~Connection() {
  ReleaseQuotas();
  if (load_) load_->fetch_sub(1, std::memory_order_relaxed);
}

void Connection::Start() {
  auto self = shared_from_this();
  accepted_ = last_request_ = std::chrono::steady_clock::now();
  ArmDeadline(Due());
  socket_.async_receive(asio::buffer(first_), asio::socket_base::message_peek,
                        [self](const asio::error_code &ec, size_t) { self->OnFirstByte(ec); });
}

void Connection::ReleaseQuotas() {
  Quotas &q = *admission_.quotas;
  switch (standing_) {
    case Standing::kRefused:
      q.LeaveRefusing();
      break;
    case Standing::kPending:
      q.LeavePending(admission_.address_key);
      break;
    case Standing::kAnonymous:
      q.LeaveAnonymous(admission_.address_key);
      break;
    case Standing::kUser:
      break;
  }
  standing_ = Standing::kUser;
}

bool Connection::BecomeRefused(Code code, std::string detail) {
  if (standing_ == Standing::kRefused) return true;  // the first reason stands
  ReleaseQuotas();
  if (!admission_.quotas->EnterRefusing()) return false;
  standing_ = Standing::kRefused;
  admission_.refusal = code;
  admission_.refusal_detail = std::move(detail);
  return true;
}

Connection::Time Connection::Due() const {
  if (standing_ == Standing::kRefused || !handshaken_) return accepted_ + limits_.handshake_timeout;
  if (standing_ == Standing::kPending) return accepted_ + limits_.login_timeout;
  if (expired_) return expired_at_ + limits_.login_timeout;
  return last_request_ + limits_.idle_timeout;
}

void Connection::ArmDeadline(Time when) {
  auto self = shared_from_this();
  deadline_.expires_at(when);
  deadline_.async_wait([self](const asio::error_code &ec) {
    if (ec || self->finished_) return;
    self->OnDeadline();
  });
}

void Connection::ArmEarlier() {
  // Moving the expiry cancels the wait in progress; its handler sees the cancellation.
  const Time due = Due();
  if (due < deadline_.expiry()) ArmDeadline(due);
}

void Connection::OnDeadline() {
  const Time now = std::chrono::steady_clock::now();
  // A request served off the loop is not idleness; its answer restarts the idle time.
  if (away_) return ArmDeadline(now + limits_.idle_timeout);
  const Time due = Due();
  // Requests since the timer was set move an idle deadline on.
  if (now < due) return ArmDeadline(due);
  // A follower of the log sends nothing: its session lasts as long as its connection.
  if (state_.follow) return ArmDeadline(now + limits_.idle_timeout);
  const bool in_session = standing_ != Standing::kPending && standing_ != Standing::kRefused &&
                          handshaken_ && !expired_ && state_.session &&
                          state_.session->auth() != sessions::AuthKind::kNone;
  if (!in_session) return Finish();
  // The session ends now; the connection waits a little for a request to tell why.
  handler_.engine().audit().Append(state_.session->user(), "session-expired", admission_.peer,
                                   ToWire(Code::kSessionExpired));
  state_.session->Reset();
  expired_ = true;
  expired_at_ = now;
  ArmDeadline(Due());
}

void Connection::Stop() {
  auto self = shared_from_this();
  asio::post(socket_.get_executor(), [self] { self->CloseNow(); });
}

void Connection::CloseNow() {
  deadline_.cancel();
  later_.cancel();
  asio::error_code ec;
  socket_.shutdown(asio::ip::tcp::socket::shutdown_both, ec);
  socket_.close(ec);
}

void Connection::OnFirstByte(const asio::error_code &ec) {
  if (ec) return Finish();
  asio::error_code nb;
  socket_.non_blocking(true, nb);
  if (nb) return Finish();
  state_.tls = first_[0] == kTlsHandshakeRecord;
  if (!state_.tls && !admission_.loopback && limits_.plain != PlainPolicy::kAny) {
    if (!BecomeRefused(Code::kAddressRefused, "plain connections are not served to this address"))
      return Finish();
  } else if (!state_.tls && limits_.plain == PlainPolicy::kOff) {
    if (!BecomeRefused(Code::kAddressRefused, "plain connections are not served")) return Finish();
  }
  // A refused address gets no TLS work: a TLS client is closed without an answer.
  if (state_.tls && standing_ == Standing::kRefused && admission_.refusal == Code::kAddressRefused)
    return Finish();
  in_.resize(kFirstBuffer);
  if (!state_.tls) {
    handshaken_ = true;
    ArmEarlier();
    return Pump();
  }
  ssl_.reset(SSL_new(tls_ctx_.get()));
  tls_ctx_.reset();
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
  if (io == Io::kDone) {
    handshaken_ = true;
    if (X509 *cert = SSL_get0_peer_certificate(ssl_.get())) {
      const int len = i2d_X509(cert, nullptr);
      if (len > 0) {
        state_.peer_certificate.resize(static_cast<size_t>(len));
        unsigned char *p = state_.peer_certificate.data();
        i2d_X509(cert, &p);
      }
    }
    ArmEarlier();
    return Pump();
  }
  if (io == Io::kClosed) return Finish();
  WaitFor(io, &Connection::Handshake);
}

void Connection::Refuse(std::string_view body, Code code, std::string_view detail) {
  pb::Request request;
  const bool parsed = qlproto::DecodeFrameBody(body, &request) == qlproto::FrameStatus::kOk;
  RequestHandler::Refusal(code, detail, &response_);
  if (parsed) response_.set_id(request.id());
  state_.close_after = true;
}

void Connection::AfterRequest() {
  if (standing_ != Standing::kPending && standing_ != Standing::kAnonymous) return;
  const sessions::AuthKind auth =
      state_.session ? state_.session->auth() : sessions::AuthKind::kNone;
  if (auth == sessions::AuthKind::kPassword || auth == sessions::AuthKind::kToken) {
    ReleaseQuotas();  // a user's connection counts against no quota of its own
    ArmEarlier();
    return;
  }
  if (auth != sessions::AuthKind::kAnonymous || standing_ == Standing::kAnonymous) return;
  if (!admission_.quotas->EnterAnonymous(admission_.address_key)) {
    state_.session->Reset();
    const uint64_t id = response_.id();
    RequestHandler::Refusal(Code::kLimitReached, "too many anonymous sessions", &response_);
    response_.set_id(id);
    return;
  }
  admission_.quotas->LeavePending(admission_.address_key);
  standing_ = Standing::kAnonymous;
  ArmEarlier();
}

Connection::Served Connection::ServeOne(std::size_t *wanted) {
  const std::size_t avail = end_ - begin_;
  *wanted = qlproto::kFrameHeaderSize;
  if (avail < qlproto::kFrameHeaderSize) return Served::kNo;
  uint32_t length = 0;
  qlproto::FrameStatus fs = qlproto::DecodeFrameHeader(
      reinterpret_cast<const unsigned char *>(in_.data() + begin_), handler_.max_frame(), &length);
  // Until a user logs in, frames are small: a login needs no more.
  const bool small_only = standing_ != Standing::kUser;
  if (fs == qlproto::FrameStatus::kOk && small_only && length > limits_.max_frame_before_login) {
    RequestHandler::Refusal(Code::kLimitReached, "frame too large before a login", &response_);
    state_.close_after = true;
  } else if (fs == qlproto::FrameStatus::kOk) {
    *wanted = qlproto::kFrameHeaderSize + length;
    if (avail < *wanted) return Served::kNo;
    std::string_view body(in_.data() + begin_ + qlproto::kFrameHeaderSize, length);
    last_request_ = std::chrono::steady_clock::now();
    if (standing_ == Standing::kRefused) {
      Refuse(body, admission_.refusal, admission_.refusal_detail);
    } else if (expired_) {
      Refuse(body, Code::kSessionExpired, "the session sat idle too long");
    } else if (RequestHandler::Decode(body, state_, &request_, &response_)) {
      // A user's request that waits on other hosts goes to the pool (before a login it is
      // refused at once, so it stays).
      if (away_pool_ != nullptr && standing_ == Standing::kUser &&
          RequestHandler::WaitsOnOtherHosts(request_)) {
        begin_ += *wanted;
        if (begin_ == end_) begin_ = end_ = 0;
        ServeAway();
        return Served::kAway;
      }
      handler_.Handle(request_, state_, &response_);
      AfterRequest();
      if (state_.follow && !follow_hooked_) HookFollow();
    }
    begin_ += *wanted;
    if (begin_ == end_) begin_ = end_ = 0;
    if (*wanted > kReadBuffer) request_ = pb::Request();  // a large request's strings go
  } else {
    // Refused before anything is allocated for the body; say why, then close.
    RequestHandler::Refusal(
        Code::kProtocol, fs == qlproto::FrameStatus::kTooLarge ? "frame too large" : "empty frame",
        &response_);
    state_.close_after = true;
  }
  EncodeAnswer();
  return Served::kYes;
}

void Connection::EncodeAnswer() {
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
}

void Connection::ServeAway() {
  // The pool's thread owns request_, response_ and state_ until the answer is back on this
  // connection's loop; meanwhile the loop reads nothing and the timers leave them alone.
  away_ = true;
  auto self = shared_from_this();
  asio::post(*away_pool_, [self] {
    self->handler_.Handle(self->request_, self->state_, &self->response_);
    asio::post(self->socket_.get_executor(), [self] { self->BackFromAway(); });
  });
}

void Connection::BackFromAway() {
  away_ = false;
  last_request_ = std::chrono::steady_clock::now();  // idle from the answer on
  if (finished_ || !socket_.is_open()) {
    finished_ = false;  // Finish() was put off while the request was away
    return Finish();
  }
  AfterRequest();
  EncodeAnswer();
  Pump();
}

void Connection::Pump() {
  if (away_) return;  // BackFromAway() pumps again
  for (;;) {
    if (sent_ < out_.size()) {
      const Io io = WriteSome();
      if (io == Io::kClosed) return Finish();
      if (io != Io::kDone) return WaitFor(io, &Connection::Pump);
      if (sent_ < out_.size()) continue;
      if (state_.close_after) return Drain();
      if (out_.capacity() > kReadBuffer) {
        // A large answer's buffers go (a cleared message keeps its strings' capacity).
        std::string().swap(out_);
        response_ = pb::Response();
      }
      out_.clear();
      sent_ = 0;
    }
    // A follower of the log gets its queued lines before anything else is read.
    if (state_.follow && follow_hooked_ && TakeFollowed()) continue;
    std::size_t wanted = 0;
    const Served served = ServeOne(&wanted);
    if (served == Served::kAway) return;
    if (served == Served::kYes) {
      if (state_.answer_delay.count() > 0) {
        // The engine holds this answer back: the timer sends it, the loop serves others.
        auto self = shared_from_this();
        later_.expires_after(state_.answer_delay);
        state_.answer_delay = std::chrono::milliseconds(0);
        later_.async_wait([self](const asio::error_code &ec) {
          if (ec || self->finished_) return;
          self->Pump();
        });
        return;
      }
      continue;
    }
    // Move what is buffered to the front. A frame larger than the buffer grows it only as its
    // bytes arrive (doubling when full), never to the length its header announces.
    if (begin_ > 0) {
      std::memmove(in_.data(), in_.data() + begin_, end_ - begin_);
      end_ -= begin_;
      begin_ = 0;
    }
    if (in_.size() < wanted) {
      if (end_ == in_.size()) in_.resize(std::min(wanted, std::max(kFirstBuffer, 2 * in_.size())));
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
  // One wait per direction at most: a follower's pushes run Pump while its read wait is pending.
  const bool write = io == Io::kWantWrite;
  bool &waiting = write ? write_waiting_ : read_waiting_;
  if (waiting) return;
  waiting = true;
  auto self = shared_from_this();
  socket_.async_wait(write ? asio::socket_base::wait_write : asio::socket_base::wait_read,
                     [self, then, write](const asio::error_code &ec) {
                       (write ? self->write_waiting_ : self->read_waiting_) = false;
                       if (ec) return self->Finish();
                       ((*self).*then)();
                     });
}

void Connection::Drain() {
  if (!draining_) {
    draining_ = true;
    if (ssl_) {
      ERR_clear_error();
      (void)SSL_shutdown(ssl_.get());  // close_notify, when the socket takes it now
      ERR_clear_error();
    }
    ::shutdown(socket_.native_handle(), SHUT_WR);
    // The session and the quotas go now; the socket only lingers.
    if (state_.session) state_.session->Reset();
    ReleaseQuotas();
    auto self = shared_from_this();
    later_.expires_after(kDrainTime);
    later_.async_wait([self](const asio::error_code &ec) {
      if (!ec) self->Finish();
    });
    begin_ = end_ = 0;
  }
  char sink[4096];
  for (;;) {
    const ssize_t n = ::recv(socket_.native_handle(), sink, sizeof sink, 0);
    if (n > 0) {
      end_ += static_cast<std::size_t>(n);
      if (end_ > kDrainBytes) return Finish();
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
      return WaitFor(Io::kWantRead, &Connection::Drain);
    return Finish();  // the peer closed too
  }
}

void Connection::Finish() {
  if (finished_) return;
  finished_ = true;
  if (away_) return CloseNow();  // the state is the pool's until BackFromAway() finishes
  if (state_.follow_id != 0) handler_.engine().logs().Unfollow(state_.follow_id);
  // Dropping the session here (not at destruction) makes the open-session count fall as soon as
  // the peer is gone.
  if (state_.session) state_.session->Reset();
  ReleaseQuotas();
  manager_.Remove(shared_from_this());
  CloseNow();
}

void Connection::HookFollow() {
  follow_hooked_ = true;
  std::weak_ptr<Connection> weak = weak_from_this();
  auto executor = socket_.get_executor();
  auto pump = [weak] {
    auto self = weak.lock();
    if (self && !self->finished_ && !self->draining_) self->Pump();
  };
  state_.follow->SetWake([executor, pump] { asio::post(executor, pump); });
  // Lines queued before the hook go out after the answer that started the follow.
  asio::post(executor, pump);
}

bool Connection::TakeFollowed() {
  // Lines of one pushed answer at most, so that a batch stays well inside a frame.
  constexpr std::size_t kPushedLinesPerAnswer = 256;
  std::vector<std::string> lines = state_.follow->Take(kPushedLinesPerAnswer);
  if (lines.empty()) return false;
  pb::Response push;
  push.set_id(state_.follow_request);
  push.set_code(0);
  for (std::string &line : lines) push.mutable_log_lines()->add_lines(std::move(line));
  out_.clear();
  sent_ = 0;
  return qlproto::EncodeFrame(push, handler_.max_frame(), &out_) == qlproto::FrameStatus::kOk;
}

}  // namespace qlhsm::server
