// The layout of the help screen: names in fields of 20, four to a line, a heading at each change
// of kind. The texts of the real screen and of every page are guarded by the golden test
// (tests/golden).

#include <gtest/gtest.h>

#include <string>

#include "frontend_test_util.h"
#include "qlutil.h"

using frontend_test::CaptureStdout;

namespace {

int Dummy(TEST_PARAMETER *, int) {
  return 0;
}

TEST(Help, ScreenLayoutWithASmallTable) {
  const TEST_FUNCTION table[] = {
      {'p', "a", Dummy, "x"},    {'p', "bb", Dummy, "x"}, {'p', "ccc", Dummy, "x"},
      {'p', "dddd", Dummy, "x"}, {'p', "e", Dummy, "x"},  {'f', "twenty-characters-xx", Dummy, "x"},
      {'f', "g", Dummy, "x"},    {'q', "h", Dummy, "x"},  {'j', "i", Dummy, "x"},
  };
  const std::string expected =
      frontend_test::HelpIntro() +
      "\r\n\r\nPerformance tests (-p command):\r\n"
      "a                   bb                  ccc                 dddd                \r\n"
      "e                   "
      "\r\n\r\nFunctional tests (-f command):\r\n"
      "twenty-characters-xxg                   "
      "h                   "  // no heading for an unknown kind
      "\r\n\r\nUtility functions (-j command:):\r\n"
      "i                   "
      "\r\n\r\n";
  EXPECT_EQ(CaptureStdout([&] { ShowHelp(table, 9); }), expected);
}

}  // namespace
