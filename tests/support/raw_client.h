// A minimal blocking client of the wire protocol for daemon tests: plain TCP or TLS 1.3, raw
// bytes or whole request/response frames. It checks nothing beyond framing, so tests can send
// what a well-behaved library never would.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "qlhsm.pb.h"

namespace qltest {

class RawClient {
 public:
  // Connects to host:port; with `tls` also runs a TLS 1.3 handshake (the certificate is not
  // checked). Throws std::runtime_error when the connection cannot be made.
  RawClient(const std::string &host, int port, bool tls = false);
  ~RawClient();
  RawClient(const RawClient &) = delete;
  RawClient &operator=(const RawClient &) = delete;

  // Sends bytes as they are. False when the peer has closed.
  bool SendRaw(const std::string &bytes);
  // Sends one request as a frame (its id is set from a counter when 0).
  bool Send(qlhsm::v1::Request request);
  // Reads one response frame; nullopt when the connection closed or the frame is bad. Waits at
  // most `timeout_ms`.
  std::optional<qlhsm::v1::Response> Receive(int timeout_ms = 10000);
  // Send and Receive.
  std::optional<qlhsm::v1::Response> Call(qlhsm::v1::Request request);
  // True when the peer closed the connection (a read returns end of stream) within timeout_ms.
  bool PeerClosed(int timeout_ms = 10000);

  // Hello with the current protocol version; returns the response code (-1 on no answer).
  int Hello();
  // Login with user and password (kind 16); returns the code (-1 on no answer).
  int Login(const std::string &user, const std::string &password);

 private:
  bool ReadExact(void *buf, size_t n, int timeout_ms);
  bool WriteAll(const void *buf, size_t n);
  struct Tls;
  int fd_ = -1;
  std::unique_ptr<Tls> tls_;
  uint64_t next_id_ = 1;
};

}  // namespace qltest
