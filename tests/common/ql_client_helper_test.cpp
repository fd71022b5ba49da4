// QLUniquePtr: scoped ownership of a library handle.
#include "ql_client_helper.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// A handle type of its own and a destroy function that records what it destroyed and clears
// the handle through its address, as the library's destroy calls do.
struct Thing {
  int id;
};
std::vector<int> g_destroyed;
int DestroyThing(Thing **thing) {
  if (*thing == nullptr) return 1;  // the library's answer for "nothing to destroy"
  g_destroyed.push_back((*thing)->id);
  *thing = nullptr;
  return 0;
}
using ThingPtr = QLUniquePtr<Thing *, &DestroyThing>;

class QLUniquePtrTest : public ::testing::Test {
 protected:
  void SetUp() override { g_destroyed.clear(); }
  Thing a_{1}, b_{2};
};

TEST_F(QLUniquePtrTest, DestroysWhatItOwnsAtScopeExit) {
  {
    ThingPtr owner(&a_);
    EXPECT_EQ(owner.Get(), &a_);
    EXPECT_TRUE(owner);
  }
  EXPECT_EQ(g_destroyed, std::vector<int>{1});
  { ThingPtr empty; }
  EXPECT_EQ(g_destroyed, std::vector<int>{1}) << "an empty owner destroys nothing";
}

TEST_F(QLUniquePtrTest, DetachGivesUpOwnership) {
  {
    ThingPtr owner(&a_);
    EXPECT_EQ(owner.Detach(), &a_);
    EXPECT_EQ(owner.Get(), nullptr);
  }
  EXPECT_TRUE(g_destroyed.empty());
}

TEST_F(QLUniquePtrTest, FreeClosesNowAndReportsTheCode) {
  ThingPtr owner(&a_);
  EXPECT_EQ(owner.Free(), 0);
  EXPECT_EQ(owner.Get(), nullptr);
  EXPECT_EQ(owner.Free(), 1) << "Free passes even an empty handle on";
  owner.CleanUp();  // nothing held: no call
  EXPECT_EQ(g_destroyed, std::vector<int>{1});
}

TEST_F(QLUniquePtrTest, PutReleasesTheOldHandleBeforeRefilling) {
  ThingPtr owner(&a_);
  *owner.Put() = &b_;
  EXPECT_EQ(g_destroyed, std::vector<int>{1});
  EXPECT_EQ(owner.Get(), &b_);
}

TEST_F(QLUniquePtrTest, MovesTransferOwnership) {
  ThingPtr first(&a_);
  ThingPtr second(std::move(first));
  EXPECT_EQ(first.Get(), nullptr);
  EXPECT_EQ(second.Get(), &a_);
  ThingPtr third(&b_);
  third = std::move(second);  // b is released, a moves in
  EXPECT_EQ(g_destroyed, std::vector<int>{2});
  EXPECT_EQ(third.Get(), &a_);
}

}  // namespace
