// The SPB certificate registry in-process: activations that race each other, each in its own
// session, leave exactly one active certificate of the institution.
#include <gtest/gtest.h>

#include <barrier>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "test_util.h"

namespace qlhsm {
namespace {

using testing::EngineFixture;

constexpr const char *kIspb = "12345678";

std::string HexOf(const secure::Bytes &b) {
  std::string out;
  char two[3];
  for (uint8_t c : b) {
    std::snprintf(two, sizeof two, "%02X", c);
    out += two;
  }
  return out;
}

size_t ActiveCount(SpbService &spb) {
  Result<std::vector<SpbCertificate>> certs = spb.Certificates(kIspb);
  EXPECT_TRUE(certs.ok());
  size_t active = 0;
  for (const SpbCertificate &c : certs.value()) active += c.active ? 1 : 0;
  return active;
}

TEST(SpbRegistry, RacingActivationsLeaveOneActiveCertificate) {
  EngineFixture f;
  SpbService &spb = f.engine->spb();
  for (int i = 0; i < 2; ++i)
    ASSERT_TRUE(spb.GenerateKey(*f.master, kIspb, spbflags::kKeySelfSigned).ok());
  Result<std::vector<SpbCertificate>> certs = spb.Certificates(kIspb);
  ASSERT_TRUE(certs.ok());
  ASSERT_EQ(certs->size(), 2u);
  EXPECT_EQ(ActiveCount(spb), 1u) << "each self-signed certificate takes over on creation";

  // Each round both sessions activate their certificate at once; after the round exactly one of
  // the two is active, whichever came last.
  constexpr int kRounds = 100;
  std::barrier round(3);
  std::vector<std::thread> threads;
  for (const SpbCertificate &c : certs.value()) {
    threads.emplace_back([&f, &spb, &round, serial = HexOf(c.serial)] {
      std::unique_ptr<sessions::Session> s = f.LoginAs("master", testing::kMasterPassword);
      for (int i = 0; i < kRounds; ++i) {
        round.arrive_and_wait();
        EXPECT_TRUE(spb.ActivateCertificate(*s, kIspb, "", serial).ok());
        round.arrive_and_wait();
      }
    });
  }
  size_t wrong_rounds = 0;
  for (int i = 0; i < kRounds; ++i) {
    round.arrive_and_wait();
    round.arrive_and_wait();
    wrong_rounds += ActiveCount(spb) == 1 ? 0 : 1;
  }
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(wrong_rounds, 0u);
}

}  // namespace
}  // namespace qlhsm
