// Logic of the functional, access-control and stress tests that needs no HSM: the division of
// users between threads, the names, the loop guards, the odd 0/1 switches, the ACL tables
// against the HSM's access rules, and the bytes of the ACL lines.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ACLTests/acl_tables.h"
#include "harness/harness.h"

namespace {

// Captures what the code under test prints on stdout.
template <typename F>
std::string CaptureStdout(F &&f) {
  fflush(stdout);
  testing::internal::CaptureStdout();
  f();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

TEST(CalculateCreateCountUserRange, SharesAreEvenConsecutiveAndCoverTheTotal) {
  struct Case {
    int total, threads;
    std::vector<int> counts;
  };
  const Case cases[] = {
      {10, 3, {4, 3, 3}}, {9, 3, {3, 3, 3}}, {2, 5, {1, 1, 0, 0, 0}},
      {0, 2, {0, 0}},     {7, 1, {7}},       {1000, 7, {143, 143, 143, 143, 143, 143, 142}},
  };
  for (const Case &c : cases) {
    int next = 0;
    for (int t = 0; t < c.threads; ++t) {
      int first = -1, count = -1;
      CalculateCreateCountUserRange(c.total, c.threads, t, &first, &count);
      EXPECT_EQ(first, next) << c.total << "/" << c.threads << " thread " << t;
      EXPECT_EQ(count, c.counts[t]) << c.total << "/" << c.threads << " thread " << t;
      next = first + count;
    }
    EXPECT_EQ(next, c.total) << c.total << "/" << c.threads;
  }
}

TEST(CalculateCreateCountUserRange, DegenerateArguments) {
  int first = -1, count = -1;
  CalculateCreateCountUserRange(5, 0, 0, &first, &count);  // no threads counts as one
  EXPECT_EQ(first, 0);
  EXPECT_EQ(count, 5);
  CalculateCreateCountUserRange(-3, 2, 1, &first, &count);
  EXPECT_EQ(count, 0);
}

TEST(GenCountUserName, PrefixAndCounter) {
  char name[64];
  GenCountUserName("user", 17, name, sizeof name);
  EXPECT_STREQ(name, "user17");
  GenCountUserName(nullptr, 3, name, sizeof name);
  EXPECT_STREQ(name, "3");
  // Too long for a user name: made as it is, the HSM refuses it.
  GenCountUserName("abcdefghi", 1234567890, name, sizeof name);
  EXPECT_STREQ(name, "abcdefghi1234567890");
  char small[5];
  GenCountUserName("user", 123, small, sizeof small);
  EXPECT_STREQ(small, "user");
}

TEST(FormatNewId, EveryNumberFitsAUserName) {
  char id[32];
  FormatNewId(0xFFFFFFFFu, id, sizeof id);
  EXPECT_STREQ(id, "TMP4294967295O");
  EXPECT_LE(strlen(id), static_cast<size_t>(QL_MAX_USER_NAME));
  FormatNewId(0, id, sizeof id);
  EXPECT_STREQ(id, "TMP0O");
}

TEST(LoopGuards, StressMinusOneNeverStopsFuncZeroNeverStops) {
  unsigned long counter = 0;
  int runs = 0;
  while (!ShouldStopStressTestLoop(&counter, 3)) ++runs;
  EXPECT_EQ(runs, 3);
  counter = 0;
  for (int i = 0; i < 1000; ++i) ASSERT_FALSE(ShouldStopStressTestLoop(&counter, -1));
  counter = 0;
  for (int i = 0; i < 1000; ++i) ASSERT_FALSE(ShouldStopFuncLoop(&counter, 0));
  counter = 0;
  runs = 0;
  while (!ShouldStopFuncLoop(&counter, 2)) ++runs;
  EXPECT_EQ(runs, 2);
}

TEST(GetParameterSwitch01, AbsentOrOutOfRangeGivesOne) {
  struct Case {
    const char *value;  // null: the switch is absent
    int expected;
  };
  const Case cases[] = {{nullptr, 1}, {"0", 0}, {"1", 1}, {"2", 1}, {"-1", 1}, {"", 1}, {"x", 0}};
  for (const Case &c : cases) {
    TEST_PARAMETER params[2] = {};
    strcpy(params[0].szParameter, "-f");
    strcpy(params[0].szValue, "sign-hash");
    int n = 1;
    if (c.value != nullptr) {
      strcpy(params[1].szParameter, "-keepalive");
      strcpy(params[1].szValue, c.value);
      n = 2;
    }
    EXPECT_EQ(GetParameterSwitch01(params, n, "-keepalive"), c.expected)
        << (c.value ? c.value : "(absent)");
  }
}

// The HSM's access rules (design.md), as the ACL sequences meet them.
bool Has(uint32_t mask, uint32_t bits) {
  return (mask & bits) != 0;
}

TEST(AclTables, UserSequenceFollowsTheAccessRules) {
  for (int row = 0; row < kAclUsrRows; ++row) {
    const uint32_t m = ACL_USR_SEQUENCE_TEST[row];
    const int denied = QL_ERR_ACCESS_DENIED;
    EXPECT_EQ(ACL_USR_EXP_VALUES[row][0], Has(m, 0x10 | 0x80) ? 0 : denied) << row;
    EXPECT_EQ(ACL_USR_EXP_VALUES[row][1], Has(m, 0x20 | 0x80) ? 0 : denied) << row;
    EXPECT_EQ(ACL_USR_EXP_VALUES[row][2], Has(m, 0x40 | 0x80) ? 0 : denied) << row;
  }
  const uint32_t order[kAclUsrRows] = {0x00, 0x10, 0x40, 0x50, 0x20, 0x30, 0x60, 0x70};
  EXPECT_EQ(memcmp(ACL_USR_SEQUENCE_TEST, order, sizeof order), 0);
}

TEST(AclTables, ObjectSequenceFollowsTheAccessRules) {
  bool made[2] = {false, false};  // the Create name of each half, once made
  for (int row = 0; row < kAclObjRows; ++row) {
    const uint32_t m = ACL_OBJ_SEQUENCE_TEST[row];
    EXPECT_EQ(m, static_cast<uint32_t>(row));
    int create = QL_ERR_ACCESS_DENIED;
    if (Has(m, ACL_OBJ_CREATE)) {
      create = made[row / 8] ? QL_ERR_OBJ_EXISTS : 0;
      made[row / 8] = true;
    }
    EXPECT_EQ(ACL_OBJ_EXP_VALUES[row][0], create) << row;
    EXPECT_EQ(ACL_OBJ_EXP_VALUES[row][1], Has(m, 0x7) ? 0 : QL_ERR_ACCESS_DENIED) << row;
    EXPECT_EQ(ACL_OBJ_EXP_VALUES[row][2], Has(m, 0x1) ? 0 : QL_ERR_ACCESS_DENIED) << row;
    EXPECT_EQ(ACL_OBJ_EXP_VALUES[row][3], Has(m, 0x8) ? QL_ERR_OBJ_NOT_FOUND : QL_ERR_ACCESS_DENIED)
        << row;
  }
  // As the table stands: Create succeeds exactly for masks 0x4 and 0xC.
  for (int row = 0; row < kAclObjRows; ++row) {
    EXPECT_EQ(ACL_OBJ_EXP_VALUES[row][0] == 0, row == 0x4 || row == 0xC) << row;
  }
}

TEST(AclTables, SystemSequenceFollowsTheAccessRules) {
  for (int row = 0; row < kAclSysRows; ++row) {
    const uint32_t m = ACL_SYS_SEQUENCE_TEST[row];
    EXPECT_EQ(ACL_SYS_EXP_VALUES[row][0], Has(m, 0x100 | 0x80) ? 0 : QL_ERR_ACCESS_DENIED) << row;
    EXPECT_EQ(ACL_SYS_EXP_VALUES[row][1], Has(m, 0x80) ? 0 : QL_ERR_ACCESS_DENIED) << row;
    EXPECT_EQ(ACL_SYS_EXP_VALUES[row][2],
              Has(m, 0x200 | 0x80) ? QL_ERR_UPACK_REFUSED : QL_ERR_ACCESS_DENIED)
        << row;
  }
}

// Each printable name is the constant names of the mask's bits joined by " |".
std::string NameOf(uint32_t mask, const std::vector<std::pair<uint32_t, std::string>> &parts) {
  std::string out;
  for (const auto &[bit, names] : parts) {
    if (!(mask & bit)) continue;
    if (!out.empty()) out += " |";
    out += names;
  }
  return out.empty() ? "ACL_NOP" : out;
}

TEST(AclTables, NamesSpellTheMasks) {
  const std::vector<std::pair<uint32_t, std::string>> usr = {
      {0x10, "ACL_USR_CREATE |ACL_USR_DELETE"},
      {0x20, "ACL_USR_REMOTE_LOG"},
      {0x40, "ACL_USR_LIST"}};
  const std::vector<std::pair<uint32_t, std::string>> obj = {
      {0x1, "ACL_OBJ_DEL"},
      {0x2, "ACL_OBJ_READ"},
      {0x4, "ACL_OBJ_CREATE"},
      {0x8, "ACL_OBJ_UPDATE |ACL_OBJ_WRITE"}};
  const std::vector<std::pair<uint32_t, std::string>> sys = {
      {0x80, "ACL_SYS_OPERATOR"},
      {0x100, "ACL_SYS_BACKUP |ACL_SYS_RESTORE"},
      {0x200, "ACL_SYS_UDATE_HSM"}};
  for (int i = 0; i < kAclUsrRows; ++i)
    EXPECT_EQ(STR_USR_SEQUENCE_TEST[i], NameOf(ACL_USR_SEQUENCE_TEST[i], usr));
  for (int i = 0; i < kAclObjRows; ++i)
    EXPECT_EQ(STR_OBJ_SEQUENCE_TEST[i], NameOf(ACL_OBJ_SEQUENCE_TEST[i], obj));
  for (int i = 0; i < kAclSysRows; ++i)
    EXPECT_EQ(STR_SYS_SEQUENCE_TEST[i], NameOf(ACL_SYS_SEQUENCE_TEST[i], sys));
  EXPECT_EQ(kAclUsrRows * kAclUsrOps + kAclObjRows * kAclObjOps + kAclSysRows * kAclSysOps, 112);
}

TEST(AclOutput, VerboseLinesAndErrorLines) {
  // -v 1: the head before the check, then the outcome.
  std::string out = CaptureStdout([] {
    PrintACLTestOutputFirst(1, "TestUsrACL", "ACL_NOP", "Usr List");
    PrintACLTestOutputRet(1, "TestUsrACL", "ACL_NOP", "Usr List", 5002, 5002);
  });
  EXPECT_EQ(out, "[TestUsrACL] ACL: ACL_NOP" + std::string(68, ' ') + " Usr List" +
                     std::string(8, ' ') + " Returned: 5002    Expected: 5002   OK\r\n");
  out = CaptureStdout([] { PrintACLTestOutputRet(1, "x", "y", "z", 0, 5002); });
  EXPECT_EQ(out, "Returned: 0       Expected: 5002   *ERROR*\r\n");
  // -v 0: nothing when the codes agree, the whole line when they differ.
  out = CaptureStdout([] {
    PrintACLTestOutputFirst(0, "TestSysACL", "ACL_NOP", "Update");
    PrintACLTestOutputRet(0, "TestSysACL", "ACL_NOP", "Update", 5002, 5002);
  });
  EXPECT_EQ(out, "");
  out = CaptureStdout([] { PrintACLTestOutputRet(0, "TestSysACL", "ACL_NOP", "Update", 0, 5002); });
  EXPECT_EQ(out, "[TestSysACL] ACL: ACL_NOP" + std::string(68, ' ') + " Update" +
                     std::string(10, ' ') + " Returned: 0       Expected: 5002   *ERROR*\r\n");
  // Any -v other than 1 counts as 0.
  out = CaptureStdout([] { PrintACLTestOutputFirst(2, "a", "b", "c"); });
  EXPECT_EQ(out, "");
}

TEST(FileCompare, EqualDifferentAndMissing) {
  const std::string a = testing::TempDir() + "func_cmp_a";
  const std::string b = testing::TempDir() + "func_cmp_b";
  ASSERT_TRUE(WriteWholeFile(a, "abc", 3));
  ASSERT_TRUE(WriteWholeFile(b, "abc", 3));
  EXPECT_TRUE(FileCompare(a, b));
  ASSERT_TRUE(WriteWholeFile(b, "abd", 3));
  EXPECT_FALSE(FileCompare(a, b));
  ASSERT_TRUE(WriteWholeFile(b, "abcd", 4));
  EXPECT_FALSE(FileCompare(a, b));
  remove(b.c_str());
  EXPECT_FALSE(FileCompare(a, b));
  remove(a.c_str());
}

}  // namespace
