// Every refusal answers its named code: one table, one row per refusal.
#include <gtest/gtest.h>

#include <functional>

#include "crypto/blob.h"
#include "crypto/cipher.h"
#include "crypto/derive.h"
#include "crypto/hash.h"
#include "crypto/sign.h"
#include "test_util.h"

namespace qlhsm::crypto {
namespace {

using testing::MustGenerate;

struct Keys {
  KeyPtr aes = MustGenerate(alg::kAes128);
  KeyPtr des = MustGenerate(alg::kDes);
  KeyPtr desx = MustGenerate(alg::kDesX);
  KeyPtr rc4 = MustGenerate(alg::kArc4);
  KeyPtr hmac = MustGenerate(alg::kHmacKey);
  KeyPtr rsa = MustGenerate(alg::kRsa512);
  KeyPtr p256 = MustGenerate(alg::kSecp256r1);
  KeyPtr p384 = MustGenerate(alg::kSecp384r1);
  KeyPtr ed = MustGenerate(alg::kEd25519);
  KeyPtr x = MustGenerate(alg::kX25519);
  KeyPtr rsa_pub = *rsa->PublicOnly();
};

template <typename T>
Status Of(const Result<T> &r) {
  return r.status();
}

// Runs `step` on a fresh cipher state of `key` after setting `mode`.
Status WithMode(const KeyPtr &key, uint32_t mode, std::function<Status(CipherState &)> step) {
  CipherState state(key);
  if (Status s = state.SetMode(mode); !s.ok()) return s;
  return step(state);
}

TEST(Refusals, EachAnswersItsCode) {
  Keys k;
  Bytes d32(32, 1);
  struct Row {
    const char *what;
    std::function<Status()> call;
    Code expected;
  };
  const Row rows[] = {
      // Keys.
      {"unknown key algorithm", [] { return Of(Key::Generate(9999)); }, Code::kBadAlgorithm},
      {"arc5", [] { return Of(Key::Generate(alg::kArc5)); }, Code::kNotSupported},
      {"AES-128 secret of 15 bytes", [] { return Of(Key::FromSecret(alg::kAes128, Bytes(15))); },
       Code::kBadLength},
      {"DES secret of 16 bytes", [] { return Of(Key::FromSecret(alg::kDes, Bytes(16))); },
       Code::kBadLength},
      {"RSA from a secret", [] { return Of(Key::FromSecret(alg::kRsa2048, Bytes(32))); },
       Code::kKeyCannotDo},
      {"garbage PKCS#8", [] { return Of(Key::FromPkcs8(0, Bytes(40, 7), false)); }, Code::kBadData},
      {"SPKI of another curve",
       [&] { return Of(Key::FromSpki(alg::kSecp384r1, *k.p256->SpkiDer())); }, Code::kBadArgument},
      {"garbage stored key", [] { return Of(Key::Parse(Bytes(10, 1))); }, Code::kBadData},
      {"PKCS#8 of a secret key", [&] { return Of(k.aes->Pkcs8Der()); }, Code::kKeyCannotDo},
      // Hashes.
      {"unknown hash", [] { return Of(HashState::Create(3)); }, Code::kBadAlgorithm},
      {"digest given a key", [&] { return Of(HashState::Create(hash::kSha256, k.aes)); },
       Code::kKeyCannotDo},
      {"HMAC without a key", [] { return Of(HashState::Create(hash::kHmacSha256)); },
       Code::kKeyCannotDo},
      {"HMAC with an RSA key", [&] { return Of(HashState::Create(hash::kHmacSha1, k.rsa)); },
       Code::kKeyCannotDo},
      {"CMAC-AES with a DES key", [&] { return Of(HashState::Create(hash::kCmacAes, k.des)); },
       Code::kKeyCannotDo},
      {"CMAC-DES with an AES key", [&] { return Of(HashState::Create(hash::kCmacDes, k.aes)); },
       Code::kKeyCannotDo},
      {"hash value of the wrong length",
       [] { return HashState::Create(hash::kSha1)->SetValue(Bytes(32)); }, Code::kBadLength},
      // Signatures.
      {"sign with AES", [&] { return Of(Sign(*k.aes, hash::kSha256, d32)); }, Code::kKeyCannotDo},
      {"sign with X25519", [&] { return Of(Sign(*k.x, hash::kSha256, d32)); }, Code::kKeyCannotDo},
      {"sign with a public key", [&] { return Of(Sign(*k.rsa_pub, hash::kSha256, d32)); },
       Code::kKeyCannotDo},
      {"size query with HMAC key", [&] { return Of(SignatureSize(*k.hmac)); }, Code::kKeyCannotDo},
      {"sign with unknown hash", [&] { return Of(Sign(*k.p256, 3, d32)); }, Code::kBadAlgorithm},
      {"digest of the wrong length", [&] { return Of(Sign(*k.p256, hash::kSha1, d32)); },
       Code::kBadLength},
      {"EdDSA over a digest", [&] { return Of(Sign(*k.ed, hash::kSha256, d32)); },
       Code::kNotSupported},
      {"RSA-512 with SHA-512", [&] { return Of(Sign(*k.rsa, hash::kSha512, Bytes(64))); },
       Code::kDigestTooLarge},
      {"legacy form refused",
       [&] { return Of(Sign(*k.rsa, hash::kHmacSha256, d32, kSignNoLegacy)); },
       Code::kNotSupported},
      {"signature that does not verify",
       [&] { return Verify(*k.p256, hash::kSha256, d32, Bytes(70, 1)); }, Code::kBadSignature},
      // Cipher state.
      {"unknown mode", [&] { return CipherState(k.aes).SetMode(3); }, Code::kBadAlgorithm},
      {"AES without a mode", [&] { return CipherState(k.aes).SetMode(mode::kNone); },
       Code::kNotSupported},
      {"DES in CTR", [&] { return CipherState(k.des).SetMode(mode::kCtr); }, Code::kNotSupported},
      {"DES in GCM", [&] { return CipherState(k.des).SetMode(mode::kGcm); }, Code::kNotSupported},
      {"DESX in ECB", [&] { return CipherState(k.desx).SetMode(mode::kEcb); }, Code::kNotSupported},
      {"RC4 in CBC", [&] { return CipherState(k.rc4).SetMode(mode::kCbc); }, Code::kNotSupported},
      {"unknown padding", [&] { return CipherState(k.aes).SetPadding(9); }, Code::kBadAlgorithm},
      {"RSA padding on AES", [&] { return CipherState(k.aes).SetPadding(padding::kRsaOaep); },
       Code::kNotSupported},
      {"empty IV", [&] { return CipherState(k.aes).SetIv({}); }, Code::kBadLength},
      {"CBC IV of the wrong length",
       [&] {
         CipherState s(k.aes);
         s.SetIv(Bytes(8, 1));
         return Of(s.Encrypt(Bytes(16), true));
       },
       Code::kBadLength},
      {"no padding, partial block",
       [&] {
         CipherState s(k.aes);
         s.SetPadding(padding::kNone);
         return Of(s.Encrypt(Bytes(15), true));
       },
       Code::kBadLength},
      {"GCM decryption without an IV",
       [&] {
         return WithMode(k.aes, mode::kGcm, [](auto &s) { return Of(s.Decrypt(Bytes(32), true)); });
       },
       Code::kBadArgument},
      {"GCM message shorter than the tag",
       [&] {
         return WithMode(k.aes, mode::kGcm, [](auto &s) {
           s.SetIv(Bytes(12, 1));
           return Of(s.Decrypt(Bytes(10), true));
         });
       },
       Code::kBadLength},
      {"KW in pieces",
       [&] {
         return WithMode(k.aes, mode::kKw, [](auto &s) { return Of(s.Encrypt(Bytes(16), false)); });
       },
       Code::kWholeMessageOnly},
      {"KW of 12 bytes",
       [&] {
         return WithMode(k.aes, mode::kKw, [](auto &s) { return Of(s.Encrypt(Bytes(12), true)); });
       },
       Code::kBadLength},
      {"key wrap under DES", [&] { return Of(KeyWrap(k.des, false, Bytes(16))); },
       Code::kKeyCannotDo},
      {"encrypt with HMAC key", [&] { return Of(CipherState(k.hmac).Encrypt(Bytes(16), true)); },
       Code::kKeyCannotDo},
      {"encrypt with EC key", [&] { return Of(CipherState(k.p256).Encrypt(Bytes(16), true)); },
       Code::kKeyCannotDo},
      {"short output buffer", [&] { return Of(CipherState(k.aes).Encrypt(Bytes(16), true, 16)); },
       Code::kBufferTooSmall},
      // RSA encryption.
      {"PKCS#1 input too long",
       [&] { return Of(RsaEncrypt(*k.rsa, RsaPadding::kPkcs1, Bytes(54))); }, Code::kBadLength},
      {"OAEP input too long", [&] { return Of(RsaEncrypt(*k.rsa, RsaPadding::kOaep, Bytes(23))); },
       Code::kBadLength},
      {"decrypt with a public key",
       [&] { return Of(RsaDecrypt(*k.rsa_pub, RsaPadding::kPkcs1, Bytes(64))); },
       Code::kKeyCannotDo},
      {"ciphertext that does not decrypt",
       [&] { return Of(RsaDecrypt(*k.rsa, RsaPadding::kPkcs1, Bytes(64, 1))); }, Code::kBadPadding},
      // Blobs.
      {"unknown blob type", [&] { return Of(ExportKey(k.aes, nullptr, 5)); }, Code::kBadAlgorithm},
      {"plaintext blob of RSA", [&] { return Of(ExportKey(k.rsa, nullptr, blob::kPlaintextKey)); },
       Code::kKeyCannotDo},
      {"private blob of AES", [&] { return Of(ExportKey(k.aes, nullptr, blob::kPrivateKey)); },
       Code::kKeyCannotDo},
      {"simple blob without a KEK", [&] { return Of(ExportKey(k.aes, nullptr, blob::kSimple)); },
       Code::kBadArgument},
      {"simple blob under AES", [&] { return Of(ExportKey(k.des, k.aes, blob::kSimple)); },
       Code::kKeyCannotDo},
      {"sym-wrapped under RSA", [&] { return Of(ExportKey(k.des, k.rsa, blob::kSymWrappedKey)); },
       Code::kKeyCannotDo},
      {"sym-wrapped of RSA", [&] { return Of(ExportKey(k.rsa, k.aes, blob::kSymWrappedKey)); },
       Code::kKeyCannotDo},
      {"strict private blob of a public key",
       [&] { return Of(ExportKey(k.rsa_pub, nullptr, blob::kPrivateKeyStrict)); },
       Code::kKeyCannotDo},
      {"empty blob", [&] { return Of(ImportKey({}, blob::kPlaintextKey, alg::kAes128, nullptr)); },
       Code::kBadLength},
      {"plaintext of the wrong length",
       [&] { return Of(ImportKey(Bytes(20), blob::kPlaintextKey, alg::kAes128, nullptr)); },
       Code::kBadLength},
      {"strict import of a public blob",
       [&] { return Of(ImportKey(*k.p256->SpkiDer(), blob::kPrivateKeyStrict, 0, nullptr)); },
       Code::kBadData},
      {"wrapped blob under another KEK",
       [&] {
         auto blob = ExportKey(k.des, k.aes, blob::kWrappedKey);
         return Of(ImportKey(Bytes(blob->begin(), blob->end()), blob::kWrappedKey, alg::kDes,
                             MustGenerate(alg::kAes128)));
       },
       Code::kBadTag},
      {"PKCS#8 with a wrong password",
       [&] {
         auto der = ExportPkcs8Encrypted(*k.p256, "right");
         return Of(ImportPkcs8Encrypted(*der, "wrong", 0));
       },
       Code::kBadData},
      // Key agreement.
      {"derive with RSA", [&] { return Of(Derive(*k.rsa, *k.rsa, Kdf::kRawSecret, 0)); },
       Code::kKeyCannotDo},
      {"derive across curves", [&] { return Of(Derive(*k.p256, *k.p384, Kdf::kRawSecret, 0)); },
       Code::kKeyCannotDo},
      {"X9.63 of no bytes", [&] { return Of(Derive(*k.x, *k.x, Kdf::kX963Sha256, 0)); },
       Code::kBadLength},
  };
  for (const auto &row : rows) {
    Status s = row.call();
    EXPECT_EQ(s.code(), row.expected)
        << row.what << ": got " << CodeName(s.code()) << " (" << s.detail() << ")";
  }
}

}  // namespace
}  // namespace qlhsm::crypto
