// Helpers for the engine tests: a temporary directory and an initialised engine with a cheap
// password hash.
#pragma once

#include <memory>
#include <string>

#include "engine/engine.h"
// The tests speak in the library's constants: an independent check of the engine's numbers.
#include "qlapi.h"

namespace qlhsm::testing {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

// scrypt's lowest cost: tests hash many passwords and do not measure strength.
inline secure::KdfParams FastKdf() {
  return secure::KdfParams{16, 1, 1};
}

inline constexpr const char *kMasterPassword = "12345678";

// An initialised HSM in a temporary directory, opened, with a logged-in master session.
struct EngineFixture {
  explicit EngineFixture(EngineOptions options = {});
  std::unique_ptr<sessions::Session> LoginAs(const std::string &user, const std::string &pwd);

  TempDir dir;
  std::unique_ptr<Engine> engine;
  std::unique_ptr<sessions::Session> master;
};

}  // namespace qlhsm::testing
