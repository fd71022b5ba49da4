// Finding HSMs on the local network: one query datagram to each broadcast address (or to
// $QLAPI_DISCOVERY_ADDR), then every answer that echoes the query's nonce, until the timeout.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <openssl/rand.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "api_common.h"
#include "discovery_wire.h"

using namespace qlapi;
namespace dw = qlproto::discovery;

namespace {

constexpr uint32_t kMaxTimeoutMs = 60000;

class Socket {
 public:
  explicit Socket(int family) : fd_(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
  ~Socket() {
    if (fd_ >= 0) close(fd_);
  }
  Socket(const Socket &) = delete;
  Socket &operator=(const Socket &) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// "host:port" or "[v6]:port" into an address; false when it does not resolve.
bool ResolveTarget(const std::string &text, sockaddr_storage *out, socklen_t *len) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon + 1 >= text.size()) return false;
  std::string host = text.substr(0, colon);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  addrinfo hints{};
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo *res = nullptr;
  if (getaddrinfo(host.c_str(), text.c_str() + colon + 1, &hints, &res) != 0 || res == nullptr)
    return false;
  std::memcpy(out, res->ai_addr, res->ai_addrlen);
  *len = res->ai_addrlen;
  freeaddrinfo(res);
  return true;
}

// The broadcast address of each IPv4 interface that has one, at the discovery port.
std::vector<sockaddr_in> BroadcastTargets() {
  std::vector<sockaddr_in> out;
  ifaddrs *list = nullptr;
  if (getifaddrs(&list) != 0) return out;
  for (ifaddrs *i = list; i != nullptr; i = i->ifa_next) {
    if ((i->ifa_flags & IFF_BROADCAST) == 0 || (i->ifa_flags & IFF_UP) == 0 ||
        i->ifa_broadaddr == nullptr || i->ifa_broadaddr->sa_family != AF_INET)
      continue;
    sockaddr_in sin;
    std::memcpy(&sin, i->ifa_broadaddr, sizeof sin);
    sin.sin_port = htons(dw::kDefaultPort);
    out.push_back(sin);
  }
  freeifaddrs(list);
  return out;
}

std::string SourceAddress(const sockaddr_storage &from) {
  char text[INET6_ADDRSTRLEN] = {};
  if (from.ss_family == AF_INET)
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in &>(from).sin_addr, text, sizeof text);
  else if (from.ss_family == AF_INET6)
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 &>(from).sin6_addr, text, sizeof text);
  return text;
}

std::string FamilyWord(uint8_t family) {
  switch (family) {
    case dw::kFamilySoft:
      return "soft";
    case dw::kFamilyNet:
      return "net";
    case dw::kFamilyPcie:
      return "pcie";
    case dw::kFamilyUsb:
      return "usb";
    case dw::kFamilyCloud:
      return "cloud";
    case dw::kFamilyLab:
      return "lab";
    default:
      return "family" + std::to_string(family);
  }
}

// The callback's line: "address port name app_port family version fingerprint", "-" for what
// the service type did not ask for. Spaces in a name become '_'.
std::string AnswerLine(const dw::Answer &a, const sockaddr_storage &from) {
  static const char kHex[] = "0123456789abcdef";
  auto text = [](std::string s) {
    for (char &c : s)
      if (static_cast<unsigned char>(c) <= ' ' || c == 0x7f) c = '_';
    return s.empty() ? std::string("-") : s;
  };
  std::string address = "-", port = "-", name = "-", app_port = "-";
  if (a.service_type & dw::kServiceIp) {
    address = a.address;
    if (address.empty() || address == "0.0.0.0" || address == "::") address = SourceAddress(from);
    address = text(address);
    port = std::to_string(a.tls_port);
  }
  if (a.service_type & dw::kServiceAap) {
    name = text(a.name);
    app_port = std::to_string(a.app_port);
  }
  std::string fp;
  for (unsigned char c : a.fingerprint) {
    fp.push_back(kHex[c >> 4]);
    fp.push_back(kHex[c & 15]);
  }
  return address + " " + port + " " + name + " " + app_port + " " + FamilyWord(a.family) + " " +
         text(a.version) + " " + (fp.empty() ? "-" : fp);
}

int FindHsm(uint8_t type, uint32_t timeout_ms, PQL_LIST_CALLBACK cb, void *param) {
  dw::Query query;
  query.service_type = type;
  if (RAND_bytes(query.nonce.data(), static_cast<int>(query.nonce.size())) != 1)
    return QL_ERR_LIB_INTERNAL;
  const std::vector<uint8_t> datagram = dw::EncodeQuery(query);

  std::vector<sockaddr_storage> targets;
  std::vector<socklen_t> lengths;
  if (const char *chosen = std::getenv("QLAPI_DISCOVERY_ADDR"); chosen != nullptr && *chosen) {
    sockaddr_storage ss{};
    socklen_t len = 0;
    if (!ResolveTarget(chosen, &ss, &len)) return QL_ERR_CONNECTION_FAILED;
    targets.push_back(ss);
    lengths.push_back(len);
  } else {
    for (const sockaddr_in &sin : BroadcastTargets()) {
      sockaddr_storage ss{};
      std::memcpy(&ss, &sin, sizeof sin);
      targets.push_back(ss);
      lengths.push_back(sizeof sin);
    }
  }
  if (targets.empty()) return QL_ERR_CONNECTION_FAILED;

  Socket sock(targets.front().ss_family);
  if (sock.fd() < 0) return QL_ERR_CONNECTION_FAILED;
  const int on = 1;
  setsockopt(sock.fd(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
  size_t sent = 0;
  for (size_t i = 0; i < targets.size(); ++i) {
    if (targets[i].ss_family != targets.front().ss_family) continue;
    if (sendto(sock.fd(), datagram.data(), datagram.size(), 0,
               reinterpret_cast<const sockaddr *>(&targets[i]),
               lengths[i]) == static_cast<ssize_t>(datagram.size()))
      ++sent;
  }
  if (sent == 0) return QL_ERR_CONNECTION_FAILED;

  std::set<std::string> seen;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd p{sock.fd(), POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    uint8_t buf[dw::kQuerySize + 1];
    sockaddr_storage from{};
    socklen_t from_len = sizeof from;
    const ssize_t n =
        recvfrom(sock.fd(), buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &from_len);
    if (n <= 0) continue;
    std::optional<dw::Answer> answer = dw::DecodeAnswer(buf, static_cast<size_t>(n));
    if (!answer || answer->nonce != query.nonce || answer->service_type != type) continue;
    std::string line = AnswerLine(*answer, from);
    if (!seen.insert(line).second) continue;
    if (cb(param, line.c_str(), 0) != 0) return QL_ERR_CANCELLED;
  }
  return cb(param, nullptr, 1) != 0 ? QL_ERR_CANCELLED : QL_OK;
}

}  // namespace

extern "C" int QFindHSM(uint32_t dwServiceType, uint32_t dwTimeoutMs, PQL_LIST_CALLBACK pfnCallback,
                        void *pvParam) {
  return Guard([&] {
    if (dwServiceType < QL_FIND_HSM_IP || dwServiceType > QL_FIND_HSM_ALL) return QL_ERR_BAD_FLAGS;
    if (pfnCallback == nullptr || dwTimeoutMs == 0 || dwTimeoutMs > kMaxTimeoutMs)
      return QL_ERR_BAD_ARGUMENT;
    return FindHsm(static_cast<uint8_t>(dwServiceType), dwTimeoutMs, pfnCallback, pvParam);
  });
}
