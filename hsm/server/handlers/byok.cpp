// Key export for a cloud's key import.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void ByokExport(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::ByokExport &m = req.byok_export();
  Reply(c.engine.byok().Export(c.session, m.key(), m.kek(), m.type(), ToBytes(m.data())), r,
        [&](const secure::Bytes &out) { r->mutable_blob()->set_data(out.data(), out.size()); });
}

}  // namespace qlhsm::server::handlers
