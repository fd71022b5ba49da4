// The HSM's date and time: an offset to this machine's clock, kept in the settings.
#include <charconv>
#include <string>

#include "engine/engine.h"

namespace qlhsm {

using access::Request;
using sessions::Session;

namespace {

constexpr const char *kTimeOffsetSetting = "time_offset";
// 9999-12-31 23:59:59 UTC: four-digit years are what every time the HSM prints can show.
constexpr uint64_t kLatestTime = 253402300799;

}  // namespace

Status Engine::LoadTimeOffset() {
  Result<std::string> text = store_->GetSetting(kTimeOffsetSetting);
  if (!text.ok()) {
    // A data directory from before the HSM kept its own time runs on the machine's clock.
    if (text.status().code() == Code::kObjectNotFound) return Status::Ok();
    return text.status();
  }
  int64_t offset = 0;
  const std::string &v = text.value();
  auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), offset);
  if (ec != std::errc() || end != v.data() + v.size())
    return Status::Error(Code::kInternal, "unreadable time offset in the settings: " + v);
  clock_.set_offset(offset);
  return Status::Ok();
}

Status Engine::SetDateTime(Session &s, const secure::Bytes &input) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  if (input.size() != sizeof(uint64_t))
    return Status::Error(Code::kBadLength, "the time is an 8-byte number of seconds");
  uint64_t seconds = 0;
  for (size_t i = 0; i < sizeof seconds; ++i) seconds |= uint64_t{input[i]} << (8 * i);
  if (seconds > kLatestTime) return Status::Error(Code::kBadArgument, "a time after year 9999");
  if (!access::Allowed(Request::kAdminister, me->mask))
    return Done(s, "set-date-time", "-", Status::Error(Code::kAccessDenied, "access denied"),
                false);
  Status st;
  {
    std::lock_guard<std::mutex> lock(clock_mu_);
    const int64_t offset = static_cast<int64_t>(seconds) - Clock::MachineNow();
    st = store_->SetSetting(kTimeOffsetSetting, std::to_string(offset));
    // Memory follows the store only once the store has it, so a restart finds the same time.
    if (st.ok()) clock_.set_offset(offset);
  }
  // Logged after the change, so the log line carries the new time.
  return Done(s, "set-date-time", std::to_string(seconds), st, true);
}

}  // namespace qlhsm
