// Certificates and signing identities: PKCS#12 import and export, a key linked to its
// certificate, PKCS#10 requests, CMS signatures. (Typed file writes and certificate export arrive
// as WriteFile and ExportKey.)
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void ImportPkcs12(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::ImportPkcs12 &m = req.import_pkcs12();
  Pkcs12Import in;
  in.pfx = ToBytes(m.pfx());
  in.password = m.password();
  in.key_name = m.key_name();
  in.cert_name = m.cert_name();
  in.flags = m.flags();
  ReplyEmpty(c.engine.pki().ImportPkcs12(c.session, in), r);
}

void ExportPkcs12(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::ExportPkcs12 &m = req.export_pkcs12();
  Reply(c.engine.pki().ExportPkcs12(c.session, m.key_name(), m.cert_name(), m.password()), r,
        [&](const secure::Bytes &pfx) { r->mutable_blob()->set_data(ToString(pfx)); });
}

void AssociatePkcs11Key(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::AssociatePkcs11Key &m = req.associate_pkcs11_key();
  ReplyEmpty(c.engine.pki().AssociateKey(c.session, m.key_name(), m.cert_name()), r);
}

void GeneratePkcs10(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::GeneratePkcs10 &m = req.generate_pkcs10();
  Reply(c.engine.pki().GeneratePkcs10(c.session, m.key_name(), m.subject(), m.version(),
                                      m.hash_algorithm()),
        r, [&](const secure::Bytes &der) { r->mutable_blob()->set_data(ToString(der)); });
}

void Pkcs7Sign(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::Pkcs7Sign &m = req.pkcs7_sign();
  Reply(c.engine.pki().Pkcs7Sign(c.session, m.key_name(), m.cert_name(), m.chain_name(),
                                 m.attributes(), (m.flags() >> 16) & 0xFF, ToBytes(m.data())),
        r, [&](const secure::Bytes &der) { r->mutable_blob()->set_data(ToString(der)); });
}

}  // namespace qlhsm::server::handlers
