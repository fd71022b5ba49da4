// One test per cell of the access table: every request against a mask of 0, against each single
// right, and from an anonymous session. The expected matrix is written out here independently of
// the engine's table.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "engine/access/rules.h"

namespace qlhsm::access {
namespace {

constexpr uint32_t kColumns[] = {0x0, 0x1, 0x2, 0x4, 0x8, 0x10, 0x20, 0x40, 0x80, 0x100, 0x200};

struct Row {
  Request request;
  const char *name;
  // One character per column of kColumns, then one for an anonymous session: 'Y' allowed, '.'
  // refused.
  const char *cells;
};

//                                          0   1   2   4   8  10  20  40  80 100 200 anonymous
constexpr Row kExpected[] = {
    {Request::kLogin, "Login", "YYYYYYYYYYYY"},
    {Request::kCreateUser, "CreateUser", ".....Y..Y..."},
    {Request::kRemoveUser, "RemoveUser", ".....Y..Y..."},
    {Request::kSetOtherUser, "SetOtherUser", "........Y..."},
    {Request::kReadOtherUserMask, "ReadOtherUserMask", ".......YY..."},
    {Request::kChangeOwnPassword, "ChangeOwnPassword", "YYYYYYYYYYY."},
    {Request::kListUsers, "ListUsers", ".......YY..."},
    {Request::kReadStats, "ReadStats", "......Y.Y..."},
    {Request::kCreateObject, "CreateObject", "...Y........"},
    {Request::kOpenObject, "OpenObject", ".YYYY......."},
    {Request::kUseObject, "UseObject", ".YYY........"},
    {Request::kRemoveObject, "RemoveObject", ".Y.........."},
    {Request::kRenameObject, "RenameObject", ".Y.........."},
    {Request::kUpdateObject, "UpdateObject", "....Y......."},
    {Request::kBackup, "Backup", "........YY.."},
    {Request::kRestore, "Restore", "........YY.."},
    {Request::kUpdatePackage, "UpdatePackage", "........Y.Y."},
    {Request::kAdminister, "Administer", "........Y..."},
    {Request::kFree, "Free", "YYYYYYYYYYY."},
    {Request::kPublic, "Public", "YYYYYYYYYYYY"},
};

static_assert(std::size(kExpected) == static_cast<size_t>(Request::kCount),
              "every request needs a row in the expected matrix");

class AccessCell : public ::testing::TestWithParam<std::tuple<size_t, size_t>> {};

TEST_P(AccessCell, MatchesTheTable) {
  auto [row, col] = GetParam();
  const Row &r = kExpected[row];
  const bool anonymous = col == std::size(kColumns);
  uint32_t mask = anonymous ? 0 : kColumns[col];
  bool expected = r.cells[col] == 'Y';
  EXPECT_EQ(Allowed(r.request, mask, anonymous), expected)
      << r.name << " with mask 0x" << std::hex << mask << (anonymous ? ", anonymous" : "");
  Status st = Check(r.request, mask, anonymous);
  EXPECT_EQ(st.code(), expected ? Code::kOk : Code::kAccessDenied);
}

INSTANTIATE_TEST_SUITE_P(AllCells, AccessCell,
                         ::testing::Combine(::testing::Range<size_t>(0, std::size(kExpected)),
                                            ::testing::Range<size_t>(0, std::size(kColumns) + 1)),
                         [](const ::testing::TestParamInfo<std::tuple<size_t, size_t>> &info) {
                           size_t col = std::get<1>(info.param);
                           char buf[16];
                           if (col == std::size(kColumns))
                             snprintf(buf, sizeof buf, "anonymous");
                           else
                             snprintf(buf, sizeof buf, "0x%x", kColumns[col]);
                           return std::string(kExpected[std::get<0>(info.param)].name) + "_" + buf;
                         });

TEST(AccessRules, FullMaskAllowsEverything) {
  for (const Row &r : kExpected) EXPECT_TRUE(Allowed(r.request, kAllRights)) << r.name;
}

TEST(AccessRules, CombinedMasksAllowWhenAnyBitMatches) {
  EXPECT_TRUE(Allowed(Request::kListUsers, kUsrList | kObjDel));
  EXPECT_FALSE(Allowed(Request::kListUsers, kUsrCreate | kUsrRemoteLog | kObjDel));
  EXPECT_TRUE(Allowed(Request::kOpenObject, kObjUpdate | kSysBackup));
  EXPECT_FALSE(Allowed(Request::kUseObject, kObjUpdate | kSysOperator));
}

// Removal, one cell per remover and target: a user creator removes only users within its bits.
TEST(AccessRules, RemoverMayRemoveOnlyWithinItsOwnBitsUnlessOperator) {
  struct Cell {
    uint32_t remover, target;
    bool allowed;
  } cells[] = {
      {kUsrCreate, 0, true},
      {kUsrCreate, kUsrCreate, true},
      {kUsrCreate | kObjRead, kObjRead, true},
      {kUsrCreate, kObjRead, false},
      {kUsrCreate, kSysOperator, false},
      {kUsrCreate | kObjRead, kAllRights, false},
      {kSysOperator, kAllRights, true},
      {kSysOperator, kSysOperator, true},
  };
  for (const Cell &c : cells) {
    EXPECT_EQ(CheckRemoval(c.remover, c.target).code(), c.allowed ? Code::kOk : Code::kAccessDenied)
        << std::hex << c.remover << " removing " << c.target;
  }
}

TEST(AccessRules, CreatorMayGrantOnlyItsOwnBitsUnlessOperator) {
  EXPECT_TRUE(MayGrant(kUsrCreate | kObjRead, kObjRead));
  EXPECT_TRUE(MayGrant(kUsrCreate, 0));
  EXPECT_FALSE(MayGrant(kUsrCreate, kUsrCreate | kObjRead));
  EXPECT_FALSE(MayGrant(kUsrCreate, kSysOperator));
  EXPECT_TRUE(MayGrant(kSysOperator, kAllRights));
}

}  // namespace
}  // namespace qlhsm::access
