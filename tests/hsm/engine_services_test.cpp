// The engine's key material, key agreement, JSON metadata and date-and-time services: refusals in
// their fixed order first, then results checked against OpenSSL computing the same thing outside
// the HSM.
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "test_util.h"

namespace qlhsm {
namespace {

using testing::EngineFixture;

using PKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

constexpr const char *kUserPwd = "24681357";
// 2030-01-02 03:04:05 UTC.
constexpr int64_t kFuture = 1893553445;

secure::Bytes LittleEndian(uint64_t v, size_t n = 8) {
  secure::Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(v >> (8 * i));
  return b;
}

// A user whose mask the master sets before each check.
struct Fixture : EngineFixture {
  Fixture() { EXPECT_TRUE(engine->users().CreateUser(*master, "tested", kUserPwd, 0).ok()); }
  std::unique_ptr<sessions::Session> As(uint32_t mask) {
    EXPECT_TRUE(engine->users().SetUserMask(*master, "tested", mask).ok());
    return LoginAs("tested", kUserPwd);
  }
};

PKey PrivateFromDer(const secure::Bytes &der) {
  const unsigned char *p = der.data();
  return PKey(d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(der.size())), &EVP_PKEY_free);
}

PKey PublicFromDer(const secure::Bytes &der) {
  const unsigned char *p = der.data();
  return PKey(d2i_PUBKEY(nullptr, &p, static_cast<long>(der.size())), &EVP_PKEY_free);
}

secure::Bytes SpkiOf(EVP_PKEY *key) {
  unsigned char *der = nullptr;
  const int n = i2d_PUBKEY(key, &der);
  secure::Bytes out(der, der + (n > 0 ? n : 0));
  OPENSSL_free(der);
  return out;
}

secure::Bytes OpenSslDerive(EVP_PKEY *own, EVP_PKEY *peer) {
  std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new(own, nullptr),
                                                                  &EVP_PKEY_CTX_free);
  size_t len = 0;
  if (!ctx || EVP_PKEY_derive_init(ctx.get()) != 1 ||
      EVP_PKEY_derive_set_peer(ctx.get(), peer) != 1 ||
      EVP_PKEY_derive(ctx.get(), nullptr, &len) != 1)
    return {};
  secure::Bytes z(len);
  if (EVP_PKEY_derive(ctx.get(), z.data(), &len) != 1) return {};
  z.resize(len);
  return z;
}

secure::Bytes OpenSslX963(secure::Bytes z, secure::Bytes info, size_t len) {
  std::unique_ptr<EVP_KDF, decltype(&EVP_KDF_free)> kdf(EVP_KDF_fetch(nullptr, "X963KDF", nullptr),
                                                        &EVP_KDF_free);
  std::unique_ptr<EVP_KDF_CTX, decltype(&EVP_KDF_CTX_free)> ctx(
      kdf ? EVP_KDF_CTX_new(kdf.get()) : nullptr, &EVP_KDF_CTX_free);
  OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, const_cast<char *>("SHA256"), 0),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, z.data(), z.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, info.data(), info.size()),
      OSSL_PARAM_construct_end()};
  secure::Bytes out(len);
  if (!ctx || EVP_KDF_derive(ctx.get(), out.data(), out.size(), params) != 1) return {};
  return out;
}

// ---------------------------------------------------------------------------------------------
// Key material

TEST(KeyMaterial, RefusalsInOrder) {
  Fixture f;
  auto none = f.engine->NewSession();
  EXPECT_EQ(f.engine->keys().GenerateKeyMaterial(*none, QL_ALG_AES256, 0).status().code(),
            Code::kNotLoggedIn);
  EXPECT_EQ(f.engine->keys().GenerateKeyMaterial(*f.master, 9999, 0).status().code(),
            Code::kBadAlgorithm);
  EXPECT_EQ(f.engine->keys().GenerateKeyMaterial(*f.master, QL_ALG_ARC5, 0).status().code(),
            Code::kNotSupported);
  EXPECT_EQ(f.engine->keys()
                .GenerateKeyMaterial(*f.master, QL_ALG_AES256, QL_KEY_BLOCKCHAIN)
                .status()
                .code(),
            Code::kNotSupported);
}

TEST(KeyMaterial, SecretsHaveTheAlgorithmsLengthAndNeedNoRight) {
  Fixture f;
  auto nobody = f.As(0);
  struct Case {
    uint32_t alg;
    size_t len;
  };
  for (Case c : {Case{QL_ALG_DES, 8}, Case{QL_ALG_3DES_112, 16}, Case{QL_ALG_3DES_168, 24},
                 Case{QL_ALG_AES128, 16}, Case{QL_ALG_AES192, 24}, Case{QL_ALG_AES256, 32},
                 Case{QL_ALG_HMAC_KEY, 32}, Case{QL_ALG_HMAC_KEY_512, 64}}) {
    SCOPED_TRACE(c.alg);
    auto a = f.engine->keys().GenerateKeyMaterial(*nobody, c.alg, 0);
    auto b = f.engine->keys().GenerateKeyMaterial(*nobody, c.alg, 0);
    ASSERT_TRUE(a.ok()) << a.status().ToString();
    ASSERT_TRUE(b.ok());
    EXPECT_EQ(a->size(), c.len);
    EXPECT_NE(*a, *b) << "two calls gave the same material";
    if (c.alg == QL_ALG_DES || c.alg == QL_ALG_3DES_112 || c.alg == QL_ALG_3DES_168) {
      for (uint8_t byte : *a) EXPECT_EQ(__builtin_popcount(byte) % 2, 1) << "even parity";
    }
  }
  // Nothing was stored.
  EXPECT_TRUE(f.engine->objects().ListObjects(*nobody)->empty());
}

TEST(KeyMaterial, AsymmetricKeysArePkcs8ThatOpenSslReads) {
  Fixture f;
  auto rsa = f.engine->keys().GenerateKeyMaterial(*f.master, QL_ALG_RSA1024, QL_KEY_RSA_EXP3);
  ASSERT_TRUE(rsa.ok()) << rsa.status().ToString();
  PKey key = PrivateFromDer(*rsa);
  ASSERT_TRUE(key);
  EXPECT_EQ(EVP_PKEY_get_bits(key.get()), 1024);
  BIGNUM *e = nullptr;
  ASSERT_EQ(EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_RSA_E, &e), 1);
  EXPECT_TRUE(BN_is_word(e, 3)) << "QL_KEY_RSA_EXP3 was not acted on";
  BN_free(e);

  auto ec = f.engine->keys().GenerateKeyMaterial(*f.master, QL_ALG_ECC_SECP384R1, 0);
  ASSERT_TRUE(ec.ok());
  PKey eckey = PrivateFromDer(*ec);
  ASSERT_TRUE(eckey);
  char group[64] = {};
  ASSERT_EQ(EVP_PKEY_get_utf8_string_param(eckey.get(), OSSL_PKEY_PARAM_GROUP_NAME, group,
                                           sizeof group, nullptr),
            1);
  EXPECT_STREQ(group, "secp384r1");
}

// ---------------------------------------------------------------------------------------------
// ECDH

struct Curve {
  uint32_t alg;
  const char *type;   // EVP_PKEY_Q_keygen's key type
  const char *group;  // its curve for "EC", null otherwise
};

PKey Keygen(const Curve &c) {
  if (c.group) return PKey(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", c.group), &EVP_PKEY_free);
  return PKey(EVP_PKEY_Q_keygen(nullptr, nullptr, c.type), &EVP_PKEY_free);
}

// The HSM's stored private key `name` of the curve, and its public half as OpenSSL reads it.
PKey MakeOwnKey(Fixture &f, const Curve &c, const char *name = "own") {
  auto k = f.engine->keys().GenerateKey(*f.master, name, c.alg, 0, false);
  EXPECT_TRUE(k.ok()) << k.status().ToString();
  auto spki = f.engine->keys().ExportKey(*f.master, {0, name}, {}, QL_PUBLICKEY_BLOB);
  EXPECT_TRUE(spki.ok()) << spki.status().ToString();
  return spki.ok() ? PublicFromDer(*spki) : PKey(nullptr, &EVP_PKEY_free);
}

TEST(Ecdh, SecretsEqualWhatOpenSslDerivesOutside) {
  const Curve curves[] = {{QL_ALG_ECC_SECP256R1, "EC", "P-256"},
                          {QL_ALG_ECC_SECP521R1, "EC", "P-521"},
                          {QL_ALG_ECC_BRAINPOOL_P256R1, "EC", "brainpoolP256r1"},
                          {QL_ALG_X25519, "X25519", nullptr},
                          {QL_ALG_X448, "X448", nullptr}};
  Fixture f;
  for (const Curve &c : curves) {
    SCOPED_TRACE(c.alg);
    const std::string name = "own" + std::to_string(c.alg);
    PKey own_pub = MakeOwnKey(f, c, name.c_str());
    ASSERT_TRUE(own_pub);
    PKey peer = Keygen(c);
    ASSERT_TRUE(peer);
    const secure::Bytes z = OpenSslDerive(peer.get(), own_pub.get());
    ASSERT_FALSE(z.empty());

    EcdhArgs raw;
    raw.kdf = QL_GEN_KEY_KDF_RAW_SECRET;
    raw.private_key = name;
    raw.peer_public_key = SpkiOf(peer.get());
    auto secret = f.engine->keys().GenEcdhKey(*f.master, raw, nullptr);
    ASSERT_TRUE(secret.ok()) << secret.status().ToString();
    EXPECT_EQ(*secret, z);

    EcdhArgs x963 = raw;
    x963.kdf = QL_GEN_KEY_X9_63_SHA256;
    x963.shared_info = {0xA1, 0xB2, 0xC3};
    x963.out_length = 48;
    auto derived = f.engine->keys().GenEcdhKey(*f.master, x963, nullptr);
    ASSERT_TRUE(derived.ok()) << derived.status().ToString();
    EXPECT_EQ(*derived, OpenSslX963(z, x963.shared_info, 48));
  }
}

TEST(Ecdh, AKeptKeyHoldsTheDerivedBytes) {
  Fixture f;
  const Curve p256{QL_ALG_ECC_SECP256R1, "EC", "P-256"};
  PKey own_pub = MakeOwnKey(f, p256);
  PKey peer = Keygen(p256);
  ASSERT_TRUE(own_pub && peer);
  EcdhArgs a;
  a.kdf = QL_GEN_KEY_X9_63_SHA256;
  a.private_key = "own";
  a.peer_public_key = SpkiOf(peer.get());
  a.out_length = 32;
  a.target_name = "agreed";
  a.target_algorithm = QL_ALG_AES256;
  a.flags = QL_KEY_EXPORTABLE;
  auto kept = f.engine->keys().GenEcdhKey(*f.master, a, nullptr);
  ASSERT_TRUE(kept.ok()) << kept.status().ToString();
  EXPECT_TRUE(kept->empty()) << "a kept secret must not leave the HSM";
  auto plain = f.engine->keys().ExportKey(*f.master, {0, "agreed"}, {}, QL_PLAINTEXTKEY_BLOB);
  ASSERT_TRUE(plain.ok()) << plain.status().ToString();
  EXPECT_EQ(*plain, OpenSslX963(OpenSslDerive(peer.get(), own_pub.get()), {}, 32));
  EXPECT_EQ(f.engine->objects().OpenObject(*f.master, "agreed")->algorithm, QL_ALG_AES256);
  // The name is now taken; a temporary target stores nothing.
  EXPECT_EQ(f.engine->keys().GenEcdhKey(*f.master, a, nullptr).status().code(),
            Code::kObjectExists);
  a.flags = QL_KEY_TEMPORARY;
  ASSERT_TRUE(f.engine->keys().GenEcdhKey(*f.master, a, nullptr).ok());
  EXPECT_EQ(f.engine->objects().ListObjects(*f.master).value(),
            (std::vector<std::string>{"agreed", "own"}));
}

TEST(Ecdh, RefusalsInOrder) {
  Fixture f;
  const Curve p256{QL_ALG_ECC_SECP256R1, "EC", "P-256"};
  ASSERT_TRUE(MakeOwnKey(f, p256));
  PKey peer = Keygen(p256);
  PKey p384 = Keygen({QL_ALG_ECC_SECP384R1, "EC", "P-384"});
  ASSERT_TRUE(peer && p384);
  ASSERT_TRUE(f.engine->keys().GenerateKey(*f.master, "rsa", QL_ALG_RSA1024, 0, false).ok());
  EcdhArgs good;
  good.kdf = QL_GEN_KEY_X9_63_SHA256;
  good.private_key = "own";
  good.peer_public_key = SpkiOf(peer.get());
  good.out_length = 32;
  const secure::Bytes other_curve = SpkiOf(p384.get());

  struct Case {
    const char *what;
    std::function<void(EcdhArgs &)> change;
    Code code;
  };
  const Case cases[] = {
      {"unknown kdf", [](EcdhArgs &a) { a.kdf = 3; }, Code::kBadAlgorithm},
      {"no private key", [](EcdhArgs &a) { a.private_key.clear(); }, Code::kBadArgument},
      {"no peer key", [](EcdhArgs &a) { a.peer_public_key.clear(); }, Code::kBadArgument},
      {"peer key not DER",
       [](EcdhArgs &a) {
         a.peer_public_key = {1, 2, 3};
       },
       Code::kBadArgument},
      {"raw secret kept",
       [](EcdhArgs &a) {
         a.kdf = QL_GEN_KEY_KDF_RAW_SECRET;
         a.target_name = "k";
         a.target_algorithm = QL_ALG_AES256;
       },
       Code::kBadArgument},
      {"nothing to derive", [](EcdhArgs &a) { a.out_length = 0; }, Code::kBadLength},
      {"more than 1024 bytes", [](EcdhArgs &a) { a.out_length = 1025; }, Code::kBadLength},
      {"bad target name", [](EcdhArgs &a) { a.target_name = "a/b/c"; }, Code::kBadName},
      {"kept key of another length",
       [](EcdhArgs &a) {
         a.target_name = "short";
         a.target_algorithm = QL_ALG_AES128;
       },
       Code::kBadLength},
      {"kept key of an asymmetric algorithm",
       [](EcdhArgs &a) {
         a.target_name = "asym";
         a.target_algorithm = QL_ALG_RSA1024;
       },
       Code::kBadKeyUsage},
      {"kept key of no algorithm",
       [](EcdhArgs &a) {
         a.target_name = "none";
         a.target_algorithm = 9999;
       },
       Code::kBadAlgorithm},
      {"kept blockchain key",
       [](EcdhArgs &a) {
         a.target_name = "bc";
         a.target_algorithm = QL_ALG_AES256;
         a.flags = QL_KEY_BLOCKCHAIN;
       },
       Code::kNotSupported},
      {"missing private key", [](EcdhArgs &a) { a.private_key = "ghost"; }, Code::kObjectNotFound},
      {"peer of another curve", [&](EcdhArgs &a) { a.peer_public_key = other_curve; },
       Code::kBadKeyUsage},
      {"an RSA private key", [](EcdhArgs &a) { a.private_key = "rsa"; }, Code::kBadKeyUsage},
  };
  for (const Case &c : cases) {
    EcdhArgs a = good;
    c.change(a);
    EXPECT_EQ(f.engine->keys().GenEcdhKey(*f.master, a, nullptr).status().code(), c.code) << c.what;
  }
  EXPECT_EQ(f.engine->objects().ListObjects(*f.master)->size(), 2u) << "a refusal stored a key";

  // A raw secret longer than the caller's buffer: 1005 with the length it needs.
  EcdhArgs raw = good;
  raw.kdf = QL_GEN_KEY_KDF_RAW_SECRET;
  raw.out_length = 31;
  uint64_t needed = 0;
  EXPECT_EQ(f.engine->keys().GenEcdhKey(*f.master, raw, &needed).status().code(),
            Code::kBufferTooSmall);
  EXPECT_EQ(needed, 32u);
  raw.out_length = 32;
  EXPECT_EQ(f.engine->keys().GenEcdhKey(*f.master, raw, &needed)->size(), 32u);

  // A blocked private key.
  ASSERT_TRUE(f.engine->objects().SetObjectBlocked(*f.master, "own", true).ok());
  EXPECT_EQ(f.engine->keys().GenEcdhKey(*f.master, good, nullptr).status().code(),
            Code::kObjectBlocked);
}

TEST(Ecdh, RightsOfUseAndOfCreation) {
  Fixture f;
  const Curve p256{QL_ALG_ECC_SECP256R1, "EC", "P-256"};
  ASSERT_TRUE(MakeOwnKey(f, p256));
  PKey peer = Keygen(p256);
  EcdhArgs out;
  out.kdf = QL_GEN_KEY_X9_63_SHA256;
  out.private_key = "master/own";
  out.peer_public_key = SpkiOf(peer.get());
  out.out_length = 16;
  EcdhArgs kept = out;
  kept.target_name = "mine";
  kept.target_algorithm = QL_ALG_AES128;
  EcdhArgs session_key = kept;
  session_key.flags = QL_KEY_TEMPORARY;
  EcdhArgs missing = out;
  missing.private_key = "master/ghost";

  for (uint32_t mask = 0; mask <= 0xF; ++mask) {
    SCOPED_TRACE(mask);
    auto s = f.As(mask);
    const bool use = mask & 0x7, create = mask & 0x4;
    EXPECT_EQ(f.engine->keys().GenEcdhKey(*s, out, nullptr).status().code(),
              use ? Code::kOk : Code::kAccessDenied);
    EXPECT_EQ(f.engine->keys().GenEcdhKey(*s, session_key, nullptr).status().code(),
              use ? Code::kOk : Code::kAccessDenied);
    EXPECT_EQ(f.engine->keys().GenEcdhKey(*s, kept, nullptr).status().code(),
              create && use ? Code::kOk : Code::kAccessDenied);
    // The right comes before existence, and arguments before the right.
    EXPECT_EQ(f.engine->keys().GenEcdhKey(*s, missing, nullptr).status().code(),
              use ? Code::kObjectNotFound : Code::kAccessDenied);
    EcdhArgs bad_peer = out;
    bad_peer.peer_public_key = {0x30, 0x00};
    EXPECT_EQ(f.engine->keys().GenEcdhKey(*s, bad_peer, nullptr).status().code(),
              Code::kBadArgument);
    if (create) {
      ASSERT_TRUE(f.engine->objects().RemoveObject(*f.master, "tested/mine").ok());
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Metadata as JSON

TEST(MetadataJson, OnlyOneJsonObjectInUtf8IsKept) {
  Fixture f;
  ASSERT_TRUE(f.engine->objects().WriteFile(*f.master, "doc", {1, 2}).ok());
  EXPECT_EQ(f.engine->objects().GetObjectMetadata(*f.master, "doc").value(), "{}");
  const std::string big_ok = "{\"a\":\"" + std::string(QL_MAX_JSON_METADATA - 8, 'x') + "\"}";
  ASSERT_EQ(big_ok.size(), static_cast<size_t>(QL_MAX_JSON_METADATA));
  struct Case {
    std::string json;
    Code code;
  };
  const Case cases[] = {
      {R"({"label":"first","n":[1,2,{"b":null}],"t":true})", Code::kOk},
      {" \t\r\n{ \"a\" : 1.5e3 }\n", Code::kOk},
      {"{\"caf\xC3\xA9\":\"\xE2\x82\xAC \xF0\x9F\x98\x80\"}", Code::kOk},  // e-acute, euro, emoji
      {"{}", Code::kOk},
      {big_ok, Code::kOk},
      {big_ok + " ", Code::kBadLength},
      {"", Code::kBadJson},
      {"[1,2]", Code::kBadJson},
      {"\"text\"", Code::kBadJson},
      {"42", Code::kBadJson},
      {"null", Code::kBadJson},
      {"{", Code::kBadJson},
      {R"({"a":})", Code::kBadJson},
      {R"({'a':1})", Code::kBadJson},
      {R"({"a":1,})", Code::kBadJson},
      {R"({"a":1} {"b":2})", Code::kBadJson},
      {std::string("{\"a\":1}\0{}", 10), Code::kBadJson},  // the NUL is no end
      {"{\"a\":\"\xFF\"}", Code::kBadJson},                // not UTF-8
      {"{\"a\":\"\xC0\xAF\"}", Code::kBadJson},            // an overlong '/'
      {"{\"a\":\"\xED\xA0\x80\"}", Code::kBadJson},        // a lone surrogate
      {"{\"a\":\"\xE2\x82\"}", Code::kBadJson},            // cut short
  };
  std::string last = "{}";
  for (const Case &c : cases) {
    SCOPED_TRACE(c.json.substr(0, 40));
    EXPECT_EQ(f.engine->objects().SetObjectMetadata(*f.master, "doc", c.json).code(), c.code);
    if (c.code == Code::kOk) last = c.json;
    // A refused text leaves the last one in place; a kept one reads back byte for byte.
    EXPECT_EQ(f.engine->objects().GetObjectMetadata(*f.master, "doc").value(), last);
  }
  EXPECT_EQ(f.engine->objects().GetObjectMetadata(*f.master, "doc", 1).status().code(),
            Code::kBadArgument);
}

TEST(MetadataJson, RightsExistenceAndKeys) {
  Fixture f;
  ASSERT_TRUE(f.engine->keys().GenerateKey(*f.master, "key", QL_ALG_RSA1024, 0, false).ok());
  for (uint32_t mask = 0; mask <= 0xF; ++mask) {
    SCOPED_TRACE(mask);
    auto s = f.As(mask);
    const bool use = mask & 0x7, update = mask & 0x8;
    const std::string json = "{\"mask\":" + std::to_string(mask) + "}";
    EXPECT_EQ(f.engine->objects().SetObjectMetadata(*s, "master/key", json).code(),
              update ? Code::kOk : Code::kAccessDenied);
    EXPECT_EQ(f.engine->objects().SetObjectMetadata(*s, "master/ghost", json).code(),
              update ? Code::kObjectNotFound : Code::kAccessDenied);
    EXPECT_EQ(f.engine->objects().GetObjectMetadata(*s, "master/ghost").status().code(),
              use ? Code::kObjectNotFound : Code::kAccessDenied);
    auto read = f.engine->objects().GetObjectMetadata(*s, "master/key");
    EXPECT_EQ(read.status().code(), use ? Code::kOk : Code::kAccessDenied);
    if (use && update) {
      EXPECT_EQ(read.value(), json);
    }
    // Bad text is an argument: refused before the right, whoever asks.
    EXPECT_EQ(f.engine->objects().SetObjectMetadata(*s, "master/key", "[]").code(), Code::kBadJson);
  }
  // A blocked key's metadata stays readable and writable; the key still signs once unblocked.
  ASSERT_TRUE(f.engine->objects().SetObjectBlocked(*f.master, "key", true).ok());
  ASSERT_TRUE(f.engine->objects().SetObjectMetadata(*f.master, "key", R"({"why":"lost"})").ok());
  EXPECT_EQ(f.engine->objects().GetObjectMetadata(*f.master, "key").value(), R"({"why":"lost"})");
  ASSERT_TRUE(f.engine->objects().SetObjectBlocked(*f.master, "key", false).ok());
  EXPECT_TRUE(f.engine->keys()
                  .SignHash(*f.master, {0, "key"}, QL_ALG_SHA256, secure::Bytes(32, 1), 0)
                  .ok());
}

// ---------------------------------------------------------------------------------------------
// Date and time

TEST(DateTime, RefusalsInOrder) {
  Fixture f;
  auto none = f.engine->NewSession();
  EXPECT_EQ(f.engine->system().SetDateTime(*none, LittleEndian(kFuture)).code(),
            Code::kNotLoggedIn);
  auto s = f.As(0);
  EXPECT_EQ(f.engine->system().SetDateTime(*s, LittleEndian(kFuture, 4)).code(), Code::kBadLength);
  EXPECT_EQ(f.engine->system().SetDateTime(*s, {}).code(), Code::kBadLength);
  EXPECT_EQ(f.engine->system().SetDateTime(*s, LittleEndian(253402300800)).code(),
            Code::kBadArgument);
  // Every right but the operator's is not enough.
  s = f.As(access::kAllRights & ~access::kSysOperator);
  EXPECT_EQ(f.engine->system().SetDateTime(*s, LittleEndian(kFuture)).code(), Code::kAccessDenied);
  EXPECT_LE(std::abs(f.engine->Now() - Clock::MachineNow()), 2) << "a refusal moved the time";
  s = f.As(access::kSysOperator);
  EXPECT_TRUE(f.engine->system().SetDateTime(*s, LittleEndian(253402300799)).ok());
  EXPECT_GE(f.engine->Now(), 253402300799);
}

TEST(DateTime, EveryTimeTheHsmKeepsFollowsIt) {
  Fixture f;
  ASSERT_TRUE(f.engine->system().SetDateTime(*f.master, LittleEndian(kFuture)).ok());
  // No test runs for minutes: a few seconds after the time set, never before it.
  auto near_future = [](int64_t t) { return t >= kFuture && t <= kFuture + 60; };
  EXPECT_TRUE(near_future(f.engine->Now()));
  // This machine's clock did not move.
  EXPECT_LT(Clock::MachineNow(), kFuture - 3600);

  ASSERT_TRUE(f.engine->objects().WriteFile(*f.master, "stamped", {1}).ok());
  EXPECT_TRUE(near_future(f.engine->objects().OpenObject(*f.master, "stamped")->created));
  ASSERT_TRUE(f.engine->users().IssueToken(*f.master, 0).ok());
  auto tokens = f.engine->users().ListTokens(*f.master);
  ASSERT_TRUE(tokens.ok());
  ASSERT_EQ(tokens->size(), 1u);
  EXPECT_TRUE(near_future(tokens->front().issued));
  // The audit log's last page carries the time set.
  ASSERT_TRUE(f.engine->audit().Flush().ok());
  auto page = f.engine->system().ReadLogPage(*f.master, f.engine->audit().PageCount());
  ASSERT_TRUE(page.ok());
  const std::string text(page->data.begin(), page->data.end());
  EXPECT_NE(text.find("2030-01-02 03:0"), std::string::npos) << text;
  EXPECT_NE(text.find("master set-date-time 1893553445 0"), std::string::npos) << text;
}

TEST(DateTime, TokensExpireByTheHsmsTime) {
  Fixture f;
  const int64_t now = Clock::MachineNow();
  auto key = f.engine->users().IssueToken(*f.master, now + 3600);
  ASSERT_TRUE(key.ok());
  auto s = f.engine->NewSession();
  EXPECT_TRUE(f.engine->users().LoginToken(*s, kMasterUser, *key).ok());
  ASSERT_TRUE(f.engine->system().SetDateTime(*f.master, LittleEndian(now + 7200)).ok());
  EXPECT_EQ(f.engine->users().LoginToken(*s, kMasterUser, *key).code(), Code::kAuthFailed);
  ASSERT_TRUE(f.engine->system().SetDateTime(*f.master, LittleEndian(now)).ok());
  EXPECT_TRUE(f.engine->users().LoginToken(*s, kMasterUser, *key).ok());
}

TEST(DateTime, TheTimeSurvivesARestart) {
  testing::TempDir dir;
  InitOptions init;
  init.kdf = testing::FastKdf();
  ASSERT_TRUE(Engine::Init(dir.path(), testing::kMasterPassword, init).ok());
  {
    auto e = Engine::Open(dir.path());
    ASSERT_TRUE(e.ok());
    // A data directory that never had its time set runs on the machine's clock.
    EXPECT_LE(std::abs((*e)->Now() - Clock::MachineNow()), 2);
    auto s = (*e)->NewSession();
    ASSERT_TRUE((*e)->users().Login(*s, kMasterUser, testing::kMasterPassword).ok());
    ASSERT_TRUE((*e)->system().SetDateTime(*s, LittleEndian(kFuture)).ok());
  }
  auto e = Engine::Open(dir.path());
  ASSERT_TRUE(e.ok());
  EXPECT_GE((*e)->Now(), kFuture);
  EXPECT_LE((*e)->Now(), kFuture + 60);
}

}  // namespace
}  // namespace qlhsm
