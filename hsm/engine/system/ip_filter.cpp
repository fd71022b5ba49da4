#include "engine/system/ip_filter.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <optional>
#include <sstream>

namespace qlhsm::system {

namespace {

Status BadRule() {
  return Status::Error(Code::kBadArgument, "not an IPv4 or IPv6 address or network");
}

bool IsLoopback(bool v6, const unsigned char *a) {
  if (!v6) return a[0] == 127;
  static const unsigned char kLoop6[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  return std::memcmp(a, kLoop6, 16) == 0;
}

bool IsV4Mapped(const unsigned char *a) {
  static const unsigned char kPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  return std::memcmp(a, kPrefix, 12) == 0;
}

// The first `bits` bits of a and b agree.
bool SamePrefix(const unsigned char *a, const unsigned char *b, unsigned bits) {
  const unsigned whole = bits / 8;
  if (std::memcmp(a, b, whole) != 0) return false;
  const unsigned rest = bits % 8;
  if (rest == 0) return true;
  const unsigned char mask = static_cast<unsigned char>(0xff << (8 - rest));
  return (a[whole] & mask) == (b[whole] & mask);
}

}  // namespace

std::string IpRule::Text() const {
  char buf[INET6_ADDRSTRLEN] = {};
  inet_ntop(v6 ? AF_INET6 : AF_INET, network.data(), buf, sizeof buf);
  std::string text = buf;
  if (prefix != (v6 ? 128u : 32u)) text += "/" + std::to_string(prefix);
  return text;
}

bool IpRule::Holds(bool is_v6, const unsigned char *address) const {
  return is_v6 == v6 && SamePrefix(address, network.data(), prefix);
}

Result<IpRule> ParseIpRule(std::string_view text) {
  if (text.empty() || text.size() > 64) return BadRule();
  std::string addr(text);
  IpRule rule;
  std::optional<unsigned> prefix;
  if (size_t slash = addr.find('/'); slash != std::string::npos) {
    const std::string bits = addr.substr(slash + 1);
    addr.resize(slash);
    if (bits.empty() || bits.size() > 3 ||
        !std::all_of(bits.begin(), bits.end(), [](char c) { return c >= '0' && c <= '9'; }))
      return BadRule();
    prefix = static_cast<unsigned>(std::stoul(bits));
  }
  if (inet_pton(AF_INET, addr.c_str(), rule.network.data()) == 1) {
    rule.v6 = false;
  } else if (inet_pton(AF_INET6, addr.c_str(), rule.network.data()) == 1) {
    rule.v6 = true;
  } else {
    return BadRule();
  }
  const unsigned width = rule.v6 ? 128 : 32;
  rule.prefix = prefix.value_or(width);
  if (rule.prefix > width) return BadRule();
  // The host bits go, so "10.1.2.3/8" and "10.0.0.0/8" are one rule.
  for (unsigned bit = rule.prefix; bit < width; ++bit)
    rule.network[bit / 8] &= static_cast<unsigned char>(~(0x80u >> (bit % 8)));
  return rule;
}

Status IpFilter::Load() {
  Result<std::string> stored = store_.GetSetting(kIpAllowSetting);
  std::vector<IpRule> rules;
  if (stored.ok()) {
    std::istringstream in(stored.value());
    std::string word;
    while (in >> word) {
      Result<IpRule> r = ParseIpRule(word);
      if (!r.ok()) return Status::Error(Code::kInternal, "a stored address rule does not parse");
      rules.push_back(r.value());
    }
  }
  std::unique_lock lock(mu_);
  rules_ = std::move(rules);
  return Status::Ok();
}

bool IpFilter::Allowed(const unsigned char *address, size_t size) const {
  bool v6 = size == 16;
  if (size != 4 && size != 16) return false;
  if (v6 && IsV4Mapped(address)) {
    address += 12;
    v6 = false;
  }
  if (IsLoopback(v6, address)) return true;
  std::shared_lock lock(mu_);
  if (rules_.empty()) return true;
  return std::any_of(rules_.begin(), rules_.end(),
                     [&](const IpRule &r) { return r.Holds(v6, address); });
}

std::vector<std::string> IpFilter::List() const {
  std::shared_lock lock(mu_);
  std::vector<std::string> out;
  for (const IpRule &r : rules_) out.push_back(r.Text());
  return out;
}

Status IpFilter::Add(std::string_view text) {
  Result<IpRule> rule = ParseIpRule(text);
  if (!rule.ok()) return rule.status();
  std::lock_guard<std::mutex> change(change_mu_);
  std::vector<IpRule> rules;
  {
    std::shared_lock lock(mu_);
    rules = rules_;
  }
  if (std::find(rules.begin(), rules.end(), rule.value()) != rules.end())
    return Status::Error(Code::kObjectExists, "the rule is listed already");
  if (rules.size() >= kMaxIpRules)
    return Status::Error(Code::kLimitReached, "too many address rules");
  rules.push_back(rule.value());
  return Save(rules);
}

Status IpFilter::Remove(std::string_view text) {
  Result<IpRule> rule = ParseIpRule(text);
  if (!rule.ok()) return rule.status();
  std::lock_guard<std::mutex> change(change_mu_);
  std::vector<IpRule> rules;
  {
    std::shared_lock lock(mu_);
    rules = rules_;
  }
  auto it = std::find(rules.begin(), rules.end(), rule.value());
  if (it == rules.end()) return Status::Error(Code::kObjectNotFound, "no such rule");
  rules.erase(it);
  return Save(rules);
}

Status IpFilter::Save(const std::vector<IpRule> &rules) {
  std::string text;
  for (const IpRule &r : rules) {
    if (!text.empty()) text += ' ';
    text += r.Text();
  }
  QL_RETURN_IF_ERROR(store_.SetSetting(kIpAllowSetting, text));
  std::unique_lock lock(mu_);
  rules_ = rules;
  return Status::Ok();
}

}  // namespace qlhsm::system
