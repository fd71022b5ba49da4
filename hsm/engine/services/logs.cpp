#include "engine/services/logs.h"

#include <cstring>

namespace qlhsm {

using access::Request;
using sessions::Session;

namespace {

constexpr const char *kCacheSetting = "log_cache";

}  // namespace

Result<uint64_t> LogService::Open(Session &s) {
  return guard_.Run(s, Op{"log-open", "-", Request::kReadStats, AuditMode::kRefusal}, NoArgs,
                    [&](const users::UserInfo &) -> Result<uint64_t> {
                      // The reader sees every line up to this request.
                      QL_RETURN_IF_ERROR(core_.audit->Flush());
                      return core_.audit->PageCount();
                    });
}

Result<audit::Page> LogService::ReadPage(Session &s, uint64_t number) {
  return guard_.Run(
      s, Op{"log-page", "-", Request::kReadStats, AuditMode::kRefusal},
      [&] {
        if (number == 0) return Status::Error(Code::kBadArgument, "log pages count from 1");
        return Status::Ok();
      },
      [&](const users::UserInfo &) { return core_.audit->ReadPage(number); });
}

std::string LogService::WirePage(const audit::Page &page) {
  std::string out;
  out.reserve(page.data.size() + 1);
  if (page.compressed) out.push_back('Z');
  out.append(page.data.begin(), page.data.end());
  return out;
}

Status LogService::Truncate(Session &s, uint32_t flags) {
  return guard_.Run(
      s, Op{"truncate-log", "-", Request::kAdminister, AuditMode::kChange},
      [&] {
        if (flags != 0) return Status::Error(Code::kBadArgument, "unknown truncation flags");
        return Status::Ok();
      },
      [&](const users::UserInfo &) { return core_.audit->Truncate(); });
}

Result<bool> LogService::SetCache(Session &s, const std::string &input) {
  uint32_t value = 0;
  const bool query = input.empty();
  if (input.size() == sizeof value)  // little-endian on the wire
    for (size_t i = 0; i < sizeof value; ++i)
      value |= uint32_t{static_cast<unsigned char>(input[i])} << (8 * i);
  const char *target = query ? "-" : value == 0 ? "off" : value == 1 ? "on" : "?";
  return guard_.Run(
      s, Op{"log-cache", target, Request::kAdminister, AuditMode::kChange},
      [&] {
        if (query) return Status::Ok();
        if (input.size() != sizeof value)
          return Status::Error(Code::kBadLength, "the log cache state is a 4-byte number");
        if (value > 1) return Status::Error(Code::kBadArgument, "the log cache is 0 off or 1 on");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Result<bool> {
        if (query) return core_.audit->cache();
        QL_RETURN_IF_ERROR(core_.store->SetSetting(kCacheSetting, value ? "on" : "off"));
        core_.audit->set_cache(value != 0);
        return value != 0;
      });
}

Status LogService::LoadCacheSetting() {
  Result<std::string> v = core_.store->GetSetting(kCacheSetting);
  if (!v.ok()) return v.status().code() == Code::kObjectNotFound ? Status::Ok() : v.status();
  if (v.value() != "on" && v.value() != "off")
    return Status::Error(Code::kInternal, "unreadable log cache setting: " + v.value());
  core_.audit->set_cache(v.value() == "on");
  return Status::Ok();
}

Result<uint64_t> LogService::Follow(Session &s, audit::AuditLog::Sink sink) {
  return guard_.Run(s, Op{"log-follow", "-", Request::kReadStats, AuditMode::kRead}, NoArgs,
                    [&](const users::UserInfo &) -> Result<uint64_t> {
                      return core_.audit->Follow(std::move(sink));
                    });
}

void LogService::Unfollow(uint64_t id) {
  core_.audit->Unfollow(id);
}

}  // namespace qlhsm
