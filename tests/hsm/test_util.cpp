#include "test_util.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

namespace qlhsm::testing {

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "qlhsm-test-XXXXXX").string();
  char *p = mkdtemp(tmpl.data());
  if (p) path_ = p;
}

TempDir::~TempDir() {
  std::error_code ec;
  if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

EngineFixture::EngineFixture(EngineOptions options) {
  InitOptions init;
  init.kdf = FastKdf();
  init.unlock_kdf = FastKdf();
  Status st = Engine::Init(dir.path(), kMasterPassword, init);
  EXPECT_TRUE(st.ok()) << st.ToString();
  Result<std::unique_ptr<Engine>> e = Engine::Open(dir.path(), options);
  EXPECT_TRUE(e.ok()) << e.status().ToString();
  if (e.ok()) engine = std::move(e.value());
  if (engine) master = LoginAs(kMasterUser, kMasterPassword);
}

std::unique_ptr<sessions::Session> EngineFixture::LoginAs(const std::string &user,
                                                          const std::string &pwd) {
  auto s = engine->NewSession();
  Status st = engine->users().Login(*s, user, pwd);
  EXPECT_TRUE(st.ok()) << user << ": " << st.ToString();
  return s;
}

}  // namespace qlhsm::testing
