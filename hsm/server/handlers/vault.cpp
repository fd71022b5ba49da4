// The tokenisation vault: tokens and their sealed blobs.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void VaultGenToken(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::VaultGenToken &v = req.vault_gen_token();
  VaultTokenArgs args;
  args.type = v.type();
  args.mask_type = v.mask_type();
  args.checksum = v.checksum();
  args.representation = v.representation();
  args.secret = v.secret();
  Reply(c.engine.vault().GenToken(c.session, ToKeyArg(v.key()), args), r, [&](const VaultToken &t) {
    r->mutable_vault_token()->set_token(t.token);
    r->mutable_vault_token()->set_blob(ToString(t.blob));
  });
}

void VaultGetData(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::VaultGetData &v = req.vault_get_data();
  Reply(c.engine.vault().GetData(c.session, ToKeyArg(v.key()), v.what(), ToBytes(v.blob()),
                                 v.flags()),
        r, [&](const std::string &data) { r->mutable_blob()->set_data(data); });
}

}  // namespace qlhsm::server::handlers
