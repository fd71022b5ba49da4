// Directory binding: publish the HSM's entry in an LDAP directory, and remove it.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void DirectoryBind(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::DirectoryBind &b = req.directory_bind();
  ReplyEmpty(c.engine.directory().Bind(c.session, b.url(), b.bind_dn(), b.password(), b.flags()),
             r);
}

void DirectoryUnbind(const pb::Request &req, Call &c, pb::Response *r) {
  ReplyEmpty(c.engine.directory().Unbind(c.session, req.directory_unbind().flags()), r);
}

}  // namespace qlhsm::server::handlers
