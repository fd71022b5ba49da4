// One-time passwords against RFC 4226 Appendix D and RFC 6238 Appendix B.
#include "crypto/oath.h"

#include <gtest/gtest.h>

#include <string>

#include "test_util.h"

namespace qlhsm::crypto::oath {
namespace {

using testing::Text;

TEST(Hotp, Rfc4226AppendixD) {
  const Bytes seed = Text("12345678901234567890");
  const char *expected[] = {"755224", "287082", "359152", "969429", "338314",
                            "254676", "287922", "162583", "399871", "520489"};
  for (uint64_t counter = 0; counter < 10; ++counter) {
    Result<std::string> otp = Hotp(seed, counter, 6, OathHash::kSha1);
    ASSERT_TRUE(otp.ok());
    EXPECT_EQ(*otp, expected[counter]) << counter;
  }
}

TEST(Totp, Rfc6238AppendixB) {
  const Bytes seeds[] = {Text("12345678901234567890"), Text("12345678901234567890123456789012"),
                         Text("1234567890123456789012345678901234567890123456789012345678901234")};
  const OathHash hashes[] = {OathHash::kSha1, OathHash::kSha256, OathHash::kSha512};
  struct Row {
    int64_t time;
    const char *otp[3];
  };
  const Row rows[] = {
      {59, {"94287082", "46119246", "90693936"}},
      {1111111109, {"07081804", "68084774", "25091201"}},
      {1111111111, {"14050471", "67062674", "99943326"}},
      {1234567890, {"89005924", "91819424", "93441116"}},
      {2000000000, {"69279037", "90698825", "38618901"}},
      {20000000000, {"65353130", "77737706", "47863826"}},
  };
  for (const Row &row : rows) {
    const std::optional<uint64_t> step = TimeStep(row.time, 0, 30);
    ASSERT_TRUE(step.has_value());
    for (int h = 0; h < 3; ++h) {
      Result<std::string> otp = Hotp(seeds[h], *step, 8, hashes[h]);
      ASSERT_TRUE(otp.ok());
      EXPECT_EQ(*otp, row.otp[h]) << row.time << " hash " << h;
    }
  }
}

TEST(Hotp, RefusalsAndTimeSteps) {
  const Bytes seed = Text("12345678901234567890");
  EXPECT_EQ(Hotp(seed, 0, 5, OathHash::kSha1).code(), Code::kBadArgument);
  EXPECT_EQ(Hotp(seed, 0, 9, OathHash::kSha1).code(), Code::kBadArgument);
  EXPECT_EQ(Hotp(seed, 0, 6, static_cast<OathHash>(7)).code(), Code::kBadArgument);
  EXPECT_EQ(Hotp({}, 0, 6, OathHash::kSha1).code(), Code::kBadLength);
  EXPECT_EQ(TimeStep(100, 40, 30), 2u);
  EXPECT_EQ(TimeStep(39, 40, 30), std::nullopt);
  EXPECT_EQ(TimeStep(100, 0, 0), std::nullopt);
}

TEST(FindCounter, LooksAheadWithinTheWindowOnly) {
  const Bytes seed = Text("12345678901234567890");
  EXPECT_EQ(FindCounter(seed, 0, 10, 6, OathHash::kSha1, "520489"), 9u);
  EXPECT_EQ(FindCounter(seed, 3, 10, 6, OathHash::kSha1, "969429"), 3u);
  EXPECT_EQ(FindCounter(seed, 4, 10, 6, OathHash::kSha1, "969429"), std::nullopt);  // behind
  EXPECT_EQ(FindCounter(seed, 0, 9, 6, OathHash::kSha1, "520489"), std::nullopt);   // past it
  EXPECT_EQ(FindCounter(seed, 0, 10, 6, OathHash::kSha1, "52048"), std::nullopt);
}

}  // namespace
}  // namespace qlhsm::crypto::oath
