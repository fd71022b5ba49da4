// Discovery: answers the query datagrams clients broadcast to find HSMs (proto/discovery_wire.h)
// on a UDP port of the listen address. Each answer is small and fixed, made without touching the
// engine; a datagram that is not a query of the exact layout is dropped without a word, and one
// source gets at most a few answers a second.
#pragma once

#include <array>
#include <asio.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "discovery_wire.h"
#include "engine/status.h"

namespace qlhsm::server {

// What an answer says about this HSM.
struct DiscoveryIdentity {
  std::string address;  // the listen address
  uint16_t port = 0;    // the listen port (TLS and plain alike)
  std::string name;     // the host name
  std::string version;
  // The certificate (DER) clients see now; asked at each answer, since set-tls-bundle may change
  // it. Its SHA-256 is cached until it changes.
  std::function<std::vector<uint8_t>()> certificate_der;
};

class DiscoveryResponder {
 public:
  // Binds host:port (0: any free port) on `executor`'s context and starts answering.
  static Result<std::unique_ptr<DiscoveryResponder>> Create(const asio::any_io_executor &executor,
                                                            const std::string &host, uint16_t port,
                                                            DiscoveryIdentity identity);
  asio::ip::udp::endpoint local_endpoint() const { return socket_.local_endpoint(); }
  // Stops answering; call on the socket's executor.
  void Close();

  // Answers per source address within one second.
  static constexpr int kAnswersPerSecond = 8;

 private:
  DiscoveryResponder(const asio::any_io_executor &executor, DiscoveryIdentity identity);
  void Receive();
  void Answer(size_t len);
  bool Allowed(const asio::ip::address &from);
  const std::string &Fingerprint();

  asio::ip::udp::socket socket_;
  DiscoveryIdentity identity_;
  asio::ip::udp::endpoint sender_;
  std::array<uint8_t, qlproto::discovery::kQuerySize + 1> buffer_{};
  std::vector<uint8_t> answer_;  // the one in flight
  bool sending_ = false;
  std::vector<uint8_t> der_;
  std::string fingerprint_;
  // Answers per source in the current second; cleared each second.
  std::map<std::string, int> recent_;
  std::chrono::steady_clock::time_point window_{};
};

}  // namespace qlhsm::server
