// One client connection: tells TLS from plain by the first byte (0x16 starts a TLS handshake),
// then reads frames, hands each to the request handler and writes the answer, one request at a
// time. A Connection lives in a shared_ptr kept alive by its pending operation; the
// ConnectionManager owns them all and can stop them all. The socket's executor is a strand, so
// every handler of one connection runs one at a time.
#pragma once

#include <array>
#include <asio.hpp>
#include <asio/ssl.hpp>
#include <memory>
#include <string>

#include "server/request_handler.h"

namespace qlhsm::server {

class ConnectionManager;

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(asio::ip::tcp::socket socket, asio::ssl::context &tls, ConnectionManager &manager,
             RequestHandler &handler, bool over_limit);

  void Start();
  // Closes the socket from any thread (posted to the connection's strand); pending operations end
  // with an error and release the connection.
  void Stop();

 private:
  void CloseNow();
  void OnFirstByte(const asio::error_code &ec);
  void ReadHeader();
  void OnHeader(const asio::error_code &ec);
  void OnBody(const asio::error_code &ec);
  void Send(const qlhsm::v1::Response &response);
  void OnWritten(const asio::error_code &ec);
  void Finish();

  template <typename Fn>
  void WithStream(Fn &&fn) {
    if (state_.tls)
      fn(stream_);
    else
      fn(stream_.next_layer());
  }

  asio::ssl::stream<asio::ip::tcp::socket> stream_;
  ConnectionManager &manager_;
  RequestHandler &handler_;
  bool over_limit_;
  ConnectionState state_;
  std::array<unsigned char, 4> header_{};
  std::string body_;
  std::string out_;
  std::string peer_;
};

using ConnectionPtr = std::shared_ptr<Connection>;

}  // namespace qlhsm::server
