// M-of-N sharing: split a secret into parts and recover it.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void MofNSplit(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::MofNSplit &m = req.mofn_split();
  Reply(c.engine.sharing().Split(c.session, m.m(), m.n(), ToBytes(m.secret())), r,
        [&](const std::vector<secure::Bytes> &parts) {
          pb::MofNParts *out = r->mutable_mofn_parts();
          for (const secure::Bytes &p : parts) out->add_parts(ToString(p));
        });
}

void MofNRecover(const pb::Request &req, Call &c, pb::Response *r) {
  std::vector<secure::Bytes> parts;
  parts.reserve(req.mofn_recover().parts_size());
  for (const std::string &p : req.mofn_recover().parts()) parts.push_back(ToBytes(p));
  Reply(c.engine.sharing().Recover(c.session, parts), r, [&](const crypto::SecretBytes &secret) {
    r->mutable_blob()->set_data(reinterpret_cast<const char *>(secret.data()), secret.size());
  });
}

}  // namespace qlhsm::server::handlers
