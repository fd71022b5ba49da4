// Signatures and ciphers.
#include <algorithm>

#include "server/handlers/handlers.h"
#include "wire_values.h"

namespace qlhsm::server::handlers {

void SignHash(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SignHash &h = req.sign_hash();
  // The key's longest signature goes with every answer, a refusal for a short buffer included:
  // ECDSA signatures vary in length, so a size query must learn the longest.
  size_t longest = 0;
  Result<secure::Bytes> sig =
      c.engine.keys().SignHash(c.session, ToKeyArg(h.key()), h.hash_algorithm(),
                               ToBytes(h.digest()), h.flags(), h.out_capacity(), &longest);
  if (longest) r->set_needed_length(longest);
  Reply(sig, r, [&](const secure::Bytes &s) {
    r->set_needed_length(std::max(longest, s.size()));
    r->mutable_signature()->set_signature(s.data(), s.size());
  });
}

void VerifySignature(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::VerifySignature &v = req.verify_signature();
  SetStatus(c.engine.keys().VerifySignature(c.session, ToKeyArg(v.key()), v.hash_algorithm(),
                                            ToBytes(v.digest()), ToBytes(v.signature())),
            r);
}

void BatchSign(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::BatchSign &b = req.batch_sign();
  Reply(c.engine.keys().BatchSign(c.session, ToKeyArg(b.key()), b.count(), ToBytes(b.blocks())), r,
        [&](const secure::Bytes &out) { r->mutable_blob()->set_data(ToString(out)); });
}

void Cipher(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::Cipher &m = req.cipher();
  uint64_t needed = 0;
  secure::Bytes iv;
  // The private-key encryption of RSA (a signature over a given DigestInfo) is a call of its own.
  Result<secure::Bytes> out =
      !m.decrypt() && (m.flags() & qlproto::kEncryptRsaPrivate) != 0
          ? c.engine.keys().RsaPrivateEncrypt(c.session, ToKeyArg(m.key()), ToBytes(m.data()),
                                              m.out_capacity(), &needed)
          : c.engine.keys().Cipher(c.session, ToKeyArg(m.key()), !m.decrypt(), m.final(),
                                   ToBytes(m.data()), m.out_capacity(), &needed, &iv);
  if (!out.ok() && out.status().code() == Code::kBufferTooSmall) r->set_needed_length(needed);
  Reply(out, r, [&](const secure::Bytes &data) {
    r->mutable_cipher()->set_data(data.data(), data.size());
    if (!iv.empty()) r->mutable_cipher()->set_iv(iv.data(), iv.size());
  });
}

}  // namespace qlhsm::server::handlers
