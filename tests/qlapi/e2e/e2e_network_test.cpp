// libqlapi against a qlhsmd guarding its network: the address allow-list through
// QIPFilterOperation, plain connections refused with their code, an idle session's expiry, and
// finding the daemon by its discovery datagrams (QFindHSM and the find-hsm job).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "discovery_wire.h"
#include "hsm_fixture.h"
#include "password_record.h"
#include "qlapi.h"

namespace {

using qltest::HsmOptions;
using qltest::HsmProcess;

HSESSIONCTX Open(const HsmProcess &hsm, uint32_t flags, int *code,
                 const std::string &user = "master", const std::string &pwd = "") {
  AUTH_PWD_EX r = qltest::PasswordRecord(hsm, user, pwd.empty() ? hsm.master_password() : pwd);
  HSESSIONCTX s = nullptr;
  *code = QOpenSession(&s, QL_AUTH_USER_PWD, &r, sizeof r, flags);
  return s;
}

struct Listed {
  std::vector<std::string> rules;
  int lasts = 0;
};

int Collect(void *param, const char *name, int last) {
  auto *l = static_cast<Listed *>(param);
  if (last)
    ++l->lasts;
  else
    l->rules.push_back(name);
  return 0;
}

Listed List(HSESSIONCTX s, int *code) {
  Listed l;
  *code = QIPFilterOperation(s, QL_IPF_LIST, nullptr, Collect, &l);
  return l;
}

TEST(NetworkE2E, AllowListThroughTheLibrary) {
  HsmProcess hsm;
  int code = 0;
  HSESSIONCTX s = Open(hsm, QL_SESSION_ENCRYPTED, &code);
  ASSERT_EQ(code, QL_OK);
  Listed l = List(s, &code);
  EXPECT_EQ(code, QL_OK);
  EXPECT_TRUE(l.rules.empty());
  EXPECT_EQ(l.lasts, 1);

  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_ADD, "198.51.100.7/24", nullptr, nullptr), QL_OK);
  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_ADD, "198.51.100.0/24", nullptr, nullptr),
            QL_ERR_OBJ_EXISTS);
  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_ADD, "2001:db8::/48", nullptr, nullptr), QL_OK);
  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_ADD, "not-an-address", nullptr, nullptr),
            QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_ADD, nullptr, nullptr, nullptr), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_LIST, nullptr, nullptr, nullptr), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QIPFilterOperation(s, 7, "198.51.100.0/24", nullptr, nullptr), QL_ERR_BAD_ARGUMENT);
  l = List(s, &code);
  EXPECT_EQ(code, QL_OK);
  EXPECT_EQ(l.rules, (std::vector<std::string>{"198.51.100.0/24", "2001:db8::/48"}));

  // The list allows loopback whatever it holds: this machine's sessions go on.
  int again = 0;
  HSESSIONCTX other = Open(hsm, QL_SESSION_UNENCRYPTED, &again);
  EXPECT_EQ(again, QL_OK);
  QCloseSession(&other, 0);

  // Without the operator right: neither reading nor changing.
  QL_USER_INFO u{};
  std::snprintf(u.szUserId, sizeof u.szUserId, "%s", "netuser");
  std::snprintf(u.szPassword, sizeof u.szPassword, "%s", "pw123456");
  u.dwAcl = ACL_USR_LIST;
  ASSERT_EQ(QCreateUser(s, &u), QL_OK);
  HSESSIONCTX weak = Open(hsm, QL_SESSION_ENCRYPTED, &code, "netuser", "pw123456");
  ASSERT_EQ(code, QL_OK);
  List(weak, &code);
  EXPECT_EQ(code, QL_ERR_ACCESS_DENIED);
  EXPECT_EQ(QIPFilterOperation(weak, QL_IPF_REMOVE, "198.51.100.0/24", nullptr, nullptr),
            QL_ERR_ACCESS_DENIED);
  QCloseSession(&weak, 0);

  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_REMOVE, "198.51.100.0/24", nullptr, nullptr), QL_OK);
  EXPECT_EQ(QIPFilterOperation(s, QL_IPF_REMOVE, "198.51.100.0/24", nullptr, nullptr),
            QL_ERR_OBJ_NOT_FOUND);
  l = List(s, &code);
  EXPECT_EQ(l.rules, (std::vector<std::string>{"2001:db8::/48"}));
  QCloseSession(&s, 0);
}

TEST(NetworkE2E, PlainRefusedWithItsCodeTlsServed) {
  HsmOptions opts;
  opts.serve_args = {"--plain", "off"};
  HsmProcess hsm(opts);
  int code = 0;
  HSESSIONCTX s = Open(hsm, QL_SESSION_UNENCRYPTED, &code);
  EXPECT_EQ(code, QL_ERR_ADDRESS_REFUSED);
  EXPECT_EQ(s, nullptr);
  s = Open(hsm, QL_SESSION_ENCRYPTED, &code);
  EXPECT_EQ(code, QL_OK);
  QCloseSession(&s, 0);
}

TEST(NetworkE2E, AnIdleSessionExpiresAndKeepAliveKeepsOneAlive) {
  HsmOptions opts;
  opts.serve_args = {"--idle-timeout-ms", "600", "--login-timeout-ms", "10000"};
  HsmProcess hsm(opts);
  int code = 0;
  HSESSIONCTX idle = Open(hsm, QL_SESSION_UNENCRYPTED, &code);
  ASSERT_EQ(code, QL_OK);
  HSESSIONCTX kept = Open(hsm, QL_SESSION_UNENCRYPTED, &code);
  ASSERT_EQ(code, QL_OK);
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
  while (std::chrono::steady_clock::now() < until) {
    ASSERT_EQ(QAdmOperation(kept, QL_ADM_KEEPALIVE, nullptr, 0, nullptr, nullptr, 0), QL_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
  }
  unsigned char buf[8];
  EXPECT_EQ(QGetRandom(kept, buf, sizeof buf), QL_OK);
  EXPECT_EQ(QGetRandom(idle, buf, sizeof buf), QL_ERR_SESSION_EXPIRED);
  QCloseSession(&idle, 0);
  QCloseSession(&kept, 0);
}

// ---------------------------------------------------------------------------------------------
// Discovery

int CollectLine(void *lines, const char *line, int last) {
  if (!last) static_cast<std::vector<std::string> *>(lines)->push_back(line);
  return 0;
}

// The lines QFindHSM hands out for a query sent to 127.0.0.1:udp_port.
std::vector<std::string> Find(int udp_port, uint32_t type, uint32_t timeout_ms = 700) {
  setenv("QLAPI_DISCOVERY_ADDR", ("127.0.0.1:" + std::to_string(udp_port)).c_str(), 1);
  std::vector<std::string> lines;
  EXPECT_EQ(QFindHSM(type, timeout_ms, &CollectLine, &lines), QL_OK);
  return lines;
}

std::vector<std::string> Words(const std::string &line, char sep = ' ') {
  std::vector<std::string> out;
  std::istringstream in(line);
  for (std::string w; std::getline(in, w, sep);) out.push_back(w);
  return out;
}

std::string Fingerprint(const HsmProcess &hsm) {
  std::string out = qltest::RunCommand("'" + qltest::QlhsmdPath() + "' fingerprint --data-dir '" +
                                       hsm.data_dir() + "'")
                        .out;
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
  return out;
}

// A free UDP port of the loopback address (free when this returns, at least).
int FreeUdpPort() {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

TEST(Discovery, EachServiceTypeFindsTheDaemonWithItsFieldsAndFingerprint) {
  HsmProcess hsm;
  ASSERT_GT(hsm.discovery_port(), 0);
  const std::string fingerprint = Fingerprint(hsm);
  ASSERT_EQ(fingerprint.size(), 64u);
  const std::string port = std::to_string(hsm.port());
  struct Case {
    uint32_t type;
    bool ip, aap;
  };
  for (const Case c : {Case{QL_FIND_HSM_IP, true, false}, Case{QL_FIND_HSM_AAP, false, true},
                       Case{QL_FIND_HSM_ALL, true, true}}) {
    SCOPED_TRACE(c.type);
    const std::vector<std::string> lines = Find(hsm.discovery_port(), c.type);
    ASSERT_EQ(lines.size(), 1u);
    const std::vector<std::string> f = Words(lines[0]);
    ASSERT_EQ(f.size(), 7u) << lines[0];
    EXPECT_EQ(f[0], c.ip ? hsm.address() : "-");
    EXPECT_EQ(f[1], c.ip ? port : "-");
    EXPECT_EQ(f[2] != "-", c.aap) << f[2];
    EXPECT_EQ(f[3], c.aap ? port : "-");
    EXPECT_EQ(f[4], "soft");
    EXPECT_FALSE(f[5].empty() || f[5] == "-");
    EXPECT_EQ(f[6], fingerprint);
  }
  // Refused before anything is sent.
  std::vector<std::string> lines;
  EXPECT_EQ(QFindHSM(0, 500, &CollectLine, &lines), QL_ERR_BAD_FLAGS);
  EXPECT_EQ(QFindHSM(QL_FIND_HSM_ALL + 1, 500, &CollectLine, &lines), QL_ERR_BAD_FLAGS);
  EXPECT_EQ(QFindHSM(QL_FIND_HSM_IP, 500, nullptr, nullptr), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QFindHSM(QL_FIND_HSM_IP, 0, &CollectLine, &lines), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QFindHSM(QL_FIND_HSM_IP, 60001, &CollectLine, &lines), QL_ERR_BAD_ARGUMENT);
  setenv("QLAPI_DISCOVERY_ADDR", "no-port-here", 1);
  EXPECT_EQ(QFindHSM(QL_FIND_HSM_IP, 100, &CollectLine, &lines), QL_ERR_CONNECTION_FAILED);
  EXPECT_TRUE(lines.empty());
}

TEST(Discovery, MalformedDatagramsGetNoAnswerAndTheNextQueryDoes) {
  namespace dw = qlproto::discovery;
  HsmProcess hsm;
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(hsm.discovery_port()));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  dw::Query q;
  q.service_type = dw::kServiceAll;
  const std::vector<uint8_t> good = dw::EncodeQuery(q);
  std::vector<std::vector<uint8_t>> bad = {
      {}, std::vector<uint8_t>(good.begin(), good.end() - 1), good, good, good, good, good};
  bad[2].push_back(0);  // one byte too many
  bad[3][0] = 'X';      // magic
  bad[4][4] = 2;        // version
  bad[5][5] = 4;        // service type
  bad[6].back() = 1;    // padding not zero
  for (const auto &d : bad)
    sendto(fd, d.data(), d.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
  pollfd p{fd, POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 500), 0) << "a malformed query was answered";
  // The well-formed query from the same socket is answered, with the nonce echoed.
  ASSERT_EQ(sendto(fd, good.data(), good.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to),
            static_cast<ssize_t>(good.size()));
  ASSERT_EQ(poll(&p, 1, 2000), 1);
  uint8_t buf[512];
  const ssize_t n = recv(fd, buf, sizeof buf, 0);
  close(fd);
  ASSERT_GT(n, 0);
  EXPECT_LE(static_cast<size_t>(n), good.size());  // never more than was asked with
  const std::optional<dw::Answer> a = dw::DecodeAnswer(buf, static_cast<size_t>(n));
  ASSERT_TRUE(a.has_value());
  EXPECT_EQ(a->nonce, q.nonce);
  EXPECT_EQ(Find(hsm.discovery_port(), QL_FIND_HSM_IP).size(), 1u);
}

HsmOptions ServeArgs(std::vector<std::string> args) {
  HsmOptions o;
  o.serve_args = std::move(args);
  return o;
}

TEST(Discovery, AGivenPortAnswersAndOffAnswersNowhere) {
  const int udp = FreeUdpPort();
  {
    HsmProcess hsm(ServeArgs({"--discovery", std::to_string(udp)}));
    EXPECT_EQ(hsm.discovery_port(), udp);
    EXPECT_EQ(Find(udp, QL_FIND_HSM_IP).size(), 1u);
  }
  HsmProcess off(ServeArgs({"--discovery", "off"}));
  EXPECT_EQ(off.discovery_port(), 0);
  EXPECT_TRUE(Find(udp, QL_FIND_HSM_ALL, 500).empty());
}

#ifdef QLUTIL_BIN
TEST(Discovery, FindHsmJobPrintsLinesOrCsvAndItsHelpWhenTheTypeIsMissing) {
  HsmProcess hsm;
  setenv("QLAPI_DISCOVERY_ADDR", ("127.0.0.1:" + std::to_string(hsm.discovery_port())).c_str(), 1);
  const std::string fingerprint = Fingerprint(hsm);
  const std::string job = std::string("'") + QLUTIL_BIN + "' -j find-hsm --timeout 700 ";

  qltest::CommandResult r = qltest::RunCommand(job + "--type ip");
  ASSERT_EQ(r.exit_code, 0) << r.out;
  EXPECT_NE(r.out.find(hsm.address() + " " + std::to_string(hsm.port()) + " - - soft "),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find(fingerprint + "\r\n"), std::string::npos) << r.out;

  r = qltest::RunCommand(job + "--type s_all --filter soft --outform csv");
  ASSERT_EQ(r.exit_code, 0) << r.out;
  const std::vector<std::string> rows = Words(r.out, '\n');
  // The header, the HSM, then the run's own report (no further CSV row).
  ASSERT_GE(rows.size(), 3u) << r.out;
  EXPECT_EQ(rows[2].find(','), std::string::npos) << r.out;
  const std::vector<std::string> cells = Words(rows[1].substr(0, rows[1].size() - 1), ',');
  ASSERT_EQ(cells.size(), Words(rows[0], ',').size()) << r.out;
  EXPECT_EQ(cells.front(), hsm.address());
  EXPECT_EQ(cells.back(), fingerprint);

  // Another family: the HSM is left out.
  r = qltest::RunCommand(job + "--type ip --filter cloud");
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(r.out.find(fingerprint), std::string::npos) << r.out;

  // Words of another group of the same table that fall outside the switch's range.
  for (const char *args :
       {"", "--type soft", "--type ip --outform cloud", "--type ip --filter csv"}) {
    r = qltest::RunCommand(job + args);
    EXPECT_EQ(r.exit_code, 255) << args;
    EXPECT_EQ(r.out.rfind("\r\nDESCRIPTION\r\n", 0), 0u) << args << r.out;
  }
}
#endif

const qltest::HsmSetup kSetup{std::nullopt};  // each test starts its own daemons

}  // namespace
