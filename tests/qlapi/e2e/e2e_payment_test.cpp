// Payment through the library against a real qlhsmd: the published CVV, the published ISO 9564-1
// format 0 block, the published DUKPT keys of both schemes, and the library's own refusals.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "hsm_fixture.h"
#include "password_record.h"
#include "qlapi.h"

namespace {

using Bytes = std::vector<unsigned char>;

class Session {
 public:
  Session() {
    AUTH_PWD_EX r = qltest::PasswordRecord(qltest::HsmEnvironment::hsm());
    EXPECT_EQ(QOpenSession(&s_, QL_AUTH_USER_PWD, &r, sizeof r, QL_SESSION_ENCRYPTED), QL_OK);
  }
  ~Session() { QCloseSession(&s_, 0); }
  HSESSIONCTX get() const { return s_; }

 private:
  HSESSIONCTX s_ = nullptr;
};

Bytes Hex(const std::string &hex) {
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    out.push_back(static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  return out;
}

std::string HexOf(const unsigned char *p, size_t n) {
  static const char *d = "0123456789ABCDEF";
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    s += d[p[i] >> 4];
    s += d[p[i] & 15];
  }
  return s;
}

// A key of known bytes: a session key (named when `name` is given), or stored when `stored`.
HKEYCTX Import(HSESSIONCTX s, const std::string &hex, uint32_t alg, const char *name = nullptr,
               uint32_t flags = QL_KEY_TEMPORARY) {
  Bytes key = Hex(hex);
  HKEYCTX h = nullptr;
  EXPECT_EQ(QImportKey(s, name, nullptr, key.data(), static_cast<uint32_t>(key.size()),
                       QL_PLAINTEXTKEY_BLOB, alg, flags, &h),
            QL_OK);
  return h;
}

// The bytes of a stored exportable key.
std::string Exported(HSESSIONCTX s, const char *name) {
  HKEYCTX h = nullptr;
  EXPECT_EQ(QGetUserKey(s, name, 0, &h), QL_OK);
  unsigned char out[64];
  uint32_t len = sizeof out;
  EXPECT_EQ(QExportKey(h, nullptr, QL_PLAINTEXTKEY_BLOB, 0, out, &len), QL_OK);
  QDestroyKey(&h, 0);
  return HexOf(out, len);
}

constexpr const char *kCvkPair = "0123456789ABCDEFFEDCBA9876543210";

TEST(E2ePayment, PublishedCvvAndItsVerification) {
  Session s;
  HKEYCTX cvk = Import(s.get(), kCvkPair, QL_ALG_3DES_112);
  char cvv[4] = {};
  ASSERT_EQ(QGenerateCVV(cvk, "4123456789012345", "8701", "101", cvv, 0), QL_OK);
  EXPECT_STREQ(cvv, "561");
  EXPECT_EQ(QVerifyCVV(cvk, "4123456789012345", "8701", "101", "561", 0), QL_OK);
  EXPECT_EQ(QVerifyCVV(cvk, "4123456789012345", "8701", "101", "165", 0), QL_ERR_CHECK_FAILED);
  // Refused in the library before any request.
  EXPECT_EQ(QGenerateCVV(cvk, "4123456789012345", "87011", "101", cvv, 0), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QGenerateCVV(cvk, "41234567890A2345", "8701", "101", cvv, 0), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(QGenerateCVV(cvk, "4123456789012345", "8701", "101", cvv, 1), QL_ERR_BAD_FLAGS);
  QDestroyKey(&cvk, 0);
}

TEST(E2ePayment, PublishedFormat0BlockTranslatedAndVerified) {
  Session s;
  HKEYCTX src = Import(s.get(), kCvkPair, QL_ALG_3DES_112, "pek_src");
  HKEYCTX dst = Import(s.get(), "000102030405060708090A0B0C0D0E0F", QL_ALG_AES128, "pek_dst");
  HKEYCTX one = Import(s.get(), "0123456789ABCDEF23456789ABCDEF01", QL_ALG_3DES_112, "pek_one");
  // PIN 1234, PAN 43219876543210987: clear block 0412AC89ABCDEF67, C967C8198151A458 under the
  // CVK pair.
  const Bytes in = Hex("C967C8198151A458");
  unsigned char out[16];
  uint32_t len = 0;
  const uint32_t to4 = QL_PIN_BLOCK_TRANSLATE(QL_PIN_BLOCK_ISO_0, QL_PIN_BLOCK_ISO_4);
  EXPECT_EQ(QPINBlockTranslate(s.get(), "pek_src", "pek_dst", to4, "43219876543210987", in.data(),
                               8, nullptr, &len, 0),
            QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 16u);
  ASSERT_EQ(QPINBlockTranslate(s.get(), "pek_src", "pek_dst", to4, "43219876543210987", in.data(),
                               8, out, &len, 0),
            QL_OK);
  // Back from format 4 to format 0 under the source key gives the published block again.
  unsigned char back[8];
  uint32_t back_len = sizeof back;
  ASSERT_EQ(QPINBlockTranslate(s.get(), "pek_dst", "pek_src",
                               QL_PIN_BLOCK_TRANSLATE(QL_PIN_BLOCK_ISO_4, QL_PIN_BLOCK_ISO_0),
                               "43219876543210987", out, len, back, &back_len, 0),
            QL_OK);
  EXPECT_EQ(HexOf(back, back_len), "C967C8198151A458");
  // Leaving the PAN behind needs an authorisation of the EFT daemon.
  unsigned char f1[8];
  uint32_t f1_len = sizeof f1;
  EXPECT_EQ(QPINBlockTranslate(s.get(), "pek_src", "pek_one",
                               QL_PIN_BLOCK_TRANSLATE(QL_PIN_BLOCK_ISO_0, QL_PIN_BLOCK_ISO_1),
                               "43219876543210987", in.data(), 8, f1, &f1_len, 0),
            QL_ERR_EFTD_NOT_AUTHORIZED);
  // A block under another key does not decode.
  EXPECT_EQ(QPINBlockTranslate(s.get(), "pek_one", "pek_src", 0, "43219876543210987", in.data(), 8,
                               back, &back_len, 0),
            QL_ERR_BAD_PIN_BLOCK);
  QDestroyKey(&src, 0);
  QDestroyKey(&dst, 0);
  QDestroyKey(&one, 0);
}

TEST(E2ePayment, GeneratedPinVerifiesInItsBlock) {
  Session s;
  HKEYCTX pgk = Import(s.get(), "0123456789ABCDEF23456789ABCDEF01", QL_ALG_3DES_112);
  HKEYCTX ptk = Import(s.get(), kCvkPair, QL_ALG_3DES_112, "ptk");
  char pin[13] = {};
  uint32_t pin_len = 4;
  EXPECT_EQ(QGeneratePIN(pgk, "43219876543210987", 4, pin, &pin_len, 0), QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(pin_len, 5u);
  pin_len = sizeof pin;
  ASSERT_EQ(QGeneratePIN(pgk, "43219876543210987", 4, pin, &pin_len, 0), QL_OK);
  ASSERT_EQ(pin_len, 4u);
  ASSERT_EQ(std::strlen(pin), 4u);
  // The format 0 block of that PIN, enciphered with the PTK in ECB.
  const Bytes pan_field = Hex("0000987654321098");
  unsigned char block[8] = {0x04};
  block[1] = static_cast<unsigned char>(((pin[0] - '0') << 4) | (pin[1] - '0'));
  block[2] = static_cast<unsigned char>(((pin[2] - '0') << 4) | (pin[3] - '0'));
  for (int i = 3; i < 8; ++i) block[i] = 0xFF;
  for (int i = 0; i < 8; ++i) block[i] ^= pan_field[i];
  const uint32_t mode = QL_MODE_ECB, padding = QL_PAD_NONE;
  ASSERT_EQ(QSetKeyParam(ptk, QKP_MODE, &mode, sizeof mode, 0), QL_OK);
  ASSERT_EQ(QSetKeyParam(ptk, QKP_PADDING, &padding, sizeof padding, 0), QL_OK);
  uint32_t n = 8;
  ASSERT_EQ(QEncrypt(ptk, nullptr, 1, 0, block, &n, sizeof block), QL_OK);
  EXPECT_EQ(QVerifyPINBlock(ptk, pgk, QL_PIN_BLOCK_ISO_0, "43219876543210987", block, 8, 0), QL_OK);
  EXPECT_EQ(QVerifyPINBlock(ptk, pgk, QL_PIN_BLOCK_ISO_0, "43219876543210987", block, 8, 2),
            QL_ERR_BAD_FLAGS);
  EXPECT_EQ(QVerifyPINBlock(ptk, pgk, QL_PIN_BLOCK_ISO_4, "43219876543210987", block, 8, 0),
            QL_ERR_BAD_LENGTH);
  // Another PGK gives another natural PIN (or, rarely, the same: then the check passes).
  HKEYCTX other = Import(s.get(), "FEDCBA98765432100123456789ABCDEF", QL_ALG_3DES_112);
  char other_pin[13] = {};
  uint32_t other_len = sizeof other_pin;
  ASSERT_EQ(QGeneratePIN(other, "43219876543210987", 4, other_pin, &other_len, 0), QL_OK);
  EXPECT_EQ(QVerifyPINBlock(ptk, other, QL_PIN_BLOCK_ISO_0, "43219876543210987", block, 8, 0),
            std::strcmp(pin, other_pin) == 0 ? QL_OK : QL_ERR_CHECK_FAILED);
  QDestroyKey(&pgk, 0);
  QDestroyKey(&ptk, 0);
  QDestroyKey(&other, 0);
}

TEST(E2ePayment, BdkNames) {
  Session s;
  const unsigned char ksi[5] = {0xFF, 0xFF, 0x98, 0x76, 0x54};
  char name[QL_MAX_OBJ_NAME + 1];
  uint32_t len = 4;
  EXPECT_EQ(QGenerateBDKName(s.get(), ksi, 5, name, &len), QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 15u);
  len = sizeof name;
  ASSERT_EQ(QGenerateBDKName(s.get(), ksi, 5, name, &len), QL_OK);
  EXPECT_STREQ(name, "BDK_FFFF987654");
  len = sizeof name;
  ASSERT_EQ(QGenerateBDKName(s.get(), ksi, 4, name, &len), QL_OK);
  EXPECT_STREQ(name, "BDK_FFFF9876");
  EXPECT_EQ(QGenerateBDKName(s.get(), ksi, 3, name, &len), QL_ERR_BAD_LENGTH);
}

TEST(E2ePayment, PublishedDukptKeysOfBothSchemes) {
  Session s;
  HKEYCTX tdes =
      Import(s.get(), "0123456789ABCDEFFEDCBA9876543210", QL_ALG_3DES_112, "bdk_tdes", 0);
  HKEYCTX aes = Import(s.get(), "FEDCBA9876543210F1F1F1F1F1F1F1F1", QL_ALG_AES128, "bdk_aes", 0);
  struct Case {
    const char *bdk;
    const char *ksn;
    uint32_t which;
    const char *key;
  };
  const Case cases[] = {
      {"bdk_tdes", "FFFF9876543210E00000", QL_DUKPT_INITIAL_KEY,
       "6AC292FAA1315B4D858AB3A3D7D5933A"},
      {"bdk_tdes", "FFFF9876543210E00001", QL_DUKPT_TRANSACTION_KEY,
       "042666B49184CFA368DE9628D0397BC9"},
      {"bdk_tdes", "FFFF9876543210E00001", QL_DUKPT_PIN_KEY, "042666B49184CF5C68DE9628D0397B36"},
      {"bdk_tdes", "FFFF9876543210E00001", QL_DUKPT_MAC_KEY, "042666B4918430A368DE9628D03984C9"},
      {"bdk_tdes", "FFFF9876543210E00002", QL_DUKPT_TRANSACTION_KEY,
       "C46551CEF9FD24B0AA9AD834130D3BC7"},
      {"bdk_aes", "123456789012345600000000", QL_DUKPT_INITIAL_KEY,
       "1273671EA26AC29AFA4D1084127652A1"},
      {"bdk_aes", "123456789012345600000001", QL_DUKPT_TRANSACTION_KEY,
       "4F21B565BAD9835E112B6465635EAE44"},
  };
  int i = 0;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.ksn);
    const std::string name = "dukpt_" + std::to_string(i++);
    const Bytes ksn = Hex(c.ksn);
    ASSERT_EQ(QGenerateDUKPT(s.get(), c.bdk, ksn.data(), static_cast<uint32_t>(ksn.size()),
                             name.c_str(), QL_KEY_EXPORTABLE | c.which),
              QL_OK);
    EXPECT_EQ(Exported(s.get(), name.c_str()), c.key);
    EXPECT_EQ(QRemoveObj(s.get(), name.c_str()), QL_OK);
  }
  const Bytes zero = Hex("FFFF9876543210E00000");
  EXPECT_EQ(QGenerateDUKPT(s.get(), "bdk_tdes", zero.data(), 10, "dukpt_x", QL_DUKPT_PIN_KEY),
            QL_ERR_BAD_ARGUMENT);
  // A KSN of the other scheme's length does not fit the BDK.
  const Bytes aes_ksn = Hex("123456789012345600000001");
  EXPECT_EQ(QGenerateDUKPT(s.get(), "bdk_tdes", aes_ksn.data(), 12, "dukpt_x", 0),
            QL_ERR_BAD_KEY_USAGE);
  EXPECT_EQ(QGenerateDUKPT(s.get(), "bdk_tdes", zero.data(), 9, "dukpt_x", 0), QL_ERR_BAD_LENGTH);
  EXPECT_EQ(QGenerateDUKPT(s.get(), "bdk_tdes", zero.data(), 10, "dukpt_x", 0x50000),
            QL_ERR_BAD_FLAGS);
  // A refused derivation stored nothing.
  HKEYCTX none = nullptr;
  EXPECT_EQ(QGetUserKey(s.get(), "dukpt_x", 0, &none), QL_ERR_OBJ_NOT_FOUND);
  QDestroyKey(&tdes, QL_DESTROY_REMOVE);
  QDestroyKey(&aes, QL_DESTROY_REMOVE);
}

}  // namespace

int main(int argc, char **argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new qltest::HsmEnvironment);
  const int rc = RUN_ALL_TESTS();
  QFinalize();
  return rc;
}
