#include "server/server.h"

#include <unistd.h>

#include <csignal>
#include <iostream>
#include <thread>
#include <vector>

#include "engine/services/pix_http.h"
#include "frame.h"
#include "server/tls_identity.h"

namespace qlhsm::server {

Server::Server(const ServerOptions &options, std::unique_ptr<Engine> engine)
    // The acceptor and the signals share one strand with Stop(), so stopping never races a
    // pending accept or signal wait.
    : options_(options),
      engine_(std::move(engine)),
      control_(asio::make_strand(io_)),
      signals_(control_),
      acceptor_(control_) {
  unsigned n = options_.threads;
  if (n == 0) n = std::max(8u, 4 * std::max(1u, std::thread::hardware_concurrency()));
  loads_ = std::make_unique<std::atomic<int>[]>(n);
  for (unsigned i = 0; i < n; ++i) {
    loops_.push_back(std::make_unique<asio::io_context>(1));
    keep_running_.push_back(asio::make_work_guard(*loops_.back()));
  }
}

Server::~Server() {
  Stop();
  away_.join();
}

Result<std::unique_ptr<Server>> Server::Create(const ServerOptions &options) {
  EngineOptions eo;
  eo.max_sessions = options.max_sessions;
  eo.audit_page_size = options.audit_page_size;
  eo.unlock_secret = options.unlock_secret;
  for (const std::string &text : options.pix_endpoints) {
    Result<std::string> endpoint = pix::ParseEndpoint(text);
    if (!endpoint.ok())
      return Status::Error(Code::kBadArgument, "--pix-endpoint takes HOST:PORT, not " + text);
    eo.pix_endpoints.push_back(std::move(endpoint.value()));
  }
  Result<std::unique_ptr<Engine>> engine = Engine::Open(options.data_dir, eo);
  if (!engine.ok()) return engine.status();
  std::unique_ptr<Server> srv(new Server(options, std::move(engine.value())));

  // The identity set by set-tls-bundle, else the data directory's.
  Result<std::optional<TlsBundle>> stored = srv->engine_->system().StoredTlsBundle();
  if (!stored.ok()) return stored.status();
  Result<TlsBundle> bundle =
      stored->has_value() ? Result<TlsBundle>(std::move(**stored)) : ReadTlsFiles(options.data_dir);
  if (!bundle.ok()) return bundle.status();
  Result<SslCtxPtr> ctx = BuildTlsContext(bundle.value());
  Result<std::vector<uint8_t>> der = LeafCertificateDer(bundle.value());
  if (!ctx.ok()) return ctx.status();
  if (!der.ok()) return der.status();
  srv->tls_.Install(std::move(ctx.value()), std::move(der.value()));
  HandlerConfig hc;
  hc.max_frame = options.max_frame ? options.max_frame : qlproto::kDefaultMaxFrame;
  if (hc.max_frame > qlproto::kAbsoluteMaxFrame || hc.max_frame < 1024)
    return Status::Error(Code::kBadArgument, "the frame limit must be 1 KiB to 352 MiB");
  hc.tls = &srv->tls_;
  srv->handler_ = std::make_unique<RequestHandler>(*srv->engine_, std::move(hc));
  Engine *engine_ptr = srv->engine_.get();
  srv->quotas_ = std::make_unique<Quotas>(
      ResolveLimits(options.net, options.plain_given,
                    [engine_ptr](const char *name) { return engine_ptr->system().Setting(name); }));

  asio::error_code ec;
  asio::ip::address addr = asio::ip::make_address(options.host, ec);
  if (ec) return Status::Error(Code::kBadArgument, "bad listen address " + options.host);
  asio::ip::tcp::endpoint ep(addr, options.port);
  srv->acceptor_.open(ep.protocol(), ec);
  if (!ec) srv->acceptor_.set_option(asio::ip::tcp::acceptor::reuse_address(true), ec);
  if (!ec) srv->acceptor_.bind(ep, ec);
  if (!ec) srv->acceptor_.listen(asio::socket_base::max_listen_connections, ec);
  if (ec)
    return Status::Error(Code::kBadArgument, "cannot listen on " + options.host + ":" +
                                                 std::to_string(options.port) + ": " +
                                                 ec.message());

  if (options.discovery_port >= 0) {
    DiscoveryIdentity id;
    id.address = options.host;
    id.port = srv->acceptor_.local_endpoint().port();
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) == 0) id.name = host;
    id.version = kHsmVersion;
    TlsContexts *tls = &srv->tls_;
    id.certificate_der = [tls] { return tls->CertificateDer(); };
    Result<std::unique_ptr<DiscoveryResponder>> d = DiscoveryResponder::Create(
        srv->control_, options.host, static_cast<uint16_t>(options.discovery_port), std::move(id));
    if (d.ok())
      srv->discovery_ = std::move(d.value());
    else if (options.discovery_given)
      return d.status();
    else
      std::cerr << "qlhsmd: " << d.status().message() << "; serving without discovery\n";
  }

  // A client that hangs up while its answer is being written must cost only its connection:
  // OpenSSL writes TLS records with write(2), which raises SIGPIPE on a closed socket.
  std::signal(SIGPIPE, SIG_IGN);
  srv->signals_.add(SIGINT);
  srv->signals_.add(SIGTERM);
  Server *raw = srv.get();
  srv->signals_.async_wait([raw](const asio::error_code &sec, int signo) {
    if (sec) return;
    std::cerr << "qlhsmd: signal " << signo << ", stopping\n";
    raw->Stop();
  });
  srv->Accept();
  return srv;
}

std::size_t Server::QuietestLoop() const {
  std::size_t best = 0;
  for (std::size_t i = 1; i < loops_.size(); ++i) {
    if (loads_[i].load(std::memory_order_relaxed) < loads_[best].load(std::memory_order_relaxed))
      best = i;
  }
  return best;
}

void Server::Accept() {
  // The accepted socket belongs to the quietest loop; the accept handler runs on the control
  // strand, as Stop() does.
  const std::size_t loop = QuietestLoop();
  acceptor_.async_accept(
      *loops_[loop], [this, loop](const asio::error_code &ec, asio::ip::tcp::socket socket) {
        if (!acceptor_.is_open()) return;
        if (!ec) {
          Admission admission = Admit(socket);
          if (admission.quotas) {
            asio::error_code nodelay_ec;
            socket.set_option(asio::ip::tcp::no_delay(true), nodelay_ec);
            auto c =
                std::make_shared<Connection>(std::move(socket), tls_.Current(), manager_, *handler_,
                                             std::move(admission), &loads_[loop], &away_);
            manager_.Add(c);
            c->Start();
          }  // else too many are being turned away already: closed without a word
        }
        Accept();
      });
}

Admission Server::Admit(const asio::ip::tcp::socket &socket) {
  Admission a;
  asio::error_code ec;
  asio::ip::address addr = socket.remote_endpoint(ec).address();
  if (ec) return a;
  if (addr.is_v6() && addr.to_v6().is_v4_mapped())
    addr = asio::ip::make_address_v4(asio::ip::v4_mapped, addr.to_v6());
  a.address_key = AddressKey(addr);
  a.peer = addr.to_string();
  a.loopback = addr.is_loopback();
  bool allowed = false;
  if (addr.is_v4()) {
    const auto b = addr.to_v4().to_bytes();
    allowed = engine_->system().ip_filter().Allowed(b.data(), b.size());
  } else {
    const auto b = addr.to_v6().to_bytes();
    allowed = engine_->system().ip_filter().Allowed(b.data(), b.size());
  }
  if (!allowed) {
    a.refusal = Code::kAddressRefused;
    a.refusal_detail = "this address may not connect";
  } else if (manager_.Count() >= quotas_->limits().max_connections) {
    a.refusal = Code::kLimitReached;
    a.refusal_detail = "too many connections";
  } else if (!quotas_->EnterPending(a.address_key)) {
    a.refusal = Code::kLimitReached;
    a.refusal_detail = "too many connections not logged in yet";
  }
  if (a.refusal != Code::kOk && !quotas_->EnterRefusing()) return a;
  a.quotas = quotas_.get();
  return a;
}

void Server::Run() {
  std::vector<std::thread> threads;
  for (auto &loop : loops_) threads.emplace_back([&loop] { loop->run(); });
  io_.run();
  for (auto &t : threads) t.join();
  // Requests still away answer onto loops that have stopped: let them finish, then run what they
  // posted, so that their connections end while the handler and the quotas still stand.
  away_.join();
  for (auto &loop : loops_) {
    loop->restart();
    loop->run();
  }
}

void Server::Stop() {
  // Requests away on the pool that wait on other hosts for long end now; Run() waits for them.
  if (engine_) engine_->StopOutboundRequests();
  asio::post(control_, [this] {
    asio::error_code ec;
    acceptor_.close(ec);
    signals_.cancel(ec);
    if (discovery_) discovery_->Close();
    manager_.StopAll();
    // Each loop ends once its connections have closed.
    for (auto &guard : keep_running_) guard.reset();
  });
}

}  // namespace qlhsm::server
