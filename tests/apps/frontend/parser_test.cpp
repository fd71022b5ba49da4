// The command-line parser and the command selection.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "frontend_test_util.h"
#include "qlutil.h"

using frontend_test::Args;

namespace {

struct Parsed {
  std::unique_ptr<TEST_PARAMETER[], void (*)(TEST_PARAMETER *)> params{nullptr, FreeParameters};
  int count = -1;
};

Parsed Parse(const Args &args) {
  Parsed p;
  TEST_PARAMETER *raw = reinterpret_cast<TEST_PARAMETER *>(0x1);  // must be reset to null
  p.count = 99;
  ParseParameters(args.argc(), args.argv(), &raw, &p.count);
  p.params.reset(raw);
  return p;
}

TEST(ParseParameters, NoSwitchesGiveNullArrayAndZero) {
  for (const Args &args : {Args{}, Args{"foo", "bar"}, Args{""}}) {
    Parsed p = Parse(args);
    EXPECT_EQ(p.params, nullptr);
    EXPECT_EQ(p.count, 0);
  }
  // argc below 2 with a null vector is tolerated too.
  TEST_PARAMETER *raw = reinterpret_cast<TEST_PARAMETER *>(0x1);
  int n = 5;
  ParseParameters(1, nullptr, &raw, &n);
  EXPECT_EQ(raw, nullptr);
  EXPECT_EQ(n, 0);
}

TEST(ParseParameters, PairsSwitchesWithTheirFirstValue) {
  Parsed p = Parse(Args{"stray", "-p", "sign-hash", "extra", "-t", "5", "--retfiles", "-i", "",
                        "10", "-x", "-5"});
  ASSERT_EQ(p.count, 6);
  const std::pair<const char *, const char *> expected[] = {
      {"-p", "sign-hash"}, {"-t", "5"}, {"--retfiles", ""}, {"-i", "10"}, {"-x", ""}, {"-5", ""}};
  for (int i = 0; i < p.count; ++i) {
    EXPECT_STREQ(p.params[i].szParameter, expected[i].first) << i;
    EXPECT_STREQ(p.params[i].szValue, expected[i].second) << i;
  }
}

TEST(ParseParameters, NoSplittingOrQuotingRules) {
  Parsed p = Parse(Args{"-a=1", "x=y", "--", "-t", "\"5 6\""});
  ASSERT_EQ(p.count, 3);
  EXPECT_STREQ(p.params[0].szParameter, "-a=1");
  EXPECT_STREQ(p.params[0].szValue, "x=y");
  EXPECT_STREQ(p.params[1].szParameter, "--");
  EXPECT_STREQ(p.params[2].szValue, "\"5 6\"");
}

TEST(ParseParameters, OverlongFieldsAreCutAndTerminated) {
  const std::string longSwitch = "-" + std::string(100, 's');
  const std::string longValue(400, 'v');
  const std::string exact63 = "-" + std::string(62, 'e');
  Parsed p = Parse(Args{longSwitch, longValue, exact63, std::string(255, 'w')});
  ASSERT_EQ(p.count, 2);
  EXPECT_EQ(std::string(p.params[0].szParameter), longSwitch.substr(0, 63));
  EXPECT_EQ(std::string(p.params[0].szValue), longValue.substr(0, 255));
  EXPECT_EQ(std::string(p.params[1].szParameter), exact63);
  EXPECT_EQ(std::string(p.params[1].szValue), std::string(255, 'w'));
  // The getters see the cut switch name.
  EXPECT_EQ(IsParameterDefined(p.params.get(), p.count, longSwitch.substr(0, 63).c_str()), 1);
  EXPECT_EQ(IsParameterDefined(p.params.get(), p.count, longSwitch.c_str()), 0);
}

int HandlerA(TEST_PARAMETER *, int) {
  return 1;
}
int HandlerB(TEST_PARAMETER *, int) {
  return 2;
}
int HandlerC(TEST_PARAMETER *, int) {
  return 3;
}
int HandlerD(TEST_PARAMETER *, int) {
  return 4;
}

const TEST_FUNCTION kTable[] =
    {
        {'p', "sign-hash", HandlerA, ""}, {'f', "sign-hash", HandlerB, ""},
        {'f', "nop", HandlerC, ""},       {'j', "sign-hash", HandlerD, ""},
        {'f', "nop", HandlerD, ""},  // a later duplicate is never reached
};
constexpr int kRows = 5;

pfn_TestFunction Find(const Args &args) {
  Parsed p = Parse(args);
  return FindFunction(p.params.get(), p.count, kTable, kRows);
}

TEST(FindFunction, SelectsByKindAndName) {
  EXPECT_EQ(Find(Args{"-p", "sign-hash"}), HandlerA);
  EXPECT_EQ(Find(Args{"-f", "sign-hash"}), HandlerB);
  EXPECT_EQ(Find(Args{"-j", "sign-hash"}), HandlerD);
  EXPECT_EQ(Find(Args{"-f", "nop"}), HandlerC);
  EXPECT_EQ(Find(Args{"-s", "sign-hash"}), nullptr);
}

TEST(FindFunction, FirstTypeSwitchWinsEvenWhenItsNameIsUnknown) {
  EXPECT_EQ(Find(Args{"-f", "nop", "-p", "sign-hash"}), HandlerC);
  EXPECT_EQ(Find(Args{"-t", "3", "-j", "sign-hash", "-f", "nop"}), HandlerD);
  // No fall-through to a later type switch.
  EXPECT_EQ(Find(Args{"-f", "no-such", "-p", "sign-hash"}), nullptr);
}

TEST(FindFunction, OnlyTwoCharacterLowerCaseTypeSwitchesCount) {
  EXPECT_EQ(Find(Args{"-x", "1", "-p", "sign-hash"}), HandlerA);
  EXPECT_EQ(Find(Args{"-pp", "sign-hash"}), nullptr);
  EXPECT_EQ(Find(Args{"-P", "sign-hash"}), nullptr);
  EXPECT_EQ(Find(Args{"--p", "sign-hash"}), nullptr);
  EXPECT_EQ(Find(Args{"-p", "SIGN-HASH"}), nullptr);
  EXPECT_EQ(Find(Args{"-p", "sign"}), nullptr);  // whole names only
  EXPECT_EQ(Find(Args{"-j"}), nullptr);
  EXPECT_EQ(Find(Args{"-j", "-p", "sign-hash"}), nullptr);  // -j has no value
}

TEST(FindFunction, NullArrayOrTable) {
  EXPECT_EQ(FindFunction(nullptr, 0, kTable, kRows), nullptr);
  Parsed p = Parse(Args{"-p", "sign-hash"});
  EXPECT_EQ(FindFunction(p.params.get(), p.count, nullptr, 0), nullptr);
  EXPECT_EQ(FindFunction(p.params.get(), p.count, kTable, 0), nullptr);
}

}  // namespace
