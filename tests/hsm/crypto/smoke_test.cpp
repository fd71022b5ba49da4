#include <gtest/gtest.h>
#include "crypto/key.h"
TEST(Smoke, Gen) { ASSERT_TRUE(qlhsm::crypto::Key::Generate(6).ok()); }
