// Hashes: digests, HMAC and CMAC kept running in the session.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void CreateHash(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::CreateHash &h = req.create_hash();
  Reply(c.engine.hashes().CreateHash(c.session, h.algorithm(), ToKeyArg(h.key())), r,
        [&](uint64_t handle) { r->mutable_number()->set_value(handle); });
}

void HashData(const pb::Request &req, Call &c, pb::Response *r) {
  SetStatus(c.engine.hashes().HashData(c.session, req.hash_data().hash(),
                                       ToBytes(req.hash_data().data())),
            r);
}

void GetHashValue(const pb::Request &req, Call &c, pb::Response *r) {
  Reply(c.engine.hashes().GetHashValue(c.session, req.get_hash_value().hash()), r,
        [&](const secure::Bytes &v) { r->mutable_blob()->set_data(ToString(v)); });
}

void DestroyHash(const pb::Request &req, Call &c, pb::Response *r) {
  SetStatus(c.engine.hashes().DestroyHash(c.session, req.destroy_hash().hash()), r);
}

}  // namespace qlhsm::server::handlers
