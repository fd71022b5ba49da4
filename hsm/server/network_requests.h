// Requests about the daemon's network, served for the request handler.
#pragma once

#include "engine/engine.h"
#include "qlhsm.pb.h"

namespace qlhsm::server {

// QIPFilterOperation: the rules (NameList) or Empty, with the code.
void HandleIpFilter(Engine &engine, sessions::Session &session, const qlhsm::v1::IpFilter &request,
                    qlhsm::v1::Response *response);

}  // namespace qlhsm::server
