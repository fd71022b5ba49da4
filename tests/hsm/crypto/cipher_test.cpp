// Encryption: pieces give the same bytes as one call, OpenSSL decrypts what the library encrypts
// and the other way round, for each algorithm, mode and padding; GCM IV and tag rules; RSA.
#include "crypto/cipher.h"

#include <gtest/gtest.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <algorithm>
#include <string>

#include "test_util.h"

namespace qlhsm::crypto {
namespace {

using testing::Hex;
using testing::MustGenerate;
using testing::SecretKey;
using testing::ToHex;

struct Combo {
  AlgId alg;
  uint32_t mode;
  uint32_t pad;
  const char *cipher;  // OpenSSL's name, for the outside check
};

std::string ComboName(const Combo &c) {
  return std::string(FindKeyAlgorithm(c.alg)->name) + "_" + c.cipher + "_pad" +
         std::to_string(c.pad);
}

std::vector<Combo> AllCombos() {
  std::vector<Combo> out;
  const std::pair<AlgId, std::string> aes[] = {
      {alg::kAes128, "AES-128"}, {alg::kAes192, "AES-192"}, {alg::kAes256, "AES-256"}};
  const std::pair<AlgId, std::string> des[] = {
      {alg::kDes, "DES"}, {alg::k3Des112, "DES-EDE"}, {alg::k3Des168, "DES-EDE3"}};
  static std::vector<std::string> names;  // keeps the c_str()s alive
  names.reserve(64);
  auto add = [&](AlgId a, uint32_t m, uint32_t p, std::string name) {
    names.push_back(std::move(name));
    out.push_back({a, m, p, names.back().c_str()});
  };
  for (auto &[a, base] : aes) {
    for (uint32_t p : {padding::kNone, padding::kPkcs5, padding::kZero}) {
      add(a, mode::kEcb, p, base + "-ECB");
      add(a, mode::kCbc, p, base + "-CBC");
    }
    add(a, mode::kOfb, padding::kNone, base + "-OFB");
    add(a, mode::kCtr, padding::kNone, base + "-CTR");
    add(a, mode::kGcm, padding::kNone, base + "-GCM");
  }
  for (auto &[a, base] : des) {
    for (uint32_t p : {padding::kNone, padding::kPkcs5, padding::kZero}) {
      add(a, mode::kEcb, p, base + "-ECB");
      add(a, mode::kCbc, p, base + "-CBC");
    }
    add(a, mode::kOfb, padding::kNone, base + "-OFB");
  }
  add(alg::kDesX, mode::kCbc, padding::kPkcs5, "DESX-CBC");
  add(alg::kDesX, mode::kCbc, padding::kNone, "DESX-CBC");
  add(alg::kArc4, mode::kNone, padding::kNone, "RC4");
  return out;
}

// An OpenSSL context of the test's own with the legacy provider, for the outside check.
OSSL_LIB_CTX *OutsideCtx() {
  static OSSL_LIB_CTX *ctx = [] {
    OSSL_LIB_CTX *c = OSSL_LIB_CTX_new();
    OSSL_PROVIDER_load(c, "default");
    OSSL_PROVIDER_load(c, "legacy");
    return c;
  }();
  return ctx;
}

// One-shot EVP outside the library. GCM: `tag` is appended on encryption, checked on decryption.
Bytes Outside(const Combo &c, ByteView key, ByteView iv, ByteView in, bool encrypt) {
  EVP_CIPHER *cipher = EVP_CIPHER_fetch(OutsideCtx(), c.cipher, nullptr);
  EXPECT_NE(cipher, nullptr) << c.cipher;
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  bool gcm = c.mode == mode::kGcm;
  EVP_CipherInit_ex2(ctx, cipher, nullptr, nullptr, encrypt, nullptr);
  EVP_CIPHER_CTX_set_key_length(ctx, static_cast<int>(key.size()));
  if (gcm) EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_AEAD_SET_IVLEN, static_cast<int>(iv.size()), nullptr);
  EVP_CipherInit_ex2(ctx, nullptr, key.data(), iv.empty() ? nullptr : iv.data(), encrypt, nullptr);
  EVP_CIPHER_CTX_set_padding(ctx, c.pad == padding::kPkcs5 ? 1 : 0);
  size_t body = gcm && !encrypt ? in.size() - 16 : in.size();
  Bytes out(in.size() + 32);
  int len = 0, tail = 0;
  EVP_CipherUpdate(ctx, out.data(), &len, in.data(), static_cast<int>(body));
  if (gcm && !encrypt) {
    EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_AEAD_SET_TAG, 16, const_cast<uint8_t *>(in.data() + body));
  }
  EXPECT_EQ(EVP_CipherFinal_ex(ctx, out.data() + len, &tail), 1) << c.cipher;
  size_t n = static_cast<size_t>(len + tail);
  if (gcm && encrypt) {
    EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_AEAD_GET_TAG, 16, out.data() + n);
    n += 16;
  }
  out.resize(n);
  EVP_CIPHER_CTX_free(ctx);
  EVP_CIPHER_free(cipher);
  return out;
}

size_t IvLen(const Combo &c) {
  if (c.mode == mode::kGcm) return 12;
  if (c.mode == mode::kEcb || c.mode == mode::kNone) return 0;
  return c.alg == alg::kAes128 || c.alg == alg::kAes192 || c.alg == alg::kAes256 ? 16 : 8;
}

class CipherEveryMode : public ::testing::TestWithParam<Combo> {};

TEST_P(CipherEveryMode, PiecesOneCallAndOutside) {
  const Combo &c = GetParam();
  KeyPtr key = MustGenerate(c.alg);
  ASSERT_TRUE(key);
  Bytes iv(IvLen(c), 0x3c);
  // Padding none needs whole blocks: 96 bytes fills both block sizes.
  Bytes plain(c.pad == padding::kNone ? 96 : 100);
  for (size_t i = 0; i < plain.size(); ++i) plain[i] = static_cast<uint8_t>(i * 7 + 1);

  CipherState state(key);
  ASSERT_TRUE(state.SetMode(c.mode).ok());
  ASSERT_TRUE(state.SetPadding(c.pad).ok());
  auto set_iv = [&] {
    if (!iv.empty()) {
      ASSERT_TRUE(state.SetIv(iv).ok());
    }
  };

  set_iv();
  auto whole = state.Encrypt(plain, true);
  ASSERT_TRUE(whole.ok()) << whole.status().detail();

  // The same message in uneven pieces.
  set_iv();
  Bytes pieces;
  const size_t cuts[] = {0, 1, 8, 38, plain.size()};
  for (size_t i = 0; i + 1 < std::size(cuts); ++i) {
    bool final = i + 2 == std::size(cuts);
    ByteView piece(plain.data() + cuts[i], cuts[i + 1] - cuts[i]);
    size_t bound = state.MaxOutput(true, piece.size(), final);
    auto out = state.Encrypt(piece, final);
    ASSERT_TRUE(out.ok()) << out.status().detail();
    EXPECT_LE(out->size(), bound);
    pieces.insert(pieces.end(), out->begin(), out->end());
  }
  EXPECT_EQ(ToHex(pieces), ToHex(*whole));

  // What the library decrypts, and what OpenSSL decrypts, is the plaintext (zero padding keeps
  // its zeros); twice, since the state starts afresh after the final piece.
  Bytes expected = plain;
  if (c.pad == padding::kZero) expected.resize(whole->size(), 0);  // zeros up to the block
  for (int pass = 0; pass < 2; ++pass) {
    auto dec = state.Decrypt(*whole, true);
    ASSERT_TRUE(dec.ok()) << dec.status().detail();
    EXPECT_EQ(ToHex(*dec), ToHex(expected)) << "pass " << pass;
  }
  ByteView secret = key->secret();
  EXPECT_EQ(ToHex(Outside(c, secret, iv, *whole, false)), ToHex(expected));

  // What OpenSSL encrypts, the library decrypts (in pieces).
  Bytes padded = plain;
  if (c.pad == padding::kZero) padded = expected;
  Bytes theirs = Outside(c, secret, iv, padded, true);
  set_iv();
  Bytes back;
  size_t half = theirs.size() / 2;
  auto p1 = state.Decrypt(ByteView(theirs.data(), half), false);
  auto p2 = state.Decrypt(ByteView(theirs.data() + half, theirs.size() - half), true);
  ASSERT_TRUE(p1.ok() && p2.ok()) << p2.status().detail();
  back.insert(back.end(), p1->begin(), p1->end());
  back.insert(back.end(), p2->begin(), p2->end());
  EXPECT_EQ(ToHex(back), ToHex(expected));
}

INSTANTIATE_TEST_SUITE_P(Table, CipherEveryMode, ::testing::ValuesIn(AllCombos()),
                         [](const auto &info) {
                           std::string n = ComboName(info.param);
                           for (char &ch : n) {
                             if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
                           }
                           return n;
                         });

TEST(Gcm, IvServesOneMessageThenFreshRandomOnes) {
  KeyPtr key = MustGenerate(alg::kAes256);
  CipherState state(key);
  ASSERT_TRUE(state.SetMode(mode::kGcm).ok());
  Bytes msg(40, 9);
  Bytes caller_iv = Hex("000102030405060708090a0b");
  ASSERT_TRUE(state.SetIv(caller_iv).ok());
  auto c1 = state.Encrypt(msg, true);
  ASSERT_TRUE(c1.ok());
  EXPECT_EQ(ToHex(state.iv()), ToHex(caller_iv));
  EXPECT_EQ(c1->size(), msg.size() + 16);
  auto c2 = state.Encrypt(msg, true);
  Bytes iv2(state.iv().begin(), state.iv().end());
  auto c3 = state.Encrypt(msg, true);
  Bytes iv3(state.iv().begin(), state.iv().end());
  ASSERT_TRUE(c2.ok() && c3.ok());
  EXPECT_EQ(iv2.size(), 12u);
  EXPECT_NE(ToHex(iv2), ToHex(caller_iv));
  EXPECT_NE(ToHex(iv2), ToHex(iv3));
  EXPECT_NE(ToHex(*c2), ToHex(*c3));
  // Decryption uses the IV parameter as it stands: the last message's.
  auto d3 = state.Decrypt(*c3, true);
  ASSERT_TRUE(d3.ok());
  EXPECT_EQ(*d3, msg);
  // A wrong tag, and a message decrypted under another IV, are refused.
  Bytes bad = *c3;
  bad.back() ^= 1;
  EXPECT_EQ(state.Decrypt(bad, true).code(), Code::kBadTag);
  EXPECT_EQ(state.Decrypt(*c2, true).code(), Code::kBadTag);
  // The tag split across pieces.
  ASSERT_TRUE(state.SetIv(iv2).ok());
  auto a = state.Decrypt(ByteView(c2->data(), 45), false);
  auto b = state.Decrypt(ByteView(c2->data() + 45, c2->size() - 45), true);
  ASSERT_TRUE(a.ok() && b.ok());
  Bytes joined = *a;
  joined.insert(joined.end(), b->begin(), b->end());
  EXPECT_EQ(joined, msg);
}

TEST(Gcm, ShortTag) {
  KeyPtr key = MustGenerate(alg::kAes128);
  CipherState state(key);
  ASSERT_TRUE(state.SetMode(mode::kGcm).ok());
  ASSERT_TRUE(state.SetTagLength(12).ok());
  auto c = state.Encrypt(Bytes(5, 1), true);
  ASSERT_TRUE(c.ok());
  EXPECT_EQ(c->size(), 17u);
  EXPECT_TRUE(state.Decrypt(*c, true).ok());
  EXPECT_EQ(state.SetTagLength(11).code(), Code::kBadLength);
}

TEST(BufferSize, TooSmallAnswersNeededAndKeepsState) {
  KeyPtr key = MustGenerate(alg::kAes128);
  CipherState state(key);  // CBC, PKCS#5 by default
  Bytes msg(100, 2);
  auto small = state.Encrypt(msg, true, 100);
  ASSERT_EQ(small.code(), Code::kBufferTooSmall);
  EXPECT_EQ(small.status().needed(), 112u);
  auto ok = state.Encrypt(msg, true, 112);
  ASSERT_TRUE(ok.ok());
  EXPECT_EQ(ok->size(), 112u);
  // The refused call left nothing behind: the same message again gives the same bytes.
  EXPECT_EQ(*state.Encrypt(msg, true), *ok);

  KeyPtr rsa = MustGenerate(alg::kRsa1024);
  CipherState rsa_state(rsa);
  auto r = rsa_state.Encrypt(Bytes(10, 1), true, 64);
  ASSERT_EQ(r.code(), Code::kBufferTooSmall);
  EXPECT_EQ(r.status().needed(), 128u);
}

// Decrypting in place, piece by piece, with each piece's own length as the buffer: no block is
// held back and the padding only shrinks the final piece, so no piece is refused.
TEST(BufferSize, PaddedDecryptionInPlaceFitsEachPiece) {
  KeyPtr key = MustGenerate(alg::kAes256);
  CipherState state(key);  // CBC, PKCS#5
  Bytes msg(4096, 7);
  auto c = state.Encrypt(msg, true);
  ASSERT_TRUE(c.ok());
  ASSERT_EQ(c->size(), 4112u);
  Bytes plain;
  for (size_t at = 0; at < c->size(); at += 2048) {
    size_t len = std::min<size_t>(2048, c->size() - at);
    bool final = at + len == c->size();
    auto d = state.Decrypt(ByteView(c->data() + at, len), final, len);
    ASSERT_TRUE(d.ok()) << "piece at " << at;
    plain.insert(plain.end(), d->begin(), d->end());
  }
  EXPECT_EQ(plain, msg);

  // Whole blocks come out as they go in; the final piece loses its padding. A final piece
  // without a whole block has no padding to strip, and is refused by name.
  Bytes three(40, 3);
  auto c3 = state.Encrypt(three, true);
  ASSERT_TRUE(c3.ok());
  ASSERT_EQ(c3->size(), 48u);
  auto first = state.Decrypt(ByteView(c3->data(), 32), false, 32);
  ASSERT_TRUE(first.ok());
  EXPECT_EQ(first->size(), 32u);
  auto last = state.Decrypt(ByteView(c3->data() + 32, 16), true, 16);
  ASSERT_TRUE(last.ok());
  EXPECT_EQ(last->size(), 8u);
  ASSERT_TRUE(state.Decrypt(*c3, false).ok());
  EXPECT_EQ(state.Decrypt(Bytes(), true).code(), Code::kBadPadding);
}

TEST(Padding, ZeroPaddingKeepsPaddedLengthAndBadPaddingIsNamed) {
  KeyPtr key = SecretKey(alg::kAes128, "000102030405060708090a0b0c0d0e0f");
  CipherState state(key);
  ASSERT_TRUE(state.SetPadding(padding::kZero).ok());
  auto c = state.Encrypt(Bytes(20, 0xaa), true);
  ASSERT_TRUE(c.ok());
  EXPECT_EQ(c->size(), 32u);
  auto d = state.Decrypt(*c, true);
  ASSERT_TRUE(d.ok());
  Bytes expected(20, 0xaa);
  expected.resize(32, 0);
  EXPECT_EQ(*d, expected);
  // A block of zeros encrypted without padding ends in 00, which PKCS#5 refuses.
  ASSERT_TRUE(state.SetPadding(padding::kNone).ok());
  auto zeros = state.Encrypt(Bytes(16, 0), true);
  ASSERT_TRUE(state.SetPadding(padding::kPkcs5).ok());
  EXPECT_EQ(state.Decrypt(*zeros, true).code(), Code::kBadPadding);
}

TEST(KeyWrapMode, WholeMessageOnly) {
  KeyPtr key = MustGenerate(alg::kAes256);
  for (uint32_t m : {mode::kKw, mode::kKwp}) {
    CipherState state(key);
    ASSERT_TRUE(state.SetMode(m).ok());
    EXPECT_EQ(state.Encrypt(Bytes(16, 1), false).code(), Code::kWholeMessageOnly);
    auto w = state.Encrypt(Bytes(24, 1), true);
    ASSERT_TRUE(w.ok());
    EXPECT_EQ(w->size(), 32u);
    EXPECT_EQ(state.Decrypt(*w, false).code(), Code::kWholeMessageOnly);
    EXPECT_EQ(*state.Decrypt(*w, true), Bytes(24, 1));
  }
}

// RSA through the cipher state: PKCS#1 v1.5 by default, raw and OAEP by the padding parameter;
// OpenSSL decrypts the PKCS#1 and OAEP ciphertexts outside.
TEST(RsaCipher, SchemesAndOutside) {
  KeyPtr key = MustGenerate(alg::kRsa2048);
  auto der = key->Pkcs8Der();
  const unsigned char *p = der->data();
  EVP_PKEY *outside = d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(der->size()));
  ASSERT_NE(outside, nullptr);
  Bytes msg(32, 0x42);
  for (uint32_t pad : {padding::kNone, padding::kPkcs5, padding::kRsaOaep}) {
    CipherState state(key);
    ASSERT_TRUE(state.SetPadding(pad).ok());
    auto part = state.Encrypt(ByteView(msg.data(), 10), false);
    ASSERT_TRUE(part.ok());
    EXPECT_TRUE(part->empty());
    auto c = state.Encrypt(ByteView(msg.data() + 10, 22), true);
    ASSERT_TRUE(c.ok()) << c.status().detail();
    ASSERT_EQ(c->size(), 256u);
    EXPECT_EQ(*state.Decrypt(*c, true), msg);
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(outside, nullptr);
    EVP_PKEY_decrypt_init(ctx);
    EVP_PKEY_CTX_set_rsa_padding(
        ctx, pad == padding::kRsaOaep ? RSA_PKCS1_OAEP_PADDING : RSA_PKCS1_PADDING);
    Bytes out(256);
    size_t len = out.size();
    EXPECT_EQ(EVP_PKEY_decrypt(ctx, out.data(), &len, c->data(), c->size()), 1);
    out.resize(len);
    EXPECT_EQ(out, msg);
    EVP_PKEY_CTX_free(ctx);
  }
  // Raw RSA: exactly the modulus' length, a value below it.
  CipherState raw(key);
  ASSERT_TRUE(raw.SetPadding(padding::kRsaNoPadding).ok());
  Bytes block(256, 0);
  block[255] = 5;
  auto c = raw.Encrypt(block, true);
  ASSERT_TRUE(c.ok());
  EXPECT_EQ(*raw.Decrypt(*c, true), block);
  EXPECT_EQ(raw.Encrypt(Bytes(255, 1), true).code(), Code::kBadLength);
  EVP_PKEY_free(outside);
}

}  // namespace
}  // namespace qlhsm::crypto
