// The pin file of known HSMs: first use, a changed certificate, strict mode, and refusal of a
// file that is malformed or not private.
#include "known_hsms.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "qlapi.h"

namespace kh = qlapi::knownhsms;

namespace {

const std::string kFpA(64, 'a');
const std::string kFpB = std::string(63, 'b') + "0";

class KnownHsms : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/qlapi_known_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    path_ = dir_ + "/.qlapi_known_hsms";
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  void WriteRaw(const std::string &text, mode_t mode) {
    std::ofstream(path_, std::ios::binary) << text;
    chmod(path_.c_str(), mode);
  }
  std::string dir_, path_;
};

TEST_F(KnownHsms, FirstUsePinsThenOnlyTheSameCertificatePasses) {
  EXPECT_EQ(kh::CheckPinned(path_, "10.0.0.5:4433", kFpA, false).code(), QL_OK);
  struct stat st {};
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(kh::Lookup(path_, "10.0.0.5:4433").value(), kFpA);

  EXPECT_EQ(kh::CheckPinned(path_, "10.0.0.5:4433", kFpA, true).code(), QL_OK);
  EXPECT_EQ(kh::CheckPinned(path_, "10.0.0.5:4433", kFpB, false).code(),
            QL_ERR_HSM_IDENTITY_CHANGED);
  // A different port is a different HSM.
  EXPECT_EQ(kh::CheckPinned(path_, "10.0.0.5:4434", kFpB, true).code(),
            QL_ERR_HSM_IDENTITY_UNKNOWN);
  EXPECT_EQ(kh::Lookup(path_, "10.0.0.5:4434").value(), "");
  EXPECT_EQ(kh::CheckPinned(path_, "10.0.0.5:4434", kFpB, false).code(), QL_OK);
  // The first pin was not touched by the second.
  EXPECT_EQ(kh::Lookup(path_, "10.0.0.5:4433").value(), kFpA);
}

TEST_F(KnownHsms, PinReplacesTheLineOfItsEndpointOnly) {
  ASSERT_TRUE(kh::Pin(path_, "hsm1:4433", kFpA).ok());
  ASSERT_TRUE(kh::Pin(path_, "hsm2:4433", kFpA).ok());
  ASSERT_TRUE(kh::Pin(path_, "hsm1:4433", kFpB).ok());
  EXPECT_EQ(kh::Lookup(path_, "hsm1:4433").value(), kFpB);
  EXPECT_EQ(kh::Lookup(path_, "hsm2:4433").value(), kFpA);
  std::ifstream in(path_);
  int lines = 0;
  for (std::string line; std::getline(in, line);) lines += line.rfind("hsm1:", 0) == 0;
  EXPECT_EQ(lines, 1);
  EXPECT_EQ(kh::Pin(path_, "has space:1", kFpA).code(), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(kh::Pin(path_, "hsm3:1", "abc").code(), QL_ERR_BAD_ARGUMENT);
}

TEST_F(KnownHsms, HandWrittenLinesAreReadUpperCaseHexIncluded) {
  WriteRaw("# pins\n\n[::1]:4433 " + std::string(64, 'A') + "\n", 0600);
  EXPECT_EQ(kh::Endpoint("::1", 4433), "[::1]:4433");
  EXPECT_EQ(kh::CheckPinned(path_, "[::1]:4433", kFpA, true).code(), QL_OK);
}

TEST_F(KnownHsms, AMalformedOrLooseFileIsRefused) {
  WriteRaw("10.0.0.5:4433 not-a-fingerprint\n", 0600);
  EXPECT_EQ(kh::CheckPinned(path_, "10.0.0.5:4433", kFpA, false).code(),
            QL_ERR_HSM_IDENTITY_UNVERIFIED);
  WriteRaw("10.0.0.5:4433 " + kFpA + "\n", 0644);
  EXPECT_EQ(kh::CheckPinned(path_, "10.0.0.5:4433", kFpA, false).code(),
            QL_ERR_HSM_IDENTITY_UNVERIFIED);
  // Nor is a link to a file elsewhere followed.
  unlink(path_.c_str());
  const std::string target = dir_ + "/elsewhere";
  std::ofstream(target) << "10.0.0.5:4433 " << kFpA << "\n";
  chmod(target.c_str(), 0600);
  ASSERT_EQ(symlink(target.c_str(), path_.c_str()), 0);
  EXPECT_EQ(kh::CheckPinned(path_, "10.0.0.5:4433", kFpA, false).code(),
            QL_ERR_HSM_IDENTITY_UNVERIFIED);
}

TEST(KnownHsmsPath, TheDefaultFileIsInTheHomeFromThePasswordDatabase) {
  const char *old = getenv("HOME");
  const std::string saved = old ? old : "";
  setenv("HOME", "/nonexistent-home", 1);
  auto path = kh::DefaultPath();
  if (old) setenv("HOME", saved.c_str(), 1);
  ASSERT_TRUE(path.ok());
  EXPECT_EQ(path.value().find("/nonexistent-home"), std::string::npos);
  EXPECT_NE(path.value().find("/.qlapi_known_hsms"), std::string::npos);
  // A file of its own for a service account, named by the environment; empty means unset.
  setenv("QLAPI_KNOWN_HSMS", "/srv/hsm-client/known", 1);
  auto chosen = kh::DefaultPath();
  setenv("QLAPI_KNOWN_HSMS", "", 1);
  auto unset = kh::DefaultPath();
  unsetenv("QLAPI_KNOWN_HSMS");
  ASSERT_TRUE(chosen.ok() && unset.ok());
  EXPECT_EQ(chosen.value(), "/srv/hsm-client/known");
  EXPECT_EQ(unset.value(), path.value());
}

}  // namespace
