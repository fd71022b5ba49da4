// Payment through the library against a real qlhsmd: the published CVV, the published ISO 9564-1
// format 0 block, the published DUKPT keys of both schemes, the worked key blocks of versions B
// and D (and an exported block opened with the openssl command line; CVVs and PIN blocks of
// formats 0 and 4 recomputed or opened with it too), the EFT daemon's
// authorisations, configuration and counters, and the refusals.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "hsm_fixture.h"
#include "library_session.h"
#include "qlapi.h"

namespace {

using Bytes = std::vector<unsigned char>;

using Session = qltest::OpenedSession;

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

// --- key blocks ---

// The worked key blocks: a version B block under a double-length triple-DES KBPK, a version D
// block under an AES-256 KBPK, both carrying the same key, and a version B block marked not
// exportable.
constexpr const char *kKbpkB = "DD7515F2BFC17F85CE48F3CA25CB21F6";
constexpr const char *kBlockB =
    "B0080P0TE00E000094B420079CC80BA3461F86FE26EFC4A3B8E4FA4C5F5341176EED7B727B8A248E";
constexpr const char *kKbpkD = "88E1AB2A2E3DD38C1FA039A536500CC8A87AB9D62DC92C01058FA79F44657DE6";
constexpr const char *kBlockD =
    "D0112P0AE00E0000B82679114F470F540165EDFBF7E250FCEA43F810D215F8D207E2E417C07156A27E8E31DA05F7"
    "425509593D03A457DC34";
constexpr const char *kWorkedKey = "3F419E1CB7079442AA37474C2EFBF8B8";
constexpr const char *kKbpkN = "EFE0853B256B583D868F251CE99EA1D9";
constexpr const char *kBlockN =
    "B0080K0TN00N00001C414014375212C24995E405B5EE052CB92B67F455EA2680F6751088F9F1C228";

int ImportBlock(HSESSIONCTX s, const char *kbpk, const char *name, const std::string &block,
                uint32_t flags = 0) {
  return QEFTImportTR31(s, kbpk, name, block.c_str(), static_cast<uint32_t>(block.size()), flags);
}

// The block text of an export (with its size query), or the refusal's code as text.
std::string ExportBlock(HSESSIONCTX s, const char *kbpk, const char *key, uint32_t usage = 0,
                        uint32_t mode = 0, uint32_t exportability = 0) {
  uint32_t len = 0;
  int rc = QEFTExportTR31(s, kbpk, key, usage, mode, exportability, nullptr, &len, 0);
  if (rc != QL_ERR_BUFFER_TOO_SMALL) return "rc " + std::to_string(rc);
  std::string out(len, 'x');
  rc = QEFTExportTR31(s, kbpk, key, usage, mode, exportability, out.data(), &len, 0);
  if (rc != QL_OK) return "rc " + std::to_string(rc);
  EXPECT_EQ(len, std::strlen(out.c_str()) + 1);  // the length counts the NUL
  return out.c_str();
}

std::string Rc(int rc) {
  return "rc " + std::to_string(rc);
}

uint32_t Usage(const char *two) {
  return static_cast<uint32_t>(two[0]) | (static_cast<uint32_t>(two[1]) << 8);
}

// The openssl command line's answer, upper case, without its line break.
std::string Openssl(const std::string &args) {
  std::string out;
  FILE *p = popen(("openssl " + args + " 2>/dev/null").c_str(), "r");
  if (p == nullptr) return out;
  char buf[256];
  while (std::fgets(buf, sizeof buf, p)) out += buf;
  pclose(p);
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
  for (char &c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

std::string WriteTemp(const std::string &name, const Bytes &data) {
  const std::string path = ::testing::TempDir() + "/" + name;
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char *>(data.data()),
             static_cast<std::streamsize>(data.size()));
  return path;
}

std::string Cmac256(const std::string &hex_key, const Bytes &data) {
  return Openssl("mac -cipher AES-256-CBC -macopt hexkey:" + hex_key + " -in " +
                 WriteTemp("cmac.in", data) + " CMAC");
}

// Opens a version D block under an AES-256 KBPK with the openssl command line alone: the two
// keys derived with CMAC (counter, usage 0000 encryption or 0001 MAC, separator, algorithm 0004,
// length 0100), the key field deciphered with AES-256-CBC under the MAC as IV, and the MAC over
// header and key field checked. Answers the key in hex, or "" when the MAC does not match.
std::string OpensslUnwrapD(const std::string &kbpk, const std::string &block) {
  auto derive = [&](const char *usage) {
    return Cmac256(kbpk, Hex(std::string("01") + usage + "0000040100")) +
           Cmac256(kbpk, Hex(std::string("02") + usage + "0000040100"));
  };
  const std::string kbek = derive("0000"), kbak = derive("0001");
  const std::string header = block.substr(0, 16);
  const std::string mac = block.substr(block.size() - 32);
  const std::string field = block.substr(16, block.size() - 48);
  const std::string in = WriteTemp("field.in", Hex(field));
  const std::string out = ::testing::TempDir() + "/field.out";
  Openssl("enc -d -aes-256-cbc -nopad -K " + kbek + " -iv " + mac + " -in " + in + " -out " + out);
  std::ifstream f(out, std::ios::binary);
  const Bytes clear((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  if (clear.size() < 2) return "";
  Bytes signed_part(header.begin(), header.end());
  signed_part.insert(signed_part.end(), clear.begin(), clear.end());
  if (Cmac256(kbak, signed_part) != mac) return "";
  const size_t key_len = ((clear[0] << 8) | clear[1]) / 8;
  if (key_len + 2 > clear.size()) return "";
  return HexOf(clear.data() + 2, key_len);
}

// One block deciphered by the openssl command line (-des-ede: a double-length key, or a
// single DES key given as A|A; -aes-128-ecb), in hex.
std::string OpensslDecipher(const char *cipher, const std::string &key, const Bytes &block) {
  return Openssl("enc -d -" + std::string(cipher) + " -nopad -K " + key + " -in " +
                 WriteTemp("block.in", block) + " | od -An -v -tx1 | tr -d ' \\n'");
}

Bytes Xor(Bytes a, const Bytes &b) {
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) a[i] ^= b[i];
  return a;
}

TEST(E2ePayment, CvvsAndPinBlocksOpenWithOpenssl) {
  Session s;
  // A CVV of another card, by the two-key method with openssl alone: the first block under A
  // (single DES: A|A), XOR the second, under A|B, decimalised, the first three digits.
  const std::string a = std::string(kCvkPair).substr(0, 16), ab = kCvkPair;
  HKEYCTX cvk = Import(s.get(), kCvkPair, QL_ALG_3DES_112);
  char cvv[4] = {};
  ASSERT_EQ(QGenerateCVV(cvk, "5512345678901234567", "2912", "201", cvv, 0), QL_OK);
  const std::string data =
      "5512345678901234567"
      "2912"
      "201"
      "000000";
  // openssl enc -d deciphers; an encipherment is asked with -e, so the blocks go through "enc".
  auto encipher = [](const std::string &key, const Bytes &block) {
    return Hex(Openssl("enc -e -des-ede -nopad -K " + key + " -in " + WriteTemp("cvv.in", block) +
                       " | od -An -v -tx1 | tr -d ' \\n'"));
  };
  const Bytes step = Xor(encipher(a + a, Hex(data.substr(0, 16))), Hex(data.substr(16, 16)));
  const std::string mixed = HexOf(encipher(ab, step).data(), 8);
  std::string digits;
  for (char c : mixed)
    if (c <= '9') digits += c;
  for (char c : mixed)
    if (c > '9') digits += static_cast<char>('0' + (c - 'A'));
  EXPECT_EQ(std::string(cvv), digits.substr(0, 3));
  QDestroyKey(&cvk, 0);

  // Format 0 under the pair and format 4 under an AES key, made by a translation in the HSM and
  // opened here: format 0 is the PIN field XOR the PAN field; format 4 is D(D(block) XOR PAN
  // field), the PAN field being its length - 12, its digits and zeros.
  HKEYCTX src = Import(s.get(), kCvkPair, QL_ALG_3DES_112, "ossl_src");
  HKEYCTX dst = Import(s.get(), "000102030405060708090A0B0C0D0E0F", QL_ALG_AES128, "ossl_dst");
  const std::string pan = "43219876543210987";
  const Bytes in = Hex("C967C8198151A458");
  unsigned char f4[16];
  uint32_t len = sizeof f4;
  ASSERT_EQ(QPINBlockTranslate(s.get(), "ossl_src", "ossl_dst",
                               QL_PIN_BLOCK_TRANSLATE(QL_PIN_BLOCK_ISO_0, QL_PIN_BLOCK_ISO_4),
                               pan.c_str(), in.data(), 8, f4, &len, 0),
            QL_OK);
  ASSERT_EQ(len, 16u);
  const Bytes pan_field = Hex("5" + pan + std::string(14, '0'));
  const Bytes inner = Xor(
      Hex(OpensslDecipher("aes-128-ecb", "000102030405060708090A0B0C0D0E0F", Bytes(f4, f4 + 16))),
      pan_field);
  const Bytes pin_field =
      Hex(OpensslDecipher("aes-128-ecb", "000102030405060708090A0B0C0D0E0F", inner));
  ASSERT_EQ(pin_field.size(), 16u);
  EXPECT_EQ(HexOf(pin_field.data(), 8), "441234AAAAAAAAAA");
  unsigned char f0[8];
  len = sizeof f0;
  ASSERT_EQ(QPINBlockTranslate(s.get(), "ossl_dst", "ossl_src",
                               QL_PIN_BLOCK_TRANSLATE(QL_PIN_BLOCK_ISO_4, QL_PIN_BLOCK_ISO_0),
                               pan.c_str(), f4, 16, f0, &len, 0),
            QL_OK);
  const Bytes clear = Hex(OpensslDecipher("des-ede", kCvkPair, Bytes(f0, f0 + 8)));
  EXPECT_EQ(HexOf(Xor(clear, Hex("0000" + pan.substr(pan.size() - 13, 12))).data(), 8),
            "041234FFFFFFFFFF");
  QDestroyKey(&src, 0);
  QDestroyKey(&dst, 0);
}

TEST(E2ePayment, PublishedKeyBlocksImportToTheirKeys) {
  Session s;
  HKEYCTX kb = Import(s.get(), kKbpkB, QL_ALG_3DES_112, "kbpk_b");
  HKEYCTX kd = Import(s.get(), kKbpkD, QL_ALG_AES256, "kbpk_d");
  HKEYCTX kn = Import(s.get(), kKbpkN, QL_ALG_3DES_112, "kbpk_n");
  ASSERT_EQ(ImportBlock(s.get(), "kbpk_b", "t31_b", kBlockB), QL_OK);
  ASSERT_EQ(ImportBlock(s.get(), "kbpk_d", "t31_d", kBlockD), QL_OK);
  EXPECT_EQ(Exported(s.get(), "t31_b"), kWorkedKey);
  EXPECT_EQ(Exported(s.get(), "t31_d"), kWorkedKey);
  // A block's length may count its NUL.
  EXPECT_EQ(QEFTImportTR31(s.get(), "kbpk_b", "t31_nul", kBlockB,
                           static_cast<uint32_t>(std::strlen(kBlockB) + 1), 0),
            QL_OK);
  // Exportability N: kept, never handed out again.
  ASSERT_EQ(ImportBlock(s.get(), "kbpk_n", "t31_n", kBlockN), QL_OK);
  HKEYCTX n = nullptr;
  ASSERT_EQ(QGetUserKey(s.get(), "t31_n", 0, &n), QL_OK);
  unsigned char buf[64];
  uint32_t len = sizeof buf;
  EXPECT_EQ(QExportKey(n, nullptr, QL_PLAINTEXTKEY_BLOB, 0, buf, &len), QL_ERR_NOT_EXPORTABLE);
  EXPECT_EQ(ExportBlock(s.get(), "kbpk_n", "t31_n"), Rc(QL_ERR_NOT_EXPORTABLE));
  QDestroyKey(&n, 0);
  for (const char *name : {"t31_b", "t31_d", "t31_nul", "t31_n"}) QRemoveObj(s.get(), name);
  QDestroyKey(&kb, 0);
  QDestroyKey(&kd, 0);
  QDestroyKey(&kn, 0);
}

TEST(E2ePayment, ExportedBlocksKeepAttributesAndOpenWithOpenssl) {
  Session s;
  HKEYCTX kd = Import(s.get(), kKbpkD, QL_ALG_AES256, "kbpk_d");
  HKEYCTX kb = Import(s.get(), kKbpkB, QL_ALG_3DES_112, "kbpk_b");
  ASSERT_EQ(ImportBlock(s.get(), "kbpk_d", "t31_p0", kBlockD), QL_OK);
  // "auto" takes what the key kept from its own block; a fresh padding makes a new block.
  const std::string again = ExportBlock(s.get(), "kbpk_d", "t31_p0");
  ASSERT_EQ(again.size(), std::strlen(kBlockD));
  EXPECT_EQ(again.substr(0, 16), std::string(kBlockD, 16));
  EXPECT_EQ(OpensslUnwrapD(kKbpkD, again), kWorkedKey);
  // A session key made from a block keeps its attributes as a stored key does.
  ASSERT_EQ(ImportBlock(s.get(), "kbpk_d", "t31_ptmp", kBlockD, QL_KEY_TEMPORARY), QL_OK);
  EXPECT_EQ(ExportBlock(s.get(), "kbpk_d", "t31_ptmp").substr(0, 16), std::string(kBlockD, 16));
  // A block with a changed bit fails openssl's MAC check as it fails the HSM's.
  std::string tampered = again;
  tampered[20] = tampered[20] == '0' ? '1' : '0';
  EXPECT_EQ(OpensslUnwrapD(kKbpkD, tampered), "");
  EXPECT_EQ(ImportBlock(s.get(), "kbpk_d", "t31_bad", tampered), QL_ERR_BAD_TAG);
  HKEYCTX none = nullptr;
  EXPECT_EQ(QGetUserKey(s.get(), "t31_bad", 0, &none), QL_ERR_OBJ_NOT_FOUND);

  // Attributes asked for, and the defaults of a key made in the HSM; mode t is written as T.
  const std::string k0 = ExportBlock(s.get(), "kbpk_d", "t31_p0", Usage("K0"), 'E', 'S');
  EXPECT_EQ(k0.substr(5, 7), "K0AE00S");
  HKEYCTX fresh = nullptr;
  ASSERT_EQ(QGenerateKey(s.get(), "t31_fresh", QL_ALG_AES128, QL_KEY_EXPORTABLE, &fresh), QL_OK);
  const std::string d0 = ExportBlock(s.get(), "kbpk_d", "t31_fresh");
  EXPECT_EQ(d0.substr(5, 7), "D0AB00E");
  EXPECT_EQ(OpensslUnwrapD(kKbpkD, d0), Exported(s.get(), "t31_fresh"));
  // Version B under a triple-DES KBPK, read back by the HSM.
  ASSERT_EQ(ImportBlock(s.get(), "kbpk_b", "t31_tb", kBlockB), QL_OK);
  const std::string b = ExportBlock(s.get(), "kbpk_b", "t31_tb", Usage("P0"), 'E', 'E');
  EXPECT_EQ(b.substr(0, 1) + b.substr(5, 7), "BP0TE00E");
  ASSERT_EQ(ImportBlock(s.get(), "kbpk_b", "t31_back", b), QL_OK);
  EXPECT_EQ(Exported(s.get(), "t31_back"), kWorkedKey);

  // The refusals.
  EXPECT_EQ(ExportBlock(s.get(), "kbpk_d", "t31_p0", Usage("B0"), 'E'), Rc(QL_ERR_BAD_ARGUMENT));
  // An AES-128 key is stronger than a double-length triple-DES KBPK.
  EXPECT_EQ(ExportBlock(s.get(), "kbpk_b", "t31_p0"), Rc(QL_ERR_BAD_KEY_USAGE));
  HKEYCTX rsa = nullptr;
  ASSERT_EQ(QGenerateKey(s.get(), "t31_rsa", QL_ALG_RSA1024, QL_KEY_EXPORTABLE, &rsa), QL_OK);
  EXPECT_EQ(ExportBlock(s.get(), "kbpk_d", "t31_rsa"), Rc(QL_ERR_BAD_KEY_USAGE));
  HKEYCTX kept = nullptr;
  ASSERT_EQ(QGenerateKey(s.get(), "t31_kept", QL_ALG_AES128, 0, &kept), QL_OK);
  EXPECT_EQ(ExportBlock(s.get(), "kbpk_d", "t31_kept"), Rc(QL_ERR_NOT_EXPORTABLE));
  EXPECT_EQ(ImportBlock(s.get(), "kbpk_d", "t31_x", kBlockB), QL_ERR_BAD_KEY_USAGE);
  EXPECT_EQ(ImportBlock(s.get(), "kbpk_b", "t31_x",
                        "A0072P0TE00E0000F5161ED902807AF26F1D62263644BD24192FDB3193C730301CEE8701"),
            QL_ERR_NOT_SUPPORTED);
  EXPECT_EQ(ImportBlock(s.get(), "kbpk_b", "t31_x", std::string(kBlockB).substr(0, 60)),
            QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(ImportBlock(s.get(), "kbpk_b", "t31_x", kBlockB, QL_KEY_EXPORTABLE), QL_ERR_BAD_FLAGS);
  EXPECT_EQ(ImportBlock(s.get(), "kbpk_b", "t31_back", kBlockB), QL_ERR_OBJ_EXISTS);
  EXPECT_EQ(QGetUserKey(s.get(), "t31_x", 0, &none), QL_ERR_OBJ_NOT_FOUND);

  QDestroyKey(&fresh, QL_DESTROY_REMOVE);
  QDestroyKey(&rsa, QL_DESTROY_REMOVE);
  QDestroyKey(&kept, QL_DESTROY_REMOVE);
  for (const char *name : {"t31_p0", "t31_tb", "t31_back"}) QRemoveObj(s.get(), name);
  QDestroyKey(&kd, 0);
  QDestroyKey(&kb, 0);
}

TEST(E2ePayment, KeyBlockRightsAndTemporaryImports) {
  Session m;
  Bytes kbpk = Hex(kKbpkD);
  HKEYCTX stored = nullptr;
  ASSERT_EQ(
      QImportKey(m.get(), "kbpk_shared", nullptr, kbpk.data(), static_cast<uint32_t>(kbpk.size()),
                 QL_PLAINTEXTKEY_BLOB, QL_ALG_AES256, 0, &stored),
      QL_OK);
  HKEYCTX key = nullptr;
  ASSERT_EQ(QGenerateKey(m.get(), "t31_shared", QL_ALG_AES128, QL_KEY_EXPORTABLE, &key), QL_OK);
  for (uint32_t acl : {0u, uint32_t{ACL_OBJ_READ}}) {
    const std::string user = "t31user" + std::to_string(acl);
    ASSERT_EQ(qltest::CreateUser(m.get(), user, "pw123456", acl), QL_OK);
    {
      Session user_session(user, "pw123456");
      HSESSIONCTX s = user_session.get();
      const bool can_use = acl != 0;
      EXPECT_EQ(ExportBlock(s, "master/kbpk_shared", "master/t31_shared").substr(0, 3),
                can_use ? "D01" : "rc ");
      // Storing needs the create right; a session key needs only the use of the KBPK.
      EXPECT_EQ(ImportBlock(s, "master/kbpk_shared", "t31_mine", kBlockD), QL_ERR_ACCESS_DENIED);
      EXPECT_EQ(ImportBlock(s, "master/kbpk_shared", "t31_tmp", kBlockD, QL_KEY_TEMPORARY),
                can_use ? QL_OK : QL_ERR_ACCESS_DENIED);
      if (can_use) {
        HKEYCTX tmp = nullptr;
        EXPECT_EQ(QGetUserKey(s, "t31_tmp", 0, &tmp), QL_OK);
        QDestroyKey(&tmp, 0);
      }
    }
    EXPECT_EQ(QRemoveUser(m.get(), user.c_str()), QL_OK);
  }
  QDestroyKey(&key, QL_DESTROY_REMOVE);
  QDestroyKey(&stored, QL_DESTROY_REMOVE);
}

// --- the EFT daemon ---

int Authorize(HSESSIONCTX s, bool authorize, uint32_t activities, uint32_t minutes = 5) {
  QL_EFTD_AUTH a{activities, minutes};
  return QAdmOperation(s, authorize ? QL_ADM_EFTD_AUTHORIZE : QL_ADM_EFTD_DEAUTHORIZE, &a, sizeof a,
                       nullptr, nullptr, 0);
}

QL_EFTD_INFO EftdInfo(HSESSIONCTX s) {
  QL_EFTD_INFO info{};
  uint32_t len = sizeof info;
  EXPECT_EQ(QAdmOperation(s, QL_ADM_EFTD_INFO, nullptr, 0, &info, &len, 0), QL_OK);
  return info;
}

int SetConf(HSESSIONCTX s, const QL_EFTD_CONF &conf) {
  return QAdmOperation(s, QL_ADM_EFTD_SET_CONF, &conf, sizeof conf, nullptr, nullptr, 0);
}

std::string Pin(HKEYCTX pgk, uint32_t length, int *rc) {
  char pin[13] = {};
  uint32_t len = sizeof pin;
  *rc = QGeneratePIN(pgk, "43219876543210987", length, pin, &len, 0);
  return pin;
}

TEST(E2ePayment, EftdAuthorisationsOpenFormat1AndClearPins) {
  Session s;
  const QL_EFTD_CONF defaults = EftdInfo(s.get()).stConf;
  HKEYCTX src = Import(s.get(), kCvkPair, QL_ALG_3DES_112, "eft_src");
  HKEYCTX one = Import(s.get(), "0123456789ABCDEF23456789ABCDEF01", QL_ALG_3DES_112, "eft_one");
  const Bytes in = Hex("C967C8198151A458");
  const uint32_t to1 = QL_PIN_BLOCK_TRANSLATE(QL_PIN_BLOCK_ISO_0, QL_PIN_BLOCK_ISO_1);
  unsigned char f1[8], back[8];
  uint32_t f1_len = sizeof f1, back_len = sizeof back;
  const QL_EFTD_COUNTER before = EftdInfo(s.get()).astCounters[QL_EFTD_OP_TRANSLATE_PIN_BLOCK];
  EXPECT_EQ(QPINBlockTranslate(s.get(), "eft_src", "eft_one", to1, "43219876543210987", in.data(),
                               8, f1, &f1_len, 0),
            QL_ERR_EFTD_NOT_AUTHORIZED);

  // Authorised: the format 1 block carries the PIN, and back to format 0 gives the published
  // block again.
  ASSERT_EQ(Authorize(s.get(), true, QL_EFTD_ACT_PIN_FORMAT1), QL_OK);
  ASSERT_EQ(QPINBlockTranslate(s.get(), "eft_src", "eft_one", to1, "43219876543210987", in.data(),
                               8, f1, &f1_len, 0),
            QL_OK);
  ASSERT_EQ(QPINBlockTranslate(s.get(), "eft_one", "eft_src",
                               QL_PIN_BLOCK_TRANSLATE(QL_PIN_BLOCK_ISO_1, QL_PIN_BLOCK_ISO_0),
                               "43219876543210987", f1, f1_len, back, &back_len, 0),
            QL_OK);
  EXPECT_EQ(HexOf(back, back_len), "C967C8198151A458");
  QL_EFTD_INFO info = EftdInfo(s.get());
  EXPECT_EQ(info.dwAuthActivities, uint32_t{QL_EFTD_ACT_PIN_FORMAT1});
  EXPECT_STREQ(info.szAuthUser, "master");
  EXPECT_GT(info.qwAuthUntil, 0);
  const QL_EFTD_COUNTER after = info.astCounters[QL_EFTD_OP_TRANSLATE_PIN_BLOCK];
  EXPECT_EQ(after.qwSuccesses - before.qwSuccesses, 2u);
  EXPECT_EQ(after.qwFailures - before.qwFailures, 1u);
  ASSERT_EQ(Authorize(s.get(), false, QL_EFTD_ACT_ALL), QL_OK);
  EXPECT_EQ(QPINBlockTranslate(s.get(), "eft_src", "eft_one", to1, "43219876543210987", in.data(),
                               8, f1, &f1_len, 0),
            QL_ERR_EFTD_NOT_AUTHORIZED);
  EXPECT_EQ(EftdInfo(s.get()).dwAuthActivities, 0u);

  // Clear PINs need an authorisation once the configuration says so; the table and the PIN
  // lengths come from the configuration.
  HKEYCTX pgk = Import(s.get(), "0123456789ABCDEF23456789ABCDEF01", QL_ALG_3DES_112);
  int rc = 0;
  const std::string natural = Pin(pgk, 6, &rc);
  ASSERT_EQ(rc, QL_OK);
  QL_EFTD_CONF conf = defaults;
  conf.dwAuthRequired = QL_EFTD_ACT_ALL;
  std::memcpy(conf.szDecTable, "1234567890123456", 17);  // every digit of the default plus one
  ASSERT_EQ(SetConf(s.get(), conf), QL_OK);
  Pin(pgk, 6, &rc);
  EXPECT_EQ(rc, QL_ERR_EFTD_NOT_AUTHORIZED);
  ASSERT_EQ(Authorize(s.get(), true, QL_EFTD_ACT_CLEAR_PIN, 1), QL_OK);
  const std::string shifted = Pin(pgk, 6, &rc);
  ASSERT_EQ(rc, QL_OK);
  ASSERT_EQ(shifted.size(), natural.size());
  for (size_t i = 0; i < natural.size(); ++i)
    EXPECT_EQ(shifted[i] - '0', (natural[i] - '0' + 1) % 10) << natural << " " << shifted;
  conf.dwPinMax = 5;
  ASSERT_EQ(SetConf(s.get(), conf), QL_OK);
  Pin(pgk, 6, &rc);
  EXPECT_EQ(rc, QL_ERR_BAD_ARGUMENT);

  // Reset ends the authorisations and zeroes the counters; the configuration stays.
  ASSERT_EQ(QAdmOperation(s.get(), QL_ADM_EFTD_RESET, nullptr, 0, nullptr, nullptr, 0), QL_OK);
  info = EftdInfo(s.get());
  EXPECT_EQ(info.dwAuthActivities, 0u);
  EXPECT_EQ(info.astCounters[QL_EFTD_OP_TRANSLATE_PIN_BLOCK].qwSuccesses, 0u);
  EXPECT_EQ(info.astCounters[QL_EFTD_OP_GENERATE_PIN].qwFailures, 0u);
  EXPECT_STREQ(info.stConf.szDecTable, "1234567890123456");
  EXPECT_EQ(info.stConf.dwPinMax, 5u);
  Pin(pgk, 5, &rc);
  EXPECT_EQ(rc, QL_ERR_EFTD_NOT_AUTHORIZED);

  // Malformed records are refused before they leave the library.
  QL_EFTD_CONF bad = defaults;
  bad.dwPinMin = 3;
  EXPECT_EQ(SetConf(s.get(), bad), QL_ERR_BAD_ARGUMENT);
  bad = defaults;
  bad.dwFormats = QL_EFTD_FORMAT(2);
  EXPECT_EQ(SetConf(s.get(), bad), QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(Authorize(s.get(), true, QL_EFTD_ACT_CLEAR_PIN, QL_EFTD_MAX_MINUTES + 1),
            QL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(Authorize(s.get(), true, 0x4), QL_ERR_BAD_ARGUMENT);
  uint32_t short_len = 8;
  QL_EFTD_INFO out{};
  EXPECT_EQ(QAdmOperation(s.get(), QL_ADM_EFTD_INFO, nullptr, 0, &out, &short_len, 0),
            QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(short_len, sizeof(QL_EFTD_INFO));

  ASSERT_EQ(SetConf(s.get(), defaults), QL_OK);
  QDestroyKey(&pgk, 0);
  QDestroyKey(&src, 0);
  QDestroyKey(&one, 0);
}

TEST(E2ePayment, EftdNeedsTheOperatorRight) {
  Session m;
  // Every object and user right, not the operator's.
  ASSERT_EQ(qltest::CreateUser(m.get(), "eftclerk", "pw123456", 0x7F), QL_OK);
  {
    Session clerk("eftclerk", "pw123456");
    HSESSIONCTX s = clerk.get();
    const QL_EFTD_CONF conf = EftdInfo(m.get()).stConf;
    QL_EFTD_INFO info{};
    uint32_t len = sizeof info;
    EXPECT_EQ(Authorize(s, true, QL_EFTD_ACT_ALL), QL_ERR_ACCESS_DENIED);
    EXPECT_EQ(Authorize(s, false, QL_EFTD_ACT_ALL), QL_ERR_ACCESS_DENIED);
    EXPECT_EQ(QAdmOperation(s, QL_ADM_EFTD_INFO, nullptr, 0, &info, &len, 0), QL_ERR_ACCESS_DENIED);
    EXPECT_EQ(QAdmOperation(s, QL_ADM_EFTD_RESET, nullptr, 0, nullptr, nullptr, 0),
              QL_ERR_ACCESS_DENIED);
    EXPECT_EQ(SetConf(s, conf), QL_ERR_ACCESS_DENIED);
  }
  EXPECT_EQ(QRemoveUser(m.get(), "eftclerk"), QL_OK);
}

}  // namespace
