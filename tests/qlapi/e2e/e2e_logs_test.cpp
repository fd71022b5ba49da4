// libqlapi against a real qlhsmd whose log pages are small: the log read page by page both ways
// (compressed pages included), truncation, following the log, the log cache and the cluster
// requests a single HSM refuses.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "hsm_fixture.h"
#include "library_session.h"
#include "qlapi.h"

namespace {

using Session = qltest::OpenedSession;

void CreateUser(const char *name, uint32_t acl) {
  Session m;
  EXPECT_EQ(qltest::CreateUser(m.get(), name, "pw123456", acl), QL_OK);
}

// The raw pages of one read, in the order the library hands them out.
std::vector<std::string> Pages(HSESSIONCTX s, uint32_t flags) {
  std::vector<std::string> pages;
  HLOGCTX log = nullptr;
  EXPECT_EQ(QGetHSMLogInit(s, flags, &log), QL_OK);
  for (;;) {
    uint32_t len = 0;
    int rc = QGetHSMLogCont(log, nullptr, &len);
    if (rc == QL_ERR_OBJ_NOT_FOUND) break;
    EXPECT_EQ(rc, QL_ERR_BUFFER_TOO_SMALL);
    if (rc != QL_ERR_BUFFER_TOO_SMALL) break;
    // A short buffer leaves the page for the next call.
    std::string page(len, '\0');
    uint32_t short_len = len - 1;
    EXPECT_EQ(QGetHSMLogCont(log, reinterpret_cast<unsigned char *>(page.data()), &short_len),
              QL_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(QGetHSMLogCont(log, reinterpret_cast<unsigned char *>(page.data()), &len), QL_OK);
    pages.push_back(page);
  }
  EXPECT_EQ(QGetHSMLogEnd(&log), QL_OK);
  EXPECT_EQ(log, nullptr);
  return pages;
}

TEST(E2eLog, PagesForwardsAndBackwardsWithCompressedOnes) {
  for (int i = 0; i < 10; ++i) CreateUser(("logged" + std::to_string(i)).c_str(), 0);
  Session m;
  const std::vector<std::string> forwards = Pages(m.get(), 0);
  const std::vector<std::string> backwards = Pages(m.get(), 1);
  ASSERT_GT(forwards.size(), 2u);
  // Backwards starts at the newest page: the same pages, reversed (the newest may have grown).
  ASSERT_EQ(backwards.size(), forwards.size());
  for (size_t i = 0; i + 1 < forwards.size(); ++i)
    EXPECT_EQ(forwards[i], backwards[backwards.size() - 1 - i]) << i;
  size_t compressed = 0;
  for (const std::string &p : forwards) compressed += !p.empty() && p[0] == 'Z';
  EXPECT_GT(compressed, 0u) << "closed pages of a repetitive log compress";
  EXPECT_NE(forwards.back()[0], 'Z') << "the open page is plain";

  HLOGCTX log = nullptr;
  EXPECT_EQ(QGetHSMLogInit(m.get(), 2, &log), QL_ERR_BAD_FLAGS);
  EXPECT_EQ(log, nullptr);
}

TEST(E2eLog, RightsTruncationAndTheCache) {
  CreateUser("nolog", 0);
  CreateUser("reader", ACL_USR_REMOTE_LOG);
  Session nolog("nolog", "pw123456");
  Session reader("reader", "pw123456");
  HLOGCTX log = nullptr;
  EXPECT_EQ(QGetHSMLogInit(nolog.get(), 0, &log), QL_ERR_ACCESS_DENIED);
  EXPECT_EQ(QGetHSMLogInit(reader.get(), 0, &log), QL_OK);
  EXPECT_EQ(QGetHSMLogEnd(&log), QL_OK);
  EXPECT_EQ(QTruncateLog(reader.get(), 0), QL_ERR_ACCESS_DENIED);
  uint32_t on = 0;
  EXPECT_EQ(QAdmOperation(reader.get(), QL_ADM_LOG_CACHE, &on, sizeof on, nullptr, nullptr, 0),
            QL_ERR_ACCESS_DENIED);

  Session m;
  EXPECT_EQ(QTruncateLog(m.get(), 0), QL_OK);
  const std::vector<std::string> pages = Pages(reader.get(), 0);
  ASSERT_EQ(pages.size(), 1u);
  EXPECT_NE(pages[0].find(" master truncate-log - 0\n"), std::string::npos) << pages[0];
  EXPECT_EQ(pages[0].find('\n'), pages[0].size() - 1) << "one line";
  uint64_t size = 0;
  EXPECT_EQ(QGetStatLogSize(m.get(), &size), QL_OK);
  EXPECT_EQ(size, pages[0].size());

  uint32_t state = 7;
  uint32_t len = sizeof state;
  uint32_t off = 0;
  EXPECT_EQ(QAdmOperation(m.get(), QL_ADM_LOG_CACHE, &off, sizeof off, &state, &len, 0), QL_OK);
  EXPECT_EQ(state, 0u);
  EXPECT_EQ(QAdmOperation(m.get(), QL_ADM_LOG_CACHE, nullptr, 0, &state, &len, 0), QL_OK);
  EXPECT_EQ(state, 0u);
  on = 1;
  EXPECT_EQ(QAdmOperation(m.get(), QL_ADM_LOG_CACHE, &on, sizeof on, &state, &len, 0), QL_OK);
  EXPECT_EQ(state, 1u);

  EXPECT_EQ(QAdmOperation(m.get(), QL_ADM_REPL_UPDATE, nullptr, 0, nullptr, nullptr, 0),
            QL_ERR_NOT_IN_CLUSTER);
  EXPECT_EQ(QAdmOperation(nolog.get(), QL_ADM_REPL_UPDATE, nullptr, 0, nullptr, nullptr, 0),
            QL_ERR_ACCESS_DENIED);
}

struct Followed {
  std::atomic<bool> started{false};
  std::vector<std::string> lines;
  unsigned ticks = 0;
  std::string until;
};

int OnLine(void *param, const char *line, uint32_t len) {
  auto *f = static_cast<Followed *>(param);
  if (line == nullptr) {
    ++f->ticks;
    return 0;
  }
  EXPECT_EQ(std::strlen(line), len);
  f->lines.emplace_back(line, len);
  // The follow's own line is the first one it gets.
  if (f->lines.back().find(" log-follow - 0") != std::string::npos) f->started = true;
  return f->lines.back().find(f->until) != std::string::npos ? 1 : 0;
}

TEST(E2eLog, AFollowerSeesLinesWrittenAfterItStartedUntilItStops) {
  Session follower;
  Followed f;
  f.until = "create-user followed-last";
  int rc = -1;
  std::atomic<bool> done{false};
  std::thread t([&] {
    rc = QGetLogEvents(follower.get(), &OnLine, &f);
    done = true;
  });
  while (!f.started && !done) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  if (!done) CreateUser("followed-last", 0);
  t.join();
  EXPECT_EQ(rc, QL_OK);
  ASSERT_FALSE(f.lines.empty());
  EXPECT_NE(f.lines.back().find(" master create-user followed-last 0"), std::string::npos)
      << f.lines.back();
  // The follow ended the session's connection.
  uint64_t size = 0;
  EXPECT_EQ(QGetStatLogSize(follower.get(), &size), QL_ERR_SESSION_CLOSED);

  CreateUser("nofollow", 0);
  Session refused("nofollow", "pw123456");
  EXPECT_EQ(QGetLogEvents(refused.get(), &OnLine, &f), QL_ERR_ACCESS_DENIED);
  EXPECT_EQ(QGetLogEvents(refused.get(), nullptr, nullptr), QL_ERR_BAD_ARGUMENT);
}

// Small audit pages, so that a few requests fill several.
const qltest::HsmSetup kSetup{[] {
  qltest::HsmOptions options;
  options.serve_args = {"--audit-page-size", "256"};
  return options;
}()};

}  // namespace
