// A library session on a test daemon (hsm_fixture.h), closed at the end of its scope, and the
// names the HSM lists to master:
//
//   qltest::LibrarySession s(hsm);                 // master; s.rc() is QOpenSession's code
//   QGenerateKey(s.get(), ...);
//   EXPECT_EQ(qltest::ListObjectNames(hsm), before);
//   qltest::OpenedSession user("alice", "pw");    // fails the test if it does not open
//
// Header only, like password_record.h.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "password_record.h"

namespace qltest {

class LibrarySession {
 public:
  // As master when `user` is "master" and no password is given.
  explicit LibrarySession(const HsmProcess &hsm = HsmEnvironment::hsm(),
                          const std::string &user = "master", std::string password = {},
                          uint32_t flags = QL_SESSION_ENCRYPTED | QL_SESSION_BYPASS_CACHE) {
    if (user == "master" && password.empty()) password = hsm.master_password();
    AUTH_PWD_EX r = PasswordRecord(hsm, user, password);
    rc_ = QOpenSession(&session_, QL_AUTH_USER_PWD, &r, sizeof r, flags);
  }
  ~LibrarySession() {
    if (session_ != nullptr) QCloseSession(&session_, QL_CLOSE_PHYSICAL);
  }
  LibrarySession(const LibrarySession &) = delete;
  LibrarySession &operator=(const LibrarySession &) = delete;

  HSESSIONCTX get() const { return session_; }
  int rc() const { return rc_; }

 private:
  HSESSIONCTX session_ = nullptr;
  int rc_ = 0;
};

// A LibrarySession that must open: a refusal fails the test, which then reads what the
// session is given or refused.
class OpenedSession : public LibrarySession {
 public:
  explicit OpenedSession(const std::string &user = "master", std::string password = {},
                         const HsmProcess &hsm = HsmEnvironment::hsm())
      : LibrarySession(hsm, user, std::move(password)) {
    EXPECT_EQ(rc(), QL_OK) << "QOpenSession as " << user;
  }
};

// Creates a user with the given password and mask through `master`; QCreateUser's code.
inline int CreateUser(HSESSIONCTX master, const std::string &name, const std::string &password,
                      uint32_t acl) {
  QL_USER_INFO u;
  std::memset(&u, 0, sizeof u);
  std::strncpy(u.szUserId, name.c_str(), sizeof u.szUserId - 1);
  std::strncpy(u.szPassword, password.c_str(), sizeof u.szPassword - 1);
  u.dwAcl = acl;
  return QCreateUser(master, &u);
}

namespace detail {
inline int CollectName(void *names, const char *name, int last) {
  if (!last && name != nullptr) static_cast<std::vector<std::string> *>(names)->push_back(name);
  return 0;
}

template <typename List>
std::vector<std::string> SortedNames(const HsmProcess &hsm, List list) {
  LibrarySession s(hsm);
  std::vector<std::string> names;
  if (s.rc() != 0 || list(s.get(), detail::CollectName, &names) != 0) return {"<listing failed>"};
  std::sort(names.begin(), names.end());
  return names;
}
}  // namespace detail

// The objects (QListObjs) and users (QListUsers) the HSM lists to master, sorted; one entry
// "<listing failed>" when the listing fails.
inline std::vector<std::string> ListObjectNames(const HsmProcess &hsm = HsmEnvironment::hsm()) {
  return detail::SortedNames(hsm, QListObjs);
}
inline std::vector<std::string> ListUserNames(const HsmProcess &hsm = HsmEnvironment::hsm()) {
  return detail::SortedNames(hsm, QListUsers);
}

}  // namespace qltest
