#pragma once
// A job test that also calls the library directly, on a session of its own as master.

#include <cstdio>
#include <string>
#include <vector>

#include "jobs_test_util.h"
#include "qlapi.h"

namespace jobs_test {

class LibraryJobTest : public JobTest {
 protected:
  void SetUp() override {
    JobTest::SetUp();
    AUTH_PWD_EX auth{};
    snprintf(auth.szAddr, sizeof auth.szAddr, "127.0.0.1");
    auth.nPort = port();
    snprintf(auth.szUserId, sizeof auth.szUserId, "master");
    snprintf(auth.szPassword, sizeof auth.szPassword, "%s", kMasterPassword);
    ASSERT_EQ(QOpenSession(&session_, QL_AUTH_USER_PWD, &auth, sizeof auth,
                           QL_SESSION_UNENCRYPTED | QL_SESSION_BYPASS_CACHE),
              0);
  }
  void TearDown() override {
    if (session_ != nullptr) QCloseSession(&session_, QL_CLOSE_PHYSICAL);
    QFinalize();
  }

  HSESSIONCTX session_ = nullptr;
};

// Upper-case hex of bytes.
template <typename Bytes>
std::string HexOf(const Bytes &bytes) {
  static const char *digits = "0123456789ABCDEF";
  std::string s;
  for (auto c : bytes) {
    s += digits[static_cast<unsigned char>(c) >> 4];
    s += digits[static_cast<unsigned char>(c) & 15];
  }
  return s;
}

inline std::vector<unsigned char> FromHex(const std::string &hex) {
  std::vector<unsigned char> out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

}  // namespace jobs_test
