// The allow-list's service: list, add or remove a rule.
#include "engine/engine.h"

namespace qlhsm {

using sessions::Session;

Result<std::vector<std::string>> Engine::IpFilterOperation(Session &s, uint32_t operation,
                                                           std::string_view rule) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  const char *op = operation == QL_IPF_LIST  ? "ip-filter-list"
                   : operation == QL_IPF_ADD ? "ip-filter-add"
                                             : "ip-filter-remove";
  if (operation != QL_IPF_LIST && operation != QL_IPF_ADD && operation != QL_IPF_REMOVE)
    return Status::Error(Code::kBadArgument, "unknown address filter operation");
  if (operation != QL_IPF_LIST && !system::ParseIpRule(rule).ok())
    return system::ParseIpRule(rule).status();
  const std::string target = operation == QL_IPF_LIST ? std::string("-") : std::string(rule);
  if (!access::Allowed(access::Request::kAdminister, me->mask))
    return Done(
        s, op, target,
        Result<std::vector<std::string>>(Status::Error(Code::kAccessDenied, "access denied")),
        false);
  if (operation == QL_IPF_LIST)
    return Done(s, op, target, Result<std::vector<std::string>>(ip_filter_->List()), false);
  Status st = operation == QL_IPF_ADD ? ip_filter_->Add(rule) : ip_filter_->Remove(rule);
  return Done(s, op, target,
              st.ok() ? Result<std::vector<std::string>>(std::vector<std::string>{})
                      : Result<std::vector<std::string>>(st),
              true);
}

std::optional<std::string> Engine::Setting(const char *name) const {
  Result<std::string> v = store_->GetSetting(name);
  if (!v.ok()) return std::nullopt;
  return v.value();
}

}  // namespace qlhsm
