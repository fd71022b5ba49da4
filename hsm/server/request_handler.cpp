#include "server/request_handler.h"

#include <algorithm>

#include "frame.h"
#include "server/handlers/handlers.h"

namespace qlhsm::server {

namespace pb = qlhsm::v1;
using sessions::Session;

RequestHandler::RequestHandler(Engine &engine, HandlerConfig config)
    : engine_(engine), config_(std::move(config)) {
  if (config_.max_frame == 0) config_.max_frame = qlproto::kDefaultMaxFrame;
}

void RequestHandler::Refusal(Code code, std::string_view detail, pb::Response *response) {
  response->Clear();
  response->set_code(ToWire(code));
  response->set_detail(std::string(detail));
}

void RequestHandler::HandleFrame(std::string_view body, ConnectionState &state,
                                 pb::Response *response) {
  pb::Request request;
  if (Decode(body, state, &request, response)) Handle(request, state, response);
}

bool RequestHandler::Decode(std::string_view body, ConnectionState &state, pb::Request *request,
                            pb::Response *response) {
  if (qlproto::DecodeFrameBody(body, request) == qlproto::FrameStatus::kOk) return true;
  Refusal(Code::kProtocol, "a frame that is not a request", response);
  state.close_after = true;
  return false;
}

bool RequestHandler::WaitsOnOtherHosts(const pb::Request &request) {
  switch (request.body_case()) {
    case pb::Request::kHsmTool:
    case pb::Request::kDirectoryBind:
    case pb::Request::kDirectoryUnbind:
    case pb::Request::kPixRequest:
      return true;
    default:
      return false;
  }
}

void RequestHandler::Handle(const pb::Request &request, ConnectionState &state,
                            pb::Response *response) {
  response->Clear();
  response->set_id(request.id());
  if (!state.session) state.session = engine_.NewSession();
  Dispatch(request, state, response);
}

void RequestHandler::Dispatch(const pb::Request &req, ConnectionState &state, pb::Response *r) {
  // Hello opens the conversation; it is the daemon's, not the engine's.
  if (req.body_case() == pb::Request::kHello) {
    const pb::Hello &h = req.hello();
    auto *reply = r->mutable_hello();
    reply->set_protocol_version(qlproto::kProtocolVersion);
    reply->set_max_frame(config_.max_frame);
    reply->set_server_version(std::string("qlhsmd ") + kHsmVersion);
    if (qlproto::ProtocolMajor(h.protocol_version()) !=
        qlproto::ProtocolMajor(qlproto::kProtocolVersion)) {
      handlers::SetStatus(Status::Error(Code::kVersionMismatch, "protocol major version differs"),
                          r);
      state.close_after = true;
      return;
    }
    state.hello_done = true;
    r->set_code(0);
    return;
  }
  if (!state.hello_done) {
    Refusal(Code::kProtocol, "the first request must be Hello", r);
    r->set_id(req.id());
    state.close_after = true;
    return;
  }
  Session &s = *state.session;
  bool login = req.body_case() == pb::Request::kLogin || req.body_case() == pb::Request::kLogout;
  if (!login && s.auth() == sessions::AuthKind::kNone)
    return handlers::SetStatus(Status::Error(Code::kNotLoggedIn, "log in first"), r);
  handlers::Handler handler = handlers::Find(req.body_case());
  if (!handler) {
    Status st = req.body_case() == pb::Request::BODY_NOT_SET
                    ? Status::Error(Code::kNotSupported, "unknown request")
                    : engine_.Refuse(
                          s, Status::Error(Code::kNotSupported, "this service is not built yet"));
    return handlers::SetStatus(st, r);
  }
  handlers::Call call{engine_, s, state, config_};
  handler(req, call, r);
}

}  // namespace qlhsm::server
