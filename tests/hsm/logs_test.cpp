// The log service: reading pages over the engine's calls, truncation, the log cache, followers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/audit/follow_queue.h"
#include "engine/store/store.h"
#include "ql_hsm_log.h"
#include "test_util.h"

namespace qlhsm::testing {
namespace {

// Every line of the log, oldest first, read through the service as a client would.
std::vector<std::string> ReadAll(Engine &e, sessions::Session &s) {
  std::vector<std::string> lines;
  Result<uint64_t> pages = e.logs().Open(s);
  EXPECT_TRUE(pages.ok());
  if (!pages.ok()) return lines;
  for (uint64_t n = 1; n <= *pages; ++n) {
    Result<audit::Page> page = e.logs().ReadPage(s, n);
    EXPECT_TRUE(page.ok()) << n;
    if (!page.ok()) break;
    const std::string wire = LogService::WirePage(*page);
    std::string text;
    EXPECT_EQ(ql_hsm_log::DecodePage(reinterpret_cast<const unsigned char *>(wire.data()),
                                     wire.size(), &text),
              ql_hsm_log::PageResult::kOk);
    for (std::string_view line : ql_hsm_log::SplitLines(text)) lines.emplace_back(line);
  }
  return lines;
}

TEST(LogService, PagesOnTheWireDecodeToEveryLineInOrder) {
  EngineOptions opts;
  opts.audit_page_size = 200;  // many pages, the closed ones compressed
  EngineFixture f(opts);
  for (int i = 0; i < 40; ++i)
    ASSERT_TRUE(
        f.engine->users().CreateUser(*f.master, "u" + std::to_string(i), "pw-12345", 0).ok());
  const std::vector<std::string> lines = ReadAll(*f.engine, *f.master);
  bool compressed = false;
  for (uint64_t n = 1; n < f.engine->audit().PageCount(); ++n)
    compressed = compressed || f.engine->logs().ReadPage(*f.master, n)->compressed;
  EXPECT_TRUE(compressed) << "the test needs compressed pages";
  int next = 0;
  for (const std::string &line : lines) {
    const std::string want = " create-user u" + std::to_string(next) + " 0";
    if (line.size() > want.size() &&
        line.compare(line.size() - want.size(), want.size(), want) == 0)
      ++next;
  }
  EXPECT_EQ(next, 40) << "every creation, in order";
  EXPECT_EQ(f.engine->logs().ReadPage(*f.master, f.engine->audit().PageCount() + 1).status().code(),
            Code::kObjectNotFound);
  EXPECT_EQ(f.engine->logs().ReadPage(*f.master, 0).status().code(), Code::kBadArgument);
}

TEST(LogService, RightsToReadAndToTruncate) {
  EngineFixture f;
  ASSERT_TRUE(f.engine->users().CreateUser(*f.master, "nobody", "pw-12345", 0).ok());
  ASSERT_TRUE(
      f.engine->users().CreateUser(*f.master, "reader", "pw-12345", ACL_USR_REMOTE_LOG).ok());
  auto nobody = f.LoginAs("nobody", "pw-12345");
  auto reader = f.LoginAs("reader", "pw-12345");
  EXPECT_EQ(f.engine->logs().Open(*nobody).status().code(), Code::kAccessDenied);
  EXPECT_EQ(f.engine->logs().ReadPage(*nobody, 1).status().code(), Code::kAccessDenied);
  EXPECT_TRUE(f.engine->logs().Open(*reader).ok());
  const size_t before = ReadAll(*f.engine, *reader).size();
  EXPECT_EQ(f.engine->logs().Truncate(*reader, 0).code(), Code::kAccessDenied);
  EXPECT_EQ(f.engine->logs().Truncate(*f.master, 1).code(), Code::kBadArgument);
  // Refused truncations leave the log whole; the refused right is logged.
  const std::vector<std::string> after = ReadAll(*f.engine, *reader);
  ASSERT_GT(after.size(), before);
  EXPECT_NE(after[before].find(" reader truncate-log - 5002"), std::string::npos) << after[before];
}

TEST(LogService, TruncationLeavesOnlyItsOwnLineAndSurvivesARestart) {
  EngineOptions opts;
  opts.audit_page_size = 200;
  auto f = std::make_unique<EngineFixture>(opts);
  for (int i = 0; i < 20; ++i)
    ASSERT_TRUE(
        f->engine->users().CreateUser(*f->master, "u" + std::to_string(i), "pw-12345", 0).ok());
  ASSERT_GT(f->engine->audit().PageCount(), 2u);
  ASSERT_TRUE(f->engine->logs().Truncate(*f->master, 0).ok());
  std::vector<std::string> lines = ReadAll(*f->engine, *f->master);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find(" master truncate-log - 0"), std::string::npos) << lines[0];
  EXPECT_EQ(*f->engine->logs().Open(*f->master), 1u);
  // The size counts only the new log.
  EXPECT_EQ(*f->engine->system().GetLogSize(*f->master), lines[0].size() + 1);

  // Reopened, the log goes on from its one page.
  f->master.reset();
  f->engine.reset();
  auto reopened = Engine::Open(f->dir.path(), opts);
  ASSERT_TRUE(reopened.ok()) << reopened.status().ToString();
  EXPECT_EQ((*reopened)->audit().PageCount(), 1u);
}

TEST(LogService, CacheOffWritesReadOnlyLinesAtOnceAndIsKept) {
  auto f = std::make_unique<EngineFixture>();
  EXPECT_EQ(*f->engine->logs().SetCache(*f->master, ""), true) << "on by default";
  ASSERT_TRUE(f->engine->users().CreateUser(*f->master, "plain", "pw-12345", 0).ok());
  auto plain = f->LoginAs("plain", "pw-12345");
  EXPECT_EQ(f->engine->logs().SetCache(*plain, std::string(4, '\0')).status().code(),
            Code::kAccessDenied);
  EXPECT_EQ(f->engine->logs().SetCache(*f->master, "\x01").status().code(), Code::kBadLength);
  EXPECT_EQ(f->engine->logs().SetCache(*f->master, std::string("\x02\0\0\0", 4)).status().code(),
            Code::kBadArgument);
  EXPECT_EQ(*f->engine->logs().SetCache(*f->master, std::string(4, '\0')), false);

  // A refused read-only request: its line is in the store before the call returns.
  EXPECT_FALSE(f->engine->system().GetStatInfo(*plain).ok());
  auto store = store::Store::Open(f->dir.path(), false);
  ASSERT_TRUE(store.ok());
  const std::string stored = (*store)->Locked([](store::Connection &conn) {
    std::string all;
    auto st = conn.Prepare("SELECT data FROM audit_pages WHERE compressed = 0");
    for (;;) {
      if (!st.ok()) break;
      Result<bool> row = st->Step();
      if (!row.ok() || !row.value()) break;
      std::vector<uint8_t> d = st->Blob(0);
      all.append(d.begin(), d.end());
    }
    return all;
  });
  EXPECT_NE(stored.find("plain stat-info - 5002"), std::string::npos) << stored;

  plain.reset();
  f->master.reset();
  f->engine.reset();
  auto reopened = Engine::Open(f->dir.path());
  ASSERT_TRUE(reopened.ok()) << reopened.status().ToString();
  EXPECT_FALSE((*reopened)->audit().cache()) << "the setting is kept in the store";
}

TEST(LogService, FollowersGetNewLinesUntilTheyLeave) {
  EngineFixture f;
  std::vector<std::string> seen;
  auto id = f.engine->logs().Follow(*f.master, [&](const std::string &l) { seen.push_back(l); });
  ASSERT_TRUE(id.ok());
  ASSERT_TRUE(f.engine->users().CreateUser(*f.master, "watched", "pw-12345", 0).ok());
  f.engine->logs().Unfollow(*id);
  ASSERT_TRUE(f.engine->users().CreateUser(*f.master, "unseen", "pw-12345", 0).ok());
  std::string all;
  for (const auto &l : seen) all += l + "\n";
  EXPECT_NE(all.find("master create-user watched 0\n"), std::string::npos) << all;
  EXPECT_EQ(all.find("unseen"), std::string::npos) << all;

  ASSERT_TRUE(f.engine->users().CreateUser(*f.master, "blind", "pw-12345", 0).ok());
  auto blind = f.LoginAs("blind", "pw-12345");
  EXPECT_EQ(f.engine->logs().Follow(*blind, [](const std::string &) {}).status().code(),
            Code::kAccessDenied);
}

TEST(FollowQueue, AFollowerThatFallsBehindLosesTheNewestLinesAndIsToldHowMany) {
  audit::FollowQueue q(3);
  int wakes = 0;
  q.SetWake([&] { ++wakes; });
  for (int i = 0; i < 5; ++i) q.Push("line " + std::to_string(i));
  EXPECT_EQ(wakes, 1) << "one wake per batch";
  std::vector<std::string> batch = q.Take(10);
  ASSERT_EQ(batch.size(), 4u);
  EXPECT_EQ(batch[0], audit::FollowQueue::MissedLine(2));
  EXPECT_EQ(batch[1], "line 0");
  EXPECT_EQ(batch[3], "line 2");
  EXPECT_TRUE(q.Empty());
  // Drained, the next line wakes again and comes without a notice.
  q.Push("line 5");
  EXPECT_EQ(wakes, 2);
  EXPECT_EQ(q.Take(10), std::vector<std::string>{"line 5"});
  // A batch is bounded; the rest waits.
  for (int i = 0; i < 3; ++i) q.Push("x");
  EXPECT_EQ(q.Take(2).size(), 2u);
  EXPECT_FALSE(q.Empty());
}

}  // namespace
}  // namespace qlhsm::testing
