#include "engine/users/login_throttle.h"

#include <algorithm>

namespace qlhsm::users {

LoginThrottle::LoginThrottle(ThrottlePolicy policy, Clock clock)
    : policy_(policy), clock_(std::move(clock)) {
  if (!clock_) clock_ = [] { return std::chrono::steady_clock::now(); };
}

std::chrono::milliseconds LoginThrottle::DelayAfter(uint32_t failures) const {
  if (failures < policy_.free_failures) return std::chrono::milliseconds(0);
  const uint32_t doublings = std::min<uint32_t>(failures - policy_.free_failures, 20);
  const auto delay = policy_.step * (int64_t{1} << doublings);
  return std::min(delay, policy_.max);
}

uint32_t LoginThrottle::Current(Map &map, std::string_view key,
                                std::chrono::steady_clock::time_point now) {
  auto it = map.find(std::string(key));
  if (it == map.end()) return 0;
  if (now - it->second.last >= policy_.forget) {
    map.erase(it);
    return 0;
  }
  return it->second.failures;
}

std::chrono::milliseconds LoginThrottle::Delay(std::string_view user, std::string_view source) {
  const auto now = clock_();
  std::lock_guard<std::mutex> lock(mu_);
  uint32_t n = Current(users_, user, now);
  if (!source.empty()) n = std::max(n, Current(sources_, source, now));
  return DelayAfter(n);
}

void LoginThrottle::Prune(Map &map, std::chrono::steady_clock::time_point now) {
  for (auto it = map.begin(); it != map.end();) {
    if (now - it->second.last >= policy_.forget)
      it = map.erase(it);
    else
      ++it;
  }
}

void LoginThrottle::Raise(Map &map, std::string_view key,
                          std::chrono::steady_clock::time_point now) {
  auto it = map.find(std::string(key));
  if (it == map.end()) {
    if (map.size() >= policy_.max_entries) Prune(map, now);
    if (map.size() >= policy_.max_entries) return;
    it = map.emplace(std::string(key), Count{}).first;
  } else if (now - it->second.last >= policy_.forget) {
    it->second.failures = 0;
  }
  if (it->second.failures < UINT32_MAX) ++it->second.failures;
  it->second.last = now;
}

void LoginThrottle::Failed(std::string_view user, std::string_view source) {
  const auto now = clock_();
  std::lock_guard<std::mutex> lock(mu_);
  Raise(users_, user, now);
  if (!source.empty()) Raise(sources_, source, now);
}

void LoginThrottle::Succeeded(std::string_view user, std::string_view source) {
  std::lock_guard<std::mutex> lock(mu_);
  users_.erase(std::string(user));
  if (!source.empty()) sources_.erase(std::string(source));
}

}  // namespace qlhsm::users
