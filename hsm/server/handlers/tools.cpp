// Tools run by the HSM: ping, traceroute and the self-check, each answering a text report.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void HsmTool(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::HsmTool &m = req.hsm_tool();
  std::string report;
  Status st = c.engine.tools().Run(c.session, m.tool(), m.target(), m.flags(), &report);
  // A failed self-check still hands out its report, which says what failed.
  if (st.ok() || !report.empty()) r->mutable_tool_report()->set_text(std::move(report));
  SetStatus(st, r);
}

}  // namespace qlhsm::server::handlers
