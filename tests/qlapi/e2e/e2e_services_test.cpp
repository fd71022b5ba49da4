// libqlapi against a real qlhsmd: key material, ECDH (checked against OpenSSL deriving the same
// secret outside the HSM), JSON metadata, the HSM's date and time, and the probe's state word.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/x509.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "hsm_fixture.h"
#include "password_record.h"
#include "qlapi.h"

namespace {

using Bytes = std::vector<unsigned char>;
using PKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

qltest::HsmProcess &Hsm() {
  return qltest::HsmEnvironment::hsm();
}

AUTH_PWD_EX PwdRecord(const std::string &user, const std::string &pwd) {
  return qltest::PasswordRecord(Hsm(), user, pwd);
}

// A session, closed at the end of the scope: as master, as another user, or anonymous.
class Session {
 public:
  explicit Session(const std::string &user = "master", std::string pwd = "") {
    if (pwd.empty()) pwd = Hsm().master_password();
    AUTH_PWD_EX r = PwdRecord(user, pwd);
    EXPECT_EQ(QOpenSession(&s_, QL_AUTH_USER_PWD, &r, sizeof r, QL_SESSION_ENCRYPTED), QL_OK);
  }
  struct Anonymous {};
  explicit Session(Anonymous) {
    AUTH_PWD_EX r = PwdRecord("", "");
    EXPECT_EQ(QOpenSession(&s_, QL_AUTH_ANONYMOUS, &r, sizeof r, QL_SESSION_ENCRYPTED), QL_OK);
  }
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;
  ~Session() { QCloseSession(&s_, 0); }
  HSESSIONCTX get() const { return s_; }

 private:
  HSESSIONCTX s_ = nullptr;
};

// A user with the given mask for one test.
class User {
 public:
  User(const char *name, uint32_t acl) : name_(name) {
    Session m;
    QL_USER_INFO u;
    std::memset(&u, 0, sizeof u);
    std::strncpy(u.szUserId, name, sizeof u.szUserId - 1);
    std::strncpy(u.szPassword, "pw123456", sizeof u.szPassword - 1);
    u.dwAcl = acl;
    EXPECT_EQ(QCreateUser(m.get(), &u), QL_OK);
  }
  ~User() {
    Session m;
    QRemoveUser(m.get(), name_.c_str());
  }
  Session Open() const { return Session(name_, "pw123456"); }

 private:
  std::string name_;
};

Bytes Spki(EVP_PKEY *key) {
  unsigned char *der = nullptr;
  const int n = i2d_PUBKEY(key, &der);
  Bytes out(der, der + (n > 0 ? n : 0));
  OPENSSL_free(der);
  return out;
}

Bytes Derive(EVP_PKEY *own, EVP_PKEY *peer) {
  std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new(own, nullptr),
                                                                  &EVP_PKEY_CTX_free);
  size_t len = 0;
  if (!ctx || EVP_PKEY_derive_init(ctx.get()) != 1 ||
      EVP_PKEY_derive_set_peer(ctx.get(), peer) != 1 ||
      EVP_PKEY_derive(ctx.get(), nullptr, &len) != 1)
    return {};
  Bytes z(len);
  if (EVP_PKEY_derive(ctx.get(), z.data(), &len) != 1) return {};
  z.resize(len);
  return z;
}

Bytes X963(Bytes z, Bytes info, size_t len) {
  std::unique_ptr<EVP_KDF, decltype(&EVP_KDF_free)> kdf(EVP_KDF_fetch(nullptr, "X963KDF", nullptr),
                                                        &EVP_KDF_free);
  std::unique_ptr<EVP_KDF_CTX, decltype(&EVP_KDF_CTX_free)> ctx(
      kdf ? EVP_KDF_CTX_new(kdf.get()) : nullptr, &EVP_KDF_CTX_free);
  OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, const_cast<char *>("SHA256"), 0),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, z.data(), z.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, info.data(), info.size()),
      OSSL_PARAM_construct_end()};
  Bytes out(len);
  if (!ctx || EVP_KDF_derive(ctx.get(), out.data(), out.size(), params) != 1) return {};
  return out;
}

// The public half of a stored HSM key, as OpenSSL reads the exported blob.
PKey ExportedPublic(HSESSIONCTX s, const char *name) {
  HKEYCTX key = nullptr;
  EXPECT_EQ(QGetUserKey(s, name, 0, &key), QL_OK);
  unsigned char der[512];
  uint32_t len = sizeof der;
  EXPECT_EQ(QExportKey(key, nullptr, QL_PUBLICKEY_BLOB, 0, der, &len), QL_OK);
  QDestroyKey(&key, 0);
  const unsigned char *p = der;
  return PKey(d2i_PUBKEY(nullptr, &p, len), &EVP_PKEY_free);
}

Bytes ExportPlain(HSESSIONCTX s, const char *name) {
  HKEYCTX key = nullptr;
  EXPECT_EQ(QGetUserKey(s, name, 0, &key), QL_OK);
  Bytes out(64);
  uint32_t len = static_cast<uint32_t>(out.size());
  EXPECT_EQ(QExportKey(key, nullptr, QL_PLAINTEXTKEY_BLOB, 0, out.data(), &len), QL_OK);
  QDestroyKey(&key, 0);
  out.resize(len);
  return out;
}

TEST(E2eServices, ProbeAnswersItsStateWord) {
  Session anon{Session::Anonymous{}};
  uint32_t state = 0, len = sizeof state;
  ASSERT_EQ(QAdmOperation(anon.get(), QL_ADM_PROBE, nullptr, 0, &state, &len, 0), QL_OK);
  EXPECT_EQ(len, 4u);
  EXPECT_EQ(state, 1u);
  const unsigned char op = QL_RNM_PROBE;
  state = 0;
  ASSERT_EQ(QAdmOperation(anon.get(), QL_ADM_PROBE, &op, 1, &state, &len, 0), QL_OK);
  EXPECT_EQ(state, 1u);
  // The size rule: no buffer, or one too short, answers 1005 with 4.
  len = 0;
  EXPECT_EQ(QAdmOperation(anon.get(), QL_ADM_PROBE, nullptr, 0, nullptr, &len, 0),
            QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 4u);
  unsigned char small[2] = {0xEE, 0xEE};
  len = sizeof small;
  EXPECT_EQ(QAdmOperation(anon.get(), QL_ADM_PROBE, nullptr, 0, small, &len, 0),
            QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 4u);
  EXPECT_EQ(small[0], 0xEE) << "a short buffer was written";
  // No length: the caller wants no output.
  EXPECT_EQ(QAdmOperation(anon.get(), QL_ADM_PROBE, nullptr, 0, nullptr, nullptr, 0), QL_OK);
}

TEST(E2eServices, DateAndTimeMoveWhatTheHsmReports) {
  Session m;
  uint32_t short_time = 1;
  EXPECT_EQ(QAdmOperation(m.get(), QL_ADM_SET_DATE_TIME, &short_time, sizeof short_time, nullptr,
                          nullptr, 0),
            QL_ERR_BAD_LENGTH);
  const uint64_t future = 1893553445;  // 2030-01-02 03:04:05 UTC
  {
    User op("notoperator", ACL_ALL_RIGHTS & ~ACL_SYS_OPERATOR);
    Session s = op.Open();
    EXPECT_EQ(
        QAdmOperation(s.get(), QL_ADM_SET_DATE_TIME, &future, sizeof future, nullptr, nullptr, 0),
        QL_ERR_ACCESS_DENIED);
  }
  ASSERT_EQ(
      QAdmOperation(m.get(), QL_ADM_SET_DATE_TIME, &future, sizeof future, nullptr, nullptr, 0),
      QL_OK);
  const unsigned char data[] = {1, 2, 3};
  ASSERT_EQ(QWriteFileBuffer(m.get(), "stamped", data, sizeof data, 0), QL_OK);
  QL_OBJ_INFO info;
  ASSERT_EQ(QGetObjInfo(m.get(), "stamped", &info), QL_OK);
  EXPECT_GE(info.stStats.qwCreated, future);
  EXPECT_LE(info.stStats.qwCreated, future + 60);
  // Back to this machine's time; objects made from now on say so.
  const uint64_t now = static_cast<uint64_t>(std::time(nullptr));
  ASSERT_EQ(QAdmOperation(m.get(), QL_ADM_SET_DATE_TIME, &now, sizeof now, nullptr, nullptr, 0),
            QL_OK);
  ASSERT_EQ(QWriteFileBuffer(m.get(), "stamped2", data, sizeof data, 0), QL_OK);
  ASSERT_EQ(QGetObjInfo(m.get(), "stamped2", &info), QL_OK);
  EXPECT_LT(info.stStats.qwCreated, now + 60);
  EXPECT_EQ(QRemoveObj(m.get(), "stamped"), QL_OK);
  EXPECT_EQ(QRemoveObj(m.get(), "stamped2"), QL_OK);
}

TEST(E2eServices, KeyMaterialFollowsTheSizeRule) {
  User nobody("materialuser", 0);
  Session s = nobody.Open();  // no right is needed: nothing is stored
  uint32_t len = 0;
  ASSERT_EQ(QGenerateKeyMaterial(s.get(), QL_ALG_AES256, 0, nullptr, &len),
            QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 32u);
  unsigned char a[32], b[32];
  len = 31;
  EXPECT_EQ(QGenerateKeyMaterial(s.get(), QL_ALG_AES256, 0, a, &len), QL_ERR_BUFFER_TOO_SMALL);
  len = sizeof a;
  ASSERT_EQ(QGenerateKeyMaterial(s.get(), QL_ALG_AES256, 0, a, &len), QL_OK);
  EXPECT_EQ(len, 32u);
  len = sizeof b;
  ASSERT_EQ(QGenerateKeyMaterial(s.get(), QL_ALG_AES256, 0, b, &len), QL_OK);
  EXPECT_NE(std::memcmp(a, b, sizeof a), 0);
  unsigned char der[2048];
  len = sizeof der;
  ASSERT_EQ(QGenerateKeyMaterial(s.get(), QL_ALG_ECC_SECP256R1, 0, der, &len), QL_OK);
  const unsigned char *p = der;
  PKey key(d2i_AutoPrivateKey(nullptr, &p, len), &EVP_PKEY_free);
  ASSERT_TRUE(key) << "not a PKCS#8 PrivateKeyInfo";
  EXPECT_EQ(EVP_PKEY_get_bits(key.get()), 256);
  EXPECT_EQ(QGenerateKeyMaterial(s.get(), 9999, 0, der, &len), QL_ERR_BAD_ALGORITHM);
}

TEST(E2eServices, EcdhSecretEqualsOpenSslsFromTheExportedKeys) {
  Session m;
  HKEYCTX own = nullptr;
  ASSERT_EQ(QGenerateKey(m.get(), "ecdh_own", QL_ALG_ECC_SECP384R1, 0, &own), QL_OK);
  QDestroyKey(&own, 0);
  PKey own_pub = ExportedPublic(m.get(), "ecdh_own");
  PKey peer(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-384"), &EVP_PKEY_free);
  ASSERT_TRUE(own_pub && peer);
  const Bytes peer_der = Spki(peer.get());
  const Bytes z = Derive(peer.get(), own_pub.get());
  ASSERT_EQ(z.size(), 48u);

  // The raw secret, with its size query.
  uint32_t len = 0;
  ASSERT_EQ(
      QGenEcdhKey(m.get(), QL_GEN_KEY_KDF_RAW_SECRET, "ecdh_own", peer_der.data(),
                  static_cast<uint32_t>(peer_der.size()), nullptr, 0, nullptr, 0, 0, nullptr, &len),
      QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 48u);
  Bytes out(len);
  ASSERT_EQ(QGenEcdhKey(m.get(), QL_GEN_KEY_KDF_RAW_SECRET, "ecdh_own", peer_der.data(),
                        static_cast<uint32_t>(peer_der.size()), nullptr, 0, nullptr, 0, 0,
                        out.data(), &len),
            QL_OK);
  EXPECT_EQ(out, z);

  // X9.63 with shared info, handed out and kept as a key.
  const Bytes info = {'q', 'l'};
  len = 24;
  out.assign(24, 0);
  ASSERT_EQ(QGenEcdhKey(m.get(), QL_GEN_KEY_X9_63_SHA256, "ecdh_own", peer_der.data(),
                        static_cast<uint32_t>(peer_der.size()), info.data(),
                        static_cast<uint32_t>(info.size()), nullptr, 0, 0, out.data(), &len),
            QL_OK);
  EXPECT_EQ(out, X963(z, info, 24));
  len = 24;
  ASSERT_EQ(QGenEcdhKey(m.get(), QL_GEN_KEY_X9_63_SHA256, "ecdh_own", peer_der.data(),
                        static_cast<uint32_t>(peer_der.size()), info.data(),
                        static_cast<uint32_t>(info.size()), "ecdh_kept", QL_ALG_AES192,
                        QL_KEY_EXPORTABLE, nullptr, &len),
            QL_OK);
  EXPECT_EQ(ExportPlain(m.get(), "ecdh_kept"), X963(z, info, 24));

  // Refusals: the library's own, then the HSM's.
  EXPECT_EQ(QGenEcdhKey(m.get(), QL_GEN_KEY_KDF_RAW_SECRET, "ecdh_own", nullptr, 0, nullptr, 0,
                        nullptr, 0, 0, out.data(), &len),
            QL_ERR_BAD_ARGUMENT);
  len = 32;
  EXPECT_EQ(QGenEcdhKey(m.get(), QL_GEN_KEY_KDF_RAW_SECRET, "ecdh_own", peer_der.data(),
                        static_cast<uint32_t>(peer_der.size()), nullptr, 0, "kept_raw",
                        QL_ALG_AES256, 0, nullptr, &len),
            QL_ERR_BAD_ARGUMENT);
  PKey p256(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), &EVP_PKEY_free);
  const Bytes other = Spki(p256.get());
  len = 64;
  out.assign(64, 0);
  EXPECT_EQ(
      QGenEcdhKey(m.get(), QL_GEN_KEY_KDF_RAW_SECRET, "ecdh_own", other.data(),
                  static_cast<uint32_t>(other.size()), nullptr, 0, nullptr, 0, 0, out.data(), &len),
      QL_ERR_BAD_KEY_USAGE);
  {
    User reader("ecdhreader", ACL_OBJ_READ);
    Session s = reader.Open();
    len = 16;
    EXPECT_EQ(QGenEcdhKey(s.get(), QL_GEN_KEY_X9_63_SHA256, "master/ecdh_own", peer_der.data(),
                          static_cast<uint32_t>(peer_der.size()), nullptr, 0, "mine", QL_ALG_AES128,
                          0, nullptr, &len),
              QL_ERR_ACCESS_DENIED);
    out.assign(16, 0);
    EXPECT_EQ(QGenEcdhKey(s.get(), QL_GEN_KEY_X9_63_SHA256, "master/ecdh_own", peer_der.data(),
                          static_cast<uint32_t>(peer_der.size()), nullptr, 0, nullptr, 0, 0,
                          out.data(), &len),
              QL_OK);
    EXPECT_EQ(out, X963(z, {}, 16));
  }
  EXPECT_EQ(QRemoveObj(m.get(), "ecdh_kept"), QL_OK);
  EXPECT_EQ(QRemoveObj(m.get(), "ecdh_own"), QL_OK);
}

TEST(E2eServices, JsonMetadataRoundTrip) {
  Session m;
  const unsigned char data[] = {7};
  ASSERT_EQ(QWriteFileBuffer(m.get(), "meta_doc", data, sizeof data, 0), QL_OK);
  char *json = nullptr;
  uint32_t len = 99;
  ASSERT_EQ(QGetJsonObjMetadata(m.get(), "meta_doc", QL_JSON_METADATA_OBJECT, &json, &len), QL_OK);
  EXPECT_STREQ(json, "{}");
  EXPECT_EQ(len, 2u);
  QFree(json);

  const char *text = R"({"label":"signing key","owner":{"team":"payments"}})";
  ASSERT_EQ(QSetJsonObjMetadata(m.get(), "meta_doc", text, 0), QL_OK);  // 0: up to the NUL
  ASSERT_EQ(QGetJsonObjMetadata(m.get(), "meta_doc", QL_JSON_METADATA_OBJECT, &json, &len), QL_OK);
  EXPECT_EQ(std::string(json, len), text);
  EXPECT_EQ(json[len], '\0');
  QFree(json);
  // A length cuts the text: the first 3 bytes of "{}xyz" are not one object.
  EXPECT_EQ(QSetJsonObjMetadata(m.get(), "meta_doc", "{}xyz", 3), QL_ERR_BAD_JSON);
  ASSERT_EQ(QSetJsonObjMetadata(m.get(), "meta_doc", "{}xyz", 2), QL_OK);

  // Bytes that are not UTF-8 reach the HSM and get its answer; the session goes on.
  EXPECT_EQ(QSetJsonObjMetadata(m.get(), "meta_doc", "{\"a\":\"\xFF\"}", 0), QL_ERR_BAD_JSON);
  EXPECT_EQ(QSetJsonObjMetadata(m.get(), "meta_doc", "[]", 0), QL_ERR_BAD_JSON);
  EXPECT_STREQ(QGetReturnCodeString(QL_ERR_BAD_JSON, QL_RC_STR_NAME), "QL_ERR_BAD_JSON");
  const std::string too_long(QL_MAX_JSON_METADATA + 1, ' ');
  EXPECT_EQ(QSetJsonObjMetadata(m.get(), "meta_doc", too_long.c_str(), 0), QL_ERR_BAD_LENGTH);
  EXPECT_EQ(QSetJsonObjMetadata(m.get(), "no_such_obj", "{}", 0), QL_ERR_OBJ_NOT_FOUND);
  EXPECT_EQ(QGetJsonObjMetadata(m.get(), "no_such_obj", 0, &json, &len), QL_ERR_OBJ_NOT_FOUND);
  EXPECT_EQ(json, nullptr);
  EXPECT_EQ(QGetJsonObjMetadata(m.get(), "meta_doc", 7, &json, &len), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QGetJsonObjMetadata(m.get(), "meta_doc", 0, nullptr, &len), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QSetJsonObjMetadata(m.get(), "meta_doc", nullptr, 0), QL_ERR_BAD_ARGUMENT);
  {
    User reader("metareader", ACL_OBJ_READ);
    Session s = reader.Open();
    EXPECT_EQ(QSetJsonObjMetadata(s.get(), "master/meta_doc", "{}", 0), QL_ERR_ACCESS_DENIED);
    ASSERT_EQ(QGetJsonObjMetadata(s.get(), "master/meta_doc", 0, &json, &len), QL_OK);
    EXPECT_STREQ(json, "{}");
    QFree(json);
  }
  EXPECT_EQ(QRemoveObj(m.get(), "meta_doc"), QL_OK);
}

}  // namespace
