// The calls that run in the library alone: base64, code texts, RSA padding, offline OTPs, log
// lines made readable.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "qlapi.h"

namespace {

std::string Encode(const std::string &data) {
  uint32_t len = 0;
  EXPECT_EQ(QByteArray2Base64(data.data(), static_cast<uint32_t>(data.size()), nullptr, &len),
            QL_ERR_BUFFER_TOO_SMALL);
  std::string out(len, '\0');
  EXPECT_EQ(QByteArray2Base64(data.data(), static_cast<uint32_t>(data.size()), out.data(), &len),
            QL_OK);
  EXPECT_EQ(out[len], '\0');
  out.resize(len);
  return out;
}

TEST(Base64, Rfc4648Vectors) {
  const std::pair<std::string, std::string> vectors[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
  };
  for (const auto &[plain, text] : vectors) {
    EXPECT_EQ(Encode(plain), text);
    std::string out(plain.size() + 4, '\0');
    uint32_t len = static_cast<uint32_t>(out.size());
    ASSERT_EQ(QBase642ByteArray(text.data(), static_cast<uint32_t>(text.size()), out.data(), &len),
              QL_OK)
        << text;
    EXPECT_EQ(out.substr(0, len), plain);
  }
}

TEST(Base64, DecodesTokenTextIntoTheRecord) {
  QL_A_TOKEN token;
  std::string raw(32, '\0');
  for (int i = 0; i < 32; ++i) raw[i] = static_cast<char>(i * 7);
  const std::string text = Encode(raw) + "\r\n";  // a token file usually ends with a line end
  uint32_t len = sizeof token;
  ASSERT_EQ(QBase642ByteArray(text.c_str(), static_cast<uint32_t>(text.size()), &token, &len),
            QL_OK);
  EXPECT_EQ(len, 32u);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(&token), 32), raw);
}

TEST(Base64, SizeQueryAndRefusals) {
  uint32_t len = 2;
  unsigned char out[8];
  EXPECT_EQ(QBase642ByteArray("Zm9v", 4, out, &len), QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 3u);
  len = 3;
  EXPECT_EQ(QBase642ByteArray("Zm9v", 4, nullptr, &len), QL_ERR_BUFFER_TOO_SMALL);
  for (const char *bad : {"Zm9v!", "Z", "Zm=v", "Zg===", "=Zg", "Zm9vY"}) {
    len = sizeof out;
    EXPECT_EQ(QBase642ByteArray(bad, static_cast<uint32_t>(strlen(bad)), out, &len),
              QL_ERR_BAD_BASE64)
        << bad;
  }
  EXPECT_EQ(QBase642ByteArray("Zg", 2, out, nullptr), QL_ERR_BAD_ARGUMENT);
  len = sizeof out;
  EXPECT_EQ(QBase642ByteArray("Zg", 2, out, &len), QL_OK);  // padding is optional
  EXPECT_EQ(len, 1u);
}

TEST(ReturnCodes, EveryNamedCodeHasItsOwnText) {
  const int codes[] = {
      QL_OK,
      QL_ERR_BAD_ARGUMENT,
      QL_ERR_NO_MEMORY,
      QL_ERR_BAD_HANDLE,
      QL_ERR_BAD_FLAGS,
      QL_ERR_BUFFER_TOO_SMALL,
      QL_ERR_BAD_AUTH_KIND,
      QL_ERR_CONNECTION_FAILED,
      QL_ERR_TLS_FAILED,
      QL_ERR_PROTOCOL,
      QL_ERR_SESSION_CLOSED,
      QL_ERR_BAD_BASE64,
      QL_ERR_CREDENTIAL_NOT_FOUND,
      QL_ERR_CREDENTIAL_STORE,
      QL_ERR_LIB_INTERNAL,
      QL_ERR_CANCELLED,
      QL_ERR_FILE_IO,
      QL_ERR_VERSION_MISMATCH,
      QL_ERR_AUTH_FAILED,
      QL_ERR_ACCESS_DENIED,
      QL_ERR_USER_BLOCKED,
      QL_ERR_OBJ_NOT_FOUND,
      QL_ERR_OBJ_BLOCKED,
      QL_ERR_BAD_ALGORITHM,
      QL_ERR_NOT_SUPPORTED,
      QL_ERR_LIMIT_REACHED,
      QL_ERR_BUSY_RETRY,
      QL_ERR_BAD_TAG,
      QL_ERR_USER_NAME_TOO_LONG,
      QL_ERR_INTERNAL,
      QL_ERR_USER_EXISTS,
      QL_ERR_BAD_KEY_USAGE,
      QL_ERR_BAD_LENGTH,
      QL_ERR_NOT_EXPORTABLE,
      QL_ERR_BAD_SIGNATURE,
      QL_ERR_PIECES_REFUSED,
      QL_ERR_DIGEST_TOO_LONG,
      QL_ERR_USER_NOT_FOUND,
      QL_ERR_BAD_NAME,
      QL_ERR_OBJ_EXISTS,
      QL_ERR_BAD_STATE,
      QL_ERR_BAD_PADDING,
      QL_ERR_BAD_PIN,
      QL_ERR_NOT_LOGGED_IN,
      QL_ERR_UPACK_REFUSED,
      QL_ERR_HSM_IDENTITY_CHANGED,
      QL_ERR_HSM_IDENTITY_UNKNOWN,
      QL_ERR_HSM_IDENTITY_UNVERIFIED,
      QL_ERR_BAD_UTF8,
      QL_ERR_SESSION_EXPIRED,
      QL_ERR_ADDRESS_REFUSED,
  };
  const std::string unknown = QGetReturnCodeString(-12345, QL_RC_STR_DESCRIPTION);
  std::set<std::string> texts, names;
  for (int code : codes) {
    const std::string text = QGetReturnCodeString(code, QL_RC_STR_DESCRIPTION);
    const std::string name = QGetReturnCodeString(code, QL_RC_STR_NAME);
    EXPECT_NE(text, unknown) << code;
    EXPECT_EQ(text.find('%'), std::string::npos) << code;  // texts reach format strings
    EXPECT_TRUE(texts.insert(text).second) << "text shared by " << code;
    EXPECT_TRUE(names.insert(name).second) << "name shared by " << code;
  }
  EXPECT_EQ(std::string(QGetReturnCodeString(5002, 2)), "Access denied.");
  EXPECT_EQ(std::string(QGetReturnCodeString(5002, 1)), "QL_ERR_ACCESS_DENIED");
  EXPECT_EQ(std::string(QGetReturnCodeString(1005, 1)), "QL_ERR_BUFFER_TOO_SMALL");
}

// The fixed codes keep their numbers: the program's tables compare against them.
TEST(ReturnCodes, FixedNumbers) {
  EXPECT_EQ(QL_ERR_BUFFER_TOO_SMALL, 1005);
  EXPECT_EQ(QL_ERR_ACCESS_DENIED, 5002);
  EXPECT_EQ(QL_ERR_OBJ_NOT_FOUND, 5004);
  EXPECT_EQ(QL_ERR_USER_EXISTS, 5013);
  EXPECT_EQ(QL_ERR_USER_NOT_FOUND, 5020);
  EXPECT_EQ(QL_ERR_OBJ_EXISTS, 5022);
  EXPECT_EQ(QL_ERR_UPACK_REFUSED, 5034);
  EXPECT_EQ(QL_ERR_SESSION_EXPIRED, 5046);
  EXPECT_EQ(QL_ERR_ADDRESS_REFUSED, 5047);
}

struct PkeyDeleter {
  void operator()(EVP_PKEY *k) const { EVP_PKEY_free(k); }
};
struct PctxDeleter {
  void operator()(EVP_PKEY_CTX *c) const { EVP_PKEY_CTX_free(c); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyDeleter>;
using Pctx = std::unique_ptr<EVP_PKEY_CTX, PctxDeleter>;

// The block OpenSSL signs: sign with PKCS#1 v1.5, then undo the RSA with the public key.
std::vector<unsigned char> OpenSslBlock(EVP_PKEY *key, const EVP_MD *md,
                                        const std::vector<unsigned char> &digest) {
  Pctx sctx(EVP_PKEY_CTX_new(key, nullptr));
  EXPECT_EQ(EVP_PKEY_sign_init(sctx.get()), 1);
  EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(sctx.get(), RSA_PKCS1_PADDING), 1);
  if (md) {
    EXPECT_EQ(EVP_PKEY_CTX_set_signature_md(sctx.get(), md), 1);
  }
  size_t sig_len = 0;
  EXPECT_EQ(EVP_PKEY_sign(sctx.get(), nullptr, &sig_len, digest.data(), digest.size()), 1);
  std::vector<unsigned char> sig(sig_len);
  EXPECT_EQ(EVP_PKEY_sign(sctx.get(), sig.data(), &sig_len, digest.data(), digest.size()), 1);
  Pctx vctx(EVP_PKEY_CTX_new(key, nullptr));
  EXPECT_EQ(EVP_PKEY_verify_recover_init(vctx.get()), 1);
  EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(vctx.get(), RSA_NO_PADDING), 1);
  size_t out_len = sig.size();
  std::vector<unsigned char> block(sig.size());
  EXPECT_EQ(EVP_PKEY_verify_recover(vctx.get(), block.data(), &out_len, sig.data(), sig.size()), 1);
  return block;
}

TEST(RsaPadding, SameBlockAsOpenSslSigns) {
  Pkey key(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{1024}));
  ASSERT_TRUE(key);
  const uint32_t key_len = 128;
  struct Case {
    uint32_t digest_id;
    const EVP_MD *md;
    std::size_t len;
  } cases[] = {
      {QL_DIGEST_ID_MD5, EVP_md5(), 16},       {QL_DIGEST_ID_SHA1, EVP_sha1(), 20},
      {QL_DIGEST_ID_SHA224, EVP_sha224(), 28}, {QL_DIGEST_ID_SHA256, EVP_sha256(), 32},
      {QL_DIGEST_ID_SHA384, EVP_sha384(), 48}, {QL_DIGEST_ID_SHA512, EVP_sha512(), 64},
      {QL_DIGEST_ID_NONE, nullptr, 32},  // a bare digest (SHA3-256, for one)
  };
  for (const Case &k : cases) {
    std::vector<unsigned char> digest(k.len);
    for (std::size_t i = 0; i < k.len; ++i) digest[i] = static_cast<unsigned char>(i + 1);
    std::vector<unsigned char> block(key_len);
    uint32_t len = static_cast<uint32_t>(k.len);
    ASSERT_NE(QDoRSAPadding(nullptr, 1, block.data(), digest.data(), &len, key_len, k.digest_id), 0)
        << k.digest_id;
    EXPECT_EQ(len, key_len);
    EXPECT_EQ(block, OpenSslBlock(key.get(), k.md, digest)) << k.digest_id;
  }
}

TEST(RsaPadding, AnswersZeroOnFailure) {
  unsigned char block[64];
  unsigned char digest[64] = {};
  uint32_t len = 64;
  // RSA-512 with SHA-512: 64 + 19 + 11 bytes do not fit in 64.
  EXPECT_EQ(QDoRSAPadding(nullptr, 1, block, digest, &len, 64, QL_DIGEST_ID_SHA512), 0);
  len = 20;
  EXPECT_EQ(QDoRSAPadding(nullptr, 1, block, digest, &len, 64, QL_DIGEST_ID_SHA256), 0)
      << "a digest of the wrong length for its id";
  len = 32;
  EXPECT_EQ(QDoRSAPadding(nullptr, 2, block, digest, &len, 64, QL_DIGEST_ID_SHA256), 0);
  EXPECT_EQ(QDoRSAPadding(nullptr, 1, block, digest, &len, 64, 9), 0);
  EXPECT_EQ(QDoRSAPadding(nullptr, 1, nullptr, digest, &len, 64, QL_DIGEST_ID_SHA256), 0);
  EXPECT_EQ(len, 32u);  // untouched on failure
}

TEST(OfflineOtp, Rfc4226AndRfc6238Vectors) {
  const std::string seed = "12345678901234567890";
  const auto *s = reinterpret_cast<const unsigned char *>(seed.data());
  const char *hotp[] = {"755224", "287082", "359152", "969429", "338314",
                        "254676", "287922", "162583", "399871", "520489"};
  for (uint64_t counter = 0; counter < 10; ++counter) {
    char otp[9];
    ASSERT_EQ(QGenerateHOTPOffline(s, 20, 2, counter, 0, 0, 6, otp), QL_OK);
    EXPECT_STREQ(otp, hotp[counter]) << counter;
  }
  const std::pair<uint64_t, const char *> totp[] = {
      {59, "94287082"},         {1111111109, "07081804"}, {1111111111, "14050471"},
      {1234567890, "89005924"}, {2000000000, "69279037"}, {20000000000, "65353130"},
  };
  for (const auto &[time, expected] : totp) {
    char otp[9];
    ASSERT_EQ(QGenerateHOTPOffline(s, 20, 3, time, 30, 0, 8, otp), QL_OK);
    EXPECT_STREQ(otp, expected) << time;
  }
  // RFC 6238 Appendix B with its SHA-256 and SHA-512 seeds (hash in bits 8 to 11 of the type).
  const std::string seed32 = "12345678901234567890123456789012";
  std::string seed64;
  for (int i = 0; i < 6; ++i) seed64 += "1234567890";
  seed64 += "1234";
  const struct {
    uint64_t time;
    const char *sha256;
    const char *sha512;
  } wide[] = {
      {59, "46119246", "90693936"},         {1111111109, "68084774", "25091201"},
      {1111111111, "67062674", "99943326"}, {1234567890, "91819424", "93441116"},
      {2000000000, "90698825", "38618901"}, {20000000000, "77737706", "47863826"},
  };
  for (const auto &v : wide) {
    char otp[9];
    ASSERT_EQ(QGenerateHOTPOffline(reinterpret_cast<const unsigned char *>(seed32.data()), 32,
                                   0x103, v.time, 30, 0, 8, otp),
              QL_OK);
    EXPECT_STREQ(otp, v.sha256) << v.time;
    ASSERT_EQ(QGenerateHOTPOffline(reinterpret_cast<const unsigned char *>(seed64.data()), 64,
                                   0x203, v.time, 30, 0, 8, otp),
              QL_OK);
    EXPECT_STREQ(otp, v.sha512) << v.time;
  }
  char otp[10];
  EXPECT_EQ(QGenerateHOTPOffline(s, 20, 0x302, 0, 0, 0, 6, otp), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QGenerateHOTPOffline(s, 20, 2, 0, 0, 0, 9, otp), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QGenerateHOTPOffline(s, 20, 3, 10, 0, 0, 6, otp), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QGenerateHOTPOffline(s, 20, 1, 10, 30, 0, 6, otp), QL_ERR_BAD_ARGUMENT);
}

TEST(Library, InitializeAndFinalizeAreRepeatable) {
  EXPECT_EQ(QInitialize(0), QL_OK);
  EXPECT_EQ(QInitialize(0), QL_OK);
  EXPECT_EQ(QInitialize(1), QL_ERR_BAD_FLAGS);
  EXPECT_EQ(QFinalize(), QL_OK);
  EXPECT_EQ(QFinalize(), QL_OK);
  EXPECT_EQ(QInitialize(0), QL_OK);
  void *p = QAlloc(0);
  EXPECT_NE(p, nullptr);
  QFree(p);
  QFree(nullptr);
}

TEST(Library, NullHandlesAndBadHandles) {
  HSESSIONCTX s = nullptr;
  HKEYCTX k = nullptr;
  HHASHCTX h = nullptr;
  EXPECT_EQ(QCloseSession(&s, 0), QL_OK);
  EXPECT_EQ(QDestroyKey(&k, 0), QL_OK);
  EXPECT_EQ(QDestroyHash(&h), QL_OK);
  EXPECT_EQ(QCloseSession(nullptr, 0), QL_ERR_BAD_ARGUMENT);
  unsigned char buf[16];
  EXPECT_EQ(QGetRandom(nullptr, buf, 16), QL_ERR_BAD_HANDLE);
  // A hash handle is not a session: the kind is checked, not trusted.
  HSESSIONCTX local = nullptr;
  EXPECT_EQ(QCreateHash(local, QL_ALG_SHA256, nullptr, 0, &h), QL_ERR_BAD_HANDLE);
}

std::string Formatted(const std::string &raw) {
  uint32_t len = 0;
  EXPECT_EQ(QLogLineFormat(raw.data(), static_cast<uint32_t>(raw.size()), nullptr, &len),
            QL_ERR_BUFFER_TOO_SMALL);
  std::string out(len, 'x');
  EXPECT_EQ(QLogLineFormat(raw.data(), static_cast<uint32_t>(raw.size()), out.data(), &len), QL_OK);
  EXPECT_EQ(len, out.size());
  EXPECT_EQ(out.back(), '\0');
  out.pop_back();
  return out;
}

TEST(LogLineFormat, NamesTheOutcomeAndKeepsTargetsWithBlanks) {
  EXPECT_EQ(Formatted("2026-11-23 10:00:00 master create-user alice 0\n"),
            "2026-11-23 10:00:00 UTC  master  create-user alice  ok");
  EXPECT_EQ(Formatted("2026-11-23 10:00:01 bob sign-hash my key 5002"),
            "2026-11-23 10:00:01 UTC  bob  sign-hash my key  QL_ERR_ACCESS_DENIED (5002)");
  EXPECT_EQ(Formatted("2026-11-23 10:00:02 - init master 0"),
            "2026-11-23 10:00:02 UTC  (no user)  init master  ok");
  EXPECT_EQ(Formatted("2026-11-23 10:00:03 master stat-info - 0"),
            "2026-11-23 10:00:03 UTC  master  stat-info  ok");
  // Lines of another form (the follower's notice of missed lines) come back as they are.
  EXPECT_EQ(Formatted("*** 3 log lines missed ***"), "*** 3 log lines missed ***");
  EXPECT_EQ(Formatted("2026-11-23 10:00:04 master"), "2026-11-23 10:00:04 master");
  uint32_t len = 4;
  char small[4];
  EXPECT_EQ(QLogLineFormat(nullptr, 0, small, &len), QL_ERR_BAD_ARGUMENT);
}

}  // namespace
