// One walk over the whole command table.

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "frontend_test_util.h"
#include "qlutil.h"

using frontend_test::CaptureStdout;

namespace {

TEST(CommandTable, RowsByKindInOrder) {
  ASSERT_EQ(kCommandTableRows, 194);
  int row = 0;
  for (const auto &[kind, names] : frontend_test::CommandNames()) {
    for (const std::string &name : names) {
      ASSERT_LT(row, kCommandTableRows);
      EXPECT_EQ(kCommandTable[row].FunctionType, kind) << name;
      EXPECT_STREQ(kCommandTable[row].pszFunctionName, name.c_str()) << "row " << row;
      ++row;
    }
  }
  EXPECT_EQ(row, 194);
  int counts[4] = {};
  for (int i = 0; i < kCommandTableRows; ++i) {
    counts[std::string("pfsj").find(kCommandTable[i].FunctionType)]++;
  }
  EXPECT_EQ(counts[0], 50);
  EXPECT_EQ(counts[1], 18);
  EXPECT_EQ(counts[2], 5);
  EXPECT_EQ(counts[3], 121);
}

TEST(CommandTable, NamesUniqueWithinKindHandlersPresentDescriptionsSet) {
  std::set<std::string> seen;
  for (int i = 0; i < kCommandTableRows; ++i) {
    const TEST_FUNCTION &row = kCommandTable[i];
    EXPECT_TRUE(seen.insert(std::string(1, row.FunctionType) + row.pszFunctionName).second)
        << row.pszFunctionName;
    EXPECT_NE(row.pFunction, nullptr) << row.pszFunctionName;
    ASSERT_NE(row.pszDescription, nullptr) << row.pszFunctionName;
    EXPECT_GT(strlen(row.pszDescription), 0u) << row.pszFunctionName;
  }
}

TEST(CommandTable, TellingRows) {
  struct Telling {
    char kind;
    const char *name;
    const char *description;
  };
  const Telling rows[] = {
      {'p', "sign-hash",
       "Hash signature performance test:\r\nqlutil -p sign-hash -t <threads> -i <iterations> -h "
       "<hash alg> -k <key alg>"},
      {'p', "nop",
       "No operation. Just connect/disconnect:\r\nqlutil -p nop -t <threads> -i <iterations>"},
      {'f', "nop", "No operation. Just connect/disconnect:\r\nqlutil -f nop "},
      {'s', "user", "User stress test:\r\nqlutil -s user -t <threads> -i <iterations> "},
      {'j', "remove", "Remove objects:\r\nqlutil -j remove -ft <filter> "},
      {'j', "info", "Query HSM info\r\nqlutil -j info "},
      {'j', "get-log", "Get HSM Logs -j get-log "},
      {'j', "net-tool", "Execute a network took from the HSM\r\nqlutil -j net-tool "},
  };
  for (const Telling &t : rows) {
    bool found = false;
    for (int i = 0; i < kCommandTableRows; ++i) {
      if (kCommandTable[i].FunctionType == t.kind &&
          strcmp(kCommandTable[i].pszFunctionName, t.name) == 0) {
        EXPECT_STREQ(kCommandTable[i].pszDescription, t.description) << t.name;
        found = true;
      }
    }
    EXPECT_TRUE(found) << t.name;
  }
}

// The rows that need Windows interfaces.
bool IsWindowsOnly(char kind, const std::string &name) {
  if (kind == 'p') return name.rfind("csp-", 0) == 0;
  if (kind == 'f') {
    return name == "csp-hash" || name == "csp-sign-hash" || name == "csp-enc-dec" ||
           name == "csp-wrap-unwrap" || name == "spb-enc" || name == "spb-dec";
  }
  if (kind == 'j') {
    return name == "cert-assign-key" || name == "cert-sign" || name == "cert-info" ||
           name == "cng-register" || name == "cng-unregister";
  }
  return false;
}

// Every row answers when called with no options: a built handler prints its usage page (or
// its result) and returns, a pending one says so in one line and returns 50. Nothing here may
// reach an HSM: no address is given.
TEST(CommandTable, EveryRowAnswers) {
  int windowsOnly = 0;
  for (int i = 0; i < kCommandTableRows; ++i) {
    const TEST_FUNCTION &row = kCommandTable[i];
    TEST_PARAMETER params[1] = {};
    snprintf(params[0].szParameter, sizeof(params[0].szParameter), "-%c", row.FunctionType);
    snprintf(params[0].szValue, sizeof(params[0].szValue), "%s", row.pszFunctionName);
    int rc = 0;
    const std::string out = CaptureStdout([&] { rc = row.pFunction(params, 1); });
    const std::string tag = std::string("-") + row.FunctionType + " " + row.pszFunctionName;
#ifndef _WIN32
    if (IsWindowsOnly(row.FunctionType, row.pszFunctionName)) {
      ++windowsOnly;
      EXPECT_EQ(rc, kResultNotSupported) << tag;
      EXPECT_EQ(out, "Available on Windows only: " + tag + "\r\n");
      continue;
    }
#endif
    if (rc == kResultNotSupported) {
      EXPECT_EQ(out, "Not implemented yet: " + tag + "\r\n");
    } else {
      EXPECT_FALSE(out.empty()) << tag << " returned " << rc << " silently";
      EXPECT_NE(rc, kResultSuccess) << tag << " succeeded without any option";
    }
  }
#ifndef _WIN32
  EXPECT_EQ(windowsOnly, 19);
#endif
}

}  // namespace
