// -f acl end to end, on a daemon of its own so that what the test leaves behind is plain.

#include <gtest/gtest.h>

#include <regex>

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
  RunResult r = RunQlutil(With(hsm, {"-f", "acl", "-v", "0"}));
  EXPECT_EQ(r.exit_code, 0) << r.out;
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 1u) << r.out;
  EXPECT_EQ(lines[0].rfind("Total time: ", 0), 0u) << r.out;
  EXPECT_EQ(ListUsers(hsm), std::set<std::string>{"master"});
  EXPECT_TRUE(ListObjects(hsm).empty());
}

TEST(FuncACL, VerboseOnePrintsAll112Checks) {
  qltest::HsmProcess hsm;
  RunResult r = RunQlutil(With(hsm, {"-f", "acl", "-v", "1", "-tls", "0"}));
  EXPECT_EQ(r.exit_code, 0) << r.out;
  const std::regex line(
      R"(\[Test(Usr|Obj|Sys)ACL\] ACL: .{75} .{16} Returned: [0-9 ]{5}   Expected: [0-9 ]{5}  OK\r)");
  std::vector<std::string> lines = Lines(r.out);
  ASSERT_GE(lines.size(), 1u);
  lines.pop_back();  // the footer
  ASSERT_EQ(lines.size(), 112u) << r.out;
  int seq[3] = {0, 0, 0};
  for (const std::string &l : lines) {
    EXPECT_TRUE(std::regex_match(l, line)) << l;
    seq[l.compare(0, 11, "[TestUsrACL") == 0 ? 0 : l.compare(0, 11, "[TestObjACL") == 0 ? 1 : 2]++;
  }
  EXPECT_EQ(seq[0], 24);
  EXPECT_EQ(seq[1], 64);
  EXPECT_EQ(seq[2], 24);
  // The order of the checks, and one line byte for byte.
  EXPECT_EQ(lines[0], "[TestUsrACL] ACL: ACL_NOP" + std::string(68, ' ') + " Create Delete" +
                          std::string(3, ' ') + " Returned: 5002    Expected: 5002   OK\r");
  EXPECT_NE(lines[1].find(" Remote Log "), std::string::npos) << lines[1];
  EXPECT_NE(lines[2].find(" Usr List "), std::string::npos) << lines[2];
  EXPECT_NE(lines[24].find(" Create "), std::string::npos) << lines[24];
  EXPECT_NE(lines[25].find(" Read "), std::string::npos) << lines[25];
  EXPECT_NE(lines[26].find(" Del "), std::string::npos) << lines[26];
  EXPECT_NE(lines[27].find(" Update "), std::string::npos) << lines[27];
  EXPECT_NE(lines[88].find(" Backup Restore "), std::string::npos) << lines[88];
  EXPECT_NE(lines[89].find(" Operator "), std::string::npos) << lines[89];
  EXPECT_NE(lines[90].find(" Update "), std::string::npos) << lines[90];
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

TEST(FuncACL, NoConnectionPrintsTheUsagePage) {
  RunResult r = RunQlutil({"-f", "acl", "-v", "1"});
  EXPECT_EQ(r.exit_code, 255);
  EXPECT_NE(r.out.find("     User rights test. Perform several ACL tests\r\n"), std::string::npos)
      << r.out;
}

}  // namespace
