// Ping and traceroute through unprivileged sockets.
#include "engine/services/net_probe.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/errqueue.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <vector>

namespace qlhsm::net_probe {

namespace {

using Clock = std::chrono::steady_clock;

// A socket closed on every path.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
  int get() const { return fd_; }
  bool ok() const { return fd_ >= 0; }

 private:
  int fd_;
};

std::string Format(const char *fmt, auto... args) {
  char buf[256];
  int n = std::snprintf(buf, sizeof buf, fmt, args...);
  return std::string(buf, n < 0 ? 0 : std::min<size_t>(static_cast<size_t>(n), sizeof buf - 1));
}

double Ms(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

int RemainingMs(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<int64_t>(0, left.count()));
}

Result<sockaddr_in> Resolve(const std::string &host) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo *list = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &list) != 0 || list == nullptr)
    return Status::Error(Code::kTargetUnresolved, "the target does not resolve to IPv4");
  sockaddr_in addr{};
  std::memcpy(&addr, list->ai_addr, sizeof addr);
  freeaddrinfo(list);
  return addr;
}

std::string AddressText(const in_addr &a) {
  char buf[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &a, buf, sizeof buf);
  return buf;
}

uint16_t Checksum(const uint8_t *data, size_t len) {
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < len; i += 2) sum += static_cast<uint32_t>(data[i] << 8 | data[i + 1]);
  if (len & 1) sum += static_cast<uint32_t>(data[len - 1] << 8);
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

struct Tally {
  int sent = 0;
  int answered = 0;
  double min = 0, max = 0, total = 0;
  void Add(double ms) {
    min = answered == 0 ? ms : std::min(min, ms);
    max = std::max(max, ms);
    total += ms;
    ++answered;
  }
  std::string Summary(const char *answer_word) const {
    std::string s = Format("%d sent, %d %s, %d%% lost", sent, answered, answer_word,
                           sent ? (sent - answered) * 100 / sent : 0);
    if (answered) s += Format("; min/avg/max %.3f/%.3f/%.3f ms", min, total / answered, max);
    return s + "\n";
  }
};

// One echo request of sequence `seq`; the time to its reply, or a negative value when none came.
double EchoProbe(int fd, const sockaddr_in &to, uint16_t seq, std::chrono::milliseconds wait) {
  uint8_t packet[16] = {ICMP_ECHO, 0};
  packet[6] = static_cast<uint8_t>(seq >> 8);
  packet[7] = static_cast<uint8_t>(seq);
  std::memcpy(packet + 8, "qlhsmd..", 8);
  const uint16_t sum = Checksum(packet, sizeof packet);  // the kernel redoes it with its own id
  packet[2] = static_cast<uint8_t>(sum >> 8);
  packet[3] = static_cast<uint8_t>(sum);
  const Clock::time_point start = Clock::now();
  const Clock::time_point deadline = start + wait;
  if (sendto(fd, packet, sizeof packet, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) < 0)
    return -1;
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, RemainingMs(deadline)) <= 0) return -1;
    uint8_t reply[256];
    ssize_t n = recv(fd, reply, sizeof reply, 0);
    // A ping socket hands out the ICMP message without its IP header.
    if (n >= 8 && reply[0] == ICMP_ECHOREPLY && (reply[6] << 8 | reply[7]) == seq)
      return Ms(Clock::now() - start);
    if (n < 0 && errno != EINTR && errno != EAGAIN) return -1;
  }
}

// A TCP connect probe: the time until the host accepted or refused; negative when it did neither.
double ConnectProbe(const sockaddr_in &to, std::chrono::milliseconds wait, bool *refused) {
  Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd.ok()) return -1;
  const Clock::time_point start = Clock::now();
  int rc = connect(fd.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to);
  int err = rc == 0 ? 0 : errno;
  if (err == EINPROGRESS) {
    pollfd p{fd.get(), POLLOUT, 0};
    if (poll(&p, 1, static_cast<int>(wait.count())) <= 0) return -1;
    socklen_t len = sizeof err;
    getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &err, &len);
  }
  *refused = err == ECONNREFUSED;
  if (err != 0 && err != ECONNREFUSED) return -1;
  return Ms(Clock::now() - start);
}

}  // namespace

Result<Target> ParseTarget(std::string_view text) {
  Target t;
  std::string_view host = text;
  if (size_t colon = text.rfind(':'); colon != std::string_view::npos) {
    host = text.substr(0, colon);
    std::string_view port = text.substr(colon + 1);
    unsigned value = 0;
    auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), value);
    if (port.empty() || ec != std::errc() || end != port.data() + port.size() || value == 0 ||
        value > 65535)
      return Status::Error(Code::kBadArgument, "the target's port is 1 to 65535");
    t.port = static_cast<uint16_t>(value);
  }
  if (host.empty() || host.size() > 253)
    return Status::Error(Code::kBadArgument, "the target names no host");
  for (char ch : host) {
    const bool allowed = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') ||
                         (ch >= '0' && ch <= '9') || ch == '.' || ch == '-' || ch == '_';
    if (!allowed) return Status::Error(Code::kBadArgument, "the target is no host name");
  }
  t.host = std::string(host);
  return t;
}

Result<std::string> Ping(const Target &target, const PingOptions &options) {
  Result<sockaddr_in> to = Resolve(target.host);
  if (!to.ok()) return to.status();
  const std::string address = AddressText(to->sin_addr);
  Tally tally;
  std::string report;

  Fd icmp(options.tcp_only ? -1 : socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_ICMP));
  if (icmp.ok()) {
    report = Format("ping %s (%s): ICMP echo, %d probes\n", target.host.c_str(), address.c_str(),
                    options.probes);
    for (int i = 1; i <= options.probes; ++i) {
      ++tally.sent;
      double ms = EchoProbe(icmp.get(), *to, static_cast<uint16_t>(i), options.wait);
      if (ms < 0) {
        report +=
            Format("probe %d: no reply within %d ms\n", i, static_cast<int>(options.wait.count()));
      } else {
        tally.Add(ms);
        report += Format("probe %d: reply in %.3f ms\n", i, ms);
      }
    }
    return report + tally.Summary("received");
  }

  const uint16_t port = target.port ? target.port : options.tcp_port;
  to->sin_port = htons(port);
  report = Format("ping %s (%s): TCP connect to port %u%s, %d probes\n", target.host.c_str(),
                  address.c_str(), static_cast<unsigned>(port),
                  options.tcp_only ? "" : " (ICMP echo not allowed here)", options.probes);
  for (int i = 1; i <= options.probes; ++i) {
    ++tally.sent;
    bool refused = false;
    double ms = ConnectProbe(*to, options.wait, &refused);
    if (ms < 0) {
      report +=
          Format("probe %d: no answer within %d ms\n", i, static_cast<int>(options.wait.count()));
    } else {
      tally.Add(ms);
      report += Format("probe %d: %s in %.3f ms\n", i, refused ? "refused" : "connected", ms);
    }
  }
  return report + tally.Summary("answered");
}

Result<std::string> Traceroute(const Target &target, const TraceOptions &options) {
  Result<sockaddr_in> to = Resolve(target.host);
  if (!to.ok()) return to.status();
  const std::string address = AddressText(to->sin_addr);
  const uint16_t base = target.port ? target.port : options.base_port;
  std::string report =
      Format("traceroute to %s (%s): UDP from port %u, %d hops max\n", target.host.c_str(),
             address.c_str(), static_cast<unsigned>(base), options.max_hops);
  const Clock::time_point end = Clock::now() + options.total;
  int reached = 0;
  std::string stop;
  for (int hop = 1; hop <= options.max_hops && reached == 0 && stop.empty(); ++hop) {
    if (Clock::now() >= end) {
      stop = "stopped: the trace's time is up";
      break;
    }
    // A socket per hop, so that a late answer to an earlier hop is never taken for this one.
    Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    int on = 1, ttl = hop;
    sockaddr_in dest = *to;
    dest.sin_port = htons(static_cast<uint16_t>(base + hop - 1));
    if (!fd.ok() || setsockopt(fd.get(), SOL_IP, IP_RECVERR, &on, sizeof on) != 0 ||
        setsockopt(fd.get(), SOL_IP, IP_TTL, &ttl, sizeof ttl) != 0 ||
        connect(fd.get(), reinterpret_cast<const sockaddr *>(&dest), sizeof dest) != 0)
      return Status::Error(Code::kInternal, "no UDP socket for the trace");
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline = std::min(start + options.hop_wait, end);
    send(fd.get(), "qlhsmd", 6, 0);  // a refusal shows in the error queue below
    std::string line = Format("%2d  *\n", hop);
    for (;;) {
      pollfd p{fd.get(), POLLIN | POLLERR, 0};
      if (poll(&p, 1, RemainingMs(deadline)) <= 0) break;
      const double ms = Ms(Clock::now() - start);
      if (!(p.revents & POLLERR)) {  // the target's service answered: it is reached
        line = Format("%2d  %s  %.3f ms\n", hop, address.c_str(), ms);
        reached = hop;
        break;
      }
      char data[64], control[512];
      sockaddr_in from{};
      iovec iov{data, sizeof data};
      msghdr msg{};
      msg.msg_name = &from;
      msg.msg_namelen = sizeof from;
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      if (recvmsg(fd.get(), &msg, MSG_ERRQUEUE) < 0) break;
      const sock_extended_err *ee = nullptr;
      for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c))
        if (c->cmsg_level == SOL_IP && c->cmsg_type == IP_RECVERR)
          ee = reinterpret_cast<const sock_extended_err *>(CMSG_DATA(c));
      if (ee == nullptr || ee->ee_origin != SO_EE_ORIGIN_ICMP) continue;
      sockaddr_in offender{};
      std::memcpy(&offender, SO_EE_OFFENDER(ee), sizeof offender);
      line = Format("%2d  %s  %.3f ms\n", hop, AddressText(offender.sin_addr).c_str(), ms);
      if (ee->ee_type == ICMP_DEST_UNREACH) {
        if (ee->ee_code == ICMP_PORT_UNREACH)
          reached = hop;
        else
          stop = Format("stopped: destination unreachable (ICMP code %u) at hop %d",
                        static_cast<unsigned>(ee->ee_code), hop);
      }
      break;
    }
    report += line;
  }
  if (reached)
    report += Format("reached %s at hop %d\n", address.c_str(), reached);
  else if (!stop.empty())
    report += stop + "\n";
  else
    report += Format("not reached within %d hops\n", options.max_hops);
  return report;
}

}  // namespace qlhsm::net_probe
