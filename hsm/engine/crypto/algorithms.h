// algorithms.h: the identifiers the HSM speaks on the wire (algorithms, hashes, modes, paddings,
// blob types) and what the crypto library knows about each.
//
// The values are those of the client library's general algorithm table; qlapi.h carries the same
// numbers under its own names, and the engine passes them through unchanged.
#ifndef QLHSM_CRYPTO_ALGORITHMS_H_
#define QLHSM_CRYPTO_ALGORITHMS_H_

#include <cstddef>
#include <cstdint>

namespace qlhsm::crypto {

using AlgId = uint32_t;

// Key algorithms.
namespace alg {
inline constexpr AlgId kDes = 1;
inline constexpr AlgId k3Des112 = 2;
inline constexpr AlgId k3Des168 = 3;
inline constexpr AlgId kAes128 = 7;
inline constexpr AlgId kAes192 = 8;
inline constexpr AlgId kAes256 = 9;
inline constexpr AlgId kArc4 = 10;
inline constexpr AlgId kArc5 = 89;  // not in OpenSSL 3: always "not supported"
inline constexpr AlgId kDesX = 91;

inline constexpr AlgId kRsa512 = 4;
inline constexpr AlgId kRsa1024 = 5;
inline constexpr AlgId kRsa2048 = 6;
inline constexpr AlgId kRsa4096 = 11;
inline constexpr AlgId kRsa1152 = 121;
inline constexpr AlgId kRsa1408 = 122;
inline constexpr AlgId kRsa1984 = 123;
inline constexpr AlgId kRsa8192 = 124;
inline constexpr AlgId kRsa2304 = 126;
inline constexpr AlgId kRsa2560 = 127;
inline constexpr AlgId kRsa2816 = 128;
inline constexpr AlgId kRsa3072 = 129;
inline constexpr AlgId kRsa1976 = 130;
inline constexpr AlgId kRsa1536 = 131;

// Elliptic curves: SEC 18..32 (secp192r1 is also X9.62 prime192v1, secp256r1 is prime256v1),
// the other X9.62 prime curves 33..37, Brainpool 38..51 (r1 and t1 alternating).
inline constexpr AlgId kSecp112r1 = 18;
inline constexpr AlgId kSecp112r2 = 19;
inline constexpr AlgId kSecp128r1 = 20;
inline constexpr AlgId kSecp128r2 = 21;
inline constexpr AlgId kSecp160k1 = 22;
inline constexpr AlgId kSecp160r1 = 23;
inline constexpr AlgId kSecp160r2 = 24;
inline constexpr AlgId kSecp192k1 = 25;
inline constexpr AlgId kSecp192r1 = 26;
inline constexpr AlgId kPrime192v1 = 26;  // the same curve as secp192r1
inline constexpr AlgId kSecp224k1 = 27;
inline constexpr AlgId kSecp224r1 = 28;
inline constexpr AlgId kSecp256k1 = 29;
inline constexpr AlgId kSecp256r1 = 30;
inline constexpr AlgId kPrime256v1 = 30;  // the same curve as secp256r1
inline constexpr AlgId kSecp384r1 = 31;
inline constexpr AlgId kSecp521r1 = 32;
inline constexpr AlgId kPrime192v2 = 33;
inline constexpr AlgId kPrime192v3 = 34;
inline constexpr AlgId kPrime239v1 = 35;
inline constexpr AlgId kPrime239v2 = 36;
inline constexpr AlgId kPrime239v3 = 37;
inline constexpr AlgId kBrainpoolP160r1 = 38;
inline constexpr AlgId kBrainpoolP160t1 = 39;
inline constexpr AlgId kBrainpoolP192r1 = 40;
inline constexpr AlgId kBrainpoolP192t1 = 41;
inline constexpr AlgId kBrainpoolP224r1 = 42;
inline constexpr AlgId kBrainpoolP224t1 = 43;
inline constexpr AlgId kBrainpoolP256r1 = 44;
inline constexpr AlgId kBrainpoolP256t1 = 45;
inline constexpr AlgId kBrainpoolP320r1 = 46;
inline constexpr AlgId kBrainpoolP320t1 = 47;
inline constexpr AlgId kBrainpoolP384r1 = 48;
inline constexpr AlgId kBrainpoolP384t1 = 49;
inline constexpr AlgId kBrainpoolP512r1 = 50;
inline constexpr AlgId kBrainpoolP512t1 = 51;

inline constexpr AlgId kEd25519 = 201;
inline constexpr AlgId kEd448 = 202;
inline constexpr AlgId kX25519 = 203;
inline constexpr AlgId kX448 = 204;

// Generic secrets for HMAC (QL_ALG_HMAC_KEY, QL_ALG_HMAC_KEY_512): 32 and 64 bytes when made here,
// any length from 1 to 1024 bytes when imported. They serve HMAC only.
inline constexpr AlgId kHmacKey = 170;
inline constexpr AlgId kHmacKey512 = 171;

// Set by the client on an algorithm to ask for a public-key object on import.
inline constexpr AlgId kPublicKeyObjectBit = 0x80000000u;
}  // namespace alg

// Hash algorithms (the -h words).
namespace hash {
inline constexpr AlgId kMd5 = 1;
inline constexpr AlgId kSha1 = 2;
inline constexpr AlgId kSha256 = 4;
inline constexpr AlgId kSha384 = 5;
inline constexpr AlgId kSha512 = 6;
inline constexpr AlgId kSha224 = 7;
inline constexpr AlgId kSha3_224 = 8;
inline constexpr AlgId kSha3_256 = 9;
inline constexpr AlgId kSha3_384 = 10;
inline constexpr AlgId kSha3_512 = 11;
inline constexpr AlgId kHmacMd5 = 92;
inline constexpr AlgId kHmacSha1 = 93;
inline constexpr AlgId kHmacSha256 = 94;
inline constexpr AlgId kHmacSha384 = 95;
inline constexpr AlgId kHmacSha512 = 96;
inline constexpr AlgId kHmacSha224 = 97;
inline constexpr AlgId kHmacSha3_224 = 98;
inline constexpr AlgId kHmacSha3_256 = 99;
inline constexpr AlgId kHmacSha3_384 = 100;
inline constexpr AlgId kHmacSha3_512 = 101;
inline constexpr AlgId kCmacAes = 250;
inline constexpr AlgId kCmacDes = 251;
// The identity function: the "digest" is the message itself (EdDSA signs the message).
inline constexpr AlgId kIdFunc = 255;
}  // namespace hash

// Cipher modes (bits, as the key's mode parameter holds them). There is no CFB.
namespace mode {
inline constexpr uint32_t kNone = 0;
inline constexpr uint32_t kEcb = 1;
inline constexpr uint32_t kCbc = 2;
inline constexpr uint32_t kKwp = 4;
inline constexpr uint32_t kOfb = 8;
inline constexpr uint32_t kCtr = 16;
inline constexpr uint32_t kGcm = 32;
inline constexpr uint32_t kKw = 64;
}  // namespace mode

// Paddings (the key's padding parameter).
namespace padding {
inline constexpr uint32_t kNone = 0;
inline constexpr uint32_t kPkcs5 = 1;
inline constexpr uint32_t kZero = 2;
inline constexpr uint32_t kRsaNoPadding = 3;
inline constexpr uint32_t kForceActualRsa = 4;
inline constexpr uint32_t kRsaOaep = 5;  // OAEP with SHA-1
}  // namespace padding

// Export and import blob types; formats in blob.h.
namespace blob {
inline constexpr uint32_t kPrivateKey = 1;
inline constexpr uint32_t kPublicKey = 2;
inline constexpr uint32_t kSimple = 3;
inline constexpr uint32_t kPlaintextKey = 4;
inline constexpr uint32_t kSimpleOaep = 7;
inline constexpr uint32_t kSymWrappedKey = 9;
inline constexpr uint32_t kPublicKeyHsm = 11;
inline constexpr uint32_t kPrivateKeyStrict = 14;
inline constexpr uint32_t kWrappedKey = 16;
}  // namespace blob

// Digest identifiers of the RSA padding helper (DoRSAPadding); 0 = no DigestInfo.
namespace digest_id {
inline constexpr int kBare = 0;
inline constexpr int kMd5 = 2;
inline constexpr int kSha1 = 3;
inline constexpr int kSha256 = 4;
inline constexpr int kSha384 = 5;
inline constexpr int kSha512 = 6;
inline constexpr int kSha224 = 7;
}  // namespace digest_id

// Key generation flags the library acts on (the others belong to the engine).
namespace keyflag {
inline constexpr uint32_t kRsaExponent3 = 2048;
}

enum class KeyKind {
  kSymmetric,  // a block or stream cipher key
  kHmac,       // a generic secret for HMAC
  kRsa,
  kEc,          // ECDSA / ECDH on a named curve
  kEdwards,     // Ed25519, Ed448
  kMontgomery,  // X25519, X448
};

// What the library knows about one key algorithm.
struct AlgInfo {
  AlgId id;
  const char *name;  // the table's word (rsa2048, ecc_secp256r1, aes128, ...)
  KeyKind kind;
  unsigned bits;          // RSA modulus bits; symmetric key length in bits; curve size
  const char *ossl_name;  // RSA: "RSA"; EC: the group name; Edwards/Montgomery: the key type;
                          // symmetric: the cipher family prefix
};

// The entry of a key algorithm, or null when the id is not one (arc5 has an entry-less refusal:
// see KeyAlgorithmStatus).
const AlgInfo *FindKeyAlgorithm(AlgId id);
// The entry whose ossl_name and kind match (reverse lookup for imported keys): RSA by bits,
// curves by group name.
const AlgInfo *FindRsaAlgorithm(unsigned bits);
const AlgInfo *FindCurveAlgorithm(const char *group_name);

// The length in bytes of a hash algorithm's output, 0 for idfunc (variable) and for unknown ids.
size_t HashSize(AlgId hash_alg);
// True for every hash id above (digests, HMAC, CMAC, idfunc).
bool IsHashAlgorithm(AlgId hash_alg);
// True for the plain digests 1..11 (not HMAC, CMAC or idfunc).
bool IsPlainDigest(AlgId hash_alg);
// The OpenSSL digest name of a plain digest or of an HMAC's inner digest; null otherwise.
const char *DigestName(AlgId hash_alg);

}  // namespace qlhsm::crypto

#endif  // QLHSM_CRYPTO_ALGORITHMS_H_
