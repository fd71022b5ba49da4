#include "server/connection.h"

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

Connection::Connection(asio::ip::tcp::socket socket, asio::ssl::context &tls,
                       ConnectionManager &manager, RequestHandler &handler, bool over_limit,
                       std::atomic<int> *load)
    : stream_(std::move(socket), tls),
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
  stream_.next_layer().async_receive(
      asio::buffer(first_), asio::socket_base::message_peek,
      [self](const asio::error_code &ec, size_t) { self->OnFirstByte(ec); });
}

void Connection::Stop() {
  auto self = shared_from_this();
  asio::post(stream_.get_executor(), [self] { self->CloseNow(); });
}

void Connection::CloseNow() {
  asio::error_code ec;
  stream_.next_layer().shutdown(asio::ip::tcp::socket::shutdown_both, ec);
  stream_.next_layer().close(ec);
}

void Connection::OnFirstByte(const asio::error_code &ec) {
  if (ec) return Finish();
  in_.resize(kReadBuffer);
  if (first_[0] != kTlsHandshakeRecord) {
    state_.tls = false;
    return Serve();
  }
  state_.tls = true;
  auto self = shared_from_this();
  stream_.async_handshake(asio::ssl::stream_base::server, [self](const asio::error_code &hec) {
    if (hec) return self->Finish();
    self->Serve();
  });
}

void Connection::Serve() {
  const std::size_t avail = end_ - begin_;
  if (avail < qlproto::kFrameHeaderSize) return ReadMore(qlproto::kFrameHeaderSize);
  uint32_t length = 0;
  qlproto::FrameStatus fs = qlproto::DecodeFrameHeader(
      reinterpret_cast<const unsigned char *>(in_.data() + begin_), handler_.max_frame(), &length);
  if (fs != qlproto::FrameStatus::kOk) {
    // Refused before anything is allocated for the body; say why, then close.
    RequestHandler::Refusal(
        Code::kProtocol, fs == qlproto::FrameStatus::kTooLarge ? "frame too large" : "empty frame",
        &response_);
    state_.close_after = true;
    return Send(response_);
  }
  const std::size_t whole = qlproto::kFrameHeaderSize + length;
  if (avail < whole) return ReadMore(whole);

  std::string_view body(in_.data() + begin_ + qlproto::kFrameHeaderSize, length);
  if (over_limit_) {
    RequestHandler::Refusal(Code::kLimitReached, "too many connections", &response_);
    state_.close_after = true;
  } else {
    handler_.HandleFrame(body, state_, &response_);
  }
  begin_ += whole;
  if (begin_ == end_) begin_ = end_ = 0;
  Send(response_);
}

void Connection::ReadMore(std::size_t wanted) {
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
  auto self = shared_from_this();
  WithStream([&](auto &s) {
    s.async_read_some(asio::buffer(in_.data() + end_, in_.size() - end_),
                      [self](const asio::error_code &ec, size_t n) {
                        if (ec) return self->Finish();
                        self->end_ += n;
                        self->Serve();
                      });
  });
}

void Connection::Send(const pb::Response &response) {
  out_.clear();
  if (qlproto::EncodeFrame(response, handler_.max_frame(), &out_) != qlproto::FrameStatus::kOk) {
    // A result too large for a frame: answer the limit instead of the result.
    pb::Response small;
    RequestHandler::Refusal(Code::kLimitReached, "answer larger than a frame", &small);
    small.set_id(response.id());
    out_.clear();
    (void)qlproto::EncodeFrame(small, handler_.max_frame(), &out_);
  }
  auto self = shared_from_this();
  WithStream([&](auto &s) {
    asio::async_write(s, asio::buffer(out_),
                      [self](const asio::error_code &ec, size_t) { self->OnWritten(ec); });
  });
}

void Connection::OnWritten(const asio::error_code &ec) {
  if (ec || state_.close_after) return Finish();
  if (out_.capacity() > kReadBuffer) {
    // A large answer's buffers go (a cleared message keeps its strings' capacity).
    std::string().swap(out_);
    response_ = pb::Response();
  }
  Serve();
}

void Connection::Finish() {
  // Dropping the session here (not at destruction) makes the open-session count fall as soon as
  // the peer is gone.
  if (state_.session) state_.session->Reset();
  manager_.Remove(shared_from_this());
  CloseNow();
}

}  // namespace qlhsm::server
