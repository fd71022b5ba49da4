// The wire records: layout as the program relies on it, and how QOpenSession reads them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "auth_records.h"
#include "qlapi.h"

namespace {

// Copies text into a fixed record field, zero-padded, cut at the field's size (a field filled to
// the brim has no terminator, as the records allow).
template <std::size_t N>
void CopyField(char (&field)[N], const std::string &text) {
  std::memset(field, 0, N);
  std::memcpy(field, text.data(), std::min(text.size(), N));
}

TEST(Records, SizesAndOffsetsMatchTheWireLayout) {
  struct Row {
    const char *field;
    std::size_t actual;
    std::size_t expected;
  };
  const Row rows[] = {
      {"sizeof AUTH_PWD_EX", sizeof(AUTH_PWD_EX), 180},
      {"AUTH_PWD_EX.nPort", offsetof(AUTH_PWD_EX, nPort), 128},
      {"AUTH_PWD_EX.szUserId", offsetof(AUTH_PWD_EX, szUserId), 132},
      {"AUTH_PWD_EX.szPassword", offsetof(AUTH_PWD_EX, szPassword), 148},
      {"AUTH_PWD_EX.dwAuthType", offsetof(AUTH_PWD_EX, dwAuthType), 164},
      {"AUTH_PWD_EX.pbStrongAuth", offsetof(AUTH_PWD_EX, pbStrongAuth), 168},
      {"AUTH_PWD_EX.nStrongAuthLen", offsetof(AUTH_PWD_EX, nStrongAuthLen), 176},
      {"sizeof AUTH_ATOKEN", sizeof(AUTH_ATOKEN), 164},
      {"AUTH_ATOKEN.stAToken", offsetof(AUTH_ATOKEN, stAToken), 132},
      {"sizeof QL_A_TOKEN", sizeof(QL_A_TOKEN), 32},
      {"QL_A_TOKEN.pbKey", offsetof(QL_A_TOKEN, pbKey), 16},
      {"sizeof AUTH_WIN_CREDENTIAL", sizeof(AUTH_WIN_CREDENTIAL), 132},
      {"sizeof QL_USER_INFO", sizeof(QL_USER_INFO), 38},
      {"QL_USER_INFO.szPassword", offsetof(QL_USER_INFO, szPassword), 17},
      {"QL_USER_INFO.dwAcl", offsetof(QL_USER_INFO, dwAcl), 34},
  };
  for (const Row &r : rows) EXPECT_EQ(r.actual, r.expected) << r.field;
}

TEST(Records, MaskIsReadLittleEndianAtOffset34) {
  unsigned char raw[38] = {};
  raw[34] = 0x80;
  raw[35] = 0x01;
  QL_USER_INFO info;
  std::memcpy(&info, raw, sizeof info);
  const uint32_t acl = info.dwAcl;  // by value: the member sits at an unaligned offset
  EXPECT_EQ(acl, 0x180u);
}

AUTH_PWD_EX PwdRecord(const char *addr, int port, const char *user, const char *pwd) {
  AUTH_PWD_EX r;
  std::memset(&r, 0, sizeof r);
  CopyField(r.szAddr, addr);
  r.nPort = port;
  CopyField(r.szUserId, user);
  CopyField(r.szPassword, pwd);
  return r;
}

TEST(Records, UserPasswordRecordGivesItsFields) {
  AUTH_PWD_EX r = PwdRecord("10.0.0.5", 0, "master", "24681357");
  qlapi::Credentials c;
  ASSERT_TRUE(qlapi::CredentialsFromRecord(QL_AUTH_USER_PWD, &r, sizeof r, &c).ok());
  EXPECT_EQ(c.host, "10.0.0.5");
  EXPECT_EQ(c.port, 4433);  // 0 means the default port
  EXPECT_EQ(c.user, "master");
  EXPECT_EQ(c.secret, "24681357");
  EXPECT_EQ(c.kind, uint32_t{QL_AUTH_USER_PWD});
}

TEST(Records, FieldsFilledToTheBrimHaveNoTerminator) {
  AUTH_PWD_EX r = PwdRecord("h", 5000, "", "");
  std::memset(r.szUserId, 'u', sizeof r.szUserId);
  std::memset(r.szPassword, 'p', sizeof r.szPassword);
  qlapi::Credentials c;
  ASSERT_TRUE(qlapi::CredentialsFromRecord(QL_AUTH_USER_PWD, &r, sizeof r, &c).ok());
  EXPECT_EQ(c.user, std::string(16, 'u'));
  EXPECT_EQ(c.secret, std::string(16, 'p'));
  EXPECT_EQ(c.port, 5000);
}

TEST(Records, AnonymousIgnoresUserAndPassword) {
  AUTH_PWD_EX r = PwdRecord("hsm", -1, "master", "pwd");
  qlapi::Credentials c;
  ASSERT_TRUE(qlapi::CredentialsFromRecord(QL_AUTH_ANONYMOUS, &r, sizeof r, &c).ok());
  EXPECT_EQ(c.kind, uint32_t{QL_AUTH_ANONYMOUS});
  EXPECT_TRUE(c.user.empty());
  EXPECT_TRUE(c.secret.empty());
  EXPECT_EQ(c.port, 4433);
}

TEST(Records, TokenRecordGivesUserAndKey) {
  AUTH_ATOKEN r;
  std::memset(&r, 0, sizeof r);
  std::strcpy(r.szAddr, "hsm");
  r.nPort = 4434;
  std::strcpy(r.stAToken.pcUserName, "alice");
  for (int i = 0; i < 16; ++i) r.stAToken.pbKey[i] = static_cast<unsigned char>(i);
  qlapi::Credentials c;
  ASSERT_TRUE(qlapi::CredentialsFromRecord(QL_AUTH_ATOKEN, &r, sizeof r, &c).ok());
  EXPECT_EQ(c.user, "alice");
  ASSERT_EQ(c.secret.size(), 16u);
  EXPECT_EQ(c.secret[15], 15);
  EXPECT_EQ(c.port, 4434);
}

TEST(Records, RefusalsComeWithTheirCodes) {
  AUTH_PWD_EX good = PwdRecord("hsm", 0, "u", "p");
  AUTH_PWD_EX no_addr = PwdRecord("", 0, "u", "p");
  AUTH_PWD_EX big_port = PwdRecord("hsm", 70000, "u", "p");
  AUTH_PWD_EX strong = PwdRecord("hsm", 0, "u", "p");
  strong.dwAuthType = 3;
  unsigned char digits[] = "12345";
  AUTH_PWD_EX short_otp = PwdRecord("hsm", 0, "u", "p");
  short_otp.dwAuthType = QL_STRONG_AUTH_OTP;
  short_otp.pbStrongAuth = digits;
  short_otp.nStrongAuthLen = 5;
  AUTH_PWD_EX stray_otp = PwdRecord("hsm", 0, "u", "p");
  stray_otp.pbStrongAuth = digits;
  struct Case {
    const char *what;
    uint32_t kind;
    const void *record;
    uint32_t len;
    int code;
  } cases[] = {
      {"kind 0", 0, &good, 180, QL_ERR_BAD_AUTH_KIND},
      {"kind 2", 2, &good, 180, QL_ERR_BAD_AUTH_KIND},
      {"null record", QL_AUTH_USER_PWD, nullptr, 180, QL_ERR_BAD_ARGUMENT},
      {"short pwd record", QL_AUTH_USER_PWD, &good, 179, QL_ERR_BAD_ARGUMENT},
      {"short token record", QL_AUTH_ATOKEN, &good, 163, QL_ERR_BAD_ARGUMENT},
      {"short credential record", QL_AUTH_WIN_CREDENTIAL, &good, 131, QL_ERR_BAD_ARGUMENT},
      {"empty address", QL_AUTH_USER_PWD, &no_addr, 180, QL_ERR_BAD_ARGUMENT},
      {"port past 65535", QL_AUTH_USER_PWD, &big_port, 180, QL_ERR_BAD_ARGUMENT},
      {"unknown second factor", QL_AUTH_USER_PWD, &strong, 180, QL_ERR_BAD_ARGUMENT},
      {"OTP of 5 digits", QL_AUTH_USER_PWD, &short_otp, 180, QL_ERR_BAD_ARGUMENT},
      {"OTP of an anonymous login", QL_AUTH_ANONYMOUS, &short_otp, 180, QL_ERR_BAD_ARGUMENT},
      {"OTP digits without the kind", QL_AUTH_USER_PWD, &stray_otp, 180, QL_ERR_BAD_ARGUMENT},
  };
  for (const Case &k : cases) {
    qlapi::Credentials c;
    EXPECT_EQ(qlapi::CredentialsFromRecord(k.kind, k.record, k.len, &c).code(), k.code) << k.what;
  }
}

TEST(Records, OneTimePasswordTravelsOutsideTheCacheKey) {
  unsigned char first[] = "755224", second[] = "287082";
  AUTH_PWD_EX r = PwdRecord("hsm", 0, "u", "p");
  r.dwAuthType = QL_STRONG_AUTH_OTP;
  r.pbStrongAuth = first;
  r.nStrongAuthLen = 6;
  qlapi::Credentials a, b;
  ASSERT_TRUE(qlapi::CredentialsFromRecord(QL_AUTH_USER_PWD, &r, sizeof r, &a).ok());
  r.pbStrongAuth = second;
  ASSERT_TRUE(qlapi::CredentialsFromRecord(QL_AUTH_USER_PWD, &r, sizeof r, &b).ok());
  EXPECT_EQ(a.otp, "755224");
  EXPECT_EQ(b.otp, "287082");
  EXPECT_EQ(a.CacheKey(), b.CacheKey());
}

TEST(SessionFlags, TransportAndRefusals) {
  struct Case {
    uint32_t flags;
    int code;
    bool tls;
  } cases[] = {
      {0, QL_OK, true},
      {1, QL_OK, true},
      {4, QL_OK, false},
      {5, QL_OK, true},
      {8, QL_OK, true},
      {12, QL_OK, false},
      {16, QL_OK, true},
      {20, QL_OK, false},
      {25, QL_OK, true},
      {29, QL_OK, true},
      {2, QL_ERR_BAD_FLAGS, false},
      {32, QL_ERR_BAD_FLAGS, false},
      {0x19 | 2, QL_ERR_BAD_FLAGS, false},
      {0x80000000u, QL_ERR_BAD_FLAGS, false},
  };
  for (const Case &k : cases) {
    bool tls = false;
    EXPECT_EQ(qlapi::CheckSessionFlags(k.flags, &tls).code(), k.code) << "flags " << k.flags;
    if (k.code == QL_OK) {
      EXPECT_EQ(tls, k.tls) << "flags " << k.flags;
    }
  }
}

TEST(SessionCacheKey, DependsOnEveryCredentialPart) {
  qlapi::Credentials base;
  base.host = "hsm";
  base.user = "u";
  base.secret = "p";
  base.kind = QL_AUTH_USER_PWD;
  const std::string key = base.CacheKey();
  auto changed = [&](auto change) {
    qlapi::Credentials c = base;
    change(c);
    return c.CacheKey() != key;
  };
  EXPECT_TRUE(changed([](auto &c) { c.host = "hsm2"; }));
  EXPECT_TRUE(changed([](auto &c) { c.port = 4434; }));
  EXPECT_TRUE(changed([](auto &c) { c.tls = false; }));
  EXPECT_TRUE(changed([](auto &c) { c.kind = QL_AUTH_ANONYMOUS; }));
  EXPECT_TRUE(changed([](auto &c) { c.user = "v"; }));
  EXPECT_TRUE(changed([](auto &c) { c.secret = "q"; }));
  // The password itself never appears in the key.
  qlapi::Credentials secret = base;
  secret.secret = "SECRETPASSWORD";
  EXPECT_EQ(secret.CacheKey().find("SECRETPASSWORD"), std::string::npos);
}

}  // namespace
