// Known-answer tests against published vectors; each block names its source.
#include <gtest/gtest.h>

#include "crypto/cipher.h"
#include "crypto/hash.h"
#include "test_util.h"

namespace qlhsm::crypto {
namespace {

using testing::Hex;
using testing::SecretKey;
using testing::Text;
using testing::ToHex;

struct DigestCase {
  AlgId alg;
  const char *expected;
};

// "abc": FIPS 180-4 examples (NIST CSRC "Example Values"), RFC 1321 A.5 (MD5), and the FIPS 202
// SHA-3 examples.
TEST(DigestKat, Abc) {
  const DigestCase cases[] = {
      {hash::kMd5, "900150983cd24fb0d6963f7d28e17f72"},
      {hash::kSha1, "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {hash::kSha224, "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7"},
      {hash::kSha256, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {hash::kSha384,
       "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c"
       "8"
       "25a7"},
      {hash::kSha512,
       "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3f"
       "e"
       "ebbd454d4423643ce80e2a9ac94fa54ca49f"},
      {hash::kSha3_224, "e642824c3f8cf24ad09234ee7d3c766fc9a3a5168d0c94ad73b46fdf"},
      {hash::kSha3_256, "3a985da74fe225b2045c172d6bd390bd855f086e3e9d525b46bfe24511431532"},
      {hash::kSha3_384,
       "ec01498288516fc926459f58e2c6ad8df9b473cb0fc08c2596da7cf0e49be4b298d88cea927ac7f539f1edf2283"
       "7"
       "6d25"},
      {hash::kSha3_512,
       "b751850b1a57168a5693cd924b6b096e08f621827444f70d884f5d0240d2712e10e116e9192af3c91a7ec57647e"
       "3"
       "934057340b4cf408d5a56592f8274eec53f0"},
  };
  for (const auto &c : cases) {
    auto h = HashState::Create(c.alg);
    ASSERT_TRUE(h.ok()) << c.alg;
    // In two pieces, reading the value in between: reading must not consume the state.
    ASSERT_TRUE(h->Update(Text("a")).ok());
    ASSERT_TRUE(h->Value().ok());
    ASSERT_TRUE(h->Update(Text("bc")).ok());
    EXPECT_EQ(ToHex(*h->Value()), c.expected) << c.alg;
    EXPECT_EQ(ToHex(*h->Value()), c.expected) << "second read, alg " << c.alg;
    EXPECT_EQ(h->size(), HashSize(c.alg));
  }
}

// A value set from elsewhere is answered as it is; data hashed after it starts a fresh hash.
TEST(HashState, SetValueThenData) {
  KeyPtr mac_key = SecretKey(alg::kHmacKey, "4a656665");
  for (auto [alg, key] : {std::pair<AlgId, KeyPtr>{hash::kSha256, nullptr},
                          std::pair<AlgId, KeyPtr>{hash::kHmacSha256, mac_key},
                          std::pair<AlgId, KeyPtr>{hash::kIdFunc, nullptr}}) {
    auto h = HashState::Create(alg, key);
    ASSERT_TRUE(h.ok());
    ASSERT_TRUE(h->Update(Text("ignored")).ok());
    Bytes set(alg == hash::kIdFunc ? 5 : 32, 0xee);
    ASSERT_TRUE(h->SetValue(set).ok());
    EXPECT_EQ(*h->Value(), set);
    EXPECT_EQ(*h->Value(), set);  // reading twice changes nothing
    ASSERT_TRUE(h->Update(Text("abc")).ok());
    Bytes expected = key                    ? *Mac(alg, key, Text("abc"))
                     : alg == hash::kIdFunc ? Text("abc")
                                            : *Digest(alg, Text("abc"));
    EXPECT_EQ(ToHex(*h->Value()), ToHex(expected)) << alg;
  }
}

// HMAC: RFC 4231 test case 2 (SHA-2) and RFC 2202 test case 2 (MD5, SHA-1): key "Jefe".
TEST(HmacKat, Jefe) {
  const DigestCase cases[] = {
      {hash::kHmacMd5, "750c783e6ab0b503eaa86e310a5db738"},
      {hash::kHmacSha1, "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
      {hash::kHmacSha224, "a30e01098bc6dbbf45690f3a7e9e6d0f8bbea2a39e6148008fd05e44"},
      {hash::kHmacSha256, "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
      {hash::kHmacSha384,
       "af45d2e376484031617f78d2b58a6b1b9c7ef464f5a01b47e42ec3736322445e8e2240ca5e69e2c78b3239ecfab"
       "2"
       "1649"},
      {hash::kHmacSha512,
       "164b7a7bfcf819e2e395fbe73b56e0a387bd64222e831fd610270cd7ea2505549758bf75c05a994a6d034f65f8f"
       "0"
       "e6fdcaeab1a34d4a6b4b636e070a38bce737"},
  };
  KeyPtr key = SecretKey(alg::kHmacKey, "4a656665");  // "Jefe"
  for (const auto &c : cases) {
    auto mac = Mac(c.alg, key, Text("what do ya want for nothing?"));
    ASSERT_TRUE(mac.ok()) << c.alg << " " << mac.status().detail();
    EXPECT_EQ(ToHex(*mac), c.expected) << c.alg;
  }
}

// HKDF-SHA256: RFC 5869 appendix A.1 (salt and info) and A.3 (neither).
TEST(HkdfKat, Rfc5869) {
  const Bytes ikm = Hex("0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b");
  auto a1 = HkdfSha256(ikm, Hex("000102030405060708090a0b0c"), Hex("f0f1f2f3f4f5f6f7f8f9"), 42);
  ASSERT_TRUE(a1.ok()) << a1.status().detail();
  EXPECT_EQ(ToHex(*a1),
            "3cb25f25faacd57a90434f64d0362f2a2d2d0a90cf1a5a4c5db02d56ecc4c5bf34007208d5b887185865");
  auto a3 = HkdfSha256(ikm, {}, {}, 42);
  ASSERT_TRUE(a3.ok()) << a3.status().detail();
  EXPECT_EQ(ToHex(*a3),
            "8da4e775a563c18f715f802a063c5a31b8a11f5c5ee1879ec3454e5f3c738d2d9d201395faa4b61a96c8");
  EXPECT_FALSE(HkdfSha256(ikm, {}, {}, 0).ok());
  EXPECT_FALSE(HkdfSha256(ikm, {}, {}, 255 * 32 + 1).ok());
}

// CMAC: RFC 4493 section 4 (AES-128) and SP 800-38B appendix D.4 (three-key TDEA).
TEST(CmacKat, AesAndTdes) {
  KeyPtr aes = SecretKey(alg::kAes128, "2b7e151628aed2a6abf7158809cf4f3c");
  struct Case {
    AlgId alg;
    KeyPtr key;
    const char *msg;
    const char *expected;
  } cases[] = {
      {hash::kCmacAes, aes, "", "bb1d6929e95937287fa37d129b756746"},
      {hash::kCmacAes, aes, "6bc1bee22e409f96e93d7e117393172a", "070a16b46b4d4144f79bdd9dd04a287c"},
      {hash::kCmacAes, aes,
       "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e5130c81c46a35ce411e5fbc1191a0"
       "a"
       "52eff69f2445df4f9b17ad2b417be66c3710",
       "51f0bebf7e3b9d92fc49741779363cfe"},
      {hash::kCmacDes, SecretKey(alg::k3Des168, "8aa83bf8cbda10620bc1bf19fbb6cd58bc313d4a371ca8b5"),
       "", "b7a688e122ffaf95"},
      {hash::kCmacDes, SecretKey(alg::k3Des168, "8aa83bf8cbda10620bc1bf19fbb6cd58bc313d4a371ca8b5"),
       "6bc1bee22e409f96", "8e8f293136283797"},
  };
  for (const auto &c : cases) {
    auto mac = Mac(c.alg, c.key, Hex(c.msg));
    ASSERT_TRUE(mac.ok()) << mac.status().detail();
    EXPECT_EQ(ToHex(*mac), c.expected) << c.msg;
  }
}

struct CipherCase {
  const char *source;
  AlgId alg;
  uint32_t mode;
  const char *key;
  const char *iv;
  const char *plain;
  const char *cipher;
};

// SP 800-38A appendix F (AES), FIPS 81 appendix B (DES: "Now is the time for all "), SP 800-67
// rev. 1 appendix B (TDEA ECB: "The qufck brown fox jump"), RFC 6229 (RC4, 128-bit key, offset 0).
const CipherCase kCipherCases[] = {
    {"SP800-38A F.1.1", alg::kAes128, mode::kEcb, "2b7e151628aed2a6abf7158809cf4f3c", "",
     "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51",
     "3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf"},
    {"SP800-38A F.1.5", alg::kAes256, mode::kEcb,
     "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4", "",
     "6bc1bee22e409f96e93d7e117393172a", "f3eed1bdb5d2a03c064b5a7e3db181f8"},
    {"SP800-38A F.2.1", alg::kAes128, mode::kCbc, "2b7e151628aed2a6abf7158809cf4f3c",
     "000102030405060708090a0b0c0d0e0f",
     "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51",
     "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"},
    {"SP800-38A F.2.5", alg::kAes256, mode::kCbc,
     "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
     "000102030405060708090a0b0c0d0e0f", "6bc1bee22e409f96e93d7e117393172a",
     "f58c4c04d6e5f1ba779eabfb5f7bfbd6"},
    {"SP800-38A F.4.1", alg::kAes128, mode::kOfb, "2b7e151628aed2a6abf7158809cf4f3c",
     "000102030405060708090a0b0c0d0e0f",
     "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51",
     "3b3fd92eb72dad20333449f8e83cfb4a7789508d16918f03f53c52dac54ed825"},
    {"SP800-38A F.5.1", alg::kAes128, mode::kCtr, "2b7e151628aed2a6abf7158809cf4f3c",
     "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff",
     "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51",
     "874d6191b620e3261bef6864990db6ce9806f66b7970fdff8617187bb9fffdff"},
    {"FIPS 81 ECB", alg::kDes, mode::kEcb, "0123456789abcdef", "",
     "4e6f77206973207468652074696d6520666f7220616c6c20",
     "3fa40e8a984d48156a271787ab8883f9893d51ec4b563b53"},
    {"FIPS 81 CBC", alg::kDes, mode::kCbc, "0123456789abcdef", "1234567890abcdef",
     "4e6f77206973207468652074696d6520666f7220616c6c20",
     "e5c7cdde872bf27c43e934008c389c0f683788499a7c05f6"},
    {"FIPS 81 OFB", alg::kDes, mode::kOfb, "0123456789abcdef", "1234567890abcdef",
     "4e6f77206973207468652074696d6520666f7220616c6c20",
     "f3096249c7f46e5135f24a242eeb3d3f3d6d5be3255af8c3"},
    {"SP800-67 B.1", alg::k3Des168, mode::kEcb, "0123456789abcdef23456789abcdef01456789abcdef0123",
     "", "54686520717566636b2062726f776e20666f78206a756d70",
     "a826fd8ce53b855fcce21c8112256fe668d5c05dd9b6b900"},
    {"RFC 6229 128-bit", alg::kArc4, mode::kNone, "0102030405060708090a0b0c0d0e0f10", "",
     "00000000000000000000000000000000", "9ac7cc9a609d1ef7b2932899cde41b97"},
};

TEST(CipherKat, PublishedVectors) {
  for (const auto &c : kCipherCases) {
    SCOPED_TRACE(c.source);
    KeyPtr key = SecretKey(c.alg, c.key);
    ASSERT_TRUE(key);
    CipherState state(key);
    ASSERT_TRUE(state.SetMode(c.mode).ok());
    ASSERT_TRUE(state.SetPadding(padding::kNone).ok());
    if (*c.iv != 0) {
      ASSERT_TRUE(state.SetIv(Hex(c.iv)).ok());
    }
    auto enc = state.Encrypt(Hex(c.plain), true);
    ASSERT_TRUE(enc.ok()) << enc.status().detail();
    EXPECT_EQ(ToHex(*enc), c.cipher);
    auto dec = state.Decrypt(Hex(c.cipher), true);
    ASSERT_TRUE(dec.ok()) << dec.status().detail();
    EXPECT_EQ(ToHex(*dec), c.plain);
  }
}

// GCM: test cases 3 (no AAD) and 4 (with AAD) of "The Galois/Counter Mode of Operation"
// (McGrew and Viega), which NIST's GCM validation list reproduces.
TEST(CipherKat, Gcm) {
  const char *key_hex = "feffe9928665731c6d6a8f9467308308";
  const char *plain =
      "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a721c3c0c95956809532fcf0e2449a6"
      "b525b16aedf5aa0de657ba637b391aafd255";
  const char *cipher =
      "42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e21d514b25466931c7d8f6a5aac84"
      "aa051ba30b396a0aac973d58e091473f5985";
  KeyPtr key = SecretKey(alg::kAes128, key_hex);
  CipherState state(key);
  ASSERT_TRUE(state.SetMode(mode::kGcm).ok());
  ASSERT_TRUE(state.SetIv(Hex("cafebabefacedbaddecaf888")).ok());
  auto enc = state.Encrypt(Hex(plain), true);
  ASSERT_TRUE(enc.ok()) << enc.status().detail();
  EXPECT_EQ(ToHex(*enc), std::string(cipher) + "4d5c2af327cd64a62cf35abd2ba6fab4");
  // The IV parameter still holds the IV that served the message, so decryption finds it.
  EXPECT_EQ(ToHex(state.iv()), "cafebabefacedbaddecaf888");
  auto dec = state.Decrypt(*enc, true);
  ASSERT_TRUE(dec.ok()) << dec.status().detail();
  EXPECT_EQ(ToHex(*dec), plain);

  // Test case 4: 60 bytes and AAD.
  std::string plain4 = std::string(plain).substr(0, 120);
  std::string cipher4 = std::string(cipher).substr(0, 120);
  ASSERT_TRUE(state.SetAad(Hex("feedfacedeadbeeffeedfacedeadbeefabaddad2")).ok());
  ASSERT_TRUE(state.SetIv(Hex("cafebabefacedbaddecaf888")).ok());
  auto enc4 = state.Encrypt(Hex(plain4), true);
  ASSERT_TRUE(enc4.ok());
  EXPECT_EQ(ToHex(*enc4), cipher4 + "5bc94fbc3221a5db94fae95ae7121a47");
}

// Key wrap: RFC 3394 sections 4.1 and 4.6, RFC 5649 section 6.
TEST(CipherKat, KeyWrap) {
  struct Case {
    const char *source;
    AlgId kek_alg;
    const char *kek;
    bool pad;
    const char *plain;
    const char *wrapped;
  } cases[] = {
      {"RFC 3394 4.1", alg::kAes128, "000102030405060708090a0b0c0d0e0f", false,
       "00112233445566778899aabbccddeeff", "1fa68b0a8112b447aef34bd8fb5a7b829d3e862371d2cfe5"},
      {"RFC 3394 4.6", alg::kAes256,
       "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", false,
       "00112233445566778899aabbccddeeff000102030405060708090a0b0c0d0e0f",
       "28c9f404c4b810f4cbccb35cfb87f8263f5786e2d80ed326cbc7f0e71a99f43bfb988b9b7a02dd21"},
      {"RFC 5649 20 bytes", alg::kAes192, "5840df6e29b02af1ab493b705bf16ea1ae8338f4dcc176a8", true,
       "c37b7e6492584340bed12207808941155068f738",
       "138bdeaa9b8fa7fc61f97742e72248ee5ae6ae5360d1ae6a5f54f373fa543b6a"},
      {"RFC 5649 7 bytes", alg::kAes192, "5840df6e29b02af1ab493b705bf16ea1ae8338f4dcc176a8", true,
       "466f7250617369", "afbeb0f07dfbf5419200f2ccb50bb24f"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.source);
    KeyPtr kek = SecretKey(c.kek_alg, c.kek);
    auto wrapped = KeyWrap(kek, c.pad, Hex(c.plain));
    ASSERT_TRUE(wrapped.ok()) << wrapped.status().detail();
    EXPECT_EQ(ToHex(*wrapped), c.wrapped);
    auto plain = KeyUnwrap(kek, c.pad, *wrapped);
    ASSERT_TRUE(plain.ok()) << plain.status().detail();
    EXPECT_EQ(ToHex(*plain), c.plain);
    // The same through the key handle's mode parameter.
    CipherState state(kek);
    ASSERT_TRUE(state.SetMode(c.pad ? mode::kKwp : mode::kKw).ok());
    auto again = state.Encrypt(Hex(c.plain), true);
    ASSERT_TRUE(again.ok());
    EXPECT_EQ(ToHex(*again), c.wrapped);
    // A flipped bit fails the integrity check.
    Bytes bad = *wrapped;
    bad[bad.size() - 1] ^= 1;
    EXPECT_EQ(KeyUnwrap(kek, c.pad, bad).code(), Code::kBadTag);
  }
}

}  // namespace
}  // namespace qlhsm::crypto
