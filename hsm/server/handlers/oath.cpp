// OATH token blobs: one-time passwords checked against blobs the caller keeps.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void OathCheckBlob(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::OathCheckBlob &o = req.oath_check_blob();
  Reply(c.engine.oath().CheckBlob(c.session, ToKeyArg(o.key()), ToBytes(o.blob()), o.otp(),
                                  o.flags()),
        r, [&](const secure::Bytes &blob) { r->mutable_blob()->set_data(ToString(blob)); });
}

void OathBlobInfo(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::OathBlobInfo &o = req.oath_blob_info();
  Reply(c.engine.oath().BlobInfo(c.session, ToKeyArg(o.key()), ToBytes(o.blob()), o.info()), r,
        [&](const secure::Bytes &out) { r->mutable_blob()->set_data(ToString(out)); });
}

}  // namespace qlhsm::server::handlers
