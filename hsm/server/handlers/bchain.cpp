// Blockchain signatures checked and keys recovered without a key of the HSM.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

namespace {

template <typename M>
BchainSignatureArgs SignatureOf(const M &m) {
  return BchainSignatureArgs{m.type(), m.hash_mode(), ToBytes(m.hash()), ToBytes(m.signature())};
}

}  // namespace

void BchainVerify(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::BchainVerify &v = req.bchain_verify();
  ReplyEmpty(
      c.engine.bchain().Verify(c.session, SignatureOf(v), v.pubkey_type(), ToBytes(v.pubkey())), r);
}

void BchainRecoverPbk(const pb::Request &req, Call &c, pb::Response *r) {
  Reply(c.engine.bchain().RecoverPublicKey(c.session, SignatureOf(req.bchain_recover_pbk())), r,
        [&](const secure::Bytes &key) { r->mutable_blob()->set_data(ToString(key)); });
}

}  // namespace qlhsm::server::handlers
