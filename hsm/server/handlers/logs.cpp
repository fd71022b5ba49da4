// The audit log: a read page by page, truncation, following it.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void LogOpen(const pb::Request &, Call &c, pb::Response *r) {
  Reply(c.engine.logs().Open(c.session), r,
        [&](uint64_t pages) { r->mutable_number()->set_value(pages); });
}

void LogPage(const pb::Request &req, Call &c, pb::Response *r) {
  Reply(c.engine.logs().ReadPage(c.session, req.log_page().number()), r,
        [&](const audit::Page &page) { r->mutable_blob()->set_data(LogService::WirePage(page)); });
}

void TruncateLog(const pb::Request &req, Call &c, pb::Response *r) {
  ReplyEmpty(c.engine.logs().Truncate(c.session, req.truncate_log().flags()), r);
}

namespace {
// Lines a follower may fall behind by before lines are dropped (and counted).
constexpr size_t kFollowQueueLines = 4096;
}  // namespace

void FollowLog(const pb::Request &req, Call &c, pb::Response *r) {
  if (c.state.follow) {
    return SetStatus(Status::Error(Code::kBadState, "this connection follows the log already"), r);
  }
  auto queue = std::make_shared<audit::FollowQueue>(kFollowQueueLines);
  Result<uint64_t> id =
      c.engine.logs().Follow(c.session, [queue](const std::string &line) { queue->Push(line); });
  if (id.ok()) {
    c.state.follow = queue;
    c.state.follow_id = *id;
    c.state.follow_request = req.id();
  }
  Reply(id, r, [&](uint64_t) { r->mutable_empty(); });
}

}  // namespace qlhsm::server::handlers
