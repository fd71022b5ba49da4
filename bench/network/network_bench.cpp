// network_bench [connections] [rounds]: the figures bench/network/run.sh prints.
//
// 1. Memory: `connections` clients each announce a 16 MiB frame and send 1 KiB of it, first
//    before any login (the daemon refuses such a frame at once), then after a login (the daemon
//    may take it, and must hold only what arrived). The daemon's resident memory (VmRSS) before
//    and after, and its peak (VmHWM).
// 2. Timing: a wrong password for "master" and for a name that is no user, `rounds` times each,
//    interleaved on one connection, at the default password-hash cost; a right login after each
//    pair clears the failure counts so that no answer is held back by the login throttle.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
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

using Clock = std::chrono::steady_clock;
using qltest::HsmOptions;
using qltest::HsmProcess;
using qltest::RawClient;

long StatusKiB(pid_t pid, const std::string &field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string key;
  while (in >> key) {
    if (key == field + ":") {
      long kib = 0;
      in >> kib;
      return kib;
    }
    std::getline(in, key);
  }
  return -1;
}

std::string Header(uint32_t n) {
  return {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
          static_cast<char>(n)};
}

void RaiseDescriptorLimit() {
  rlimit r{};
  if (getrlimit(RLIMIT_NOFILE, &r) == 0) {
    r.rlim_cur = r.rlim_max;
    setrlimit(RLIMIT_NOFILE, &r);
  }
}

void Memory(int connections, bool logged_in) {
  const std::string n = std::to_string(connections * 2);
  HsmOptions opts;
  opts.serve_args = {"--max-connections",         n, "--max-pending",  n,
                     "--max-pending-per-address", n, "--max-sessions", n};
  HsmProcess hsm(opts);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const long idle = StatusKiB(hsm.pid(), "VmRSS");
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < connections; ++i) {
    clients.push_back(std::make_unique<RawClient>(hsm.address(), hsm.port()));
    if (logged_in) {
      if (clients.back()->Hello() != 0 || clients.back()->Login("master", "12345678") != 0) {
        std::fprintf(stderr, "login %d failed\n", i);
        std::exit(1);
      }
    }
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const long before = StatusKiB(hsm.pid(), "VmRSS");
  const uint32_t announced = qlproto::kDefaultMaxFrame - 64;
  int refused = 0;
  for (auto &c : clients) (void)c->SendRaw(Header(announced) + std::string(1024, 'x'));
  if (!logged_in) {
    for (auto &c : clients) {
      auto r = c->Receive(10000);
      if (r && r->code() == QL_ERR_LIMIT_REACHED) ++refused;
    }
  }
  long after = 0;
  for (int i = 0; i < 10; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    after = std::max(after, StatusKiB(hsm.pid(), "VmRSS"));
  }
  const long peak = StatusKiB(hsm.pid(), "VmHWM");
  std::printf(
      "%-13s %5d connections x 16 MiB announced: RSS idle %.1f MiB, connected %.1f MiB, "
      "after the announcements %.1f MiB (+%.1f MiB over idle), peak %.1f MiB",
      logged_in ? "after login" : "before login", connections, idle / 1024.0, before / 1024.0,
      after / 1024.0, (after - idle) / 1024.0, peak / 1024.0);
  if (!logged_in) std::printf(", %d refused with QL_ERR_LIMIT_REACHED", refused);
  std::printf("\n");
}

double Millis(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

void Timing(int rounds) {
  HsmOptions opts;
  opts.kdf_cost = 16384;  // the default cost of `qlhsmd init`
  HsmProcess hsm(opts);
  RawClient c(hsm.address(), hsm.port());
  if (c.Hello() != 0 || c.Login("master", hsm.master_password()) != 0) {
    std::fprintf(stderr, "first login failed\n");
    std::exit(1);
  }
  std::vector<double> known, unknown;
  auto timed = [&](const std::string &user, const std::string &pwd, int expect) {
    const auto t0 = Clock::now();
    const int code = c.Login(user, pwd);
    const double ms = Millis(Clock::now() - t0);
    if (code != expect) {
      std::fprintf(stderr, "login %s answered %d, not %d\n", user.c_str(), code, expect);
      std::exit(1);
    }
    return ms;
  };
  for (int i = 0; i < rounds; ++i) {
    // Alternating which goes first, so neither always follows the right login.
    if (i % 2 == 0) {
      known.push_back(timed("master", "wrong-pw", QL_ERR_AUTH_FAILED));
      unknown.push_back(timed("ghost" + std::to_string(i), "wrong-pw", QL_ERR_AUTH_FAILED));
    } else {
      unknown.push_back(timed("ghost" + std::to_string(i), "wrong-pw", QL_ERR_AUTH_FAILED));
      known.push_back(timed("master", "wrong-pw", QL_ERR_AUTH_FAILED));
    }
    (void)timed("master", hsm.master_password(), 0);  // clears the counts
  }
  auto mean = [](std::vector<double> v) {
    double s = 0;
    for (double x : v) s += x;
    return s / static_cast<double>(v.size());
  };
  auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  };
  const double mk = mean(known), mu = mean(unknown);
  std::printf(
      "wrong password, %d each (scrypt N=16384): known user mean %.2f ms (median %.2f), "
      "unknown user mean %.2f ms (median %.2f); unknown/known %.3f\n",
      rounds, mk, median(known), mu, median(unknown), mu / mk);
}

}  // namespace

int main(int argc, char **argv) {
  const int connections = argc > 1 ? std::atoi(argv[1]) : 1000;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 60;
  RaiseDescriptorLimit();
  Memory(connections, false);
  Memory(connections, true);
  Timing(rounds);
  return 0;
}
