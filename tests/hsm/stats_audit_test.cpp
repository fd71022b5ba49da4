#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "engine/audit/audit_log.h"
#include "engine/stats/system_stats.h"
#include "test_util.h"

namespace qlhsm {
namespace {

using qlhsm::testing::TempDir;

TEST(Stats, ParseMeminfoInMiB) {
  const std::string text =
      "MemTotal:       16384000 kB\n"
      "MemFree:         1000000 kB\n"
      "MemAvailable:    8192000 kB\n"
      "SwapTotal:       2097152 kB\n"
      "SwapFree:        1048576 kB\n";
  auto m = stats::ParseMeminfo(text);
  ASSERT_TRUE(m.has_value());
  EXPECT_EQ(m->total_mib, 16000u);
  EXPECT_EQ(m->used_mib, 8000u);
  EXPECT_EQ(m->swap_total_mib, 2048u);
  EXPECT_EQ(m->swap_used_mib, 1024u);
  EXPECT_FALSE(stats::ParseMeminfo("MemTotal: 10 kB\n").has_value());
  EXPECT_FALSE(stats::ParseMeminfo("MemTotal: 10 kB\nMemAvailable: 20 kB\n").has_value());
}

TEST(Stats, MemoryAgreesWithProcMeminfo) {
  std::ifstream in("/proc/meminfo");
  std::string key, unit;
  uint64_t total_kib = 0;
  in >> key >> total_kib >> unit;
  ASSERT_EQ(key, "MemTotal:");
  auto m = stats::ReadMemory();
  ASSERT_TRUE(m.has_value());
  EXPECT_EQ(m->total_mib, total_kib / 1024);
  EXPECT_GT(m->used_mib, 0u);
  EXPECT_LE(m->used_mib, m->total_mib);
}

TEST(Stats, CpuPercentFromProcStat) {
  auto a = stats::ParseProcStat("cpu  100 0 100 700 100 0 0 0 0 0\ncpu0 1 2 3\n");
  auto b = stats::ParseProcStat("cpu  150 0 150 850 150 0 0 0 0 0\n");
  ASSERT_TRUE(a && b);
  EXPECT_EQ(a->total, 1000u);
  EXPECT_EQ(a->idle, 800u);
  EXPECT_EQ(stats::CpuPercent(*a, *b), 33u);  // 100 busy of 300
  EXPECT_EQ(stats::CpuPercent(*b, *a), 0u);   // a counter going back is not a negative load
  EXPECT_FALSE(stats::ParseProcStat("intr 1 2 3").has_value());
  stats::CpuSampler sampler;
  EXPECT_LE(sampler.Sample(), 100u);
}

class AuditTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto s = store::Store::Open(dir.path(), true);
    ASSERT_TRUE(s.ok());
    store = std::move(s.value());
  }
  TempDir dir;
  std::unique_ptr<store::Store> store;
};

TEST_F(AuditTest, PagesFillCloseCompressAndReload) {
  std::string expected;
  {
    audit::AuditLog log(*store, 512);
    ASSERT_TRUE(log.Load().ok());
    for (int i = 0; i < 40; ++i) log.Append("master", "create-user", "user" + std::to_string(i), 0);
    ASSERT_TRUE(log.Flush().ok());
    EXPECT_GT(log.PageCount(), 2u);
    uint64_t size = log.Size().value();
    std::string text;
    for (uint64_t n = 1; n <= log.PageCount(); ++n) {
      auto page = log.ReadPage(n);
      ASSERT_TRUE(page.ok()) << n;
      if (page->compressed) {
        auto plain = audit::AuditLog::Inflate(page->data, page->raw_len);
        ASSERT_TRUE(plain.ok());
        text += *plain;
      } else {
        EXPECT_EQ(page->data.size(), page->raw_len);
        text.append(page->data.begin(), page->data.end());
      }
    }
    EXPECT_EQ(text.size(), size);
    EXPECT_TRUE(log.ReadPage(1)->compressed) << "a closed page of repetitive lines shrinks";
    EXPECT_NE(text.find(" master create-user user39 0\n"), std::string::npos);
    EXPECT_EQ(log.ReadPage(log.PageCount() + 1).status().code(), Code::kObjectNotFound);
    expected = text;
  }
  audit::AuditLog again(*store, 512);
  ASSERT_TRUE(again.Load().ok());
  EXPECT_EQ(again.Size().value(), expected.size());
  again.Append("master", "remove-user", "user0", 5020);
  EXPECT_GT(again.Size().value(), expected.size());
}

TEST_F(AuditTest, LinesAreOneLineEach) {
  audit::AuditLog log(*store, 4096);
  ASSERT_TRUE(log.Load().ok());
  log.Append("u", "op", "evil\nname", 1);
  ASSERT_TRUE(log.Flush().ok());
  auto page = log.ReadPage(1);
  ASSERT_TRUE(page.ok());
  std::string text(page->data.begin(), page->data.end());
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
  EXPECT_NE(text.find("u op evil name 1\n"), std::string::npos);
}

TEST(AuditCompression, RoundTripAndDamage) {
  std::string text(1000, 'x');
  auto packed = audit::AuditLog::Compress(text);
  ASSERT_LT(packed.size(), text.size());
  EXPECT_EQ(audit::AuditLog::Inflate(packed, text.size()).value(), text);
  packed[packed.size() / 2] ^= 0xff;
  EXPECT_FALSE(audit::AuditLog::Inflate(packed, text.size()).ok());
}

}  // namespace
}  // namespace qlhsm
