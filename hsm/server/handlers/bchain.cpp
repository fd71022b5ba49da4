// Blockchain keys, and signatures checked and keys recovered without a key of the HSM.
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

namespace {

void SetKeyInfo(const BchainKeyFacts &f, pb::Response *r) {
  pb::BchainKeyInfo *i = r->mutable_bchain_key_info();
  i->set_type(f.type);
  i->set_version(f.version);
  i->set_depth(f.depth);
  i->set_index(f.index);
  i->set_parent_fingerprint(f.parent_fingerprint);
  i->set_chain_code(ToString(f.chain_code));
  i->set_public_key(ToString(f.public_key));
}

void SetBlob(const secure::Bytes &b, pb::Response *r) {
  r->mutable_blob()->set_data(ToString(b));
}

}  // namespace

void BchainCreateXprv(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::BchainCreateXprv &m = req.bchain_create_xprv();
  ReplyEmpty(
      c.engine.bchain().CreateXprv(c.session, m.name(), m.type(), ToBytes(m.data()), m.flags()), r);
}

void BchainDeriveChild(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::BchainDeriveChild &m = req.bchain_derive_child();
  Reply(c.engine.bchain().DeriveChild(c.session, m.parent(), m.name(), m.version(), m.index(),
                                      m.flags()),
        r, [&](const BchainKeyFacts &f) { SetKeyInfo(f, r); });
}

void BchainKeyInfo(const pb::Request &req, Call &c, pb::Response *r) {
  Reply(c.engine.bchain().KeyInfo(c.session, req.bchain_key_info().name()), r,
        [&](const BchainKeyFacts &f) { SetKeyInfo(f, r); });
}

void BchainGetPubKey(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::BchainGetPubKey &m = req.bchain_get_pubkey();
  Reply(c.engine.bchain().PublicKey(c.session, m.name(), m.type()), r,
        [&](const secure::Bytes &b) { SetBlob(b, r); });
}

void BchainGetAddress(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::BchainGetAddress &m = req.bchain_get_address();
  Reply(c.engine.bchain().Address(c.session, m.name(), m.type(), m.version(), m.hrp()), r,
        [&](const std::string &a) { r->mutable_blob()->set_data(a); });
}

void BchainSignHash(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::BchainSignHash &m = req.bchain_sign_hash();
  Reply(c.engine.bchain().SignHash(
            c.session, m.name(),
            BchainSignatureArgs{m.type(), m.hash_mode(), ToBytes(m.hash()), secure::Bytes{}}),
        r, [&](const secure::Bytes &b) { SetBlob(b, r); });
}

void BchainExportPk(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::BchainExportPk &m = req.bchain_export_pk();
  Reply(c.engine.bchain().ExportKey(c.session, m.name(), m.format(), m.version(), m.compressed()),
        r, [&](const secure::Bytes &b) { SetBlob(b, r); });
}

void BchainImportPk(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::BchainImportPk &m = req.bchain_import_pk();
  ReplyEmpty(
      c.engine.bchain().ImportKey(c.session, m.name(), m.format(), m.flags(), ToBytes(m.data())),
      r);
}

}  // namespace qlhsm::server::handlers
