// libFuzzer target: the crypto library's parsers of outside bytes (key blobs of every type, the
// storage encoding, encrypted PKCS#8). Whatever the input, they answer a code; never a crash.
#include <cstddef>
#include <cstdint>

#include "crypto/blob.h"
#include "crypto/key.h"

using namespace qlhsm::crypto;

namespace {

struct Keks {
  KeyPtr aes = *Key::Generate(alg::kAes128);
  KeyPtr rsa = *Key::Generate(alg::kRsa1024);
};

const Keks &GetKeks() {
  static const Keks keks;
  return keks;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const Keks &keks = GetKeks();
  uint8_t selector = data[0];
  ByteView body(data + 1, size - 1);
  // An algorithm from the table (or none), picked by the second byte.
  const AlgId algs[] = {0,
                        alg::kAes128,
                        alg::kDes,
                        alg::kArc4,
                        alg::kHmacKey,
                        alg::kRsa1024,
                        alg::kSecp256r1,
                        alg::kEd25519,
                        alg::kX448};
  AlgId alg = algs[data[1] % (sizeof algs / sizeof algs[0])];
  switch (selector % 6) {
    case 0:
      (void)Key::Parse(body);
      break;
    case 1: {
      const uint32_t types[] = {blob::kPrivateKey, blob::kPrivateKeyStrict, blob::kPublicKey,
                                blob::kPublicKeyHsm, blob::kPlaintextKey};
      (void)ImportKey(body, types[(selector / 6) % 5], alg, nullptr);
      break;
    }
    case 2:
      (void)ImportKey(body, (selector & 0x40) ? blob::kSimpleOaep : blob::kSimple, alg, keks.rsa);
      break;
    case 3:
      (void)ImportKey(body, (selector & 0x40) ? blob::kWrappedKey : blob::kSymWrappedKey, alg,
                      keks.aes);
      break;
    case 4:
      (void)ImportKey(body, blob::kPrivateKey, alg, keks.aes);
      break;
    default:
      (void)ImportPkcs8Encrypted(body, "pw", alg);
      break;
  }
  return 0;
}
