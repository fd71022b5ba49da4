// Secret keeping: kept secrets and their custodians' shares.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

namespace {

std::vector<secure::Bytes> Shares(const pb::SKeepShares &m) {
  std::vector<secure::Bytes> shares;
  shares.reserve(m.shares_size());
  for (const std::string &s : m.shares()) shares.push_back(ToBytes(s));
  return shares;
}

void SetNumber(uint32_t value, pb::Response *r) {
  r->mutable_number()->set_value(value);
}

}  // namespace

void SKeepNew(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SKeepSecret &m = req.skeep_new();
  ReplyEmpty(c.engine.skeep().New(c.session, m.id(), m.level(), m.auth()), r);
}

void SKeepRemove(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SKeepSecret &m = req.skeep_remove();
  ReplyEmpty(c.engine.skeep().Remove(c.session, m.id(), m.level(), m.auth()), r);
}

void SKeepSplit(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SKeepSplit &m = req.skeep_split();
  Reply(c.engine.skeep().Split(c.session, m.id(), m.level(), m.auth(), m.m(), m.n()), r,
        [&](const std::vector<secure::Bytes> &shares) {
          pb::MofNParts *out = r->mutable_mofn_parts();
          for (const secure::Bytes &s : shares) out->add_parts(ToString(s));
        });
}

void SKeepProbe(const pb::Request &req, Call &c, pb::Response *r) {
  Reply(c.engine.skeep().Probe(c.session, req.skeep_probe().id()), r,
        [&](uint32_t v) { SetNumber(v, r); });
}

void SKeepMatch(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SKeepShares &m = req.skeep_match();
  ReplyEmpty(c.engine.skeep().Match(c.session, m.id(), Shares(m)), r);
}

void SKeepRecover(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SKeepShares &m = req.skeep_recover();
  Reply(c.engine.skeep().Recover(c.session, m.id(), Shares(m)), r,
        [&](uint32_t v) { SetNumber(v, r); });
}

}  // namespace qlhsm::server::handlers
