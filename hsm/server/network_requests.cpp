#include "server/network_requests.h"

namespace qlhsm::server {

void HandleIpFilter(Engine &engine, sessions::Session &session, const qlhsm::v1::IpFilter &request,
                    qlhsm::v1::Response *response) {
  Result<std::vector<std::string>> rules =
      engine.IpFilterOperation(session, request.operation(), request.rule());
  if (!rules.ok()) {
    response->set_code(ToWire(rules.status().code()));
    if (!rules.status().message().empty()) response->set_detail(rules.status().message());
    return;
  }
  response->set_code(0);
  if (request.operation() == QL_IPF_LIST) {
    auto *names = response->mutable_names();
    for (const std::string &r : rules.value()) names->add_names(r);
  } else {
    response->mutable_empty();
  }
}

}  // namespace qlhsm::server
