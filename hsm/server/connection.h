// One client connection: tells TLS from plain by the first byte (0x16 starts a TLS handshake),
// then reads frames, hands each to the request handler and writes the answer, one request at a
// time. A Connection lives in a shared_ptr kept alive by its pending wait; the ConnectionManager
// owns them all and can stop them all.
//
// Every handler of one connection runs on the one thread of the event loop that owns its socket
// (see Server), so a request is read, served and answered without waking another thread. The
// socket is non-blocking: Pump() reads whatever has arrived into one buffer (through OpenSSL
// directly when the client spoke TLS), serves every whole frame in it, writes each answer, and
// waits for the socket only when a read or a write would block. A request therefore costs one
// receive and one send, and Pump() is a loop, so a client that sends many frames at once cannot
// make it recurse.
#pragma once

#include <openssl/ssl.h>

#include <array>
#include <asio.hpp>
#include <atomic>
#include <memory>
#include <string>

#include "server/request_handler.h"

namespace qlhsm::server {

class ConnectionManager;

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  // tls is the server's context, used when the client starts a TLS handshake. load (may be null)
  // counts the connections of the socket's event loop; it is raised here and lowered when the
  // connection is destroyed.
  Connection(asio::ip::tcp::socket socket, SSL_CTX *tls, ConnectionManager &manager,
             RequestHandler &handler, bool over_limit, std::atomic<int> *load = nullptr);
  ~Connection();

  void Start();
  // Closes the socket from any thread (posted to the connection's loop); a pending wait ends
  // with an error and releases the connection.
  void Stop();

 private:
  enum class Io { kDone, kWantRead, kWantWrite, kClosed };

  void CloseNow();
  void OnFirstByte(const asio::error_code &ec);
  void Handshake();
  void Pump();
  // Serves the frame at the front of the buffer if it is whole: its answer goes to out_.
  // False when more bytes are needed (*wanted: how many in all).
  bool ServeOne(std::size_t *wanted);
  Io ReadSome();
  Io WriteSome();
  // What an SSL_read_ex or SSL_write_ex that answered r means; on success n is added to *moved.
  Io TlsOutcome(int r, std::size_t n, std::size_t *moved);
  void WaitFor(Io io, void (Connection::*then)());
  void Finish();

  asio::ip::tcp::socket socket_;
  SSL_CTX *tls_ctx_;
  std::unique_ptr<SSL, decltype(&SSL_free)> ssl_{nullptr, &SSL_free};
  ConnectionManager &manager_;
  RequestHandler &handler_;
  bool over_limit_;
  std::atomic<int> *load_;
  bool finished_ = false;
  ConnectionState state_;
  std::array<unsigned char, 1> first_{};
  // Received bytes not yet served: in_[begin_, end_).
  std::string in_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  // The answer being written: out_[sent_, end).
  std::string out_;
  std::size_t sent_ = 0;
  qlhsm::v1::Response response_;
};

using ConnectionPtr = std::shared_ptr<Connection>;

}  // namespace qlhsm::server
