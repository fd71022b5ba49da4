// OATH: tokens of users, and one-time passwords checked against blobs the caller keeps.
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

void AssignToken(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::AssignToken &a = req.assign_token();
  ReplyEmpty(c.engine.oath().AssignToken(c.session, a.user(), a.type(), ToBytes(a.seed()),
                                         a.time_step(), a.t0(), a.flags()),
             r);
}

void UnassignToken(const pb::Request &req, Call &c, pb::Response *r) {
  ReplyEmpty(c.engine.oath().UnassignToken(c.session, req.unassign_token().user()), r);
}

void OathResync(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::OathResync &o = req.oath_resync();
  ReplyEmpty(c.engine.oath().Resync(c.session, o.user(), o.otp1(), o.otp2()), r);
}

}  // namespace qlhsm::server::handlers
