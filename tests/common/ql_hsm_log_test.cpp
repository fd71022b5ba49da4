// The log reader on pages made by the HSM's own log writer, plain and compressed, whole and cut.
#include "ql_hsm_log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/audit/audit_log.h"

namespace ql_hsm_log {
namespace {

std::vector<unsigned char> PlainPage(const std::string &text) {
  return {text.begin(), text.end()};
}

std::vector<unsigned char> CompressedPage(const std::string &text) {
  std::vector<unsigned char> page = {'Z'};
  const std::vector<uint8_t> stream = qlhsm::audit::AuditLog::Compress(text);
  page.insert(page.end(), stream.begin(), stream.end());
  return page;
}

const std::string kPage1 =
    "2026-11-20 09:00:00 master create-user alice 0\n2026-11-20 09:00:01 alice sign k1 0\n";
const std::string kPage2 =
    "2026-11-21 10:00:00 alice sign k1 0\r\n2026-11-22 11:00:00 bob x y 5002\n";
const std::string kPage3 = "2026-11-23 12:00:00 master truncate-log - 0\n";

std::vector<std::string> ReadAll(std::vector<std::vector<unsigned char>> pages, bool newest_first,
                                 PageResult *result) {
  size_t next = 0;
  std::vector<std::string> lines;
  *result = ReadLines(
      [&](std::vector<unsigned char> *page) {
        if (next == pages.size()) return false;
        *page = pages[next++];
        return true;
      },
      newest_first,
      [&](std::string_view line) {
        lines.emplace_back(line);
        return true;
      });
  return lines;
}

TEST(LogPages, PlainAndCompressedPagesGiveTheirLines) {
  std::string text;
  const std::vector<unsigned char> z = CompressedPage(kPage2);
  ASSERT_EQ(DecodePage(z.data(), z.size(), &text), PageResult::kOk);
  EXPECT_EQ(text, kPage2);
  const std::vector<std::string_view> lines = SplitLines(text);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "2026-11-21 10:00:00 alice sign k1 0");  // the CR goes with the LF
  const std::vector<unsigned char> plain = PlainPage(kPage1);
  ASSERT_EQ(DecodePage(plain.data(), plain.size(), &text), PageResult::kOk);
  EXPECT_EQ(text, kPage1);
}

TEST(LogPages, CutOrDamagedStreamsAreRefusedWithoutCrashing) {
  std::string text;
  const std::vector<unsigned char> z = CompressedPage(kPage1 + kPage2 + kPage3);
  for (size_t cut : {size_t{1}, size_t{2}, z.size() / 2, z.size() - 1}) {
    EXPECT_EQ(DecodePage(z.data(), cut, &text), PageResult::kCorrupt) << cut;
    EXPECT_TRUE(text.empty());
  }
  std::vector<unsigned char> damaged = z;
  damaged[damaged.size() / 2] ^= 0xFF;
  EXPECT_EQ(DecodePage(damaged.data(), damaged.size(), &text), PageResult::kCorrupt);
  // A stream that would inflate past the page limit stops there.
  const std::vector<unsigned char> bomb = CompressedPage(std::string(kMaxPageText + 1, 'a'));
  EXPECT_EQ(DecodePage(bomb.data(), bomb.size(), &text), PageResult::kCorrupt);
}

TEST(LogPages, ReadsForwardsAndNewestFirstAcrossMixedPages) {
  PageResult result;
  const std::vector<std::vector<unsigned char>> oldest_first = {
      CompressedPage(kPage1), PlainPage(kPage2), CompressedPage(kPage3)};
  std::vector<std::string> lines = ReadAll(oldest_first, false, &result);
  EXPECT_EQ(result, PageResult::kOk);
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines.front(), "2026-11-20 09:00:00 master create-user alice 0");
  EXPECT_EQ(lines.back(), "2026-11-23 12:00:00 master truncate-log - 0");

  const std::vector<std::vector<unsigned char>> newest_first = {
      CompressedPage(kPage3), PlainPage(kPage2), CompressedPage(kPage1)};
  std::vector<std::string> back = ReadAll(newest_first, true, &result);
  ASSERT_EQ(back.size(), 5u);
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(back[i], lines[4 - i]);

  // A damaged page ends the read with the lines before it given.
  std::vector<std::vector<unsigned char>> with_damage = oldest_first;
  with_damage[1] = CompressedPage(kPage2);
  with_damage[1].resize(with_damage[1].size() - 3);
  lines = ReadAll(with_damage, false, &result);
  EXPECT_EQ(result, PageResult::kCorrupt);
  EXPECT_EQ(lines.size(), 2u);
}

TEST(LogFilters, DateRangesAndLastDays) {
  const std::optional<time_t> t = LineTime("2026-11-21 10:00:00 alice sign k1 0");
  ASSERT_TRUE(t.has_value());
  EXPECT_EQ(*t, 1795255200);  // date -u -d '2026-11-21 10:00:00' +%s
  EXPECT_FALSE(LineTime("not a line").has_value());
  EXPECT_FALSE(LineTime("2026-13-21 10:00:00 x").has_value());

  DateRange range{*ParseDay("2026-11-21", false), *ParseDay("2026-11-22", true)};
  EXPECT_FALSE(range.Contains("2026-11-20 23:59:59 a b c 0"));
  EXPECT_TRUE(range.Contains("2026-11-21 00:00:00 a b c 0"));
  EXPECT_TRUE(range.Contains("2026-11-22 23:59:59 a b c 0"));
  EXPECT_FALSE(range.Contains("2026-11-23 00:00:00 a b c 0"));
  EXPECT_FALSE(range.Contains("missed 3 lines"));
  EXPECT_FALSE(ParseDay("2026-11", false).has_value());

  const time_t now = *LineTime("2026-11-23 12:30:00");
  const DateRange last2 = LastDays(2, now);
  EXPECT_TRUE(last2.Contains("2026-11-22 00:00:00 a b c 0"));
  EXPECT_FALSE(last2.Contains("2026-11-21 23:59:59 a b c 0"));
  EXPECT_FALSE(last2.Contains("2026-11-23 12:30:01 a b c 0"));
}

}  // namespace
}  // namespace ql_hsm_log
