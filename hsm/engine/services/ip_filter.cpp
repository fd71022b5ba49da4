// The system service's allow-list of client addresses: list, add or remove a rule.
#include "engine/services/system.h"
#include "wire_values.h"

namespace qlhsm {

using access::Request;
using sessions::Session;

Result<std::vector<std::string>> SystemService::IpFilterOperation(Session &s, uint32_t operation,
                                                                  std::string_view rule) {
  using Rules = Result<std::vector<std::string>>;
  const bool list = operation == qlproto::kIpFilterList;
  const char *name = list                                 ? "ip-filter-list"
                     : operation == qlproto::kIpFilterAdd ? "ip-filter-add"
                                                          : "ip-filter-remove";
  const std::string target = list ? std::string("-") : std::string(rule);
  Op op{name, target, Request::kAdminister, list ? AuditMode::kRead : AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        if (!list && operation != qlproto::kIpFilterAdd && operation != qlproto::kIpFilterRemove)
          return Status::Error(Code::kBadArgument, "unknown address filter operation");
        if (!list) return system::ParseIpRule(rule).status();
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Rules {
        if (list) return Rules(core_.ip_filter->List());
        Status st = operation == qlproto::kIpFilterAdd ? core_.ip_filter->Add(rule)
                                                       : core_.ip_filter->Remove(rule);
        if (!st.ok()) return Rules(st);
        return Rules(std::vector<std::string>{});
      });
}

std::optional<std::string> SystemService::Setting(const char *name) const {
  Result<std::string> v = core_.store->GetSetting(name);
  if (!v.ok()) return std::nullopt;
  return v.value();
}

}  // namespace qlhsm
