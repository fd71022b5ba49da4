// M-of-N sharing: the field against FIPS 197's worked products, every subset of small sets,
// and every kind of bad part refused without ever giving a wrong secret.
#include "crypto/mofn.h"

#include <gtest/gtest.h>

#include <string>

#include "test_util.h"

namespace qlhsm::crypto::mofn {
namespace {

using testing::Text;

TEST(Gf256, Fips197ProductsAndInverses) {
  EXPECT_EQ(GfMul(0x57, 0x83), 0xC1);
  EXPECT_EQ(GfMul(0x57, 0x13), 0xFE);
  EXPECT_EQ(GfMul(0x57, 0x02), 0xAE);
  EXPECT_EQ(GfMul(0x57, 0x04), 0x47);
  EXPECT_EQ(GfInv(0), 0);
  for (int a = 1; a < 256; ++a) {
    EXPECT_EQ(GfMul(static_cast<uint8_t>(a), GfInv(static_cast<uint8_t>(a))), 1) << a;
  }
}

TEST(Crc32, StandardCheckValue) {
  EXPECT_EQ(Crc32(Text("123456789")), 0xCBF43926u);
}

// Every subset of parts of size k, as index lists.
void Subsets(size_t n, size_t k, size_t from, std::vector<size_t> &current,
             std::vector<std::vector<size_t>> &out) {
  if (current.size() == k) {
    out.push_back(current);
    return;
  }
  for (size_t i = from; i < n; ++i) {
    current.push_back(i);
    Subsets(n, k, i + 1, current, out);
    current.pop_back();
  }
}

TEST(MofN, EveryMSubsetRecoversAndNoSmallerOneDoes) {
  const Bytes secret = Text("the launch code is 0000");
  for (unsigned n = 2; n <= 6; ++n) {
    for (unsigned m = 2; m <= n; ++m) {
      Result<std::vector<Bytes>> parts = Split(secret, m, n);
      ASSERT_TRUE(parts.ok());
      ASSERT_EQ(parts->size(), n);
      EXPECT_EQ((*parts)[0].size(), secret.size() + kPartOverhead);
      for (size_t k : {size_t{m} - 1, size_t{m}, size_t{n}}) {
        std::vector<std::vector<size_t>> subsets;
        std::vector<size_t> current;
        Subsets(n, k, 0, current, subsets);
        for (const auto &subset : subsets) {
          std::vector<Bytes> chosen;
          for (size_t i : subset) chosen.push_back((*parts)[i]);
          Result<Recovered> r = Recover(chosen);
          ASSERT_TRUE(r.ok());
          if (k < m) {
            EXPECT_EQ(r->problem, ShareProblem::kTooFew);
          } else {
            ASSERT_EQ(r->problem, ShareProblem::kNone) << m << " of " << n;
            EXPECT_EQ(Bytes(r->secret.begin(), r->secret.end()), secret);
          }
        }
      }
    }
  }
}

TEST(MofN, BadPartsAreRefusedNeverMisread) {
  const Bytes secret = Text("0123456789abcdef");
  Result<std::vector<Bytes>> parts = Split(secret, 2, 3);
  Result<std::vector<Bytes>> others = Split(secret, 2, 3);
  ASSERT_TRUE(parts.ok() && others.ok());
  auto recover = [](std::vector<Bytes> chosen) { return Recover(chosen)->problem; };

  // A flipped byte anywhere breaks the CRC.
  for (size_t at = 0; at < (*parts)[0].size(); ++at) {
    Bytes changed = (*parts)[0];
    changed[at] ^= 0x01;
    EXPECT_EQ(recover({changed, (*parts)[1]}), ShareProblem::kCorrupt) << at;
  }
  // A changed share with a CRC made to match: the check value catches it.
  Bytes forged = (*parts)[0];
  forged[12] ^= 0x55;
  const uint32_t crc = Crc32(ByteView(forged).subspan(0, forged.size() - 4));
  for (int i = 0; i < 4; ++i)
    forged[forged.size() - 4 + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
  EXPECT_EQ(recover({forged, (*parts)[1]}), ShareProblem::kMismatch);
  // ... and so does the extra part when the forged one is not among the first M.
  EXPECT_EQ(recover({(*parts)[1], (*parts)[2], forged}), ShareProblem::kMismatch);
  // Parts of two sets, a repeated part, no part at all.
  EXPECT_EQ(recover({(*parts)[0], (*others)[1]}), ShareProblem::kMismatch);
  EXPECT_EQ(recover({(*parts)[0], (*parts)[0]}), ShareProblem::kMismatch);
  EXPECT_EQ(recover({}), ShareProblem::kTooFew);
  EXPECT_EQ(recover({Bytes{1, 2, 3}}), ShareProblem::kCorrupt);
  // Parts of another format version are not read as these.
  EXPECT_EQ(Recover(*parts, 2)->problem, ShareProblem::kCorrupt);
}

TEST(MofN, SizesOutsideTheLimits) {
  const Bytes secret = Text("s");
  EXPECT_EQ(Split(secret, 1, 3).code(), Code::kBadLength);
  EXPECT_EQ(Split(secret, 4, 3).code(), Code::kBadLength);
  EXPECT_EQ(Split(secret, 2, 256).code(), Code::kBadLength);
  EXPECT_EQ(Split({}, 2, 3).code(), Code::kBadLength);
  EXPECT_EQ(Split(Bytes(4097, 1), 2, 3).code(), Code::kBadLength);
  EXPECT_TRUE(Split(Bytes(4096, 1), 2, 255).ok());
}

}  // namespace
}  // namespace qlhsm::crypto::mofn
