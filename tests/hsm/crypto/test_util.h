// Helpers of the crypto library's tests.
#ifndef QLHSM_TESTS_CRYPTO_TEST_UTIL_H_
#define QLHSM_TESTS_CRYPTO_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

#include "crypto/bytes.h"
#include "crypto/key.h"
#include "crypto/status.h"

namespace qlhsm::crypto::testing {

inline Bytes Hex(std::string_view hex) {
  Bytes out;
  std::string digits;
  for (char c : hex) {
    if (c != ' ' && c != '\n') digits += c;
  }
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return out;
}

inline Bytes Text(std::string_view s) {
  return Bytes(s.begin(), s.end());
}

template <typename Container>
std::string ToHex(const Container &bytes) {
  static const char *digits = "0123456789abcdef";
  std::string s;
  for (uint8_t b : bytes) {
    s += digits[b >> 4];
    s += digits[b & 15];
  }
  return s;
}

inline KeyPtr SecretKey(AlgId alg, std::string_view hex) {
  auto key = Key::FromSecret(alg, Hex(hex));
  EXPECT_TRUE(key.ok()) << key.status().detail();
  return key.ok() ? *key : nullptr;
}

inline KeyPtr MustGenerate(AlgId alg, uint32_t flags = 0) {
  auto key = Key::Generate(alg, flags);
  EXPECT_TRUE(key.ok()) << "alg " << alg << ": " << key.status().detail();
  return key.ok() ? *key : nullptr;
}

// A fixed RSA key of the data folder (the large sizes take seconds to generate).
inline KeyPtr DataRsaKey(unsigned bits) {
  std::ifstream in(std::string(QLHSM_CRYPTO_TEST_DATA) + "/rsa" + std::to_string(bits) + ".pem");
  std::stringstream pem;
  pem << in.rdbuf();
  std::string text = pem.str();
  // PEM body to DER.
  auto begin = text.find("-----\n");
  auto end = text.find("-----END");
  if (begin == std::string::npos || end == std::string::npos) return nullptr;
  std::string b64;
  for (char c : text.substr(begin + 6, end - begin - 6)) {
    if (c != '\n') b64 += c;
  }
  Bytes der(b64.size());
  int len = EVP_DecodeBlock(der.data(), reinterpret_cast<const unsigned char *>(b64.data()),
                            static_cast<int>(b64.size()));
  if (len < 0) return nullptr;
  size_t pad = 0;
  while (!b64.empty() && b64[b64.size() - 1 - pad] == '=') ++pad;
  der.resize(static_cast<size_t>(len) - pad);
  auto key = Key::FromPkcs8(0, der, false);
  EXPECT_TRUE(key.ok()) << key.status().detail();
  return key.ok() ? *key : nullptr;
}

// A key made by OpenSSL elsewhere (a PEM file, key parameters), taken over through PKCS#8.
// Frees `pkey`.
inline KeyPtr KeyFromPkey(EVP_PKEY *pkey, AlgId alg) {
  PKCS8_PRIV_KEY_INFO *p8 = EVP_PKEY2PKCS8(pkey);
  unsigned char *der = nullptr;
  const int len = i2d_PKCS8_PRIV_KEY_INFO(p8, &der);
  const Bytes pkcs8(der, der + (len > 0 ? len : 0));
  OPENSSL_free(der);
  PKCS8_PRIV_KEY_INFO_free(p8);
  EVP_PKEY_free(pkey);
  auto key = Key::FromPkcs8(alg, pkcs8, true);
  EXPECT_TRUE(key.ok()) << key.status().detail();
  return key.ok() ? *key : nullptr;
}

}  // namespace qlhsm::crypto::testing

#endif  // QLHSM_TESTS_CRYPTO_TEST_UTIL_H_
