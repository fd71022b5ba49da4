// Slows password guessing without locking anyone out.
//
// Failed logins are counted per user name (known or not, so that the delay tells nothing about
// which names exist) and per source address. A login attempt is answered after a delay that
// grows with the larger of the two counts: none for the first kFreeFailures failures, then
// doubling from step up to max. The delay applies to the answer whatever it is, so a right
// password after failures still logs in, only later, and the time of the answer does not tell
// a right password from a wrong one. A successful login clears both counts; a count not raised
// for `forget` is dropped.
//
// The throttle only computes the delay: the daemon sends the answer later by a timer, never by
// blocking a thread.
//
// Thread safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace qlhsm::users {

struct ThrottlePolicy {
  uint32_t free_failures = 3;
  std::chrono::milliseconds step{250};
  std::chrono::milliseconds max{2000};
  std::chrono::seconds forget{15 * 60};
  // Most names and addresses remembered each; past it the oldest counts that may be forgotten
  // go first, and new names or addresses are not counted while none can.
  size_t max_entries = 100000;
};

class LoginThrottle {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;
  explicit LoginThrottle(ThrottlePolicy policy = {}, Clock clock = nullptr);

  // The delay of the answer to a login attempt by `user` from `source` (may be empty).
  std::chrono::milliseconds Delay(std::string_view user, std::string_view source);
  void Failed(std::string_view user, std::string_view source);
  void Succeeded(std::string_view user, std::string_view source);

  // The delay after `failures` failures.
  std::chrono::milliseconds DelayAfter(uint32_t failures) const;

 private:
  struct Count {
    uint32_t failures = 0;
    std::chrono::steady_clock::time_point last{};
  };
  using Map = std::unordered_map<std::string, Count>;
  uint32_t Current(Map &map, std::string_view key, std::chrono::steady_clock::time_point now);
  void Raise(Map &map, std::string_view key, std::chrono::steady_clock::time_point now);
  void Prune(Map &map, std::chrono::steady_clock::time_point now);

  const ThrottlePolicy policy_;
  Clock clock_;
  std::mutex mu_;
  Map users_;
  Map sources_;
};

}  // namespace qlhsm::users
