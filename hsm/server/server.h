// The daemon's listener: accepts connections on one port (TLS and plain alike), hands each to a
// Connection, and stops cleanly on SIGINT or SIGTERM.
#pragma once

#include <asio.hpp>
#include <asio/ssl.hpp>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "server/connection_manager.h"
#include "server/discovery.h"
#include "server/limits.h"
#include "server/request_handler.h"
#include "server/tls_identity.h"

namespace qlhsm::server {

// Settings of `qlhsmd serve`. To add one: a field here, an option in qlhsmd.cpp.
struct ServerOptions {
  std::string data_dir;
  std::string host = "127.0.0.1";
  uint16_t port = qlproto::kDefaultPort;
  uint32_t max_frame = 0;      // 0: the protocol's default (16 MiB)
  size_t max_sessions = 0;     // 0: the store's setting or the engine's default (1024)
  size_t audit_page_size = 0;  // 0: the store's setting or the engine's default (4096)
  // Connections, quotas before login, timeouts, plain connections (limits.h); what is left unset
  // comes from the store's settings, else the defaults. Past a limit a connection gets
  // QL_ERR_LIMIT_REACHED and closes.
  NetLimits net = NetLimits::Unset();
  bool plain_given = false;   // net.plain was given
  unsigned threads = 0;       // event loops, one thread each; 0: 4 per core, at least 8
                              // (an engine call blocks its loop while it runs)
  std::string unlock_secret;  // opens the sealed master key
  // The endpoints PIX requests may reach ("HOST:PORT"); none by default.
  std::vector<std::string> pix_endpoints;
  // The UDP port discovery queries are answered on, on `host`; -1: off, 0: any free port. When
  // the default port is taken the daemon serves without discovery; a port given that cannot be
  // bound stops it.
  int discovery_port = qlproto::discovery::kDefaultPort;
  bool discovery_given = false;
};

class Server {
 public:
  // Opens the engine and TLS identity of options.data_dir and binds the port (0: any free one).
  static Result<std::unique_ptr<Server>> Create(const ServerOptions &options);
  ~Server();

  // The address actually bound (the port chosen when 0 was asked for).
  asio::ip::tcp::endpoint local_endpoint() const { return acceptor_.local_endpoint(); }
  // Where discovery is answered; null when it is off.
  const DiscoveryResponder *discovery() const { return discovery_.get(); }
  // Serves until Stop() or SIGINT/SIGTERM; returns when every thread has ended.
  void Run();
  // Stops accepting, closes every connection and lets Run() return. Any thread.
  void Stop();

  Engine &engine() { return *engine_; }

 private:
  Server(const ServerOptions &options, std::unique_ptr<Engine> engine);
  void Accept();
  // What the connection from `socket` may do (limits.h).
  Admission Admit(const asio::ip::tcp::socket &socket);
  // The loop with the fewest connections.
  std::size_t QuietestLoop() const;

  ServerOptions options_;
  std::unique_ptr<Engine> engine_;
  // io_ runs the acceptor and the signals on the thread that calls Run(). Connections live on
  // loops_: each loop is run by one thread of its own, so a connection's handlers all run on one
  // thread and a request never wakes another (loads_ counts each loop's connections).
  std::unique_ptr<std::atomic<int>[]> loads_;  // outlives the loops and their connections
  asio::io_context io_;
  std::vector<std::unique_ptr<asio::io_context>> loops_;
  std::vector<asio::executor_work_guard<asio::io_context::executor_type>> keep_running_;
  TlsContexts tls_;
  asio::strand<asio::io_context::executor_type> control_;
  asio::signal_set signals_;
  asio::ip::tcp::acceptor acceptor_;
  ConnectionManager manager_;
  std::unique_ptr<Quotas> quotas_;
  std::unique_ptr<RequestHandler> handler_;
  std::unique_ptr<DiscoveryResponder> discovery_;  // on control_
  // Serves the requests that wait on other hosts (Connection::ServeAway); joined before the
  // handler and the loops go.
  static constexpr std::size_t kAwayThreads = 4;
  asio::thread_pool away_{kAwayThreads};
};

}  // namespace qlhsm::server
