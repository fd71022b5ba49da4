// The M-of-N service in-process: it needs no right and hands back parts that recover the secret
// (the part format's own faults are in crypto/, its limits end to end in tests/jobs/).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test_util.h"

namespace qlhsm {
namespace {

using testing::EngineFixture;

TEST(SharingService, AUserWithNoRightSplitsAndRecovers) {
  EngineFixture f;
  ASSERT_TRUE(f.engine->users().CreateUser(*f.master, "plain", "pw", 0).ok());
  auto s = f.LoginAs("plain", "pw");
  const secure::Bytes secret = {'k', 'e', 'y'};
  auto parts = f.engine->sharing().Split(*s, 2, 4, secret);
  ASSERT_TRUE(parts.ok()) << parts.status().message();
  ASSERT_EQ(parts->size(), 4u);
  auto back = f.engine->sharing().Recover(*s, {(*parts)[3], (*parts)[1]});
  ASSERT_TRUE(back.ok());
  EXPECT_EQ(secure::Bytes(back->begin(), back->end()), secret);

  auto few = f.engine->sharing().Recover(*s, {(*parts)[0]});
  EXPECT_EQ(few.status().code(), Code::kSharesTooFew);
}

}  // namespace
}  // namespace qlhsm
