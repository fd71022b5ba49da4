// libqlapi against a qlhsmd this benchmark starts: session open/close with the session cache on
// and off, and the smallest round trip (QGetRandom of 16 bytes), beside a bare TCP loopback
// ping-pong of the same size. run.sh prints them next to openssl s_time.
//
//   qlapi_bench [--benchmark_filter=...]      (QLHSMD=path picks the daemon binary)
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "hsm_fixture.h"
#include "password_record.h"
#include "qlapi.h"

namespace {

qltest::HsmProcess *g_hsm = nullptr;

AUTH_PWD_EX Record() {
  return qltest::PasswordRecord(*g_hsm);
}

void OpenClose(benchmark::State &state, uint32_t flags) {
  AUTH_PWD_EX r = Record();
  for (auto _ : state) {
    HSESSIONCTX s = nullptr;
    if (QOpenSession(&s, QL_AUTH_USER_PWD, &r, sizeof r, flags) != QL_OK ||
        QCloseSession(&s, 0) != QL_OK) {
      state.SkipWithError("open or close failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

// Cache on: after the first pass each open takes a logged-out connection and logs in again.
void BM_OpenCloseCached(benchmark::State &state) {
  OpenClose(state, QL_SESSION_ENCRYPTED);
}
// Cache off: TCP connect, full TLS 1.3 handshake, Hello and login every time.
void BM_OpenCloseTls(benchmark::State &state) {
  OpenClose(state, QL_SESSION_ENCRYPTED | QL_SESSION_BYPASS_CACHE);
}
void BM_OpenClosePlain(benchmark::State &state) {
  OpenClose(state, QL_SESSION_UNENCRYPTED | QL_SESSION_BYPASS_CACHE);
}

void Random16(benchmark::State &state, uint32_t flags) {
  AUTH_PWD_EX r = Record();
  HSESSIONCTX s = nullptr;
  if (QOpenSession(&s, QL_AUTH_USER_PWD, &r, sizeof r, flags | QL_SESSION_BYPASS_CACHE) != QL_OK) {
    state.SkipWithError("open failed");
    return;
  }
  unsigned char buf[16];
  for (auto _ : state) {
    if (QGetRandom(s, buf, sizeof buf) != QL_OK) {
      state.SkipWithError("QGetRandom failed");
      break;
    }
  }
  QCloseSession(&s, QL_CLOSE_PHYSICAL);
  state.SetItemsProcessed(state.iterations());
}
void BM_Random16Tls(benchmark::State &state) {
  Random16(state, QL_SESSION_ENCRYPTED);
}
void BM_Random16Plain(benchmark::State &state) {
  Random16(state, QL_SESSION_UNENCRYPTED);
}

// The anchor of a round trip: state.range(0) bytes out and as many back over loopback TCP to an
// echo process of its own (client and server are two processes, as with the HSM), as plain as a
// request gets. With two benchmark threads, two such pairs run at once: the most a
// one-round-trip-per-operation design gets from this machine.
void BM_TcpPingPong(benchmark::State &state) {
  const auto size = static_cast<size_t>(state.range(0));
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  bind(listener, reinterpret_cast<sockaddr *>(&a), sizeof a);
  getsockname(listener, reinterpret_cast<sockaddr *>(&a), &len);
  listen(listener, 1);
  std::vector<char> b(size);
  const pid_t echo = fork();  // the child makes only system calls, so a threaded parent is fine
  if (echo == 0) {
    const int c = accept(listener, nullptr, nullptr);
    int one = 1;
    setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    while (recv(c, b.data(), size, MSG_WAITALL) == static_cast<ssize_t>(size)) {
      send(c, b.data(), size, MSG_NOSIGNAL);
    }
    _exit(0);
  }
  close(listener);
  if (echo < 0) {
    state.SkipWithError("fork failed");
    return;
  }
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  for (auto _ : state) {
    send(fd, b.data(), size, MSG_NOSIGNAL);
    if (recv(fd, b.data(), size, MSG_WAITALL) != static_cast<ssize_t>(size)) {
      state.SkipWithError("echo lost");
      break;
    }
  }
  close(fd);
  waitpid(echo, nullptr, 0);
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

BENCHMARK(BM_OpenCloseCached)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_OpenCloseTls)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_OpenClosePlain)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Random16Tls)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Random16Plain)->Threads(1)->UseRealTime();
BENCHMARK(BM_TcpPingPong)->Arg(16)->Arg(8192)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  std::unique_ptr<qltest::HsmProcess> hsm;
  try {
    hsm = std::make_unique<qltest::HsmProcess>();
  } catch (const std::exception &e) {
    fprintf(stderr, "qlapi_bench: cannot start qlhsmd: %s\n", e.what());
    return 1;
  }
  g_hsm = hsm.get();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  QFinalize();
  return 0;
}
