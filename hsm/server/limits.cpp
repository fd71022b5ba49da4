#include "server/limits.h"

#include <algorithm>

namespace qlhsm::server {

std::optional<PlainPolicy> ParsePlainPolicy(std::string_view text) {
  if (text == "loopback") return PlainPolicy::kLoopback;
  if (text == "any") return PlainPolicy::kAny;
  if (text == "off") return PlainPolicy::kOff;
  return std::nullopt;
}

namespace {

std::optional<uint64_t> Number(const std::optional<std::string> &text) {
  if (!text) return std::nullopt;
  try {
    size_t used = 0;
    const unsigned long long n = std::stoull(*text, &used);
    if (used != text->size() || n == 0) return std::nullopt;
    return n;
  } catch (const std::exception &) {
    return std::nullopt;
  }
}

}  // namespace

NetLimits NetLimits::Unset() {
  NetLimits n;
  n.max_connections = n.max_pending = n.max_pending_per_address = 0;
  n.max_anonymous = n.max_anonymous_per_address = 0;
  n.handshake_timeout = n.login_timeout = n.idle_timeout = std::chrono::milliseconds(0);
  return n;
}

NetLimits ResolveLimits(const NetLimits &given, bool plain_given,
                        const std::function<std::optional<std::string>(const char *)> &setting) {
  const NetLimits defaults;
  NetLimits out = given;
  out.max_frame_before_login = defaults.max_frame_before_login;
  out.max_refusing = defaults.max_refusing;
  auto count = [&](size_t NetLimits::*field, const char *name) {
    if (given.*field != 0) return;
    std::optional<uint64_t> n = Number(setting(name));
    out.*field = n ? static_cast<size_t>(*n) : defaults.*field;
  };
  auto time = [&](std::chrono::milliseconds NetLimits::*field, const char *name) {
    if ((given.*field).count() != 0) return;
    std::optional<uint64_t> n = Number(setting(name));
    out.*field = n ? std::chrono::milliseconds(*n) : defaults.*field;
  };
  count(&NetLimits::max_connections, "max_connections");
  count(&NetLimits::max_pending, "max_pending");
  count(&NetLimits::max_pending_per_address, "max_pending_per_address");
  count(&NetLimits::max_anonymous, "max_anonymous");
  count(&NetLimits::max_anonymous_per_address, "max_anonymous_per_address");
  time(&NetLimits::handshake_timeout, "handshake_timeout_ms");
  time(&NetLimits::login_timeout, "login_timeout_ms");
  time(&NetLimits::idle_timeout, "idle_timeout_ms");
  if (!plain_given) {
    std::optional<std::string> text = setting("plain");
    std::optional<PlainPolicy> p = text ? ParsePlainPolicy(*text) : std::nullopt;
    out.plain = p ? *p : defaults.plain;
  }
  return out;
}

std::string AddressKey(const asio::ip::address &address) {
  if (address.is_v4()) {
    const auto b = address.to_v4().to_bytes();
    return std::string(reinterpret_cast<const char *>(b.data()), b.size());
  }
  const asio::ip::address_v6 v6 = address.to_v6();
  if (v6.is_v4_mapped()) return AddressKey(asio::ip::make_address_v4(asio::ip::v4_mapped, v6));
  const auto b = v6.to_bytes();
  std::string key(1 + 8, '6');  // a mark, so no IPv6 key equals an IPv4 one, then the /64
  std::copy(b.begin(), b.begin() + 8, key.begin() + 1);
  return key;
}

bool Quotas::EnterPending(const std::string &key) {
  std::lock_guard<std::mutex> lock(mu_);
  if (pending_ >= limits_.max_pending) return false;
  Counts &c = by_address_[key];
  if (c.pending >= limits_.max_pending_per_address) {
    if (c.pending == 0 && c.anonymous == 0) by_address_.erase(key);
    return false;
  }
  ++c.pending;
  ++pending_;
  return true;
}

void Quotas::LeavePending(const std::string &key) {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = by_address_.find(key);
  if (it == by_address_.end() || it->second.pending == 0) return;
  --it->second.pending;
  --pending_;
  Forget(it);
}

bool Quotas::EnterAnonymous(const std::string &key) {
  std::lock_guard<std::mutex> lock(mu_);
  if (anonymous_ >= limits_.max_anonymous) return false;
  Counts &c = by_address_[key];
  if (c.anonymous >= limits_.max_anonymous_per_address) {
    if (c.pending == 0 && c.anonymous == 0) by_address_.erase(key);
    return false;
  }
  ++c.anonymous;
  ++anonymous_;
  return true;
}

void Quotas::LeaveAnonymous(const std::string &key) {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = by_address_.find(key);
  if (it == by_address_.end() || it->second.anonymous == 0) return;
  --it->second.anonymous;
  --anonymous_;
  Forget(it);
}

bool Quotas::EnterRefusing() {
  std::lock_guard<std::mutex> lock(mu_);
  if (refusing_ >= limits_.max_refusing) return false;
  ++refusing_;
  return true;
}

void Quotas::LeaveRefusing() {
  std::lock_guard<std::mutex> lock(mu_);
  if (refusing_ > 0) --refusing_;
}

size_t Quotas::pending() const {
  std::lock_guard<std::mutex> lock(mu_);
  return pending_;
}

size_t Quotas::anonymous() const {
  std::lock_guard<std::mutex> lock(mu_);
  return anonymous_;
}

void Quotas::Forget(std::unordered_map<std::string, Counts>::iterator it) {
  if (it->second.pending == 0 && it->second.anonymous == 0) by_address_.erase(it);
}

}  // namespace qlhsm::server
