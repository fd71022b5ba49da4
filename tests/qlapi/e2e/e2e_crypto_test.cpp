// Hashes, signatures and ciphers through the library against a real qlhsmd. Hashing without a
// key runs in the library; everything with a key runs in the HSM, and is checked here against
// OpenSSL outside it. Key tests skip, saying so, while the daemon answers "not supported".
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "hsm_fixture.h"
#include "password_record.h"
#include "qlapi.h"

namespace {

qltest::HsmProcess &Hsm() {
  return qltest::HsmEnvironment::hsm();
}

class Session {
 public:
  Session() {
    AUTH_PWD_EX r = qltest::PasswordRecord(Hsm());
    EXPECT_EQ(QOpenSession(&s_, QL_AUTH_USER_PWD, &r, sizeof r, QL_SESSION_ENCRYPTED), QL_OK);
  }
  ~Session() { QCloseSession(&s_, 0); }
  HSESSIONCTX get() const { return s_; }

 private:
  HSESSIONCTX s_ = nullptr;
};

std::string Hex(const unsigned char *p, std::size_t n) {
  static const char *d = "0123456789abcdef";
  std::string s;
  for (std::size_t i = 0; i < n; ++i) {
    s += d[p[i] >> 4];
    s += d[p[i] & 15];
  }
  return s;
}

std::string HashValue(HHASHCTX h) {
  uint32_t len = 0;
  EXPECT_EQ(QGetHashParam(h, QHP_HASHVAL, nullptr, &len, 0), QL_ERR_BUFFER_TOO_SMALL);
  std::vector<unsigned char> v(len);
  EXPECT_EQ(QGetHashParam(h, QHP_HASHVAL, v.data(), &len, 0), QL_OK);
  return Hex(v.data(), len);
}

TEST(E2eHash, KnownAnswersOfAbc) {
  Session s;
  const struct {
    uint32_t alg;
    const char *digest;
  } vectors[] = {
      {QL_ALG_MD5, "900150983cd24fb0d6963f7d28e17f72"},
      {QL_ALG_SHA1, "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {QL_ALG_SHA224, "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7"},
      {QL_ALG_SHA256, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {QL_ALG_SHA384,
       "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c"
       "825a7"},
      {QL_ALG_SHA512,
       "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3f"
       "eebbd454d4423643ce80e2a9ac94fa54ca49f"},
      {QL_ALG_SHA3_256, "3a985da74fe225b2045c172d6bd390bd855f086e3e9d525b46bfe24511431532"},
  };
  for (const auto &v : vectors) {
    HHASHCTX h = nullptr;
    ASSERT_EQ(QCreateHash(s.get(), v.alg, nullptr, 0, &h), QL_OK) << v.alg;
    ASSERT_EQ(QHashData(h, reinterpret_cast<const unsigned char *>("ab"), 2, 0), QL_OK);
    ASSERT_EQ(QHashData(h, reinterpret_cast<const unsigned char *>("c"), 1, 0), QL_OK);
    EXPECT_EQ(HashValue(h), v.digest) << v.alg;
    EXPECT_EQ(HashValue(h), v.digest) << "reading the value does not consume the hash";
    uint32_t size = 0, len = sizeof size;
    EXPECT_EQ(QGetHashParam(h, QHP_HASHSIZE, reinterpret_cast<unsigned char *>(&size), &len, 0),
              QL_OK);
    EXPECT_EQ(size * 2, std::strlen(v.digest));
    EXPECT_EQ(QDestroyHash(&h), QL_OK);
    EXPECT_EQ(h, nullptr);
  }
}

TEST(E2eHash, SetValueThenNewData) {
  Session s;
  HHASHCTX h = nullptr;
  ASSERT_EQ(QCreateHash(s.get(), QL_ALG_SHA256, nullptr, 0, &h), QL_OK);
  unsigned char outside[32];
  std::memset(outside, 0xAB, sizeof outside);
  EXPECT_EQ(QSetHashParam(h, QHP_HASHVAL, outside, 31, 0), QL_ERR_BAD_LENGTH);
  ASSERT_EQ(QSetHashParam(h, QHP_HASHVAL, outside, 32, 0), QL_OK);
  EXPECT_EQ(HashValue(h), Hex(outside, sizeof outside)) << "the value set is the value read";
  ASSERT_EQ(QHashData(h, reinterpret_cast<const unsigned char *>("abc"), 3, 0), QL_OK);
  EXPECT_EQ(HashValue(h), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad")
      << "data after a set value starts a new message";
  QDestroyHash(&h);
  EXPECT_EQ(QCreateHash(s.get(), 12345, nullptr, 0, &h), QL_ERR_BAD_ALGORITHM);
  EXPECT_EQ(QCreateHash(s.get(), QL_ALG_HMAC_SHA2_256, nullptr, 0, &h), QL_ERR_BAD_ARGUMENT);
}

struct PkeyDeleter {
  void operator()(EVP_PKEY *k) const { EVP_PKEY_free(k); }
};

TEST(E2eSign, RsaSignatureVerifiesOutsideTheHsm) {
  Session s;
  HKEYCTX key = nullptr;
  ASSERT_EQ(
      QGenerateKey(s.get(), nullptr, QL_ALG_RSA2048, QL_KEY_TEMPORARY | QL_KEY_EXPORTABLE, &key),
      QL_OK);
  HHASHCTX h = nullptr;
  ASSERT_EQ(QCreateHash(s.get(), QL_ALG_SHA256, nullptr, 0, &h), QL_OK);
  const std::string msg = "message to sign";
  ASSERT_EQ(QHashData(h, reinterpret_cast<const unsigned char *>(msg.data()),
                      static_cast<uint32_t>(msg.size()), 0),
            QL_OK);
  uint32_t len = 0;
  ASSERT_EQ(QSignHash(h, key, 0, nullptr, &len), QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 256u);
  std::vector<unsigned char> sig(len), again(len);
  uint32_t short_len = len - 1;
  EXPECT_EQ(QSignHash(h, key, 0, sig.data(), &short_len), QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(short_len, 256u);
  ASSERT_EQ(QSignHash(h, key, 0, sig.data(), &len), QL_OK);
  ASSERT_EQ(QSignHash(h, key, 0, again.data(), &len), QL_OK) << "the same hash signs again";
  EXPECT_EQ(sig, again) << "PKCS#1 v1.5 is deterministic";
  EXPECT_EQ(QVerifySignature(h, sig.data(), len, key), QL_OK);
  sig[10] ^= 1;
  EXPECT_EQ(QVerifySignature(h, sig.data(), len, key), QL_ERR_BAD_SIGNATURE);
  sig[10] ^= 1;

  uint32_t der_len = 0;
  ASSERT_EQ(QExportKey(key, nullptr, QL_PUBLICKEY_BLOB, 0, nullptr, &der_len),
            QL_ERR_BUFFER_TOO_SMALL);
  std::vector<unsigned char> der(der_len);
  ASSERT_EQ(QExportKey(key, nullptr, QL_PUBLICKEY_BLOB, 0, der.data(), &der_len), QL_OK);
  const unsigned char *p = der.data();
  std::unique_ptr<EVP_PKEY, PkeyDeleter> pub(d2i_PUBKEY(nullptr, &p, der_len));
  ASSERT_TRUE(pub);
  EVP_MD_CTX *ctx = EVP_MD_CTX_new();
  ASSERT_EQ(EVP_DigestVerifyInit(ctx, nullptr, EVP_sha256(), nullptr, pub.get()), 1);
  EXPECT_EQ(EVP_DigestVerify(ctx, sig.data(), sig.size(),
                             reinterpret_cast<const unsigned char *>(msg.data()), msg.size()),
            1);
  EVP_MD_CTX_free(ctx);
  QDestroyHash(&h);
  EXPECT_EQ(QDestroyKey(&key, 0), QL_OK);
}

TEST(E2eCipher, AesInPiecesEqualsOneCallAndDecrypts) {
  Session s;
  HKEYCTX key = nullptr;
  ASSERT_EQ(QGenerateKey(s.get(), nullptr, QL_ALG_AES256, QL_KEY_TEMPORARY, &key), QL_OK);
  const uint32_t mode = QL_MODE_CBC, pad = QL_PAD_PKCS5;
  ASSERT_EQ(QSetKeyParam(key, QKP_MODE, &mode, 4, 0), QL_OK);
  ASSERT_EQ(QSetKeyParam(key, QKP_PADDING, &pad, 4, 0), QL_OK);
  std::vector<unsigned char> plain(100);
  for (std::size_t i = 0; i < plain.size(); ++i) plain[i] = static_cast<unsigned char>(i);

  std::vector<unsigned char> whole(plain);
  whole.resize(128);
  uint32_t len = 100;
  ASSERT_EQ(QEncrypt(key, nullptr, 1, 0, whole.data(), &len, 128), QL_OK);
  ASSERT_EQ(len, 112u);
  whole.resize(len);

  std::vector<unsigned char> pieces;
  for (std::size_t at = 0; at < plain.size(); at += 32) {
    const std::size_t n = std::min<std::size_t>(32, plain.size() - at);
    std::vector<unsigned char> buf(plain.begin() + at, plain.begin() + at + n);
    buf.resize(64);
    uint32_t piece = static_cast<uint32_t>(n);
    ASSERT_EQ(QEncrypt(key, nullptr, at + n == plain.size(), 0, buf.data(), &piece, 64), QL_OK);
    pieces.insert(pieces.end(), buf.begin(), buf.begin() + piece);
  }
  EXPECT_EQ(pieces, whole) << "the state starts afresh after the final piece";

  std::vector<unsigned char> small(plain.begin(), plain.begin() + 20);
  uint32_t small_len = 20;
  EXPECT_EQ(QEncrypt(key, nullptr, 1, 0, small.data(), &small_len, 20), QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(small_len, 32u);

  std::vector<unsigned char> back(whole);
  uint32_t back_len = static_cast<uint32_t>(back.size());
  ASSERT_EQ(QDecrypt(key, nullptr, 1, 0, back.data(), &back_len), QL_OK);
  back.resize(back_len);
  EXPECT_EQ(back, plain);
  EXPECT_EQ(QDestroyKey(&key, 0), QL_OK);
}

TEST(E2eKeys, NamedKeyLifeCycle) {
  Session s;
  HKEYCTX key = nullptr;
  ASSERT_EQ(QGenerateKey(s.get(), "e2e-named-key", QL_ALG_AES128, QL_KEY_EXPORTABLE, &key), QL_OK);
  HKEYCTX dup = nullptr;
  EXPECT_EQ(QGenerateKey(s.get(), "e2e-named-key", QL_ALG_AES128, 0, &dup), QL_ERR_OBJ_EXISTS);
  uint32_t alg = 0, len = sizeof alg;
  EXPECT_EQ(QGetKeyParam(key, QKP_ALGID, &alg, &len, 0), QL_OK);
  EXPECT_EQ(alg, uint32_t{QL_ALG_AES128});
  uint32_t keylen = 0;
  len = sizeof keylen;
  EXPECT_EQ(QGetKeyParam(key, QKP_KEYLEN, &keylen, &len, 0), QL_OK);
  EXPECT_EQ(keylen, 16u);
  EXPECT_EQ(QDestroyKey(&key, 0), QL_OK);
  HKEYCTX opened = nullptr;
  ASSERT_EQ(QGetUserKey(s.get(), "e2e-named-key", 0, &opened), QL_OK);
  EXPECT_EQ(QDestroyKey(&opened, QL_DESTROY_REMOVE), QL_OK);
  EXPECT_EQ(QGetUserKey(s.get(), "e2e-named-key", 0, &opened), QL_ERR_OBJ_NOT_FOUND);
  EXPECT_EQ(QGenerateKey(s.get(), nullptr, 12345, QL_KEY_TEMPORARY, &key), QL_ERR_BAD_ALGORITHM);
  EXPECT_EQ(QGenerateKey(s.get(), nullptr, QL_ALG_AES128, 8, &key), QL_ERR_BAD_FLAGS);
}

}  // namespace
