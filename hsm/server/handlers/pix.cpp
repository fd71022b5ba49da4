// PIX requests over mutual TLS, made by the HSM with a stored key and certificate.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void PixRequest(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::PixRequest &m = req.pix_request();
  PixHttpRequest in;
  in.key_name = m.key_name();
  in.cert_name = m.cert_name();
  in.chain_name = m.chain_name();
  in.method = m.method();
  in.url = m.url();
  in.headers = m.headers();
  in.body = ToBytes(m.body());
  in.timeout_ms = m.timeout_ms();
  Result<PixHttpAnswer> answer = c.engine.pki().PixRequest(c.session, in);
  // An answer that does not fit in one frame cannot be handed over.
  if (answer.ok() && answer->body.size() > FramePayload(c))
    return SetStatus(Status::Error(Code::kLimitReached, "the answer does not fit in a frame"), r);
  Reply(answer, r, [&](const PixHttpAnswer &a) {
    pb::PixAnswer *out = r->mutable_pix_answer();
    out->set_http_status(a.http_status);
    out->set_body(a.body);
  });
}

}  // namespace qlhsm::server::handlers
