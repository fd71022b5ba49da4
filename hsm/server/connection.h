// One client connection: tells TLS from plain by the first byte (0x16 starts a TLS handshake),
// then reads frames, hands each to the request handler and writes the answer, one request at a
// time. A Connection lives in a shared_ptr kept alive by its pending operation; the
// ConnectionManager owns them all and can stop them all.
//
// Every handler of one connection runs on the one thread of the event loop that owns its socket
// (see Server), so a request is read, served and answered without waking another thread. Reads
// take whatever has arrived into one buffer, and every whole frame in it is served before the
// next read, so a request costs one receive, not one for its header and one for its body.
#pragma once

#include <array>
#include <asio.hpp>
#include <asio/ssl.hpp>
#include <atomic>
#include <memory>
#include <string>

#include "server/request_handler.h"

namespace qlhsm::server {

class ConnectionManager;

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  // load (may be null) counts the connections of the socket's event loop; it is raised here and
  // lowered when the connection is destroyed.
  Connection(asio::ip::tcp::socket socket, asio::ssl::context &tls, ConnectionManager &manager,
             RequestHandler &handler, bool over_limit, std::atomic<int> *load = nullptr);
  ~Connection();

  void Start();
  // Closes the socket from any thread (posted to the connection's loop); pending operations end
  // with an error and release the connection.
  void Stop();

 private:
  void CloseNow();
  void OnFirstByte(const asio::error_code &ec);
  // Serves the whole frames already buffered, then reads more.
  void Serve();
  void ReadMore(std::size_t wanted);
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
  std::atomic<int> *load_;
  ConnectionState state_;
  std::array<unsigned char, 1> first_{};
  // Received bytes not yet served: in_[begin_, end_).
  std::string in_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::string out_;
  qlhsm::v1::Response response_;
};

using ConnectionPtr = std::shared_ptr<Connection>;

}  // namespace qlhsm::server
