// XML signatures: the library canonicalises the document; the HSM checks the signer's path and
// the signature value over the digest it is given.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void VerifyCertSignature(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::VerifyCertSignature &m = req.verify_cert_signature();
  CertSignatureCheck in;
  in.certificate = ToBytes(m.certificate());
  in.issuer = m.issuer();
  in.serial = ToBytes(m.serial());
  in.chain_name = m.chain_name();
  in.crl_name = m.crl_name();
  in.hash_algorithm = m.hash_algorithm();
  in.digest = ToBytes(m.digest());
  in.signature = ToBytes(m.signature());
  ReplyEmpty(c.engine.pki().VerifyWithCertificate(c.session, in), r);
}

}  // namespace qlhsm::server::handlers
