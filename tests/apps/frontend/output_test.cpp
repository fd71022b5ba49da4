// Output primitives: the -out result line, result files, byte-length texts, section tables.

#include "Output.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "frontend_test_util.h"
#include "section_table.h"

using frontend_test::CaptureStdout;
using frontend_test::ReadFile;

namespace {

// Dates in the result line are local time; the tests pin the zone.
void SetTz(const char *tz) {
#ifdef _WIN32
  _putenv_s("TZ", tz != nullptr ? tz : "");
  _tzset();
#else
  if (tz != nullptr) {
    setenv("TZ", tz, 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
#endif
}

class OutputFileTest : public frontend_test::ScratchDirTest {
 protected:
  void SetUp() override {
    ScratchDirTest::SetUp();
    const char *tz = getenv("TZ");
    oldTz_ = tz != nullptr ? tz : "";
    hadTz_ = tz != nullptr;
    SetTz("UTC");
  }
  void TearDown() override {
    CloseFileOutput();
    SetHsmVersionQuery(nullptr);
    SetTz(hadTz_ ? oldTz_.c_str() : nullptr);
    ScratchDirTest::TearDown();
  }
  std::string oldTz_;
  bool hadTz_ = false;
};

// 2024-02-29 13:05:09 UTC and 2024-03-01 00:00:07 UTC.
constexpr time_t kStart = 1709211909;
constexpr time_t kEnd = 1709251207;

bool FakeVersions(const char *address, const char *user, const char *password, unsigned flags,
                  int port, char texts[6][512]) {
  if (std::string(address) != "10.0.0.1" || std::string(user) != "master" ||
      std::string(password) != "24681357" || flags != 5 || port != 4433) {
    return false;
  }
  const char *v[6] = {"v1", "v2", "v3", "v4", "100%d", "v6"};
  for (int i = 0; i < 6; ++i) snprintf(texts[i], 512, "%s", v[i]);
  return true;
}

TEST_F(OutputFileTest, ResultLineLayout) {
  ASSERT_TRUE(OpenFileOutput("out.csv"));
  SetHsmVersionQuery(FakeVersions);
  FileOutput("case %s 1", 2, kStart, kEnd, 100000, 12.345, 6789.5, 4, 1000, "10.0.0.1", "master",
             "24681357", 5, 4433, "%s;%d", "tail", 9);
  // Without a hook the version texts are empty.
  SetHsmVersionQuery(nullptr);
  FileOutput("tc", 1, kStart, kStart, -1, 0, 0, 1, 1, "a", "u", "p", 0, 4433, "plain");
  CloseFileOutput();
  EXPECT_EQ(ReadFile("out.csv"),
            "\"case %s 1\";\"4\";\"1000\";\"100000\";\"12.35\";\"6789.50\";"
            "\"29/02/2024 13:05:09\";\"01/03/2024 00:00:07\";\"v1\";\"v2\";\"v3\";\"v4\";2;"
            "\"100%d\";\"v6\";\"tail;9\";\n"
            "\"tc\";\"1\";\"1\";\"-1\";\"0.00\";\"0.00\";\"29/02/2024 13:05:09\";"
            "\"29/02/2024 13:05:09\";\"\";\"\";\"\";\"\";1;\"\";\"\";\"plain\";\n");
}

TEST_F(OutputFileTest, FailedVersionQueryGivesEmptyTexts) {
  ASSERT_TRUE(OpenFileOutput("out.csv"));
  SetHsmVersionQuery(FakeVersions);
  FileOutput("tc", 1, kStart, kStart, 0, 0, 0, 1, 1, "other", "u", "p", 0, 4433, "x");
  CloseFileOutput();
  EXPECT_NE(ReadFile("out.csv").find(";\"\";\"\";\"\";\"\";1;\"\";\"\";\"x\";\n"),
            std::string::npos);
}

TEST_F(OutputFileTest, AppendsAndIsSilentWithoutFile) {
  FileOutput("none", 1, kStart, kStart, 0, 0, 0, 1, 1, "a", "u", "p", 0, 4433, "x");
  EXPECT_FALSE(std::filesystem::exists("out.csv"));
  { std::ofstream("out.csv") << "old\n"; }
  ASSERT_TRUE(OpenFileOutput("out.csv"));
  ASSERT_TRUE(OpenFileOutput("out.csv"));  // reopening closes the first handle
  FileOutput("t1", 1, kStart, kStart, 0, 0, 0, 1, 1, "a", "u", "p", 0, 4433, "x");
  CloseFileOutput();
  CloseFileOutput();  // harmless twice
  FileOutput("t2", 1, kStart, kStart, 0, 0, 0, 1, 1, "a", "u", "p", 0, 4433, "x");
  const std::string text = ReadFile("out.csv");
  EXPECT_EQ(text.rfind("old\n\"t1\";", 0), 0u);
  EXPECT_EQ(text.find("t2"), std::string::npos);
  EXPECT_FALSE(OpenFileOutput("no/such/dir/out.csv"));
  EXPECT_FALSE(IsFileOutputOpen());
}

TEST_F(OutputFileTest, ResultFiles) {
  SetErrorCode(-1, false);
  EXPECT_FALSE(std::filesystem::exists("qlutil_result"));
  SetErrorCode(100001, true);
  EXPECT_EQ(ReadFile("qlutil_result"), "100001");
  SetErrorCode(0, true);
  EXPECT_EQ(ReadFile("qlutil_result"), "0");  // truncated, no line end

  EXPECT_EQ(WriteFloatToFile("qlutil_time", 1234.6f), 0);
  EXPECT_EQ(ReadFile("qlutil_time"), "1235");
  EXPECT_EQ(WriteFloatToFile("qlutil_time", 0.4f), 0);
  EXPECT_EQ(ReadFile("qlutil_time"), "0");
  EXPECT_EQ(WriteTextToFile("t.txt", "a%sb"), 0);
  EXPECT_EQ(ReadFile("t.txt"), "a%sb");
  EXPECT_EQ(WriteTextToFile("no/such/dir/t.txt", "x"), -1);
  EXPECT_EQ(WriteFloatToFile("no/such/dir/t.txt", 1.0f), -1);
}

TEST(Output, FooterFormat) {
  const int old = GetFooterFormat();
  SetFooterFormat(kFooterTimeOnly);
  EXPECT_EQ(GetFooterFormat(), 2);
  SetFooterFormat(kFooterFull);
  EXPECT_EQ(GetFooterFormat(), 3);
  SetFooterFormat(old);
}

TEST(Output, ScreenOutputIsPlainPrintf) {
  EXPECT_EQ(CaptureStdout([] { ScreenOutput("%s=%d\r\n", "n", 5); }), "n=5\r\n");
}

#ifndef _WIN32
TEST(Output, ErrorPrintShowsErrnoInHex) {
  errno = ENOENT;
  const std::string out = CaptureStdout([] { ErrorPrint("[open]"); });
  EXPECT_EQ(out.rfind("[open] 2: ", 0), 0u);
  EXPECT_GT(out.size(), std::string("[open] 2: \r\n").size());
}
#endif

TEST(Output, ByteLenBoundaries) {
  const std::pair<float, const char *> cases[] = {
      {0.0f, "0.00 bytes"},        {1023.0f, "1023.00 bytes"},
      {1023.99f, "1023.99 bytes"}, {1024.0f, "1.00 KB"},
      {1536.0f, "1.50 KB"},        {1048575.0f, "1024.00 KB"},
      {1048576.0f, "1.00 MB"},     {1073741760.0f, "1024.00 MB"},  // the largest float below 2^30
      {1073741824.0f, "1.00 GB"},  {5497558138880.0f, "5120.00 GB"},
  };
  for (const auto &[value, text] : cases) {
    char buf[kByteLenBufferSize];
    EXPECT_STREQ(FormatByteLenOutput(value, buf), text) << value;
  }
  char buf[kByteLenBufferSize];
  EXPECT_EQ(FormatByteLenOutputPrintTimeFormat(1536.7f, buf), buf);
  EXPECT_STREQ(buf, "1537");
  EXPECT_STREQ(FormatByteLenOutputPrintTimeFormat(0.0f, buf), "0");
}

TEST(SectionTableTest, Layout) {
  SectionTable t("HSM", 10);
  t.AddRow("Model", "%s", "QL-1");
  t.AddRow("Serial", "%05d", 42);
  // N = 3 + 10 = 13, W = 16; title pad 16 - ceil(3/2) = 14.
  const std::string expected = std::string(14, ' ') + "HSM\r\n\r\n" +
                               "        Model : QL-1\r\n"
                               "       Serial : 00042\r\n";
  EXPECT_EQ(CaptureStdout([&] { t.Print(); }), expected);
  EXPECT_EQ(t.max_name_length(), 10u);  // the given width stays when names are shorter
  EXPECT_EQ(t.max_value_length(), 5u);
}

TEST(SectionTableTest, LongNameWidensTheColumn) {
  SectionTable t("Info", 2);
  t.AddRow("a", "1");
  t.AddRow("longer-name", "2");
  t.AddTitle("Key");  // replaces the title: N = 14, W = 17, pad 17 - 2 = 15
  const std::string expected = std::string(15, ' ') + "Key\r\n\r\n" +
                               "             a : 1\r\n"
                               "   longer-name : 2\r\n";
  EXPECT_EQ(CaptureStdout([&] { t.Print(); }), expected);
}

TEST(SectionTableTest, LongTitleKeepsOneBlankAndValuesAreCut) {
  SectionTable t(std::string(40, 'T'), 1);
  t.AddRow("n", "%s", std::string(2000, 'v').c_str());
  ASSERT_EQ(t.rows().size(), 1u);
  EXPECT_EQ(t.rows()[0].value.size(), SectionTable::kMaxValueLen - 1);
  const std::string out = CaptureStdout([&] { t.Print(); });
  EXPECT_EQ(out.rfind(" " + std::string(40, 'T') + "\r\n\r\n", 0), 0u);
  // Odd title lengths round the half up: 4 + 3 = 7 is W; "abc" gives pad 7 - 2 = 5.
  SectionTable odd("abc", 1);
  EXPECT_EQ(CaptureStdout([&] { odd.Print(); }), "     abc\r\n\r\n");
}

}  // namespace
