// The addresses the daemon accepts connections from: an allow-list of rules, each an IPv4 or IPv6
// address or network ("192.0.2.7", "192.0.2.0/24", "2001:db8::/32"), kept in the store's settings
// as "ip_allow" (the rules separated by blanks).
//
// An empty list allows every address; otherwise an address is allowed when a rule holds it.
// Loopback addresses are always allowed, so that the machine's own operator can never be locked
// out. The daemon asks at accept, before any TLS work.
//
// Thread safe: Allowed() may run on every accept while an operator changes the list.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include "engine/status.h"
#include "engine/store/store.h"

namespace qlhsm::system {

inline constexpr const char *kIpAllowSetting = "ip_allow";
// Most rules in the list.
inline constexpr size_t kMaxIpRules = 256;

struct IpRule {
  bool v6 = false;
  std::array<unsigned char, 16> network{};  // IPv4: the first 4 bytes
  unsigned prefix = 0;                      // bits
  // The rule as it is listed: the network with its host bits cleared, "/prefix" only when it is
  // not a single address.
  std::string Text() const;
  bool Holds(bool v6, const unsigned char *address) const;
  bool operator==(const IpRule &o) const {
    return v6 == o.v6 && network == o.network && prefix == o.prefix;
  }
};

// kBadArgument for text that is not an address or network.
Result<IpRule> ParseIpRule(std::string_view text);

class IpFilter {
 public:
  explicit IpFilter(store::Store &store) : store_(store) {}

  // Reads the list from the store's settings.
  Status Load();

  // `address` is 4 bytes (IPv4) or 16 (IPv6; an IPv4-mapped one counts as IPv4).
  bool Allowed(const unsigned char *address, size_t size) const;

  std::vector<std::string> List() const;
  // kBadArgument, kObjectExists for a rule already listed, kLimitReached past kMaxIpRules.
  Status Add(std::string_view rule);
  // kBadArgument, kObjectNotFound for a rule not listed.
  Status Remove(std::string_view rule);

 private:
  Status Save(const std::vector<IpRule> &rules);

  store::Store &store_;
  mutable std::shared_mutex mu_;
  std::mutex change_mu_;  // one change at a time, so store and memory agree
  std::vector<IpRule> rules_;
};

}  // namespace qlhsm::system
