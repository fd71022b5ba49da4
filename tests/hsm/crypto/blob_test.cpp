// Export and import: round trips for every blob type, OpenSSL reading what the library exports
// (SPKI, PKCS#8, simple blobs, wrapped blobs), encrypted PKCS#8, and the storage encoding.
#include "crypto/blob.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include "crypto/cipher.h"
#include "crypto/derive.h"
#include "crypto/sign.h"
#include "test_util.h"

namespace qlhsm::crypto {
namespace {

using testing::Hex;
using testing::MustGenerate;
using testing::SecretKey;
using testing::ToHex;

Bytes B(const SecretBytes &s) {
  return Bytes(s.begin(), s.end());
}

// Two keys are the same when their storage encodings are.
void ExpectSameKey(const Key &a, const Key &b) {
  EXPECT_EQ(a.algorithm(), b.algorithm());
  EXPECT_EQ(ToHex(*a.Serialize()), ToHex(*b.Serialize()));
}

TEST(Blob, AsymmetricRoundTrips) {
  KeyPtr kek = MustGenerate(alg::kAes256);
  for (AlgId alg : {alg::kRsa1024, alg::kSecp256r1, alg::kBrainpoolP256r1, alg::kEd25519,
                    alg::kEd448, alg::kX25519, alg::kX448}) {
    SCOPED_TRACE(FindKeyAlgorithm(alg)->name);
    KeyPtr key = MustGenerate(alg);
    // Private key, plain and under a KEK; strict; wrapped.
    for (uint32_t type : {blob::kPrivateKey, blob::kPrivateKeyStrict, blob::kWrappedKey}) {
      for (bool with_kek : {false, true}) {
        if (type == blob::kWrappedKey && !with_kek) continue;
        KeyPtr k = with_kek ? kek : nullptr;
        auto blob = ExportKey(key, k, type);
        ASSERT_TRUE(blob.ok()) << type << " " << blob.status().detail();
        auto back = ImportKey(B(*blob), type, alg, k);
        ASSERT_TRUE(back.ok()) << type << " " << back.status().detail();
        ExpectSameKey(*key, **back);
        // The algorithm may be left to the blob.
        auto untold = ImportKey(B(*blob), type, 0, k);
        ASSERT_TRUE(untold.ok());
        EXPECT_EQ((*untold)->algorithm(), alg);
      }
    }
    // Public key, both forms; and a public-key object from a private blob.
    for (uint32_t type : {blob::kPublicKey, blob::kPublicKeyHsm}) {
      auto blob = ExportKey(key, nullptr, type);
      ASSERT_TRUE(blob.ok());
      auto pub = ImportKey(B(*blob), type, alg | alg::kPublicKeyObjectBit, nullptr);
      ASSERT_TRUE(pub.ok());
      EXPECT_FALSE((*pub)->has_private());
      EXPECT_EQ(ToHex(*(*pub)->SpkiDer()), ToHex(*key->SpkiDer()));
    }
    auto priv_blob = ExportKey(key, nullptr, blob::kPrivateKey);
    auto pub_obj =
        ImportKey(B(*priv_blob), blob::kPrivateKey, alg | alg::kPublicKeyObjectBit, nullptr);
    ASSERT_TRUE(pub_obj.ok());
    EXPECT_FALSE((*pub_obj)->has_private());
    // A public-key object exports its SPKI as a private blob, and refuses the strict one.
    auto as_private = ExportKey(*pub_obj, nullptr, blob::kPrivateKey);
    ASSERT_TRUE(as_private.ok());
    EXPECT_EQ(ToHex(*as_private), ToHex(*key->SpkiDer()));
    EXPECT_EQ(ExportKey(*pub_obj, nullptr, blob::kPrivateKeyStrict).code(), Code::kKeyCannotDo);
  }
}

TEST(Blob, SymmetricRoundTrips) {
  KeyPtr aes_kek = MustGenerate(alg::kAes128);
  KeyPtr rsa_kek = MustGenerate(alg::kRsa1024);
  for (AlgId alg : {alg::kDes, alg::k3Des112, alg::k3Des168, alg::kDesX, alg::kAes128, alg::kAes192,
                    alg::kAes256, alg::kArc4, alg::kHmacKey, alg::kHmacKey512}) {
    SCOPED_TRACE(FindKeyAlgorithm(alg)->name);
    KeyPtr key = MustGenerate(alg);
    const std::pair<uint32_t, KeyPtr> cases[] = {{blob::kPlaintextKey, nullptr},
                                                 {blob::kSimple, rsa_kek},
                                                 {blob::kSimpleOaep, rsa_kek},
                                                 {blob::kSymWrappedKey, aes_kek},
                                                 {blob::kWrappedKey, aes_kek}};
    for (const auto &[type, kek] : cases) {
      auto blob = ExportKey(key, kek, type);
      ASSERT_TRUE(blob.ok()) << type << " " << blob.status().detail();
      auto back = ImportKey(B(*blob), type, alg, kek);
      ASSERT_TRUE(back.ok()) << type << " " << back.status().detail();
      ExpectSameKey(*key, **back);
    }
  }
}

// The symmetric-wrapped blob: RFC 3394 for lengths that are multiples of 8 from 16, RFC 5649
// for the rest; OpenSSL's own wrap ciphers unwrap both.
TEST(Blob, SymWrappedFormatReadsOutside) {
  KeyPtr kek = SecretKey(alg::kAes128, "000102030405060708090a0b0c0d0e0f");
  const std::pair<KeyPtr, const char *> cases[] = {
      {MustGenerate(alg::kAes256), "AES-128-WRAP"},   // 32 bytes: KW
      {MustGenerate(alg::kDes), "AES-128-WRAP-PAD"},  // 8 bytes: KWP
      {SecretKey(alg::kArc4, "0102030405"), "AES-128-WRAP-PAD"}};
  for (const auto &[key, cipher_name] : cases) {
    auto blob = ExportKey(key, kek, blob::kSymWrappedKey);
    ASSERT_TRUE(blob.ok());
    EVP_CIPHER *cipher = EVP_CIPHER_fetch(nullptr, cipher_name, nullptr);
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    EVP_DecryptInit_ex2(ctx, cipher, kek->secret().data(), nullptr, nullptr);
    Bytes out(blob->size() + 16);
    int len = 0;
    ASSERT_EQ(
        EVP_DecryptUpdate(ctx, out.data(), &len, blob->data(), static_cast<int>(blob->size())), 1)
        << cipher_name;
    out.resize(static_cast<size_t>(len));
    EXPECT_EQ(ToHex(out), ToHex(key->secret()));
    EVP_CIPHER_CTX_free(ctx);
    EVP_CIPHER_free(cipher);
  }
}

// OpenSSL parses the SPKI and PKCS#8 exports and decrypts simple blobs with the RSA key.
TEST(Blob, OutsideReadsExports) {
  KeyPtr rsa = MustGenerate(alg::kRsa2048);
  auto spki = ExportKey(rsa, nullptr, blob::kPublicKey);
  const unsigned char *p = spki->data();
  EVP_PKEY *pub = d2i_PUBKEY(nullptr, &p, static_cast<long>(spki->size()));
  ASSERT_NE(pub, nullptr);
  EXPECT_EQ(EVP_PKEY_get_bits(pub), 2048);
  EVP_PKEY_free(pub);

  auto p8 = ExportKey(rsa, nullptr, blob::kPrivateKey);
  p = p8->data();
  PKCS8_PRIV_KEY_INFO *info = d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, static_cast<long>(p8->size()));
  ASSERT_NE(info, nullptr);
  EVP_PKEY *priv = EVP_PKCS82PKEY(info);
  PKCS8_PRIV_KEY_INFO_free(info);
  ASSERT_NE(priv, nullptr);

  KeyPtr aes = MustGenerate(alg::kAes256);
  for (uint32_t type : {blob::kSimple, blob::kSimpleOaep}) {
    auto simple = ExportKey(aes, rsa, type);
    ASSERT_TRUE(simple.ok());
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(priv, nullptr);
    EVP_PKEY_decrypt_init(ctx);
    EVP_PKEY_CTX_set_rsa_padding(
        ctx, type == blob::kSimple ? RSA_PKCS1_PADDING : RSA_PKCS1_OAEP_PADDING);
    Bytes out(256);
    size_t len = out.size();
    ASSERT_EQ(EVP_PKEY_decrypt(ctx, out.data(), &len, simple->data(), simple->size()), 1);
    out.resize(len);
    EXPECT_EQ(ToHex(out), ToHex(aes->secret()));
    EVP_PKEY_CTX_free(ctx);
  }
  EVP_PKEY_free(priv);
}

TEST(Pkcs8Encrypted, RoundTripAndOutside) {
  KeyPtr key = MustGenerate(alg::kSecp384r1);
  auto der = ExportPkcs8Encrypted(*key, "24681357");
  ASSERT_TRUE(der.ok()) << der.status().detail();
  auto back = ImportPkcs8Encrypted(*der, "24681357", alg::kSecp384r1);
  ASSERT_TRUE(back.ok()) << back.status().detail();
  ExpectSameKey(*key, **back);
  EXPECT_EQ(ImportPkcs8Encrypted(*der, "wrong", 0).code(), Code::kBadData);

  // OpenSSL decrypts ours ...
  const unsigned char *p = der->data();
  X509_SIG *sig = d2i_X509_SIG(nullptr, &p, static_cast<long>(der->size()));
  ASSERT_NE(sig, nullptr);
  PKCS8_PRIV_KEY_INFO *info = PKCS8_decrypt(sig, "24681357", 8);
  EXPECT_NE(info, nullptr);
  PKCS8_PRIV_KEY_INFO_free(info);
  X509_SIG_free(sig);

  // ... and we read OpenSSL's (its own defaults for the PBE).
  auto plain = key->Pkcs8Der();
  p = plain->data();
  EVP_PKEY *outside = d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(plain->size()));
  BIO *bio = BIO_new(BIO_s_mem());
  ASSERT_EQ(i2d_PKCS8PrivateKey_bio(bio, outside, EVP_aes_128_cbc(), nullptr, 0, nullptr,
                                    const_cast<char *>("pw")),
            1);
  char *data = nullptr;
  long n = BIO_get_mem_data(bio, &data);
  Bytes theirs(data, data + n);
  auto imported = ImportPkcs8Encrypted(theirs, "pw", 0);
  ASSERT_TRUE(imported.ok()) << imported.status().detail();
  ExpectSameKey(*key, **imported);
  BIO_free(bio);
  EVP_PKEY_free(outside);
}

// The storage encoding parses back into a key that works the same.
TEST(Storage, SerializeParse) {
  for (AlgId alg : {alg::kRsa512, alg::kSecp256k1, alg::kEd25519, alg::kX448, alg::kAes192,
                    alg::kDesX, alg::kHmacKey}) {
    KeyPtr key = MustGenerate(alg);
    auto stored = key->Serialize();
    ASSERT_TRUE(stored.ok());
    EXPECT_EQ((*stored)[0], 1);
    auto parsed = Key::Parse(Bytes(stored->begin(), stored->end()));
    ASSERT_TRUE(parsed.ok()) << alg << " " << parsed.status().detail();
    ExpectSameKey(*key, **parsed);
    EXPECT_EQ((*parsed)->length_bytes(), key->length_bytes());
  }
  KeyPtr pub = *MustGenerate(alg::kSecp256r1)->PublicOnly();
  auto parsed = Key::Parse(B(*pub->Serialize()));
  ASSERT_TRUE(parsed.ok());
  EXPECT_FALSE((*parsed)->has_private());
}

TEST(KeyLength, AsTheKeyLengthParameterReports) {
  const std::pair<AlgId, size_t> cases[] = {
      {alg::kRsa1976, 247}, {alg::kRsa2048, 256}, {alg::kSecp521r1, 66}, {alg::kSecp112r1, 14},
      {alg::kEd25519, 32},  {alg::kEd448, 57},    {alg::kX448, 56},      {alg::k3Des112, 16},
      {alg::kDesX, 24},     {alg::kArc4, 16},     {alg::kHmacKey512, 64}};
  for (auto [alg, len] : cases) {
    EXPECT_EQ(MustGenerate(alg)->length_bytes(), len) << alg;
  }
}

TEST(KeyMaterial, SecretWithParityOrPkcs8) {
  auto des = GenerateKeyMaterial(alg::k3Des168);
  ASSERT_TRUE(des.ok());
  ASSERT_EQ(des->size(), 24u);
  for (uint8_t b : *des) EXPECT_EQ(__builtin_popcount(b) % 2, 1) << "odd parity";
  auto ec = GenerateKeyMaterial(alg::kSecp224r1);
  ASSERT_TRUE(ec.ok());
  auto key = Key::FromPkcs8(alg::kSecp224r1, Bytes(ec->begin(), ec->end()), true);
  EXPECT_TRUE(key.ok());
  auto r1 = RandomBytes(32);
  auto r2 = RandomBytes(32);
  ASSERT_TRUE(r1.ok() && r2.ok());
  EXPECT_NE(ToHex(*r1), ToHex(*r2));
  EXPECT_EQ(RandomBytes((1 << 20) + 1).code(), Code::kBadLength);
  EXPECT_EQ(GenerateKeyMaterial(alg::kArc5).code(), Code::kNotSupported);
}

// RFC 7748 section 6.1: X25519 between Alice and Bob.
TEST(Derive, X25519Rfc7748) {
  auto priv = [](const char *hex) {
    return *Key::FromPkcs8(alg::kX25519, Hex(std::string("302e020100300506032b656e04220420") + hex),
                           false);
  };
  auto pub = [](const char *hex) {
    return *Key::FromSpki(alg::kX25519, Hex(std::string("302a300506032b656e032100") + hex));
  };
  KeyPtr alice = priv("77076d0a7318a57d3c16c17251b26645df4c2f87ebc0992ab177fba51db92c2a");
  KeyPtr bob_pub = pub("de9edb7d7b7dc1b4d35b61c2ece435373f8343c85b78674dadfc7e146f882b4f");
  auto secret = Derive(*alice, *bob_pub, Kdf::kRawSecret, 0);
  ASSERT_TRUE(secret.ok()) << secret.status().detail();
  EXPECT_EQ(ToHex(*secret), "4a5d9d5ba4ce2de1728e3bf480350f25e07e21c947d19e3376f09b3c1e161742");
}

TEST(Derive, EcdhBothSidesAgree) {
  KeyPtr a = MustGenerate(alg::kSecp256r1);
  KeyPtr b = MustGenerate(alg::kSecp256r1);
  for (Kdf kdf : {Kdf::kRawSecret, Kdf::kX963Sha256}) {
    auto ab = Derive(*a, **b->PublicOnly(), kdf, 48, Hex("0102"));
    auto ba = Derive(*b, **a->PublicOnly(), kdf, 48, Hex("0102"));
    ASSERT_TRUE(ab.ok() && ba.ok());
    EXPECT_EQ(ToHex(*ab), ToHex(*ba));
    EXPECT_EQ(ab->size(), kdf == Kdf::kRawSecret ? 32u : 48u);
  }
}

}  // namespace
}  // namespace qlhsm::crypto
