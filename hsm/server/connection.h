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
// make it recurse. The few requests that wait on other hosts (network tools, the directory, PIX)
// are served on a small pool instead, so that a slow peer never holds up the loop's other
// connections; this connection reads nothing more until their answer is back on its loop.
//
// Nothing costly happens before a login (see limits.h): the buffer grows only with bytes that have
// arrived, never to a length a header merely announces; frames are small until a user logs in;
// one timer on the loop closes a connection whose first byte and TLS handshake do not finish in
// the handshake timeout, or whose first login does not come in the login timeout. After a login
// the same timer ends a session left idle past the idle timeout: the session is dropped at once
// (its slot and temporary keys go), the next request on the connection is answered
// QL_ERR_SESSION_EXPIRED and the connection closes (so does one that stays silent for another
// login timeout). A connection that was turned away answers its first frame with the reason and
// closes. A login answer the engine holds back (login throttling) is sent by a second timer.
#pragma once

#include <openssl/ssl.h>

#include <array>
#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "server/limits.h"
#include "server/request_handler.h"

namespace qlhsm::server {

class ConnectionManager;

// What the server decided about a connection at accept.
struct Admission {
  Quotas *quotas = nullptr;  // must outlive the connection
  std::string address_key;   // the per-address quotas' key (AddressKey)
  std::string peer;          // the client's address as text
  bool loopback = false;
  // kOk: counted as pending. Otherwise counted among the refusing: the first frame is answered
  // with this code and the connection closes (no TLS handshake for kAddressRefused).
  Code refusal = Code::kOk;
  std::string refusal_detail;
};

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  // tls is the server's context, used when the client starts a TLS handshake. load (may be null)
  // counts the connections of the socket's event loop; it is raised here and lowered when the
  // connection is destroyed.
  // away_pool (may be null: every request is served on the loop) serves the requests that wait
  // on other hosts (RequestHandler::WaitsOnOtherHosts), so that they never hold up the loop's
  // other connections; it must outlive the connection's pending work.
  Connection(asio::ip::tcp::socket socket, std::shared_ptr<SSL_CTX> tls, ConnectionManager &manager,
             RequestHandler &handler, Admission admission, std::atomic<int> *load = nullptr,
             asio::thread_pool *away_pool = nullptr);
  ~Connection();

  void Start();
  // Closes the socket from any thread (posted to the connection's loop); a pending wait ends
  // with an error and releases the connection.
  void Stop();

 private:
  enum class Io { kDone, kWantRead, kWantWrite, kClosed };
  // What the connection counts against: the refusing, the pending, the anonymous quotas, or
  // nothing (a user logged in on it once).
  enum class Standing { kRefused, kPending, kAnonymous, kUser };
  using Time = std::chrono::steady_clock::time_point;

  void CloseNow();
  void OnFirstByte(const asio::error_code &ec);
  void Handshake();
  void Pump();
  // Serves the frame at the front of the buffer if it is whole: its answer goes to out_.
  // kNo when more bytes are needed (*wanted: how many in all); kAway when the request went to the
  // pool (ServeAway), which answers it later.
  enum class Served { kNo, kYes, kAway };
  Served ServeOne(std::size_t *wanted);
  // response_ as the next frame to send, in out_.
  void EncodeAnswer();
  // Serves request_ on the pool, then BackFromAway() on this loop sends the answer.
  void ServeAway();
  void BackFromAway();
  // Moves the connection between quotas after a request changed its login.
  void AfterRequest();
  // Answers the frame `body` with `code` (the request's id when it parses) and closes after.
  void Refuse(std::string_view body, Code code, std::string_view detail);
  // Turns a counted connection into a refused one; false when too many are refused already.
  bool BecomeRefused(Code code, std::string detail);
  void ReleaseQuotas();
  Io ReadSome();
  Io WriteSome();
  // What an SSL_read_ex or SSL_write_ex that answered r means; on success n is added to *moved.
  Io TlsOutcome(int r, std::size_t n, std::size_t *moved);
  void WaitFor(Io io, void (Connection::*then)());
  // The timer: when the current phase ends, and what happens then.
  Time Due() const;
  void ArmDeadline(Time when);
  // Re-arms the timer when the phase just entered ends before the one it was set for.
  void ArmEarlier();
  void OnDeadline();
  // After the last answer: no more sending, and what the client still sends is read and dropped
  // for a moment, so that the answer is not lost to a reset.
  void Drain();
  void Finish();
  // Following the log: the queue's wake runs Pump on this loop, which writes the queued lines
  // as pushed answers (TakeFollowed: the next batch into out_; false when none waits).
  void HookFollow();
  bool TakeFollowed();

  asio::ip::tcp::socket socket_;
  std::shared_ptr<SSL_CTX> tls_ctx_;  // until the handshake starts (SSL_new holds it then)
  std::unique_ptr<SSL, decltype(&SSL_free)> ssl_{nullptr, &SSL_free};
  ConnectionManager &manager_;
  RequestHandler &handler_;
  Admission admission_;
  const NetLimits &limits_;
  Standing standing_;
  std::atomic<int> *load_;
  asio::thread_pool *away_pool_;
  bool away_ = false;  // a request is being served on away_pool_
  bool finished_ = false;
  bool handshaken_ = false;  // first byte seen and, for TLS, the handshake done
  bool expired_ = false;     // the idle timeout ended the session
  bool draining_ = false;
  bool follow_hooked_ = false;
  bool read_waiting_ = false;
  bool write_waiting_ = false;
  Time accepted_;
  Time last_request_;
  Time expired_at_;
  asio::steady_timer deadline_;
  asio::steady_timer later_;  // a held-back answer, then the drain
  ConnectionState state_;
  std::array<unsigned char, 1> first_{};
  // Received bytes not yet served: in_[begin_, end_).
  std::string in_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  // The answer being written: out_[sent_, end).
  std::string out_;
  std::size_t sent_ = 0;
  qlhsm::v1::Request request_;
  qlhsm::v1::Response response_;
};

using ConnectionPtr = std::shared_ptr<Connection>;

}  // namespace qlhsm::server
