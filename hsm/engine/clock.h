// The HSM's time: this machine's clock plus an offset that an operator sets.
// The HSM never changes the machine's clock. Every time the HSM stores or reports (object and user
// creation, token issue and expiry checks, audit log stamps) is read from one Clock, so setting the
// date and time moves them all at once. The engine keeps the offset in its settings
// ("time_offset"), so it survives a restart.
//
// Thread safe: any thread may read the time while another sets the offset.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace qlhsm {

class Clock {
 public:
  // Seconds since 1970 (UTC) by this machine's clock.
  static int64_t MachineNow() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
  }
  // Seconds since 1970 (UTC) by the HSM's time.
  int64_t Now() const { return MachineNow() + offset(); }
  int64_t offset() const { return offset_.load(std::memory_order_relaxed); }
  void set_offset(int64_t seconds) { offset_.store(seconds, std::memory_order_relaxed); }

 private:
  std::atomic<int64_t> offset_{0};
};

// The machine's own time (offset 0), for parts made without an engine (tools, tests).
inline const Clock &MachineClock() {
  static const Clock clock;
  return clock;
}

}  // namespace qlhsm
