// The -s members end to end with small counts.

#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>

#include "func_e2e_util.h"

using namespace functest;

namespace {

bool Contains(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

size_t CountWithPrefix(const std::set<std::string> &names, const std::string &prefix) {
  size_t n = 0;
  for (const std::string &name : names) n += name.rfind(prefix, 0) == 0 ? 1 : 0;
  return n;
}

TEST(StressUser, CreatesOneUserPerIterationAndThread) {
  for (const char *reuse : {"1", "0"}) {
    const size_t before = ListUsers(SharedHsm()).size();
    RunResult r = RunQlutil(With(SharedHsm(), {"-s", "user", "-t", "2", "-i", "3", "-r", reuse}));
    EXPECT_EQ(r.exit_code, 0) << r.out;
    EXPECT_EQ(ListUsers(SharedHsm()).size(), before + 6) << "reuse " << reuse;
  }
}

TEST(StressCreateUser, CountersSplitBetweenThreads) {
  RunResult r = RunQlutil(
      With(SharedHsm(), {"-s", "create-user", "-t", "3", "-i", "1", "-tu", "7", "-pre", "cu"}));
  EXPECT_EQ(r.exit_code, 0) << r.out;
  const auto users = ListUsers(SharedHsm());
  for (int i = 0; i < 7; ++i) EXPECT_EQ(users.count("cu" + std::to_string(i)), 1u) << i;
  EXPECT_EQ(users.count("cu7"), 0u);
  // The same names again: the HSM refuses an existing user and the run fails.
  r = RunQlutil(
      With(SharedHsm(), {"-s", "create-user", "-t", "1", "-i", "1", "-tu", "1", "-pre", "cu"}));
  EXPECT_NE(r.exit_code, 0) << r.out;
  EXPECT_TRUE(Contains(r.out, "Error in QCreateUser. Err: 5013 Thread: 0\r\n")) << r.out;
}

TEST(StressCreateUser, PrefixLongerThanNineIsRefused) {
  RunResult r = RunQlutil(With(
      SharedHsm(), {"-s", "create-user", "-t", "1", "-i", "1", "-tu", "1", "-pre", "abcdefghij"}));
  EXPECT_EQ(r.exit_code, 255) << r.out;
  EXPECT_TRUE(Contains(r.out, "     prefix and a counter.\r\n")) << r.out;
  EXPECT_EQ(CountWithPrefix(ListUsers(SharedHsm()), "abcdefghij"), 0u);
}

TEST(StressCreateUserPTL, PrintsTheReplicationState) {
  RunResult r =
      RunQlutil(With(SharedHsm(), {"-s", "create-user-ptl", "-t", "2", "-i", "2", "-pre", "ptl"}));
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_TRUE(Contains(r.out,
                       "Iteration count    : 2\nLast user name     : ptl3\n"
                       "Pending Transaction: 0000000000000000\n"))
      << r.out;
  EXPECT_EQ(CountWithPrefix(ListUsers(SharedHsm()), "ptl"), 4u);
}

TEST(StressSession, MaxReportsHowManySessionsItOpened) {
  qltest::HsmOptions options;
  options.serve_args = {"--max-sessions", "3"};
  qltest::HsmProcess hsm(options);
  RunResult r = RunQlutil(With(hsm, {"-s", "session", "-max"}));
  EXPECT_NE(r.exit_code, 0) << r.out;
  EXPECT_TRUE(Contains(r.out, "Error in ConnectEx. Err: 5008 Thread: 0 Sessions: 3\r\n")) << r.out;
}

TEST(StressSession, NoThreadWaitsForItsKey) {
  QlutilProcess p(With(SharedHsm(), {"-s", "session", "-nothread", "-i", "2"}));
  ASSERT_TRUE(p.WaitForOutput("Press any key to continue...\n\n", 60000));
  // Held open until the key: still running a moment later.
  usleep(300000);
  EXPECT_TRUE(p.Running());
  p.WriteStdin("x");
  RunResult r = p.Finish(30000);
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(r.out.rfind("\n2 sessions are still open.\n\n\nPress any key to continue...\n\n", 0),
            0u)
      << r.out;
}

TEST(StressSession, NoThreadEndsWhenStandardInputIsClosed) {
  QlutilProcess p(With(SharedHsm(), {"-s", "session", "-nothread", "-i", "1"}));
  p.CloseStdin();
  RunResult r = p.Finish(60000);
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_TRUE(Contains(r.out, "Press any key to continue...")) << r.out;
}

}  // namespace

namespace {

// -keep holds each session alive until a keep-alive fails: here, until the daemon stops.
TEST(StressSession, KeepAliveRunsUntilTheHsmGoesAway) {
  qltest::HsmProcess hsm;
  QlutilProcess p(With(hsm, {"-s", "session", "-t", "1", "-i", "1", "-keep", "50"}));
  usleep(700000);
  EXPECT_TRUE(p.Running());
  hsm.Stop();
  RunResult r = p.Finish(60000);
  EXPECT_NE(r.exit_code, 0) << r.out;
  const std::regex line(
      R"(Error in QAdmOperation\. Err = [0-9]+ \[Thread 0 / Iteration 1 / Keepalive iteration: ([0-9]+) / Total keepalive time: ([0-9]+)\]\r)");
  std::smatch m;
  bool found = false;
  for (const std::string &l : Lines(r.out)) {
    if (std::regex_match(l, m, line)) {
      found = true;
      EXPECT_EQ(std::stoul(m[2]), std::stoul(m[1]) * 50) << l;
      EXPECT_GE(std::stoul(m[1]), 2u) << l;
    }
  }
  EXPECT_TRUE(found) << r.out;
}

// --infinite without --auto-reconnect: opens sessions until the first failure, which ends the
// thread but is not an error of the run.
TEST(SessionOpening, InfiniteRunsUntilTheFirstFailedOpening) {
  qltest::HsmProcess hsm;
  QlutilProcess p(With(hsm, {"-s", "session-opening", "-t", "1", "--infinite", "-sc", "0",
                             "--sleep-duration", "20"}));
  usleep(500000);
  EXPECT_TRUE(p.Running());
  hsm.Stop();
  RunResult r = p.Finish(60000);
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_TRUE(
      std::regex_search(r.out, std::regex(R"(Error in ConnectEx\. Err: [0-9]+ Thread: 0\r\n)")))
      << r.out;
}

}  // namespace
