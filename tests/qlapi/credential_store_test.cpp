// The file credential store: its three operations and its refusal of a file others can read.
#include "credential_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "qlapi.h"

namespace cs = qlapi::credstore;

namespace {

class CredentialStore : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/qlapi_cred_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    path_ = dir_ + "/.qlapi_credentials";
  }
  void TearDown() override {
    unlink(path_.c_str());
    rmdir(dir_.c_str());
  }
  void WriteRaw(const std::string &text, mode_t mode) {
    std::ofstream(path_, std::ios::binary) << text;
    chmod(path_.c_str(), mode);
  }
  std::string dir_, path_;
};

TEST_F(CredentialStore, WriteReadReplaceDelete) {
  EXPECT_EQ(cs::Read(path_, "10.0.0.5").status().code(), QL_ERR_CREDENTIAL_NOT_FOUND);
  ASSERT_TRUE(cs::Write(path_, "10.0.0.5", {"master", "24681357"}).ok());
  ASSERT_TRUE(cs::Write(path_, "hsm2", {"op", "pa\tss\nword"}).ok());  // any byte in a password
  struct stat st {};
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  auto a = cs::Read(path_, "10.0.0.5");
  ASSERT_TRUE(a.ok());
  EXPECT_EQ(a.value().user, "master");
  EXPECT_EQ(a.value().password, "24681357");
  auto b = cs::Read(path_, "hsm2");
  ASSERT_TRUE(b.ok());
  EXPECT_EQ(b.value().password, "pa\tss\nword");

  ASSERT_TRUE(cs::Write(path_, "10.0.0.5", {"master", "newpwd"}).ok());
  EXPECT_EQ(cs::Read(path_, "10.0.0.5").value().password, "newpwd");
  EXPECT_EQ(cs::Read(path_, "hsm2").value().user, "op");

  ASSERT_TRUE(cs::Delete(path_, "10.0.0.5").ok());
  EXPECT_EQ(cs::Read(path_, "10.0.0.5").status().code(), QL_ERR_CREDENTIAL_NOT_FOUND);
  EXPECT_EQ(cs::Delete(path_, "10.0.0.5").code(), QL_ERR_CREDENTIAL_NOT_FOUND);
  EXPECT_TRUE(cs::Read(path_, "hsm2").ok());
}

TEST_F(CredentialStore, ReadsTheDocumentedFormat) {
  // base64("24681357") = MjQ2ODEzNTc=
  WriteRaw("# comment\n\n10.0.0.5\tmaster\tMjQ2ODEzNTc=\n10.0.0.5\tother\tcHdk\n", 0600);
  auto c = cs::Read(path_, "10.0.0.5");
  ASSERT_TRUE(c.ok());
  EXPECT_EQ(c.value().user, "other");  // the later line wins
  EXPECT_EQ(c.value().password, "pwd");
}

TEST_F(CredentialStore, RefusesAFileOthersMayRead) {
  for (mode_t loose : {0644, 0640, 0604, 0660, 0666, 0602}) {
    WriteRaw("hsm\tmaster\tMjQ2ODEzNTc=\n", loose);
    EXPECT_EQ(cs::Read(path_, "hsm").status().code(), QL_ERR_CREDENTIAL_STORE) << std::oct << loose;
    EXPECT_EQ(cs::Write(path_, "x", {"u", "p"}).code(), QL_ERR_CREDENTIAL_STORE)
        << std::oct << loose;
  }
  WriteRaw("hsm\tmaster\tMjQ2ODEzNTc=\n", 0400);
  EXPECT_TRUE(cs::Read(path_, "hsm").ok());
}

TEST_F(CredentialStore, RefusesASymlinkAndMalformedLines) {
  const std::string target = dir_ + "/real";
  std::ofstream(target) << "hsm\tmaster\tMjQ2ODEzNTc=\n";
  chmod(target.c_str(), 0600);
  ASSERT_EQ(symlink(target.c_str(), path_.c_str()), 0);
  EXPECT_EQ(cs::Read(path_, "hsm").status().code(), QL_ERR_CREDENTIAL_STORE);
  unlink(path_.c_str());
  unlink(target.c_str());

  for (const char *bad : {"hsm master\n", "hsm\tmaster\n", "hsm\tmaster\tnot base64!\n"}) {
    WriteRaw(bad, 0600);
    EXPECT_EQ(cs::Read(path_, "hsm").status().code(), QL_ERR_CREDENTIAL_STORE) << bad;
  }
}

TEST_F(CredentialStore, RefusesFieldsTheFormatCannotHold) {
  EXPECT_EQ(cs::Write(path_, "a\tb", {"u", "p"}).code(), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(cs::Write(path_, "a", {"u\nv", "p"}).code(), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(cs::Write(path_, "", {"u", "p"}).code(), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(cs::Read(path_, "").status().code(), QL_ERR_BAD_ARGUMENT);
}

TEST(CredentialStorePath, ComesFromThePasswordDatabaseNotTheEnvironment) {
  const char *old = getenv("HOME");
  const std::string saved = old ? old : "";
  setenv("HOME", "/nonexistent-home", 1);
  auto path = cs::DefaultPath();
  if (old) setenv("HOME", saved.c_str(), 1);
  ASSERT_TRUE(path.ok());
  EXPECT_EQ(path.value().find("/nonexistent-home"), std::string::npos);
  EXPECT_NE(path.value().find("/.qlapi_credentials"), std::string::npos);
}

}  // namespace

namespace {

TEST_F(CredentialStore, ConcurrentWritersLoseNothing) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([this, t] {
      EXPECT_TRUE(cs::Write(path_, "target" + std::to_string(t), {"u", "p"}).ok());
    });
  }
  for (auto &t : threads) t.join();
  for (int t = 0; t < 8; ++t) EXPECT_TRUE(cs::Read(path_, "target" + std::to_string(t)).ok()) << t;
}

}  // namespace
