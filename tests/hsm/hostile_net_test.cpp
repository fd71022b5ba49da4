// The daemon against clients that never log in, log in anonymously by the hundred, announce huge
// frames, stay silent, or guess passwords: logged-in users are still served, silent connections
// are closed after their timeouts, and announced lengths cost nothing until their bytes arrive.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "frame.h"
#include "hsm_fixture.h"
#include "qlapi.h"
#include "raw_client.h"

namespace {

using qlhsm::v1::Request;
using qlhsm::v1::Response;
using qltest::HsmOptions;
using qltest::HsmProcess;
using qltest::RawClient;

std::unique_ptr<RawClient> LoggedIn(const HsmProcess &hsm, bool tls = false) {
  auto c = std::make_unique<RawClient>(hsm.address(), hsm.port(), tls);
  EXPECT_EQ(c->Hello(), 0);
  EXPECT_EQ(c->Login("master", hsm.master_password()), 0);
  return c;
}

Request RandomReq(uint32_t n) {
  Request r;
  r.mutable_get_random()->set_length(n);
  return r;
}

Request AnonymousLogin() {
  Request r;
  r.mutable_login()->set_kind(QL_AUTH_ANONYMOUS);
  return r;
}

Request KeepAlive() {
  Request r;
  r.mutable_adm_operation()->set_operation(QL_ADM_KEEPALIVE);
  return r;
}

int CodeOf(const std::optional<Response> &r) {
  return r ? r->code() : -1;
}

bool Served(RawClient &c) {
  auto r = c.Call(RandomReq(16));
  return r && r->code() == 0 && r->blob().data().size() == 16;
}

std::string Header(uint32_t n) {
  return {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
          static_cast<char>(n)};
}

// The daemon's resident memory in KiB.
long RssKiB(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string key;
  while (in >> key) {
    if (key == "VmRSS:") {
      long kib = 0;
      in >> kib;
      return kib;
    }
    std::getline(in, key);
  }
  return -1;
}

// Retries `attempt` for a while: the daemon notices a client's close on its own time.
template <typename F>
bool Eventually(F attempt) {
  for (int i = 0; i < 100; ++i) {
    if (attempt()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

TEST(HostileNetwork, FullPendingAndAnonymousQuotasLeaveLoggedInUsersServed) {
  HsmOptions opts;
  opts.serve_args = {"--max-pending",   "4", "--max-pending-per-address",   "4",
                     "--max-anonymous", "2", "--max-anonymous-per-address", "2",
                     "--max-sessions",  "4"};
  HsmProcess hsm(opts);
  auto user = LoggedIn(hsm);

  // Anonymous sessions: two, then the limit code; they never reach the session limit.
  std::vector<std::unique_ptr<RawClient>> anon;
  for (int i = 0; i < 2; ++i) {
    anon.push_back(std::make_unique<RawClient>(hsm.address(), hsm.port()));
    ASSERT_EQ(anon.back()->Hello(), 0);
    ASSERT_EQ(CodeOf(anon.back()->Call(AnonymousLogin())), 0);
  }
  // The refused one stays open to the end: were it closed here, the daemon could free its slot
  // at any moment of the counts below.
  RawClient third(hsm.address(), hsm.port());
  ASSERT_EQ(third.Hello(), 0);
  EXPECT_EQ(CodeOf(third.Call(AnonymousLogin())), QL_ERR_LIMIT_REACHED);

  // Connections that never log in: at most four wait; the next is told the limit and closed.
  std::vector<std::unique_ptr<RawClient>> pending;
  int refused_at = -1;
  for (int i = 0; i < 8 && refused_at < 0; ++i) {
    auto c = std::make_unique<RawClient>(hsm.address(), hsm.port());
    Request hello;
    hello.set_id(70 + i);
    hello.mutable_hello()->set_protocol_version(qlproto::kProtocolVersion);
    auto r = c->Call(hello);
    ASSERT_TRUE(r.has_value());
    if (r->code() == QL_ERR_LIMIT_REACHED) {
      refused_at = i;
      EXPECT_EQ(r->id(), static_cast<uint64_t>(70 + i));  // the library matches answers by id
      EXPECT_TRUE(c->PeerClosed());
    } else {
      ASSERT_EQ(r->code(), 0);
      pending.push_back(std::move(c));
    }
  }
  ASSERT_GE(refused_at, 0);
  EXPECT_LE(refused_at, 4);
  // Over TLS the same code, after the handshake.
  {
    RawClient tls(hsm.address(), hsm.port(), true);
    EXPECT_EQ(tls.Hello(), QL_ERR_LIMIT_REACHED);
    EXPECT_TRUE(tls.PeerClosed());
  }

  // The user logged in before is served all along, and the anonymous sessions are too.
  EXPECT_TRUE(Served(*user));
  EXPECT_TRUE(Served(*anon[0]));

  // Once a pending connection goes, a user logs in: the anonymous ones held no user slot.
  pending.pop_back();
  EXPECT_TRUE(Eventually([&] {
    RawClient c(hsm.address(), hsm.port());
    return c.Hello() == 0 && c.Login("master", hsm.master_password()) == 0 && Served(c);
  }));
}

TEST(HostileNetwork, SilentAndIdleConnectionsAreClosedAfterTheirTimeouts) {
  HsmOptions opts;
  opts.serve_args = {"--handshake-timeout-ms", "300", "--login-timeout-ms", "3000",
                     "--idle-timeout-ms",      "1000"};
  HsmProcess hsm(opts);
  auto idle = LoggedIn(hsm);
  auto busy = LoggedIn(hsm);

  // Nothing at all; half a TLS record: the handshake timeout.
  RawClient silent(hsm.address(), hsm.port());
  RawClient half_tls(hsm.address(), hsm.port());
  ASSERT_TRUE(half_tls.SendRaw(std::string("\x16\x03\x01", 3)));
  // Hello but no login: the login timeout.
  RawClient no_login(hsm.address(), hsm.port());
  ASSERT_EQ(no_login.Hello(), 0);
  EXPECT_TRUE(silent.PeerClosed(10000));
  EXPECT_TRUE(half_tls.PeerClosed(10000));

  // The keep-alive keeps a session alive well past the idle timeout.
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(2000);
  while (std::chrono::steady_clock::now() < until) {
    ASSERT_EQ(CodeOf(busy->Call(KeepAlive())), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_TRUE(Served(*busy));

  // The idle one's session has ended: its next request says so, then the connection closes.
  auto r = idle->Call(RandomReq(8));
  ASSERT_TRUE(r.has_value());
  EXPECT_EQ(r->code(), QL_ERR_SESSION_EXPIRED);
  EXPECT_TRUE(idle->PeerClosed());
  EXPECT_TRUE(no_login.PeerClosed(10000));
}

TEST(HostileNetwork, AnnouncedFramesCostOnlyTheBytesThatArrived) {
  HsmProcess hsm;
  // Before a login a frame is small: a larger announcement is refused at once.
  {
    RawClient c(hsm.address(), hsm.port());
    ASSERT_EQ(c.Hello(), 0);
    ASSERT_TRUE(c.SendRaw(Header(64 * 1024 + 1)));
    EXPECT_EQ(CodeOf(c.Receive()), QL_ERR_LIMIT_REACHED);
    EXPECT_TRUE(c.PeerClosed());
  }
  // After a login, frames up to the limit may be announced: the daemon keeps only what came.
  constexpr int kClients = 40;
  constexpr uint32_t kAnnounced = 16u * 1024 * 1024 - 64;  // each: 640 MiB if taken at its word
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < kClients; ++i) clients.push_back(LoggedIn(hsm));
  const long before = RssKiB(hsm.pid());
  ASSERT_GT(before, 0);
  for (auto &c : clients) ASSERT_TRUE(c->SendRaw(Header(kAnnounced) + std::string(1000, 'x')));
  // Every client's bytes have been read once each connection is still open and the daemon
  // answers others; the memory is looked at a few times meanwhile.
  long most = before;
  for (int i = 0; i < 10; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    most = std::max(most, RssKiB(hsm.pid()));
  }
  EXPECT_TRUE(Served(*LoggedIn(hsm)));
  most = std::max(most, RssKiB(hsm.pid()));
  EXPECT_LT(most - before, 128L * 1024) << "RSS grew from " << before << " KiB to " << most;
  // Those frames still complete when their bytes come.
  std::string rest(kAnnounced - 1000, 'y');
  auto &first = clients.front();
  ASSERT_TRUE(first->SendRaw(rest));
  // A body of 'x' and 'y' is no request: a protocol error, but only once it has all arrived.
  EXPECT_EQ(CodeOf(first->Receive(30000)), QL_ERR_PROTOCOL);
}

// A login held back by the throttle waits on a timer: the same event loop answers another client
// meanwhile, and the right password still logs in.
TEST(HostileNetwork, ThrottledLoginsWaitWithoutBlockingAndStillSucceed) {
  HsmOptions opts;
  opts.serve_args = {"--threads", "1"};
  HsmProcess hsm(opts);
  auto other = LoggedIn(hsm);
  RawClient guesser(hsm.address(), hsm.port());
  ASSERT_EQ(guesser.Hello(), 0);
  for (int i = 0; i < 5; ++i) ASSERT_EQ(guesser.Login("master", "wrong"), QL_ERR_AUTH_FAILED);
  // The next answer is held back; on the daemon's only loop, the other client's request that
  // comes after it is answered first.
  Request login;
  login.mutable_login()->set_kind(QL_AUTH_USER_PWD);
  login.mutable_login()->set_user("master");
  login.mutable_login()->set_password(hsm.master_password());
  ASSERT_TRUE(guesser.Send(login));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the login reaches the daemon
  ASSERT_TRUE(other->Send(RandomReq(8)));
  ASSERT_EQ(CodeOf(other->Receive()), 0);
  // Only the guesser's answer is still outstanding: it has not come yet.
  EXPECT_FALSE(guesser.Receive(0).has_value());
  EXPECT_EQ(CodeOf(guesser.Receive()), 0);
  EXPECT_TRUE(Served(guesser));
}

TEST(HostileNetwork, PlainConnectionsOnlyWhereAllowed) {
  HsmOptions opts;
  opts.serve_args = {"--plain", "off"};
  HsmProcess hsm(opts);
  RawClient plain(hsm.address(), hsm.port());
  EXPECT_EQ(plain.Hello(), QL_ERR_ADDRESS_REFUSED);
  EXPECT_TRUE(plain.PeerClosed());
  auto tls = LoggedIn(hsm, true);
  EXPECT_TRUE(Served(*tls));
}

// A non-loopback address of this machine, or "" when it has none.
std::string LocalAddress() {
  ifaddrs *list = nullptr;
  if (getifaddrs(&list) != 0) return "";
  std::string found;
  for (ifaddrs *a = list; a && found.empty(); a = a->ifa_next) {
    if (!a->ifa_addr || a->ifa_addr->sa_family != AF_INET || (a->ifa_flags & IFF_LOOPBACK) ||
        !(a->ifa_flags & IFF_UP))
      continue;
    char buf[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in *>(a->ifa_addr)->sin_addr, buf, sizeof buf);
    found = buf;
  }
  freeifaddrs(list);
  return found;
}

TEST(HostileNetwork, PlainFromLoopbackOnlyAndTheAllowList) {
  const std::string local = LocalAddress();
  if (local.empty()) GTEST_SKIP() << "this machine has no non-loopback IPv4 address";
  // A refused TLS client may still try to write to the closed connection.
  std::signal(SIGPIPE, SIG_IGN);
  HsmOptions opts;
  opts.serve_args = {"--listen", "0.0.0.0:0"};
  HsmProcess hsm(opts);
  // Plain from the machine's own network address is not loopback: refused by default.
  {
    RawClient plain(local, hsm.port());
    EXPECT_EQ(plain.Hello(), QL_ERR_ADDRESS_REFUSED);
    EXPECT_TRUE(plain.PeerClosed());
  }
  {
    RawClient tls(local, hsm.port(), true);
    ASSERT_EQ(tls.Hello(), 0);
    ASSERT_EQ(tls.Login("master", hsm.master_password()), 0);
  }
  // An allow-list without that address: TLS from it is closed before any handshake; loopback
  // stays allowed.
  auto admin = LoggedIn(hsm);
  Request add;
  add.mutable_ip_filter()->set_operation(QL_IPF_ADD);
  // A documentation network this machine is not in.
  add.mutable_ip_filter()->set_rule(local.rfind("198.51.100.", 0) == 0 ? "203.0.113.0/24"
                                                                       : "198.51.100.0/24");
  ASSERT_EQ(CodeOf(admin->Call(add)), 0);
  EXPECT_THROW(
      {
        RawClient tls(local, hsm.port(), true);
        (void)tls.Hello();
      },
      std::runtime_error);
  EXPECT_TRUE(Served(*LoggedIn(hsm)));
  Request remove = add;
  remove.mutable_ip_filter()->set_operation(QL_IPF_REMOVE);
  ASSERT_EQ(CodeOf(admin->Call(remove)), 0);
  RawClient tls(local, hsm.port(), true);
  EXPECT_EQ(tls.Hello(), 0);
}

}  // namespace
