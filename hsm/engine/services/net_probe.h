// The network tools the HSM runs for an operator: ping and traceroute, without privileges.
//
// Ping sends ICMP echo requests through an unprivileged datagram socket (Linux ping sockets,
// allowed by net.ipv4.ping_group_range) and falls back to TCP connect probes where the system
// refuses that socket. Traceroute sends UDP datagrams with a growing TTL and reads the ICMP
// answers (time exceeded, port unreachable) from the socket's error queue (IP_RECVERR). Both
// are IPv4 and bounded in time: a few seconds at most, so that the connection's worker that runs
// them is soon free again.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "engine/status.h"

namespace qlhsm::net_probe {

// A tool's target: "host" or "host:port" (port 1 to 65535).
struct Target {
  std::string host;
  uint16_t port = 0;  // 0: the tool's default
};

// kBadArgument for an empty host, a character outside [A-Za-z0-9.-_], a host longer than 253
// bytes or a bad port. The audit log records the target, so it never holds a space.
Result<Target> ParseTarget(std::string_view text);

struct PingOptions {
  int probes = 3;
  std::chrono::milliseconds wait{1000};  // each probe's
  bool tcp_only = false;                 // a TCP connect probe even where ICMP is allowed
  uint16_t tcp_port = 4433;              // when the target names none
};

// The report: the method, one line per probe, a summary. kTargetUnresolved when the host does
// not resolve to an IPv4 address.
Result<std::string> Ping(const Target &target, const PingOptions &options = {});

struct TraceOptions {
  int max_hops = 16;
  std::chrono::milliseconds hop_wait{500};
  std::chrono::milliseconds total{5000};  // the whole trace
  uint16_t base_port = 33434;             // hop n probes base_port + n - 1
};

// The report: one line per hop (number, address or "*", time), then whether the target was
// reached and at which hop.
Result<std::string> Traceroute(const Target &target, const TraceOptions &options = {});

}  // namespace qlhsm::net_probe
