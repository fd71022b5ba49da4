// The lines waiting for one follower of the log. The log's writers only queue (never wait for the
// follower's network), so a slow follower never slows the HSM: past `capacity` lines, new lines
// are counted and dropped, and the follower's next batch opens with one line saying how many it
// missed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace qlhsm::audit {

class FollowQueue {
 public:
  explicit FollowQueue(size_t capacity) : capacity_(capacity) {}

  // Called under the log's lock: queues the line, and wakes the follower when the queue was
  // empty (one wake per batch).
  void Push(const std::string &line) {
    std::function<void()> wake;
    {
      std::lock_guard<std::mutex> lock(mu_);
      const bool was_empty = lines_.empty() && missed_ == 0;
      if (lines_.size() >= capacity_)
        ++missed_;
      else
        lines_.push_back(line);
      if (was_empty) wake = wake_;
    }
    if (wake) wake();
  }

  // How the follower is woken (it must not block; it runs on a writer's thread).
  void SetWake(std::function<void()> wake) {
    std::lock_guard<std::mutex> lock(mu_);
    wake_ = std::move(wake);
  }

  // Takes up to `most` lines, the missed-lines notice first when there is one.
  std::vector<std::string> Take(size_t most) {
    std::vector<std::string> out;
    std::lock_guard<std::mutex> lock(mu_);
    if (missed_ > 0) {
      out.push_back(MissedLine(missed_));
      missed_ = 0;
    }
    while (!lines_.empty() && out.size() < most) {
      out.push_back(std::move(lines_.front()));
      lines_.pop_front();
    }
    return out;
  }

  bool Empty() {
    std::lock_guard<std::mutex> lock(mu_);
    return lines_.empty() && missed_ == 0;
  }

  static std::string MissedLine(uint64_t n) {
    return "*** " + std::to_string(n) + " log lines missed: the follower fell behind ***";
  }

 private:
  const size_t capacity_;
  std::mutex mu_;
  std::deque<std::string> lines_;
  uint64_t missed_ = 0;
  std::function<void()> wake_;
};

}  // namespace qlhsm::audit
