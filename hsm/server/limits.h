// What the daemon allows a client that has not proved who it is, and the counters behind it.
//
// A connection is "pending" from accept until its first user login (password or access token);
// an anonymous login moves it to the anonymous quota, where it stays until a user login or its
// close. Pending connections and anonymous sessions each have a global quota and a quota per
// source address (an IPv4 address, or the /64 network of an IPv6 one, since one host commonly
// holds a whole /64), kept well below the connection and session limits, so that clients who
// never log in can never take the slots that logged-in users need. A connection turned away (past
// a limit, or from a refused address) is kept only to answer its first frame with the reason,
// and only a few such connections at once.
#pragma once

#include <asio.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace qlhsm::server {

// Where plain (not TLS) connections are served from.
enum class PlainPolicy { kLoopback, kAny, kOff };

// Parses "loopback", "any" or "off".
std::optional<PlainPolicy> ParsePlainPolicy(std::string_view text);

// The network limits of `qlhsmd serve`. Each is also read from the store's settings under the
// name in the comment when the command line does not give it (0 or unset: not given).
struct NetLimits {
  size_t max_connections = 4096;                // "max_connections": every connection
  size_t max_pending = 256;                     // "max_pending": connections not logged in yet
  size_t max_pending_per_address = 32;          // "max_pending_per_address"
  size_t max_anonymous = 64;                    // "max_anonymous": anonymous sessions
  size_t max_anonymous_per_address = 8;         // "max_anonymous_per_address"
  uint32_t max_frame_before_login = 64 * 1024;  // not a setting: the protocol's small frames
  // Connections turned away that are still kept to tell the client why; past it they are closed
  // at once without an answer.
  size_t max_refusing = 64;
  std::chrono::milliseconds handshake_timeout{10'000};  // "handshake_timeout_ms": first byte and
                                                        // TLS handshake, from accept
  std::chrono::milliseconds login_timeout{30'000};      // "login_timeout_ms": first login, from
                                                        // accept
  std::chrono::milliseconds idle_timeout{30 * 60'000};  // "idle_timeout_ms": a session without
                                                        // requests
  PlainPolicy plain = PlainPolicy::kLoopback;           // "plain": loopback, any or off

  // Every setting "not given" (zero), for a command line to fill in.
  static NetLimits Unset();
};

// Fills every limit that `given` leaves at zero from `setting` (a stored setting by name, or
// nothing), else from the defaults above. Zero timeouts in `given` mean "not given".
NetLimits ResolveLimits(const NetLimits &given, bool plain_given,
                        const std::function<std::optional<std::string>(const char *)> &setting);

// The key per-address quotas count under.
std::string AddressKey(const asio::ip::address &address);

// Thread safe.
class Quotas {
 public:
  explicit Quotas(const NetLimits &limits) : limits_(limits) {}
  const NetLimits &limits() const { return limits_; }

  bool EnterPending(const std::string &key);
  void LeavePending(const std::string &key);
  bool EnterAnonymous(const std::string &key);
  void LeaveAnonymous(const std::string &key);
  bool EnterRefusing();
  void LeaveRefusing();

  size_t pending() const;
  size_t anonymous() const;

 private:
  struct Counts {
    size_t pending = 0;
    size_t anonymous = 0;
  };
  void Forget(std::unordered_map<std::string, Counts>::iterator it);

  const NetLimits limits_;
  mutable std::mutex mu_;
  std::unordered_map<std::string, Counts> by_address_;
  size_t pending_ = 0;
  size_t anonymous_ = 0;
  size_t refusing_ = 0;
};

}  // namespace qlhsm::server
