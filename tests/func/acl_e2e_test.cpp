// -f acl end to end, on a daemon of its own so that what the test leaves behind is plain.

#include <gtest/gtest.h>


#include "func_e2e_util.h"

using namespace functest;

namespace {

std::set<std::string> TmpNames(const std::set<std::string> &names) {
  std::set<std::string> tmp;
  for (const std::string &n : names) {
    if (n.find("TMP") != std::string::npos) tmp.insert(n);
  }
  return tmp;
}

TEST(FuncACL, VerboseZeroPrintsNothingFromTheChecks) {
  qltest::HsmProcess hsm;
  RunResult r = RunQlutil(With(hsm, {"-f", "acl", "-v", "0", "-tls", "0"}));
  EXPECT_EQ(r.exit_code, 0) << r.out;
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 1u) << r.out;
  EXPECT_EQ(lines[0].rfind("Total time: ", 0), 0u) << r.out;
  EXPECT_EQ(ListUsers(hsm), std::set<std::string>{"master"});
  EXPECT_TRUE(ListObjects(hsm).empty());
}

TEST(FuncACL, GrantedRightFailsWithItsErrorLineAndLeavesNothing) {
  auto hsm = StartFaultyHsm("grant-rights");
  ASSERT_NE(hsm, nullptr);
  RunResult r = RunQlutil(With(*hsm, {"-f", "acl"}));
  EXPECT_NE(r.exit_code, 0) << r.out;
  EXPECT_EQ(r.out.rfind("[TestUsrACL] ACL: ACL_NOP" + std::string(68, ' ') + " Create Delete" +
                            std::string(3, ' ') + " Returned: 0       Expected: 5002   *ERROR*\r\n",
                        0),
            0u)
      << r.out;
  EXPECT_NE(r.out.find("\r\nError during the test!\r\n"), std::string::npos) << r.out;
  EXPECT_TRUE(TmpNames(ListUsers(*hsm)).empty());
  EXPECT_TRUE(ListObjects(*hsm).empty());
}

}  // namespace
