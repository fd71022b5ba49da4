// blob.h: key export and import.
//
// Blob formats, by type (the values of blob::):
//   kPrivateKey (1)        PKCS#8 PrivateKeyInfo, DER. With a key-encryption key (AES), that DER
//                          wrapped with RFC 5649 under it. A public-key object exports its
//                          SubjectPublicKeyInfo instead, and importing such a blob makes a
//                          public-key object.
//   kPrivateKeyStrict (14) the same, but only a private key: a public-key object is refused on
//                          export (kKeyCannotDo), a public blob on import (kBadData), and an
//                          imported key must pass OpenSSL's key-pair check.
//   kPublicKey (2),
//   kPublicKeyHsm (11)     SubjectPublicKeyInfo, DER; importing makes a public-key object.
//   kPlaintextKey (4)      the raw secret of a symmetric or HMAC key.
//   kSimple (3)            a symmetric key's raw secret encrypted under an RSA key with PKCS#1
//                          v1.5 (export takes the RSA key's public half, import its private half).
//   kSimpleOaep (7)        the same with OAEP (SHA-1, MGF1-SHA-1, no label).
//   kSymWrappedKey (9)     a symmetric key's raw secret wrapped under an AES key: RFC 3394 when
//                          its length is a multiple of 8 and at least 16, RFC 5649 otherwise.
//   kWrappedKey (16)       any private or secret key wrapped with RFC 5649 under an AES key: the
//                          PKCS#8 DER of an asymmetric key, the raw secret of a symmetric one.
// Exportability is the engine's to check; these functions export whatever they are given.
#ifndef QLHSM_CRYPTO_BLOB_H_
#define QLHSM_CRYPTO_BLOB_H_

#include <string_view>

#include "crypto/algorithms.h"
#include "crypto/bytes.h"
#include "crypto/key.h"
#include "crypto/status.h"

namespace qlhsm::crypto {

// `kek` may be null where the type takes none. Refusals: kBadAlgorithm (unknown type),
// kKeyCannotDo (the key or the KEK is of the wrong kind for the type), kBadArgument (a KEK is
// missing).
Result<SecretBytes> ExportKey(const KeyPtr &key, const KeyPtr &kek, uint32_t type);

// `alg` names the key's algorithm; 0 lets an asymmetric blob tell it; alg::kPublicKeyObjectBit
// asks for a public-key object (from a private blob: its public half). Refusals as ExportKey,
// plus kBadData (a malformed blob), kBadTag (a wrapped blob whose integrity check fails),
// kBadPadding (a simple blob that does not decrypt), kBadLength (a secret of the wrong length).
Result<KeyPtr> ImportKey(ByteView blob, uint32_t type, AlgId alg, const KeyPtr &kek);

// PKCS#8 EncryptedPrivateKeyInfo (DER) under a password: PBES2 with PBKDF2-HMAC-SHA-256
// (2048 iterations, random 16-byte salt) and AES-256-CBC. Import answers kBadData when the
// password or the blob is wrong.
Result<Bytes> ExportPkcs8Encrypted(const Key &key, std::string_view password);
Result<KeyPtr> ImportPkcs8Encrypted(ByteView der, std::string_view password, AlgId alg);

}  // namespace qlhsm::crypto

#endif  // QLHSM_CRYPTO_BLOB_H_
