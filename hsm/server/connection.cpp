#include "server/connection.h"

#include <iostream>

#include "frame.h"
#include "server/connection_manager.h"

namespace qlhsm::server {

namespace pb = qlhsm::v1;

namespace {
constexpr unsigned char kTlsHandshakeRecord = 0x16;
}

Connection::Connection(asio::ip::tcp::socket socket, asio::ssl::context &tls,
                       ConnectionManager &manager, RequestHandler &handler, bool over_limit)
    : stream_(std::move(socket), tls),
      manager_(manager),
      handler_(handler),
      over_limit_(over_limit) {
  asio::error_code ec;
  auto ep = stream_.next_layer().remote_endpoint(ec);
  if (!ec) peer_ = ep.address().to_string() + ":" + std::to_string(ep.port());
}

void Connection::Start() {
  auto self = shared_from_this();
  stream_.next_layer().async_receive(
      asio::buffer(header_.data(), 1), asio::socket_base::message_peek,
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
  if (header_[0] != kTlsHandshakeRecord) {
    state_.tls = false;
    return ReadHeader();
  }
  state_.tls = true;
  auto self = shared_from_this();
  stream_.async_handshake(asio::ssl::stream_base::server, [self](const asio::error_code &hec) {
    if (hec) return self->Finish();
    self->ReadHeader();
  });
}

void Connection::ReadHeader() {
  auto self = shared_from_this();
  WithStream([&](auto &s) {
    asio::async_read(s, asio::buffer(header_),
                     [self](const asio::error_code &ec, size_t) { self->OnHeader(ec); });
  });
}

void Connection::OnHeader(const asio::error_code &ec) {
  if (ec) return Finish();
  uint32_t length = 0;
  qlproto::FrameStatus fs =
      qlproto::DecodeFrameHeader(header_.data(), handler_.max_frame(), &length);
  if (fs != qlproto::FrameStatus::kOk) {
    // Refused before anything is allocated for the body; say why, then close.
    pb::Response r;
    RequestHandler::Refusal(
        Code::kProtocol, fs == qlproto::FrameStatus::kTooLarge ? "frame too large" : "empty frame",
        &r);
    state_.close_after = true;
    return Send(r);
  }
  body_.resize(length);
  auto self = shared_from_this();
  WithStream([&](auto &s) {
    asio::async_read(s, asio::buffer(body_),
                     [self](const asio::error_code &bec, size_t) { self->OnBody(bec); });
  });
}

void Connection::OnBody(const asio::error_code &ec) {
  if (ec) return Finish();
  pb::Response response;
  if (over_limit_) {
    RequestHandler::Refusal(Code::kLimitReached, "too many connections", &response);
    state_.close_after = true;
  } else {
    handler_.HandleFrame(body_, state_, &response);
  }
  body_.clear();
  body_.shrink_to_fit();
  Send(response);
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
  ReadHeader();
}

void Connection::Finish() {
  // Dropping the session here (not at destruction) makes the open-session count fall as soon as
  // the peer is gone.
  if (state_.session) state_.session->Reset();
  manager_.Remove(shared_from_this());
  CloseNow();
}

}  // namespace qlhsm::server
