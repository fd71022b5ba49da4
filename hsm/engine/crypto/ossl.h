// ossl.h: the OpenSSL plumbing shared by the crypto library (internal; not for the engine).
//
// All keys, ciphers and digests come from one library context that holds the default and the
// legacy providers (the legacy one brings DES, DESX and RC4). It is made once, on first use, from
// any thread; fetched ciphers, digests and MACs are cached there for the life of the process.
#ifndef QLHSM_CRYPTO_OSSL_H_
#define QLHSM_CRYPTO_OSSL_H_

#include <openssl/evp.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "crypto/bytes.h"
#include "crypto/status.h"

namespace qlhsm::crypto::ossl {

struct PkeyFree {
  void operator()(EVP_PKEY *p) const { EVP_PKEY_free(p); }
};
struct PkeyCtxFree {
  void operator()(EVP_PKEY_CTX *p) const { EVP_PKEY_CTX_free(p); }
};
struct CipherCtxFree {
  void operator()(EVP_CIPHER_CTX *p) const { EVP_CIPHER_CTX_free(p); }
};
struct MdCtxFree {
  void operator()(EVP_MD_CTX *p) const { EVP_MD_CTX_free(p); }
};
struct MacCtxFree {
  void operator()(EVP_MAC_CTX *p) const { EVP_MAC_CTX_free(p); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree>;
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, MdCtxFree>;
using MacCtxPtr = std::unique_ptr<EVP_MAC_CTX, MacCtxFree>;

// The library context with the default and legacy providers.
OSSL_LIB_CTX *LibCtx();
// True when the legacy provider loaded (DES, DESX, RC4 need it).
bool HasLegacy();

// Fetched once and kept; null when the provider lacks the algorithm.
const EVP_CIPHER *Cipher(const std::string &name);
const EVP_MD *Digest(const std::string &name);
EVP_MAC *Mac(const std::string &name);

// One MAC over the parts, one after the other: "HMAC" with `param` OSSL_MAC_PARAM_DIGEST, or
// "CMAC" with OSSL_MAC_PARAM_CIPHER, and `value` the digest or cipher name.
Result<SecretBytes> ComputeMac(const char *name, const char *param, const char *value, ByteView key,
                               std::initializer_list<ByteView> parts);

// An internal-error status naming the failed step, with OpenSSL's error queue drained into it.
Status Fail(const char *what);
// Drops whatever OpenSSL left in this thread's error queue (after an expected failure).
void ClearErrors();

// Random bytes from the library context's generator.
Status RandomBytes(std::span<uint8_t> out);

}  // namespace qlhsm::crypto::ossl

#endif  // QLHSM_CRYPTO_OSSL_H_
