// Tools run by the HSM: ping and traceroute of loopback, the self-check, their refusals, and the
// "net-tool" and "cross-check" jobs of the real qlutil.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "hsm_fixture.h"
#include "library_session.h"
#include "qlapi.h"

namespace {

struct Report {
  int rc = -1;
  std::string text;
};

Report Tool(HSESSIONCTX s, uint32_t tool, const char *target, uint32_t flags = 0) {
  Report r;
  char *text = nullptr;
  uint32_t len = 0;
  r.rc = QHSMTool(s, tool, target, &text, &len, flags);
  if (text != nullptr) {
    EXPECT_EQ(std::string(text).size(), len);
    r.text.assign(text, len);
    QFree(text);
  }
  return r;
}

bool Has(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

TEST(HsmTools, PingAndTracerouteOfLoopback) {
  qltest::OpenedSession s;
  // ICMP echo where the system allows ping sockets, else TCP probes of the default port (which
  // nothing may serve here: a refusal is an answer too).
  Report r = Tool(s.get(), QL_HSM_TOOL_PING, "127.0.0.1");
  ASSERT_EQ(r.rc, QL_OK) << r.text;
  EXPECT_TRUE(Has(r.text, "ICMP echo") || Has(r.text, "TCP connect")) << r.text;
  EXPECT_TRUE(Has(r.text, "3 sent, 3 ")) << r.text;

  // TCP probes of the daemon's own port connect, by name as well as by address.
  const std::string port = std::to_string(qltest::HsmEnvironment::hsm().port());
  r = Tool(s.get(), QL_HSM_TOOL_PING, ("localhost:" + port).c_str(), QL_HSM_TOOL_TCP_PROBE);
  ASSERT_EQ(r.rc, QL_OK) << r.text;
  EXPECT_TRUE(Has(r.text, "TCP connect to port " + port)) << r.text;
  EXPECT_TRUE(Has(r.text, "probe 3: connected in")) << r.text;
  EXPECT_TRUE(Has(r.text, "3 sent, 3 answered, 0% lost")) << r.text;

  r = Tool(s.get(), QL_HSM_TOOL_TRACEROUTE, "127.0.0.1");
  ASSERT_EQ(r.rc, QL_OK) << r.text;
  EXPECT_TRUE(Has(r.text, "\n 1  127.0.0.1  ")) << r.text;
  EXPECT_FALSE(Has(r.text, "\n 2 ")) << r.text;
  EXPECT_TRUE(Has(r.text, "reached 127.0.0.1 at hop 1\n")) << r.text;
}

TEST(HsmTools, SelfCheckListsEveryCheckOk) {
  qltest::OpenedSession s;
  const Report r = Tool(s.get(), QL_HSM_TOOL_CROSS_CHECK, nullptr);
  ASSERT_EQ(r.rc, QL_OK) << r.text;
  for (const char *check : {"store integrity: ok", "known answer SHA-256: ok",
                            "known answer AES-128: ok", "known answer RSA-2048 sign and verify: ok",
                            "key cache against the store: ok", "all checks ok"})
    EXPECT_TRUE(Has(r.text, check)) << check << "\n" << r.text;
  EXPECT_FALSE(Has(r.text, "fault")) << r.text;
}

TEST(HsmTools, SelfCheckFindsAKeyChangedBehindTheCache) {
  qltest::OpenedSession s;
  HKEYCTX key = nullptr;
  ASSERT_EQ(QGenerateKey(s.get(), "tool-cached", QL_ALG_AES128, 0, &key), QL_OK);
  QDestroyKey(&key, 0);
  ASSERT_EQ(QGetUserKey(s.get(), "tool-cached", 0, &key), QL_OK);  // now in the key cache
  QDestroyKey(&key, 0);
  // Another writer changes the stored record; the daemon's cache still holds the old one.
  const std::string db = qltest::HsmEnvironment::hsm().data_dir() + "/store.db";
  const std::string sql =
      "UPDATE objects SET created = created + 1 WHERE owner = 'master' AND name = 'tool-cached'";
  ASSERT_EQ(std::system(("/usr/bin/python3 -c \"import sqlite3; c = sqlite3.connect('" + db +
                         "'); c.execute(\\\"" + sql + "\\\"); c.commit()\"")
                            .c_str()),
            0);
  Report r = Tool(s.get(), QL_HSM_TOOL_CROSS_CHECK, nullptr);
  EXPECT_EQ(r.rc, QL_ERR_SELF_CHECK_FAILED) << r.text;
  EXPECT_TRUE(Has(r.text, "\n  master/tool-cached differs from its stored record\n")) << r.text;
  EXPECT_TRUE(Has(r.text, "store integrity: ok\n")) << r.text;
  EXPECT_TRUE(Has(r.text, "\na check failed\n")) << r.text;
  // Removing the key drops it from the cache, and the check passes again.
  ASSERT_EQ(QRemoveObj(s.get(), "tool-cached"), QL_OK);
  r = Tool(s.get(), QL_HSM_TOOL_CROSS_CHECK, nullptr);
  EXPECT_EQ(r.rc, QL_OK) << r.text;
}

TEST(HsmTools, Refusals) {
  qltest::OpenedSession master;
  EXPECT_EQ(qltest::CreateUser(master.get(), "tool-reader", "pw123456", ACL_USR_REMOTE_LOG), 0);
  {
    qltest::OpenedSession reader("tool-reader", "pw123456");
    for (uint32_t tool : {QL_HSM_TOOL_PING, QL_HSM_TOOL_TRACEROUTE, QL_HSM_TOOL_CROSS_CHECK})
      EXPECT_EQ(Tool(reader.get(), tool, "127.0.0.1").rc, QL_ERR_ACCESS_DENIED) << tool;
  }
  EXPECT_EQ(QRemoveUser(master.get(), "tool-reader"), 0);

  struct Case {
    uint32_t tool;
    const char *target;
    uint32_t flags;
    int rc;
  };
  for (const Case &c : std::vector<Case>{
           {0, "127.0.0.1", 0, QL_ERR_BAD_ARGUMENT},
           {4, "127.0.0.1", 0, QL_ERR_BAD_ARGUMENT},
           {QL_HSM_TOOL_PING, "127.0.0.1", 2, QL_ERR_BAD_FLAGS},
           {QL_HSM_TOOL_TRACEROUTE, "127.0.0.1", QL_HSM_TOOL_TCP_PROBE, QL_ERR_BAD_FLAGS},
           {QL_HSM_TOOL_CROSS_CHECK, nullptr, 1, QL_ERR_BAD_FLAGS},
           {QL_HSM_TOOL_PING, "", 0, QL_ERR_BAD_ARGUMENT},
           {QL_HSM_TOOL_TRACEROUTE, nullptr, 0, QL_ERR_BAD_ARGUMENT},
           {QL_HSM_TOOL_PING, "127.0.0.1 x", 0, QL_ERR_BAD_ARGUMENT},
           {QL_HSM_TOOL_PING, "127.0.0.1:0", 0, QL_ERR_BAD_ARGUMENT},
           {QL_HSM_TOOL_PING, "127.0.0.1:65536", 0, QL_ERR_BAD_ARGUMENT},
           {QL_HSM_TOOL_PING, ":80", 0, QL_ERR_BAD_ARGUMENT},
           {QL_HSM_TOOL_TRACEROUTE, "no-such-host.invalid", 0, QL_ERR_TARGET_UNRESOLVED},
       }) {
    const Report r = Tool(master.get(), c.tool, c.target, c.flags);
    EXPECT_EQ(r.rc, c.rc) << c.tool << " " << (c.target ? c.target : "(null)") << " " << c.flags;
    EXPECT_EQ(r.text, "");
  }
  char *text = nullptr;
  EXPECT_EQ(QHSMTool(master.get(), QL_HSM_TOOL_CROSS_CHECK, nullptr, &text, nullptr, 0),
            QL_ERR_BAD_ARGUMENT);
}

#ifdef QLUTIL_BIN
qltest::CommandResult Qlutil(const std::string &args) {
  return qltest::RunCommand(
      qltest::QlutilAsMaster(QLUTIL_BIN, "/tmp", qltest::HsmEnvironment::hsm(), args));
}

TEST(HsmTools, Jobs) {
  for (const char *job :
       {"net-tool", "net-tool -cmd ping", "net-tool -target 127.0.0.1",
        "net-tool -cmd bogus -target 127.0.0.1", "net-tool -cmd tracert -target 127.0.0.1 -tcp"}) {
    const qltest::CommandResult r = Qlutil(std::string("-j ") + job);
    EXPECT_EQ(r.exit_code, 255) << job;
    EXPECT_EQ(r.out.rfind("\r\nDESCRIPTION\r\n", 0), 0u) << job << "\n" << r.out;
  }
  qltest::CommandResult r = Qlutil("-j net-tool -cmd tracert -target 127.0.0.1");
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_TRUE(Has(r.out, "\r\nreached 127.0.0.1 at hop 1\r\n")) << r.out;
  r = Qlutil("-j net-tool -cmd ping -target 127.0.0.1");
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_TRUE(Has(r.out, "ping 127.0.0.1 (127.0.0.1): ")) << r.out;
  r = Qlutil("-j cross-check");
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_TRUE(Has(r.out, "\r\nall checks ok\r\n")) << r.out;
}
#endif

}  // namespace
