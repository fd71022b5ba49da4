// JSON Web Signatures in compact form: signed with a stored key, checked under the signer of
// their x5c header.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void JwsSign(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::JwsSign &m = req.jws_sign();
  Reply(
      c.engine.pki().SignJws(c.session, m.key_name(), m.header(), ToBytes(m.payload()), m.flags()),
      r, [&](const secure::Bytes &jws) { r->mutable_blob()->set_data(ToString(jws)); });
}

void JwsCheck(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::JwsCheck &m = req.jws_check();
  ReplyEmpty(c.engine.pki().CheckJws(c.session, m.chain_name(), m.crl_name(), m.jws(), m.flags()),
             r);
}

}  // namespace qlhsm::server::handlers
