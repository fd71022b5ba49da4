// The main() of the library's end-to-end test binaries: one qlhsmd for the whole binary (with
// the options of the binary's HsmSetup, if it defines one), and the library finalised after the
// last test.
#include <gtest/gtest.h>

#include <csignal>

#include "hsm_fixture.h"
#include "qlapi.h"

namespace qltest {
namespace {

const HsmSetup *&Setup() {
  static const HsmSetup *setup = nullptr;
  return setup;
}

}  // namespace

HsmSetup::HsmSetup(std::optional<HsmOptions> options) : options_(std::move(options)) {
  Setup() = this;
}

const HsmSetup *HsmSetup::Defined() {
  return Setup();
}

}  // namespace qltest

int main(int argc, char **argv) {
  // A test's server may write to a client that has already hung up.
  std::signal(SIGPIPE, SIG_IGN);
  ::testing::InitGoogleTest(&argc, argv);
  const qltest::HsmSetup *setup = qltest::HsmSetup::Defined();
  if (setup == nullptr)
    ::testing::AddGlobalTestEnvironment(new qltest::HsmEnvironment);
  else if (setup->options())
    ::testing::AddGlobalTestEnvironment(new qltest::HsmEnvironment(*setup->options()));
  const int rc = RUN_ALL_TESTS();
  QFinalize();
  return rc;
}
