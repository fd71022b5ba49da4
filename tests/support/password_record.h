// The AUTH_PWD_EX record that logs in to a test daemon (hsm_fixture.h) through libqlapi:
//
//   AUTH_PWD_EX r = qltest::PasswordRecord(hsm);                  // master
//   AUTH_PWD_EX r = qltest::PasswordRecord(hsm, "alice", "pw");
//   QOpenSession(&s, QL_AUTH_USER_PWD, &r, sizeof r, flags);
//
// Header only, so that tests and benchmarks that compile hsm_fixture.cpp in can use it too.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>

#include "hsm_fixture.h"
#include "qlapi.h"

namespace qltest {

// Copies text into a fixed record field, zero-padded, cut at the field's size (a field filled to
// the brim has no terminator, as the records allow).
template <std::size_t N>
void CopyField(char (&field)[N], const std::string &text) {
  std::memset(field, 0, N);
  std::memcpy(field, text.data(), std::min(text.size(), N));
}

// user and password exactly as given (empty ones included).
inline AUTH_PWD_EX PasswordRecord(const HsmProcess &hsm, const std::string &user,
                                  const std::string &password) {
  AUTH_PWD_EX r;
  std::memset(&r, 0, sizeof r);
  CopyField(r.szAddr, hsm.address());
  r.nPort = hsm.port();
  CopyField(r.szUserId, user);
  CopyField(r.szPassword, password);
  return r;
}

// The user made at init, "master", with the daemon's master password.
inline AUTH_PWD_EX PasswordRecord(const HsmProcess &hsm) {
  return PasswordRecord(hsm, "master", hsm.master_password());
}

}  // namespace qltest
