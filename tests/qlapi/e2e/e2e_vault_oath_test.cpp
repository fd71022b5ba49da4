// libqlapi against a real qlhsmd: vault tokens and their blobs; OATH token blobs, made here with
// OpenSSL's key wrap (RFC 5649) and checked by the HSM against the published one-time passwords;
// OATH tokens of users, checked by logins.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cctype>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "hsm_fixture.h"
#include "password_record.h"
#include "qlapi.h"

namespace {

using Bytes = std::vector<unsigned char>;

qltest::HsmProcess &Hsm() {
  return qltest::HsmEnvironment::hsm();
}

class Session {
 public:
  Session() {
    AUTH_PWD_EX r = qltest::PasswordRecord(Hsm(), "master", Hsm().master_password());
    EXPECT_EQ(QOpenSession(&s_, QL_AUTH_USER_PWD, &r, sizeof r, QL_SESSION_ENCRYPTED), QL_OK);
  }
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;
  ~Session() { QCloseSession(&s_, 0); }
  HSESSIONCTX get() const { return s_; }

 private:
  HSESSIONCTX s_ = nullptr;
};

// A stored key for one test, removed at the end.
class StoredKey {
 public:
  StoredKey(HSESSIONCTX s, const char *name, uint32_t alg) : s_(s), name_(name) {
    HKEYCTX k = nullptr;
    EXPECT_EQ(QGenerateKey(s, name, alg, 0, &k), QL_OK);
    QDestroyKey(&k, 0);
  }
  ~StoredKey() { QRemoveObj(s_, name_.c_str()); }

 private:
  HSESSIONCTX s_;
  std::string name_;
};

struct Minted {
  int rc = -1;
  std::string token;
  Bytes blob;
};

Minted Mint(HSESSIONCTX s, const char *key, QL_SVAULT_TOKEN_INFO info, const std::string &secret) {
  Minted m;
  char token[256];
  uint32_t token_len = sizeof token;
  m.blob.resize(8192);
  uint32_t blob_len = static_cast<uint32_t>(m.blob.size());
  m.rc = QSVaultGenToken(s, key, &info, secret.c_str(), token, &token_len, m.blob.data(), &blob_len,
                         0);
  if (m.rc == QL_OK) {
    m.token.assign(token, token_len);
    EXPECT_EQ(token[token_len], '\0');
    m.blob.resize(blob_len);
  }
  return m;
}

int Read(HSESSIONCTX s, const char *key, uint32_t what, const Bytes &blob, std::string *out,
         uint32_t flags = 0) {
  char buf[8192];
  uint32_t len = sizeof buf;
  const int rc = QSVaultGetData(s, key, what, blob.data(), static_cast<uint32_t>(blob.size()), buf,
                                &len, flags);
  if (rc == QL_OK) out->assign(buf, len);
  return rc;
}

std::string DigitsOf(const std::string &s) {
  std::string d;
  for (char c : s)
    if (std::isdigit(static_cast<unsigned char>(c))) d += c;
  return d;
}

bool Luhn(const std::string &d) {
  int sum = 0;
  for (size_t i = 0; i < d.size(); ++i) {
    int v = d[d.size() - 1 - i] - '0';
    if (i % 2 == 1) v = v * 2 > 9 ? v * 2 - 9 : v * 2;
    sum += v;
  }
  return sum % 10 == 0;
}

// The mod-11 check digit of the Brazilian registries over `d` with weights counting down from
// `top` (wrapping to 2 after 9 when `wrap`).
int Mod11(const std::string &d, int top, bool wrap) {
  int sum = 0, w = top;
  for (char c : d) {
    sum += (c - '0') * w;
    w = (wrap && w == 2) ? 9 : w - 1;
  }
  const int r = sum % 11;
  return r < 2 ? 0 : 11 - r;
}

bool CpfOk(const std::string &d) {
  if (d.size() != 11) return false;
  const int d1 = Mod11(d.substr(0, 9), 10, false);
  const int d2 = Mod11(d.substr(0, 10), 11, false);
  return d[9] - '0' == d1 && d[10] - '0' == d2;
}

bool CnpjOk(const std::string &d) {
  if (d.size() != 14) return false;
  const int d1 = Mod11(d.substr(0, 12), 5, true);
  const int d2 = Mod11(d.substr(0, 13), 6, true);
  return d[12] - '0' == d1 && d[13] - '0' == d2;
}

// RFC 6238 Appendix B: the time and the 8-digit TOTP of the SHA-1, SHA-256 and SHA-512 seeds.
const struct {
  uint64_t time;
  const char *otp[3];
} kRfc6238[] = {
    {59, {"94287082", "46119246", "90693936"}},
    {1111111109, {"07081804", "68084774", "25091201"}},
    {1111111111, {"14050471", "67062674", "99943326"}},
    {1234567890, {"89005924", "91819424", "93441116"}},
    {2000000000, {"69279037", "90698825", "38618901"}},
    {20000000000, {"65353130", "77737706", "47863826"}},
};

TEST(Vault, PanTokenKeepsFormAndPassesLuhn) {
  Session s;
  StoredKey key(s.get(), "vault_pan", QL_ALG_AES256);
  const std::string secret = "4111-1111-1111-1111";
  for (int i = 0; i < 20; ++i) {
    Minted m = Mint(s.get(), "vault_pan", {1, 3, 0, 10}, secret);
    ASSERT_EQ(m.rc, QL_OK);
    ASSERT_EQ(m.token.size(), secret.size());
    for (size_t p : {4u, 9u, 14u}) EXPECT_EQ(m.token[p], '-') << m.token;
    const std::string d = DigitsOf(m.token);
    ASSERT_EQ(d.size(), 16u) << m.token;
    EXPECT_EQ(d.substr(0, 6), "411111");
    EXPECT_EQ(d.substr(12), "1111");
    EXPECT_TRUE(Luhn(d)) << m.token;
    std::string back;
    ASSERT_EQ(Read(s.get(), "vault_pan", 1, m.blob, &back), QL_OK);
    EXPECT_EQ(back, secret);
    ASSERT_EQ(Read(s.get(), "vault_pan", 2, m.blob, &back), QL_OK);
    EXPECT_EQ(back, m.token);
  }
  Minted m = Mint(s.get(), "vault_pan", {1, 3, 0, 10}, secret);
  std::string masked;
  ASSERT_EQ(Read(s.get(), "vault_pan", 1, m.blob, &masked, QL_SVAULT_MASKED), QL_OK);
  EXPECT_EQ(masked, "4111-11**-****-1111");
}

TEST(Vault, NationalIdTokensPassTheirChecks) {
  Session s;
  StoredKey key(s.get(), "vault_ids", QL_ALG_AES128);
  for (int i = 0; i < 20; ++i) {
    Minted cpf = Mint(s.get(), "vault_ids", {1, 1, 0, 10}, "529.982.247-25");
    ASSERT_EQ(cpf.rc, QL_OK);
    EXPECT_EQ(cpf.token[3], '.');
    EXPECT_EQ(cpf.token[11], '-');
    EXPECT_TRUE(CpfOk(DigitsOf(cpf.token))) << cpf.token;
    Minted cnpj = Mint(s.get(), "vault_ids", {1, 2, 0, 10}, "11.222.333/0001-81");
    ASSERT_EQ(cnpj.rc, QL_OK);
    const std::string d = DigitsOf(cnpj.token);
    EXPECT_EQ(d.substr(8, 4), "0001") << cnpj.token;
    EXPECT_TRUE(CnpjOk(d)) << cnpj.token;
  }
  // Wrong digit counts, letters, and a base other than 10 for a checked kind.
  EXPECT_EQ(Mint(s.get(), "vault_ids", {1, 1, 0, 10}, "1234567890").rc, QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(Mint(s.get(), "vault_ids", {1, 3, 0, 10}, "41111111111").rc, QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(Mint(s.get(), "vault_ids", {1, 2, 0, 10}, "11222333000A81").rc, QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(Mint(s.get(), "vault_ids", {1, 3, 0, 16}, "4111111111111111").rc, QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(Mint(s.get(), "vault_ids", {1, 0, 0, 11}, "12345").rc, QL_ERR_BAD_ARGUMENT);
}

TEST(Vault, TextTokensAndKeyedTokens) {
  Session s;
  StoredKey key(s.get(), "vault_txt", QL_ALG_AES256);
  StoredKey other(s.get(), "vault_txt2", QL_ALG_AES256);
  const std::string secret = "any text at all, even with spaces";
  Minted a = Mint(s.get(), "vault_txt", {2, 0, 0, 62}, secret);
  Minted b = Mint(s.get(), "vault_txt", {2, 0, 0, 62}, secret);
  ASSERT_EQ(a.rc, QL_OK);
  ASSERT_EQ(b.rc, QL_OK);
  EXPECT_EQ(a.token.size(), 32u);
  for (char c : a.token) EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(c))) << a.token;
  EXPECT_NE(a.token, b.token) << "random tokens repeat";
  // Keyed: one token per secret and key, another for another key or another secret.
  Minted k1 = Mint(s.get(), "vault_txt", {2, 0, 1, 16}, secret);
  Minted k2 = Mint(s.get(), "vault_txt", {2, 0, 1, 16}, secret);
  Minted k3 = Mint(s.get(), "vault_txt2", {2, 0, 1, 16}, secret);
  Minted k4 = Mint(s.get(), "vault_txt", {2, 0, 1, 16}, secret + ".");
  ASSERT_EQ(k1.rc, QL_OK);
  EXPECT_EQ(k1.token, k2.token);
  EXPECT_NE(k1.token, k3.token);
  EXPECT_NE(k1.token, k4.token);
  EXPECT_EQ(k1.token.find_first_not_of("0123456789ABCDEF"), std::string::npos) << k1.token;
  // Masked text keeps its last 4 letters and digits and its separators.
  std::string masked;
  ASSERT_EQ(Read(s.get(), "vault_txt", 1, a.blob, &masked, QL_SVAULT_MASKED), QL_OK);
  EXPECT_EQ(masked, "*** **** ** ***, **** **** **aces");
}

TEST(Vault, RefusalsAndSizeQueries) {
  Session s;
  StoredKey key(s.get(), "vault_ref", QL_ALG_AES256);
  StoredKey other(s.get(), "vault_ref2", QL_ALG_AES256);
  StoredKey des(s.get(), "vault_3des", QL_ALG_3DES_168);
  Minted m = Mint(s.get(), "vault_ref", {1, 0, 0, 10}, "123456");
  ASSERT_EQ(m.rc, QL_OK);
  std::string out;
  EXPECT_EQ(Read(s.get(), "vault_ref2", 1, m.blob, &out), QL_ERR_BAD_TAG);
  for (size_t at : {size_t{0}, size_t{5}, m.blob.size() / 2, m.blob.size() - 1}) {
    Bytes changed = m.blob;
    changed[at] ^= 0x01;
    EXPECT_EQ(Read(s.get(), "vault_ref", 1, changed, &out), QL_ERR_BAD_TAG) << at;
  }
  Bytes cut(m.blob.begin(), m.blob.end() - 1);
  EXPECT_EQ(Read(s.get(), "vault_ref", 1, cut, &out), QL_ERR_BAD_TAG);
  EXPECT_EQ(Read(s.get(), "vault_3des", 1, m.blob, &out), QL_ERR_BAD_KEY_USAGE);
  EXPECT_EQ(Read(s.get(), "vault_none", 1, m.blob, &out), QL_ERR_OBJ_NOT_FOUND);
  EXPECT_EQ(Read(s.get(), "vault_ref", 3, m.blob, &out), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(Mint(s.get(), "vault_3des", {1, 0, 0, 10}, "123456").rc, QL_ERR_BAD_KEY_USAGE);
  EXPECT_EQ(Mint(s.get(), "vault_ref", {3, 0, 0, 10}, "123456").rc, QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(Mint(s.get(), "vault_ref", {2, 0, 0, 10}, std::string(4097, 'a')).rc,
            QL_ERR_BAD_LENGTH);

  // Size queries: both lengths come back, and a short token buffer writes nothing.
  const QL_SVAULT_TOKEN_INFO info = {1, 0, 0, 10};
  uint32_t token_len = 0, blob_len = 0;
  ASSERT_EQ(QSVaultGenToken(s.get(), "vault_ref", &info, "123456", nullptr, &token_len, nullptr,
                            &blob_len, 0),
            QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(token_len, 7u);
  EXPECT_EQ(blob_len, m.blob.size());
  char token[7] = "xxxxxx";
  Bytes blob(blob_len);
  token_len = 6;
  EXPECT_EQ(QSVaultGenToken(s.get(), "vault_ref", &info, "123456", token, &token_len, blob.data(),
                            &blob_len, 0),
            QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_STREQ(token, "xxxxxx");
  uint32_t len = 6;
  char small[6];
  EXPECT_EQ(QSVaultGetData(s.get(), "vault_ref", 1, m.blob.data(),
                           static_cast<uint32_t>(m.blob.size()), small, &len, 0),
            QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 7u);
}

// A token space of 100 (two-digit secrets): tokens collide, yet every blob gives back the secret
// it was made for.
TEST(Vault, CollisionsNeverReturnAnotherSecret) {
  Session s;
  StoredKey key(s.get(), "vault_small", QL_ALG_AES256);
  std::map<std::string, std::set<std::string>> secrets_of_token;
  for (int i = 0; i < 60; ++i) {
    const std::string secret = std::to_string(10 + (i * 37) % 90);
    Minted m = Mint(s.get(), "vault_small", {1, 0, 0, 10}, secret);
    ASSERT_EQ(m.rc, QL_OK);
    std::string back;
    ASSERT_EQ(Read(s.get(), "vault_small", 1, m.blob, &back), QL_OK);
    EXPECT_EQ(back, secret);
    secrets_of_token[m.token].insert(secret);
  }
  size_t shared = 0;
  for (const auto &[token, secrets] : secrets_of_token) shared += secrets.size() > 1 ? 1 : 0;
  EXPECT_GT(shared, 0u) << "60 secrets in a space of 100 tokens and no collision";
}

// ---------------------------------------------------------------------------------------------
// OATH token blobs

// A known AES-256 key imported into the HSM, so that blobs can be wrapped here.
const unsigned char kMasterKey[32] = {
    0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff,
    0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef, 0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32, 0x10};

class ImportedKey {
 public:
  ImportedKey(HSESSIONCTX s, const char *name, const unsigned char *key, uint32_t flags)
      : s_(s), name_(name) {
    HKEYCTX k = nullptr;
    EXPECT_EQ(QImportKey(s, name, nullptr, key, 32, QL_PLAINTEXTKEY_BLOB, QL_ALG_AES256, flags, &k),
              QL_OK);
    QDestroyKey(&k, 0);
  }
  ~ImportedKey() { QRemoveObj(s_, name_.c_str()); }

 private:
  HSESSIONCTX s_;
  std::string name_;
};

void PutLe(Bytes &b, size_t at, size_t n, uint64_t v) {
  for (size_t i = 0; i < n; ++i) b[at + i] = static_cast<unsigned char>(v >> (8 * i));
}

// The token record (QL_OATH_TOKEN_INFO's fields, little-endian) wrapped with RFC 5649 under key.
Bytes MakeBlob(const unsigned char *key, uint32_t type, uint32_t hash, uint32_t digits,
               uint32_t step, uint64_t counter, const std::string &seed) {
  Bytes record(44 + QL_OATH_MAX_SEED, 0);
  PutLe(record, 0, 4, type);
  PutLe(record, 4, 4, hash);
  PutLe(record, 8, 4, digits);
  PutLe(record, 12, 4, step);
  PutLe(record, 16, 8, counter);
  PutLe(record, 40, 4, seed.size());
  std::memcpy(record.data() + 44, seed.data(), seed.size());
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  EVP_CIPHER_CTX_set_flags(ctx, EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
  Bytes out(record.size() + 16);
  int len = 0, fin = 0;
  const bool ok = EVP_EncryptInit_ex(ctx, EVP_aes_256_wrap_pad(), nullptr, key, nullptr) == 1 &&
                  EVP_EncryptUpdate(ctx, out.data(), &len, record.data(),
                                    static_cast<int>(record.size())) == 1 &&
                  EVP_EncryptFinal_ex(ctx, out.data() + len, &fin) == 1;
  EVP_CIPHER_CTX_free(ctx);
  EXPECT_TRUE(ok);
  out.resize(static_cast<size_t>(len + fin));
  return out;
}

int Check(HSESSIONCTX s, const char *key, Bytes *blob, const std::string &otp) {
  Bytes next(blob->size());
  uint32_t len = static_cast<uint32_t>(next.size());
  const int rc = QOATHCheckHOTP(s, key, blob->data(), static_cast<uint32_t>(blob->size()),
                                otp.c_str(), next.data(), &len, 0);
  if (rc == QL_OK) {
    next.resize(len);
    *blob = next;
  }
  return rc;
}

const std::string kRfc4226Seed = "12345678901234567890";
const char *const kRfc4226[] = {"755224", "287082", "359152", "969429", "338314",
                                "254676", "287922", "162583", "399871", "520489"};

TEST(OathBlob, Rfc4226ChainOfChecks) {
  Session s;
  ImportedKey mk(s.get(), "oath_mk", kMasterKey, QL_KEY_EXPORTABLE);
  const Bytes first = MakeBlob(kMasterKey, 2, 0, 6, 0, 0, kRfc4226Seed);
  Bytes blob = first;
  for (const char *otp : kRfc4226) ASSERT_EQ(Check(s.get(), "oath_mk", &blob, otp), QL_OK) << otp;
  // Every value is spent: the newest blob refuses them all, the last one included.
  for (const char *otp : kRfc4226)
    EXPECT_EQ(Check(s.get(), "oath_mk", &blob, otp), QL_ERR_CHECK_FAILED) << otp;
  QL_OATH_TOKEN_INFO info;
  uint32_t len = sizeof info;
  ASSERT_EQ(QOATHGetBlobInfo(s.get(), "oath_mk", blob.data(), static_cast<uint32_t>(blob.size()),
                             QL_OATH_INFO_RECORD, reinterpret_cast<unsigned char *>(&info), &len),
            QL_OK);
  EXPECT_EQ(info.dwType, 2u);
  EXPECT_EQ(info.qwCounter, 10u);
  EXPECT_EQ(info.dwSeedLen, 20u);
  EXPECT_EQ(info.pbSeed[0], 0) << "the record comes without its seed";
  unsigned char seed[QL_OATH_MAX_SEED];
  len = sizeof seed;
  ASSERT_EQ(QOATHGetBlobInfo(s.get(), "oath_mk", blob.data(), static_cast<uint32_t>(blob.size()),
                             QL_OATH_INFO_SEED, seed, &len),
            QL_OK);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(seed), len), kRfc4226Seed);

  // The look-ahead window: from counter 0, counter 9 is reachable and moves the counter past it.
  Bytes ahead = first;
  EXPECT_EQ(Check(s.get(), "oath_mk", &ahead, kRfc4226[9]), QL_OK);
  EXPECT_EQ(Check(s.get(), "oath_mk", &ahead, kRfc4226[8]), QL_ERR_CHECK_FAILED);
  // Counter 10 is past the window of a blob at counter 0.
  Bytes at_zero = first;
  char otp10[7];
  ASSERT_EQ(QGenerateHOTPOffline(reinterpret_cast<const unsigned char *>(kRfc4226Seed.data()), 20,
                                 2, 10, 0, 0, 6, otp10),
            QL_OK);
  EXPECT_EQ(Check(s.get(), "oath_mk", &at_zero, otp10), QL_ERR_CHECK_FAILED);
}

TEST(OathBlob, RefusalsAndTheSeedOnlyUnderAnExportableKey) {
  Session s;
  unsigned char other_key[32];
  std::memcpy(other_key, kMasterKey, sizeof other_key);
  other_key[0] ^= 1;
  ImportedKey mk(s.get(), "oath_mk2", kMasterKey, 0);
  ImportedKey other(s.get(), "oath_other", other_key, QL_KEY_EXPORTABLE);
  Bytes blob = MakeBlob(kMasterKey, 2, 0, 6, 0, 0, kRfc4226Seed);
  Bytes copy = blob;
  EXPECT_EQ(Check(s.get(), "oath_other", &copy, kRfc4226[0]), QL_ERR_BAD_TAG);
  copy[copy.size() / 2] ^= 0x10;
  EXPECT_EQ(Check(s.get(), "oath_mk2", &copy, kRfc4226[0]), QL_ERR_BAD_TAG);
  copy = blob;
  EXPECT_EQ(Check(s.get(), "oath_mk2", &copy, "12345a"), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(Check(s.get(), "oath_none", &copy, kRfc4226[0]), QL_ERR_OBJ_NOT_FOUND);
  unsigned char seed[QL_OATH_MAX_SEED];
  uint32_t len = sizeof seed;
  EXPECT_EQ(QOATHGetBlobInfo(s.get(), "oath_mk2", blob.data(), static_cast<uint32_t>(blob.size()),
                             QL_OATH_INFO_SEED, seed, &len),
            QL_ERR_NOT_EXPORTABLE);
  // A seed shorter than 16 bytes is no token record.
  Bytes short_seed = MakeBlob(kMasterKey, 2, 0, 6, 0, 0, "0123456789");
  EXPECT_EQ(Check(s.get(), "oath_mk2", &short_seed, kRfc4226[0]), QL_ERR_BAD_ARGUMENT);
  // A size query spends nothing: the same OTP still passes afterwards.
  uint32_t need = 0;
  EXPECT_EQ(QOATHCheckHOTP(s.get(), "oath_mk2", blob.data(), static_cast<uint32_t>(blob.size()),
                           kRfc4226[0], nullptr, &need, 0),
            QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(need, blob.size());
  EXPECT_EQ(Check(s.get(), "oath_mk2", &blob, kRfc4226[0]), QL_OK);
}

TEST(OathBlob, TokenObjectsMadeImportedAndExportedAsBlobs) {
  Session s;
  ImportedKey mk(s.get(), "oath_mk4", kMasterKey, QL_KEY_EXPORTABLE);
  HKEYCTX master = nullptr, token = nullptr, imported = nullptr;
  ASSERT_EQ(QGetUserKey(s.get(), "oath_mk4", 0, &master), QL_OK);
  ASSERT_EQ(QGenerateKey(s.get(), "oath_tok", QL_OBJ_HOTP, 0, &token), QL_OK);
  auto blob_of = [&](HKEYCTX key) {
    uint32_t len = 0;
    EXPECT_EQ(QExportKey(key, master, QL_HOTP_BLOB, 0, nullptr, &len), QL_ERR_BUFFER_TOO_SMALL);
    Bytes b(len);
    EXPECT_EQ(QExportKey(key, master, QL_HOTP_BLOB, 0, b.data(), &len), QL_OK);
    b.resize(len);
    return b;
  };
  Bytes blob = blob_of(token);
  // The fresh token's seed, taken out under the exportable master key, gives the OTP it takes.
  unsigned char seed[QL_OATH_MAX_SEED];
  uint32_t len = sizeof seed;
  ASSERT_EQ(QOATHGetBlobInfo(s.get(), "oath_mk4", blob.data(), static_cast<uint32_t>(blob.size()),
                             QL_OATH_INFO_SEED, seed, &len),
            QL_OK);
  EXPECT_EQ(len, 20u);
  char otp[9];
  ASSERT_EQ(QGenerateHOTPOffline(seed, len, 2, 0, 0, 0, 6, otp), QL_OK);
  EXPECT_EQ(Check(s.get(), "oath_mk4", &blob, otp), QL_OK);
  // The checked blob, stored as a new object, comes back out with its counter.
  ASSERT_EQ(QImportKey(s.get(), "oath_tok2", master, blob.data(),
                       static_cast<uint32_t>(blob.size()), QL_HOTP_BLOB, 0, 0, &imported),
            QL_OK);
  const Bytes again = blob_of(imported);
  QL_OATH_TOKEN_INFO info;
  len = sizeof info;
  ASSERT_EQ(QOATHGetBlobInfo(s.get(), "oath_mk4", again.data(), static_cast<uint32_t>(again.size()),
                             QL_OATH_INFO_RECORD, reinterpret_cast<unsigned char *>(&info), &len),
            QL_OK);
  EXPECT_EQ(info.qwCounter, 1u);
  EXPECT_EQ(Check(s.get(), "oath_mk4", &blob, otp), QL_ERR_CHECK_FAILED) << "spent";

  Bytes tampered = blob;
  tampered[tampered.size() / 2] ^= 1;
  HKEYCTX none = nullptr;
  EXPECT_EQ(QImportKey(s.get(), "oath_tok3", master, tampered.data(),
                       static_cast<uint32_t>(tampered.size()), QL_HOTP_BLOB, 0, 0, &none),
            QL_ERR_BAD_TAG);
  EXPECT_EQ(QGenerateKey(s.get(), "oath_tok3", QL_OBJ_HOTP, QL_KEY_TEMPORARY, &none),
            QL_ERR_BAD_FLAGS);
  EXPECT_EQ(QGetUserKey(s.get(), "oath_tok3", 0, &none), QL_ERR_OBJ_NOT_FOUND);
  EXPECT_EQ(QExportKey(master, master, QL_HOTP_BLOB, 0, seed, &len), QL_ERR_BAD_KEY_USAGE)
      << "an AES key is no token object";
  EXPECT_EQ(QExportKey(token, token, QL_HOTP_BLOB, 0, seed, &len), QL_ERR_BAD_KEY_USAGE)
      << "a token object is no master key";
  QDestroyKey(&master, 0);
  QDestroyKey(&token, 0);
  QDestroyKey(&imported, 0);
  QRemoveObj(s.get(), "oath_tok");
  QRemoveObj(s.get(), "oath_tok2");
}

// RFC 6238 Appendix B: the HSM's clock set to each time in turn, one blob per seed checked in a
// chain (each time is a later step than the one before).
TEST(OathBlob, Rfc6238AtTheHsmsTime) {
  Session s;
  ImportedKey mk(s.get(), "oath_mk3", kMasterKey, 0);
  std::string seed64;
  for (int i = 0; i < 6; ++i) seed64 += "1234567890";
  seed64 += "1234";
  const std::string seeds[3] = {kRfc4226Seed, seed64.substr(0, 32), seed64};
  Bytes blobs[3];
  for (uint32_t h = 0; h < 3; ++h) blobs[h] = MakeBlob(kMasterKey, 3, h, 8, 30, 0, seeds[h]);
  for (const auto &v : kRfc6238) {
    ASSERT_EQ(
        QAdmOperation(s.get(), QL_ADM_SET_DATE_TIME, &v.time, sizeof v.time, nullptr, nullptr, 0),
        QL_OK);
    for (int h = 0; h < 3; ++h) {
      EXPECT_EQ(Check(s.get(), "oath_mk3", &blobs[h], v.otp[h]), QL_OK) << v.time << " " << h;
      // Accepted once: the same step again is a replay.
      EXPECT_EQ(Check(s.get(), "oath_mk3", &blobs[h], v.otp[h]), QL_ERR_CHECK_FAILED) << v.time;
    }
  }
  // A value from an earlier step never passes later.
  EXPECT_EQ(Check(s.get(), "oath_mk3", &blobs[0], "94287082"), QL_ERR_CHECK_FAILED);
  const uint64_t now = static_cast<uint64_t>(std::time(nullptr));
  EXPECT_EQ(QAdmOperation(s.get(), QL_ADM_SET_DATE_TIME, &now, sizeof now, nullptr, nullptr, 0),
            QL_OK);
}

// --- OATH tokens of users: the second factor of their logins ---

const char kOtpUserPassword[] = "pw123456";

// A user without rights for one test, removed at the end.
class TestUser {
 public:
  TestUser(HSESSIONCTX s, const char *name) : s_(s), name_(name) {
    QL_USER_INFO u;
    std::memset(&u, 0, sizeof u);
    std::strncpy(u.szUserId, name, sizeof u.szUserId - 1);
    std::strncpy(u.szPassword, kOtpUserPassword, sizeof u.szPassword - 1);
    EXPECT_EQ(QCreateUser(s, &u), QL_OK);
  }
  ~TestUser() { QRemoveUser(s_, name_.c_str()); }
  const char *name() const { return name_.c_str(); }

 private:
  HSESSIONCTX s_;
  std::string name_;
};

int AssignRfcSeed(HSESSIONCTX s, const char *user, uint32_t type = 2, uint32_t digits = 0) {
  return QAssignToken(s, user, type, reinterpret_cast<const unsigned char *>(kRfc4226Seed.data()),
                      20, 30, 0, digits);
}

// Opens and closes a session of `user` (otp null: no second factor); QOpenSession's code. Without
// QL_SESSION_BYPASS_CACHE in `flags` the connection goes back to the cache and serves the next
// login.
int OtpLogin(const char *user, const char *otp, uint32_t flags = QL_SESSION_ENCRYPTED,
             const char *password = kOtpUserPassword) {
  AUTH_PWD_EX r = qltest::PasswordRecord(Hsm(), user, password);
  if (otp != nullptr) {
    r.dwAuthType = QL_STRONG_AUTH_OTP;
    r.pbStrongAuth = reinterpret_cast<unsigned char *>(const_cast<char *>(otp));
    r.nStrongAuthLen = static_cast<int32_t>(std::strlen(otp));
  }
  HSESSIONCTX h = nullptr;
  const int rc = QOpenSession(&h, QL_AUTH_USER_PWD, &r, sizeof r, flags);
  if (rc == QL_OK) QCloseSession(&h, 0);
  return rc;
}

TEST(UserToken, Rfc4226ThroughLoginsCachedOrNot) {
  Session s;
  TestUser u(s.get(), "otp_rfc");
  ASSERT_EQ(AssignRfcSeed(s.get(), u.name()), QL_OK);
  EXPECT_EQ(AssignRfcSeed(s.get(), u.name()), QL_ERR_TOKEN_EXISTS);
  EXPECT_EQ(OtpLogin(u.name(), nullptr), QL_ERR_AUTH_FAILED) << "the second factor is needed";
  // Every value once, alternately on a new and on a cached connection: the cache never skips it.
  for (int i = 0; i < 10; ++i) {
    const uint32_t flags = QL_SESSION_ENCRYPTED | (i % 2 ? 0 : QL_SESSION_BYPASS_CACHE);
    ASSERT_EQ(OtpLogin(u.name(), kRfc4226[i], flags), QL_OK) << i;
  }
  EXPECT_EQ(OtpLogin(u.name(), kRfc4226[9]), QL_ERR_AUTH_FAILED) << "replay on a cached connection";
  EXPECT_EQ(OtpLogin(u.name(), kRfc4226[9], QL_SESSION_ENCRYPTED | QL_SESSION_BYPASS_CACHE),
            QL_ERR_AUTH_FAILED);
  // A wrong password stays wrong with a good OTP.
  char next[7];
  ASSERT_EQ(QGenerateHOTPOffline(reinterpret_cast<const unsigned char *>(kRfc4226Seed.data()), 20,
                                 2, 10, 0, 0, 6, next),
            QL_OK);
  EXPECT_EQ(OtpLogin(u.name(), next, QL_SESSION_ENCRYPTED, "wrong-pw"), QL_ERR_AUTH_FAILED);
  EXPECT_EQ(OtpLogin(u.name(), next), QL_OK);

  ASSERT_EQ(QUnassignToken(s.get(), u.name()), QL_OK);
  EXPECT_EQ(QUnassignToken(s.get(), u.name()), QL_ERR_NO_TOKEN);
  EXPECT_EQ(OtpLogin(u.name(), nullptr), QL_OK);
  EXPECT_EQ(OtpLogin(u.name(), "123456"), QL_ERR_AUTH_FAILED) << "an OTP for a user without token";
}

TEST(UserToken, AssignmentRefusals) {
  Session s;
  TestUser u(s.get(), "otp_refused");
  const auto *seed = reinterpret_cast<const unsigned char *>(kRfc4226Seed.data());
  const struct {
    const char *what;
    const char *user;
    uint32_t type, seed_len, step, flags;
    int code;
  } rows[] = {
      {"no such user", "otp_nobody", 2, 20, 0, 0, QL_ERR_USER_NOT_FOUND},
      {"seed of 15 bytes", u.name(), 2, 15, 0, 0, QL_ERR_BAD_LENGTH},
      {"seed of 65 bytes", u.name(), 2, 65, 0, 0, QL_ERR_BAD_LENGTH},
      {"type 1", u.name(), 1, 20, 0, 0, QL_ERR_BAD_ARGUMENT},
      {"hash 3", u.name(), 0x302, 20, 0, 0, QL_ERR_BAD_ARGUMENT},
      {"9 digits", u.name(), 2, 20, 0, 9, QL_ERR_BAD_ARGUMENT},
      {"flags past the digits", u.name(), 2, 20, 0, 0x16, QL_ERR_BAD_FLAGS},
      {"step of 3,601 s", u.name(), 3, 20, 3601, 0, QL_ERR_BAD_ARGUMENT},
  };
  std::string long_seed(65, 'x');
  for (const auto &r : rows) {
    const unsigned char *bytes =
        r.seed_len > 20 ? reinterpret_cast<const unsigned char *>(long_seed.data()) : seed;
    EXPECT_EQ(QAssignToken(s.get(), r.user, r.type, bytes, r.seed_len, r.step, 0, r.flags), r.code)
        << r.what;
  }
  EXPECT_EQ(OtpLogin(u.name(), nullptr), QL_OK) << "a refused assignment left no token";
  EXPECT_EQ(QUnassignToken(s.get(), "otp_nobody"), QL_ERR_USER_NOT_FOUND);
  EXPECT_EQ(QOATHResync(s.get(), "otp_nobody", "123456", "123456"), QL_ERR_USER_NOT_FOUND);
  // The operator right, like setting another user's password.
  AUTH_PWD_EX r = qltest::PasswordRecord(Hsm(), u.name(), kOtpUserPassword);
  HSESSIONCTX plain = nullptr;
  ASSERT_EQ(QOpenSession(&plain, QL_AUTH_USER_PWD, &r, sizeof r, QL_SESSION_BYPASS_CACHE), QL_OK);
  EXPECT_EQ(AssignRfcSeed(plain, u.name()), QL_ERR_ACCESS_DENIED);
  EXPECT_EQ(QUnassignToken(plain, u.name()), QL_ERR_ACCESS_DENIED);
  QCloseSession(&plain, QL_CLOSE_PHYSICAL);
}

TEST(UserToken, OneOtpGivesOneLoginEvenAtOnce) {
  Session s;
  TestUser u(s.get(), "otp_race");
  ASSERT_EQ(AssignRfcSeed(s.get(), u.name()), QL_OK);
  std::vector<int> codes(6, -1);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < codes.size(); ++i)
    threads.emplace_back([&, i] {
      codes[i] = OtpLogin(u.name(), kRfc4226[0], QL_SESSION_ENCRYPTED | QL_SESSION_BYPASS_CACHE);
    });
  for (auto &t : threads) t.join();
  int ok = 0;
  for (int c : codes) {
    if (c == QL_OK)
      ++ok;
    else
      EXPECT_EQ(c, QL_ERR_AUTH_FAILED);
  }
  EXPECT_EQ(ok, 1);
}

// RFC 4226 section 7.3: ten OTP failures in a row with the right password block the user; wrong
// passwords never count; a resync (or unblock-user) lifts the block.
TEST(UserToken, TenFailuresBlockUntilResync) {
  Session s;
  TestUser u(s.get(), "otp_block");
  ASSERT_EQ(AssignRfcSeed(s.get(), u.name()), QL_OK);
  for (int i = 0; i < 9; ++i) ASSERT_EQ(OtpLogin(u.name(), "000000"), QL_ERR_AUTH_FAILED) << i;
  EXPECT_EQ(OtpLogin(u.name(), "000000", QL_SESSION_ENCRYPTED, "wrong-pw"), QL_ERR_AUTH_FAILED);
  EXPECT_EQ(OtpLogin(u.name(), "000000", QL_SESSION_ENCRYPTED, "wrong-pw"), QL_ERR_AUTH_FAILED);
  EXPECT_EQ(OtpLogin(u.name(), nullptr), QL_ERR_AUTH_FAILED) << "no OTP is no guess";
  EXPECT_EQ(OtpLogin(u.name(), "000000"), QL_ERR_AUTH_FAILED) << "the tenth failure";
  EXPECT_EQ(OtpLogin(u.name(), kRfc4226[0]), QL_ERR_USER_BLOCKED);

  EXPECT_EQ(QOATHResync(s.get(), u.name(), kRfc4226[5], kRfc4226[7]), QL_ERR_CHECK_FAILED);
  EXPECT_EQ(OtpLogin(u.name(), kRfc4226[0]), QL_ERR_USER_BLOCKED)
      << "a failed resync lifts nothing";
  ASSERT_EQ(QOATHResync(s.get(), u.name(), kRfc4226[4], kRfc4226[5]), QL_OK);
  EXPECT_EQ(OtpLogin(u.name(), kRfc4226[5]), QL_ERR_AUTH_FAILED) << "the resync spent it";
  EXPECT_EQ(OtpLogin(u.name(), kRfc4226[6]), QL_OK);

  // Past the look-ahead of a login, within reach of a resync.
  char far[2][7];
  for (int i = 0; i < 2; ++i)
    ASSERT_EQ(QGenerateHOTPOffline(reinterpret_cast<const unsigned char *>(kRfc4226Seed.data()), 20,
                                   2, 500 + i, 0, 0, 6, far[i]),
              QL_OK);
  EXPECT_EQ(OtpLogin(u.name(), far[0]), QL_ERR_AUTH_FAILED);
  ASSERT_EQ(QOATHResync(s.get(), u.name(), far[0], far[1]), QL_OK);
  char after[7];
  ASSERT_EQ(QGenerateHOTPOffline(reinterpret_cast<const unsigned char *>(kRfc4226Seed.data()), 20,
                                 2, 502, 0, 0, 6, after),
            QL_OK);
  EXPECT_EQ(OtpLogin(u.name(), after), QL_OK);
}

// The last user with the operator right is never blocked by OTP failures (only slowed down).
TEST(UserToken, LastAdministratorIsNeverBlocked) {
  Session s;
  ASSERT_EQ(AssignRfcSeed(s.get(), "master"), QL_OK);
  struct Unassign {
    HSESSIONCTX s;
    ~Unassign() { EXPECT_EQ(QUnassignToken(s, "master"), QL_OK); }
  } unassign{s.get()};
  const std::string pwd = Hsm().master_password();
  for (int i = 0; i < 10; ++i)
    ASSERT_EQ(OtpLogin("master", "000000", QL_SESSION_ENCRYPTED, pwd.c_str()), QL_ERR_AUTH_FAILED);
  EXPECT_EQ(OtpLogin("master", kRfc4226[0], QL_SESSION_ENCRYPTED, pwd.c_str()), QL_OK);
}

// RFC 6238 Appendix B through logins: the HSM's clock set to each time, tokens of each hash.
TEST(UserToken, TimeTokensAtTheHsmsTime) {
  Session s;
  std::string seed64;
  for (int i = 0; i < 6; ++i) seed64 += "1234567890";
  seed64 += "1234";
  const std::string seeds[3] = {kRfc4226Seed, seed64.substr(0, 32), seed64};
  const char *names[3] = {"otp_t_sha1", "otp_t_sha256", "otp_t_sha512"};
  std::vector<std::unique_ptr<TestUser>> users;
  for (uint32_t h = 0; h < 3; ++h) {
    users.push_back(std::make_unique<TestUser>(s.get(), names[h]));
    ASSERT_EQ(QAssignToken(s.get(), names[h], 3 | (h << 8),
                           reinterpret_cast<const unsigned char *>(seeds[h].data()),
                           static_cast<uint32_t>(seeds[h].size()), 30, 0, 8),
              QL_OK);
  }
  // Three of the times: each login by a wrong or replayed OTP is slowed down on purpose.
  for (const auto &v : std::span(kRfc6238).first(3)) {
    ASSERT_EQ(
        QAdmOperation(s.get(), QL_ADM_SET_DATE_TIME, &v.time, sizeof v.time, nullptr, nullptr, 0),
        QL_OK);
    for (int h = 0; h < 3; ++h) {
      EXPECT_EQ(OtpLogin(names[h], v.otp[h]), QL_OK) << v.time << " " << h;
      EXPECT_EQ(OtpLogin(names[h], v.otp[h]), QL_ERR_AUTH_FAILED) << "replay " << v.time;
    }
  }
  const uint64_t now = static_cast<uint64_t>(std::time(nullptr));
  EXPECT_EQ(QAdmOperation(s.get(), QL_ADM_SET_DATE_TIME, &now, sizeof now, nullptr, nullptr, 0),
            QL_OK);
}

}  // namespace
