// Signatures: every signing algorithm of the table signs in the library and OpenSSL verifies the
// signature outside it from the exported SubjectPublicKeyInfo, and the other way round.
#include "crypto/sign.h"

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <thread>
#include <vector>

#include "crypto/hash.h"
#include "test_util.h"

namespace qlhsm::crypto {
namespace {

using testing::DataRsaKey;
using testing::MustGenerate;
using testing::Text;

struct PkeyDeleter {
  void operator()(EVP_PKEY *p) const { EVP_PKEY_free(p); }
};
using OutsideKey = std::unique_ptr<EVP_PKEY, PkeyDeleter>;

// The public key as plain OpenSSL (default library context) reads it from our SPKI export.
OutsideKey OutsidePublic(const Key &key) {
  auto spki = key.SpkiDer();
  EXPECT_TRUE(spki.ok());
  const unsigned char *p = spki->data();
  return OutsideKey(d2i_PUBKEY(nullptr, &p, static_cast<long>(spki->size())));
}

// The private key as plain OpenSSL reads it from our PKCS#8 export.
OutsideKey OutsidePrivate(const Key &key) {
  auto der = key.Pkcs8Der();
  EXPECT_TRUE(der.ok());
  const unsigned char *p = der->data();
  return OutsideKey(d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(der->size())));
}

// Verifies outside: RSA and ECDSA over a digest with OpenSSL building the DigestInfo itself from
// the named digest; EdDSA over the message.
bool OutsideVerify(EVP_PKEY *pub, KeyKind kind, const char *md, const Bytes &value,
                   const Bytes &sig) {
  if (kind == KeyKind::kEdwards) {
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    return EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, pub) == 1 &&
           EVP_DigestVerify(ctx.get(), sig.data(), sig.size(), value.data(), value.size()) == 1;
  }
  std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new(pub, nullptr),
                                                                  EVP_PKEY_CTX_free);
  if (EVP_PKEY_verify_init(ctx.get()) != 1) return false;
  if (kind == KeyKind::kRsa) {
    EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING);
    if (md != nullptr) EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_get_digestbyname(md));
  }
  return EVP_PKEY_verify(ctx.get(), sig.data(), sig.size(), value.data(), value.size()) == 1;
}

Bytes OutsideSign(EVP_PKEY *priv, KeyKind kind, const char *md, const Bytes &value) {
  size_t len = 0;
  if (kind == KeyKind::kEdwards) {
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_DigestSignInit(ctx.get(), nullptr, nullptr, nullptr, priv);
    EVP_DigestSign(ctx.get(), nullptr, &len, value.data(), value.size());
    Bytes sig(len);
    EVP_DigestSign(ctx.get(), sig.data(), &len, value.data(), value.size());
    sig.resize(len);
    return sig;
  }
  std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new(priv, nullptr),
                                                                  EVP_PKEY_CTX_free);
  EVP_PKEY_sign_init(ctx.get());
  if (kind == KeyKind::kRsa) {
    EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING);
    EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_get_digestbyname(md));
  }
  EVP_PKEY_sign(ctx.get(), nullptr, &len, value.data(), value.size());
  Bytes sig(len);
  EVP_PKEY_sign(ctx.get(), sig.data(), &len, value.data(), value.size());
  sig.resize(len);
  return sig;
}

// Every signing algorithm of the table. The RSA sizes from 2560 bits up use fixed keys of the
// data folder (generating them takes seconds each); the smaller ones are generated.
const AlgId kSigningAlgorithms[] = {alg::kRsa512,
                                    alg::kRsa1024,
                                    alg::kRsa1152,
                                    alg::kRsa1408,
                                    alg::kRsa1536,
                                    alg::kRsa1976,
                                    alg::kRsa1984,
                                    alg::kRsa2048,
                                    alg::kRsa2304,
                                    alg::kRsa2560,
                                    alg::kRsa2816,
                                    alg::kRsa3072,
                                    alg::kRsa4096,
                                    alg::kRsa8192,
                                    18,
                                    19,
                                    20,
                                    21,
                                    22,
                                    23,
                                    24,
                                    25,
                                    26,
                                    27,
                                    28,
                                    29,
                                    30,
                                    31,
                                    32,
                                    33,
                                    34,
                                    35,
                                    36,
                                    37,
                                    38,
                                    39,
                                    40,
                                    41,
                                    42,
                                    43,
                                    44,
                                    45,
                                    46,
                                    47,
                                    48,
                                    49,
                                    50,
                                    51,
                                    alg::kEd25519,
                                    alg::kEd448};

KeyPtr SigningKey(AlgId alg) {
  const AlgInfo *info = FindKeyAlgorithm(alg);
  if (info->kind == KeyKind::kRsa && info->bits >= 2560) {
    KeyPtr key = DataRsaKey(info->bits);
    EXPECT_TRUE(key) << "data key rsa" << info->bits;
    if (key) {
      EXPECT_EQ(key->algorithm(), alg);
    }
    return key;
  }
  return MustGenerate(alg);
}

class SignEveryAlgorithm : public ::testing::TestWithParam<AlgId> {};

TEST_P(SignEveryAlgorithm, SignsAndVerifiesBothWays) {
  AlgId alg = GetParam();
  KeyPtr key = SigningKey(alg);
  ASSERT_TRUE(key);
  ASSERT_EQ(key->algorithm(), alg);
  bool ed = key->kind() == KeyKind::kEdwards;
  // EdDSA signs the message (idfunc); the others a SHA-256 digest.
  AlgId hash_alg = ed ? hash::kIdFunc : hash::kSha256;
  Bytes value = ed ? Text("a message signed as it is") : *Digest(hash::kSha256, Text("data"));

  auto size = SignatureSize(*key);
  ASSERT_TRUE(size.ok());
  auto sig1 = Sign(*key, hash_alg, value);
  auto sig2 = Sign(*key, hash_alg, value);  // the same digest signs again
  ASSERT_TRUE(sig1.ok()) << sig1.status().detail();
  ASSERT_TRUE(sig2.ok());
  EXPECT_LE(sig1->size(), *size);
  if (key->kind() == KeyKind::kRsa) {
    EXPECT_EQ(sig1->size(), key->length_bytes());
  }

  OutsideKey pub = OutsidePublic(*key);
  ASSERT_TRUE(pub);
  EXPECT_TRUE(OutsideVerify(pub.get(), key->kind(), "SHA256", value, *sig1));
  EXPECT_TRUE(OutsideVerify(pub.get(), key->kind(), "SHA256", value, *sig2));
  EXPECT_TRUE(Verify(*key, hash_alg, value, *sig1).ok());

  // A signature made outside verifies inside, also with a public-key object.
  OutsideKey priv = OutsidePrivate(*key);
  ASSERT_TRUE(priv);
  Bytes outside = OutsideSign(priv.get(), key->kind(), "SHA256", value);
  auto pub_only = key->PublicOnly();
  ASSERT_TRUE(pub_only.ok());
  EXPECT_TRUE(Verify(**pub_only, hash_alg, value, outside).ok());
  EXPECT_EQ(Sign(**pub_only, hash_alg, value).code(), Code::kKeyCannotDo);

  Bytes bad = *sig1;
  bad[bad.size() / 2] ^= 0x10;
  EXPECT_EQ(Verify(*key, hash_alg, value, bad).code(), Code::kBadSignature);
}

INSTANTIATE_TEST_SUITE_P(Table, SignEveryAlgorithm, ::testing::ValuesIn(kSigningAlgorithms),
                         [](const auto &info) { return FindKeyAlgorithm(info.param)->name; });

// The DigestInfo of every plain digest, checked by OpenSSL building its own from the digest name.
TEST(RsaSign, DigestInfoOfEveryDigest) {
  KeyPtr key = MustGenerate(alg::kRsa1024);
  OutsideKey pub = OutsidePublic(*key);
  const std::pair<AlgId, const char *> digests[] = {
      {hash::kMd5, "MD5"},           {hash::kSha1, "SHA1"},         {hash::kSha224, "SHA224"},
      {hash::kSha256, "SHA256"},     {hash::kSha384, "SHA384"},     {hash::kSha512, "SHA512"},
      {hash::kSha3_224, "SHA3-224"}, {hash::kSha3_256, "SHA3-256"}, {hash::kSha3_384, "SHA3-384"},
      {hash::kSha3_512, "SHA3-512"}};
  for (auto [alg, name] : digests) {
    Bytes digest = *Digest(alg, Text("data"));
    auto sig = Sign(*key, alg, digest);
    ASSERT_TRUE(sig.ok()) << name;
    EXPECT_TRUE(OutsideVerify(pub.get(), KeyKind::kRsa, name, digest, *sig)) << name;
  }
}

// The legacy form: values without a DigestInfo (here an HMAC) sign as a bare type-1 block, which
// the disable-legacy flag refuses.
TEST(RsaSign, LegacyBareValue) {
  KeyPtr key = MustGenerate(alg::kRsa1024);
  KeyPtr mac_key = MustGenerate(alg::kHmacKey);
  Bytes mac = *Mac(hash::kHmacSha256, mac_key, Text("data"));
  auto sig = Sign(*key, hash::kHmacSha256, mac);
  ASSERT_TRUE(sig.ok());
  OutsideKey pub = OutsidePublic(*key);
  EXPECT_TRUE(OutsideVerify(pub.get(), KeyKind::kRsa, nullptr, mac, *sig));
  EXPECT_EQ(Sign(*key, hash::kHmacSha256, mac, kSignNoLegacy).code(), Code::kNotSupported);
  // A digest with a DigestInfo is not legacy: the flag changes nothing there.
  Bytes digest = *Digest(hash::kSha256, Text("data"));
  EXPECT_EQ(*Sign(*key, hash::kSha256, digest, kSignNoLegacy), *Sign(*key, hash::kSha256, digest));
}

TEST(RsaSign, DigestTooLargeForKey) {
  KeyPtr key = MustGenerate(alg::kRsa512);
  EXPECT_EQ(Sign(*key, hash::kSha512, Bytes(64, 1)).code(), Code::kDigestTooLarge);
  EXPECT_EQ(Sign(*key, hash::kSha384, Bytes(48, 1)).code(), Code::kDigestTooLarge);
  EXPECT_EQ(Verify(*key, hash::kSha512, Bytes(64, 1), Bytes(64, 1)).code(), Code::kDigestTooLarge);
  EXPECT_TRUE(Sign(*key, hash::kSha256, Bytes(32, 1)).ok());
}

TEST(RsaSign, ExponentThree) {
  auto key = Key::Generate(alg::kRsa1024, keyflag::kRsaExponent3);
  ASSERT_TRUE(key.ok());
  BIGNUM *e = nullptr;
  ASSERT_EQ(EVP_PKEY_get_bn_param((*key)->pkey(), OSSL_PKEY_PARAM_RSA_E, &e), 1);
  EXPECT_TRUE(BN_is_word(e, 3));
  BN_free(e);
  Bytes digest(32, 7);
  auto sig = Sign(**key, hash::kSha256, digest);
  ASSERT_TRUE(sig.ok());
  EXPECT_TRUE(Verify(**key, hash::kSha256, digest, *sig).ok());
}

// DoRSAPadding builds exactly the block that a signature carries; raw RSA over that block (the
// batch path) gives the signature itself.
TEST(RsaPadding, BlockMatchesSignature) {
  KeyPtr key = MustGenerate(alg::kRsa1024);
  const std::pair<int, AlgId> ids[] = {
      {digest_id::kMd5, hash::kMd5},       {digest_id::kSha1, hash::kSha1},
      {digest_id::kSha256, hash::kSha256}, {digest_id::kSha384, hash::kSha384},
      {digest_id::kSha512, hash::kSha512}, {digest_id::kSha224, hash::kSha224}};
  for (auto [id, alg] : ids) {
    Bytes digest = *Digest(alg, Text("batch"));
    auto block = DoRSAPadding(digest, key->length_bytes(), id);
    ASSERT_TRUE(block.ok()) << id;
    ASSERT_EQ(block->size(), 128u);
    EXPECT_EQ((*block)[0], 0);
    EXPECT_EQ((*block)[1], 1);
    auto raw = RsaRawSign(*key, *block);
    ASSERT_TRUE(raw.ok());
    EXPECT_EQ(*raw, *Sign(*key, alg, digest)) << id;
  }
  // Digest id 0: the bare digest (here SHA3-256, which has no id of its own).
  Bytes sha3 = *Digest(hash::kSha3_256, Text("batch"));
  auto bare = DoRSAPadding(sha3, 128, digest_id::kBare);
  ASSERT_TRUE(bare.ok());
  EXPECT_TRUE(std::equal(sha3.begin(), sha3.end(), bare->end() - 32));
  EXPECT_EQ((*bare)[128 - 33], 0);
  EXPECT_EQ((*bare)[128 - 34], 0xff);
}

TEST(RsaPadding, Refusals) {
  Bytes sha256(32, 1);
  EXPECT_EQ(DoRSAPadding(sha256, 128, 1).code(), Code::kBadAlgorithm);
  EXPECT_EQ(DoRSAPadding(sha256, 128, 8).code(), Code::kBadAlgorithm);
  EXPECT_EQ(DoRSAPadding(sha256, 128, digest_id::kSha1).code(), Code::kBadLength);
  EXPECT_EQ(DoRSAPadding(Bytes(64, 1), 64, digest_id::kSha512).code(), Code::kDigestTooLarge);
  EXPECT_EQ(DoRSAPadding({}, 128, digest_id::kBare).code(), Code::kBadLength);
}

// The batch form signs each padded block in place, as QBatchSign's blocks arrive.
TEST(RsaRaw, BatchInPlace) {
  KeyPtr key = MustGenerate(alg::kRsa1024);
  Bytes digest = *Digest(hash::kSha256, Text("batch"));
  Bytes block = *DoRSAPadding(digest, 128, digest_id::kSha256);
  Bytes batch;
  for (int i = 0; i < 3; ++i) batch.insert(batch.end(), block.begin(), block.end());
  ASSERT_TRUE(RsaRawSignBatch(*key, batch).ok());
  Bytes expected = *Sign(*key, hash::kSha256, digest);
  for (size_t at = 0; at < batch.size(); at += 128) {
    EXPECT_EQ(Bytes(batch.begin() + at, batch.begin() + at + 128), expected) << at;
  }
  EXPECT_EQ(RsaRawSignBatch(*key, std::span<uint8_t>(batch.data(), 200)).code(), Code::kBadLength);
  EXPECT_EQ(RsaRawSignBatch(*key, {}).code(), Code::kBadLength);
}

TEST(RsaRaw, Refusals) {
  KeyPtr key = MustGenerate(alg::kRsa512);
  EXPECT_EQ(RsaRawSign(*key, Bytes(63, 1)).code(), Code::kBadLength);
  EXPECT_EQ(RsaRawSign(*key, Bytes(64, 0xff)).code(), Code::kBadData);  // not below the modulus
  EXPECT_EQ(RsaRawSign(*MustGenerate(alg::kSecp256r1), Bytes(32, 1)).code(), Code::kKeyCannotDo);
}

// Many threads sign with one key at once (the engine shares a key among sessions).
TEST(SignThreads, SameKeyConcurrently) {
  for (AlgId alg : {alg::kRsa1024, alg::kSecp256r1, alg::kEd25519}) {
    KeyPtr key = MustGenerate(alg);
    bool ed = alg == alg::kEd25519;
    AlgId h = ed ? hash::kIdFunc : hash::kSha256;
    Bytes value(32, 0x5a);
    std::vector<int> failures(4, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < 25; ++i) {
          auto sig = Sign(*key, h, value);
          if (!sig.ok() || !Verify(*key, h, value, *sig).ok()) ++failures[t];
        }
      });
    }
    for (auto &th : threads) th.join();
    for (int f : failures) EXPECT_EQ(f, 0) << "alg " << alg;
  }
}

}  // namespace
}  // namespace qlhsm::crypto
