#include "crypto/algorithms.h"

#include <cstring>
#include <iterator>

namespace qlhsm::crypto {
namespace {

// The key algorithms, in the order of the general table. EC sizes are the field sizes.
constexpr AlgInfo kKeyAlgorithms[] = {
    {1, "des", KeyKind::kSymmetric, 64, "DES"},
    {91, "desx", KeyKind::kSymmetric, 192, "DESX"},
    {2, "3des112", KeyKind::kSymmetric, 128, "DES-EDE"},
    {3, "3des168", KeyKind::kSymmetric, 192, "DES-EDE3"},
    {7, "aes128", KeyKind::kSymmetric, 128, "AES-128"},
    {8, "aes192", KeyKind::kSymmetric, 192, "AES-192"},
    {9, "aes256", KeyKind::kSymmetric, 256, "AES-256"},
    {10, "arc4", KeyKind::kSymmetric, 128, "RC4"},
    {4, "rsa512", KeyKind::kRsa, 512, "RSA"},
    {5, "rsa1024", KeyKind::kRsa, 1024, "RSA"},
    {6, "rsa2048", KeyKind::kRsa, 2048, "RSA"},
    {11, "rsa4096", KeyKind::kRsa, 4096, "RSA"},
    {121, "rsa1152", KeyKind::kRsa, 1152, "RSA"},
    {122, "rsa1408", KeyKind::kRsa, 1408, "RSA"},
    {131, "rsa1536", KeyKind::kRsa, 1536, "RSA"},
    {130, "rsa1976", KeyKind::kRsa, 1976, "RSA"},
    {123, "rsa1984", KeyKind::kRsa, 1984, "RSA"},
    {124, "rsa8192", KeyKind::kRsa, 8192, "RSA"},
    {126, "rsa2304", KeyKind::kRsa, 2304, "RSA"},
    {127, "rsa2560", KeyKind::kRsa, 2560, "RSA"},
    {128, "rsa2816", KeyKind::kRsa, 2816, "RSA"},
    {129, "rsa3072", KeyKind::kRsa, 3072, "RSA"},
    {18, "ecc_secp112r1", KeyKind::kEc, 112, "secp112r1"},
    {19, "ecc_secp112r2", KeyKind::kEc, 112, "secp112r2"},
    {20, "ecc_secp128r1", KeyKind::kEc, 128, "secp128r1"},
    {21, "ecc_secp128r2", KeyKind::kEc, 128, "secp128r2"},
    {22, "ecc_secp160k1", KeyKind::kEc, 160, "secp160k1"},
    {23, "ecc_secp160r1", KeyKind::kEc, 160, "secp160r1"},
    {24, "ecc_secp160r2", KeyKind::kEc, 160, "secp160r2"},
    {25, "ecc_secp192k1", KeyKind::kEc, 192, "secp192k1"},
    {26, "ecc_secp192r1", KeyKind::kEc, 192, "prime192v1"},
    {27, "ecc_secp224k1", KeyKind::kEc, 224, "secp224k1"},
    {28, "ecc_secp224r1", KeyKind::kEc, 224, "secp224r1"},
    {29, "ecc_secp256k1", KeyKind::kEc, 256, "secp256k1"},
    {30, "ecc_secp256r1", KeyKind::kEc, 256, "prime256v1"},
    {31, "ecc_secp384r1", KeyKind::kEc, 384, "secp384r1"},
    {32, "ecc_secp521r1", KeyKind::kEc, 521, "secp521r1"},
    {33, "ecc_x9_62_prime192v2", KeyKind::kEc, 192, "prime192v2"},
    {34, "ecc_x9_62_prime192v3", KeyKind::kEc, 192, "prime192v3"},
    {35, "ecc_x9_62_prime239v1", KeyKind::kEc, 239, "prime239v1"},
    {36, "ecc_x9_62_prime239v2", KeyKind::kEc, 239, "prime239v2"},
    {37, "ecc_x9_62_prime239v3", KeyKind::kEc, 239, "prime239v3"},
    {38, "ecc_brainpool_p160r1", KeyKind::kEc, 160, "brainpoolP160r1"},
    {39, "ecc_brainpool_p160t1", KeyKind::kEc, 160, "brainpoolP160t1"},
    {40, "ecc_brainpool_p192r1", KeyKind::kEc, 192, "brainpoolP192r1"},
    {41, "ecc_brainpool_p192t1", KeyKind::kEc, 192, "brainpoolP192t1"},
    {42, "ecc_brainpool_p224r1", KeyKind::kEc, 224, "brainpoolP224r1"},
    {43, "ecc_brainpool_p224t1", KeyKind::kEc, 224, "brainpoolP224t1"},
    {44, "ecc_brainpool_p256r1", KeyKind::kEc, 256, "brainpoolP256r1"},
    {45, "ecc_brainpool_p256t1", KeyKind::kEc, 256, "brainpoolP256t1"},
    {46, "ecc_brainpool_p320r1", KeyKind::kEc, 320, "brainpoolP320r1"},
    {47, "ecc_brainpool_p320t1", KeyKind::kEc, 320, "brainpoolP320t1"},
    {48, "ecc_brainpool_p384r1", KeyKind::kEc, 384, "brainpoolP384r1"},
    {49, "ecc_brainpool_p384t1", KeyKind::kEc, 384, "brainpoolP384t1"},
    {50, "ecc_brainpool_p512r1", KeyKind::kEc, 512, "brainpoolP512r1"},
    {51, "ecc_brainpool_p512t1", KeyKind::kEc, 512, "brainpoolP512t1"},
    {201, "ed25519", KeyKind::kEdwards, 256, "ED25519"},
    {202, "ed448", KeyKind::kEdwards, 456, "ED448"},
    {203, "x25519", KeyKind::kMontgomery, 256, "X25519"},
    {204, "x448", KeyKind::kMontgomery, 448, "X448"},
    {alg::kHmacKey, "hmac", KeyKind::kHmac, 256, "HMAC"},
    {alg::kHmacKey512, "hmac512", KeyKind::kHmac, 512, "HMAC"},
};

struct HashInfo {
  AlgId id;
  size_t size;
  const char *digest;  // the plain digest, or an HMAC's inner digest
};

constexpr HashInfo kHashes[] = {
    {1, 16, "MD5"},       {2, 20, "SHA1"},      {7, 28, "SHA224"},     {4, 32, "SHA256"},
    {5, 48, "SHA384"},    {6, 64, "SHA512"},    {8, 28, "SHA3-224"},   {9, 32, "SHA3-256"},
    {10, 48, "SHA3-384"}, {11, 64, "SHA3-512"}, {92, 16, "MD5"},       {93, 20, "SHA1"},
    {94, 32, "SHA256"},   {95, 48, "SHA384"},   {96, 64, "SHA512"},    {97, 28, "SHA224"},
    {98, 28, "SHA3-224"}, {99, 32, "SHA3-256"}, {100, 48, "SHA3-384"}, {101, 64, "SHA3-512"},
    {250, 16, nullptr},   {251, 8, nullptr},    {255, 0, nullptr},
};

const HashInfo *FindHash(AlgId id) {
  for (const auto &h : kHashes) {
    if (h.id == id) return &h;
  }
  return nullptr;
}

}  // namespace

const AlgInfo *FindKeyAlgorithm(AlgId id) {
  for (const auto &a : kKeyAlgorithms) {
    if (a.id == id) return &a;
  }
  return nullptr;
}

const AlgInfo *FindRsaAlgorithm(unsigned bits) {
  for (const auto &a : kKeyAlgorithms) {
    if (a.kind == KeyKind::kRsa && a.bits == bits) return &a;
  }
  return nullptr;
}

const AlgInfo *FindCurveAlgorithm(const char *group_name) {
  if (group_name == nullptr) return nullptr;
  for (const auto &a : kKeyAlgorithms) {
    if (a.kind == KeyKind::kEc && std::strcmp(a.ossl_name, group_name) == 0) return &a;
  }
  // OpenSSL may answer the SEC names of the two X9.62 curves.
  if (std::strcmp(group_name, "secp192r1") == 0) return FindKeyAlgorithm(alg::kSecp192r1);
  if (std::strcmp(group_name, "secp256r1") == 0) return FindKeyAlgorithm(alg::kSecp256r1);
  return nullptr;
}

size_t HashSize(AlgId hash_alg) {
  const HashInfo *h = FindHash(hash_alg);
  return h ? h->size : 0;
}

bool IsHashAlgorithm(AlgId hash_alg) {
  return FindHash(hash_alg) != nullptr;
}

bool IsPlainDigest(AlgId hash_alg) {
  return hash_alg >= 1 && hash_alg <= 11 && hash_alg != 3;
}

const char *DigestName(AlgId hash_alg) {
  const HashInfo *h = FindHash(hash_alg);
  return h ? h->digest : nullptr;
}

}  // namespace qlhsm::crypto
