// The command table's own rules: one row per name within a kind, each with a handler and a
// description. What each command prints is guarded by the golden test (tests/golden).

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "qlutil.h"

namespace {

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

}  // namespace
