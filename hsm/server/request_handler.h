// Turns one decoded request into one response by calling the engine. It knows nothing of sockets,
// so the daemon's connections, the tests and the fuzzer drive it the same way.
//
// Order on every request: the first one must be Hello; before a login only Hello and Login are
// served (others answer QL_ERR_NOT_LOGGED_IN); then the engine checks session, arguments, right,
// existence and state.
//
// Thread safe: one handler serves every connection; each connection passes its own state.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "engine/audit/follow_queue.h"
#include "engine/engine.h"
#include "qlhsm.pb.h"

namespace qlhsm::server {

// What one connection carries between requests.
struct ConnectionState {
  bool hello_done = false;
  bool tls = false;
  // Set by the handler when the connection must close after this response is sent.
  bool close_after = false;
  std::unique_ptr<sessions::Session> session;
  // The client's address, as the login throttle counts it (empty: not counted by address).
  std::string peer;
  // The certificate (DER) the client presented and proved in the TLS handshake; empty: none.
  secure::Bytes peer_certificate;
  // Set by a login: how long the answer must be held back (the connection sends it by a timer).
  std::chrono::milliseconds answer_delay{0};
  // Set by a FollowLog request: the lines the connection pushes from then on (as Responses
  // with the request's id), and the follower's id, which the connection ends when it closes.
  std::shared_ptr<audit::FollowQueue> follow;
  uint64_t follow_id = 0;
  uint64_t follow_request = 0;
};

class TlsContexts;

struct HandlerConfig {
  uint32_t max_frame = 0;      // announced in the Hello reply
  TlsContexts *tls = nullptr;  // the daemon's TLS identity: served by GetTlsCert, replaced by
                               // set-tls-bundle (null: no TLS, as in the fuzzer)
};

class RequestHandler {
 public:
  RequestHandler(Engine &engine, HandlerConfig config);

  void Handle(const qlhsm::v1::Request &request, ConnectionState &state,
              qlhsm::v1::Response *response);

  // Parses a frame body and handles it. A body that does not parse answers QL_ERR_PROTOCOL and
  // sets close_after.
  void HandleFrame(std::string_view body, ConnectionState &state, qlhsm::v1::Response *response);
  // The parsing step of HandleFrame: false (with the answer and close_after set) when the body
  // is not a request.
  static bool Decode(std::string_view body, ConnectionState &state, qlhsm::v1::Request *request,
                     qlhsm::v1::Response *response);
  // True for the requests that wait on other hosts (the network tools, the directory, PIX
  // requests) for up to their timeouts: the daemon serves them off its event loops.
  static bool WaitsOnOtherHosts(const qlhsm::v1::Request &request);

  // The answer sent before closing a connection whose frame header was refused (too large or
  // empty): QL_ERR_PROTOCOL, or QL_ERR_LIMIT_REACHED past the daemon's connection limit.
  static void Refusal(Code code, std::string_view detail, qlhsm::v1::Response *response);

  uint32_t max_frame() const { return config_.max_frame; }
  Engine &engine() { return engine_; }

 private:
  void Dispatch(const qlhsm::v1::Request &request, ConnectionState &state,
                qlhsm::v1::Response *response);
  Engine &engine_;
  HandlerConfig config_;
};

}  // namespace qlhsm::server
