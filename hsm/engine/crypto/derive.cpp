#include "crypto/derive.h"

#include <openssl/core_names.h>
#include <openssl/kdf.h>

namespace qlhsm::crypto {

Result<SecretBytes> Derive(const Key &own, const Key &peer, Kdf kdf, size_t out_len,
                           ByteView shared_info) {
  if (own.kind() != KeyKind::kEc && own.kind() != KeyKind::kMontgomery) {
    return Status(Code::kKeyCannotDo, "this key does not agree secrets");
  }
  if (!own.has_private()) return Status(Code::kKeyCannotDo, "a public key cannot agree");
  if (peer.algorithm() != own.algorithm()) {
    return Status(Code::kKeyCannotDo, "the peer key is of another algorithm");
  }
  if (kdf != Kdf::kRawSecret && kdf != Kdf::kX963Sha256) {
    return Status(Code::kBadAlgorithm, "unknown key-derivation function");
  }
  if (kdf == Kdf::kX963Sha256 && (out_len == 0 || out_len > 1024)) {
    return Status(Code::kBadLength, "output length");
  }
  ossl::PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(ossl::LibCtx(), own.pkey(), nullptr));
  if (!ctx || EVP_PKEY_derive_init(ctx.get()) <= 0 ||
      EVP_PKEY_derive_set_peer(ctx.get(), peer.pkey()) <= 0) {
    return ossl::Fail("derive init");
  }
  size_t len = 0;
  if (EVP_PKEY_derive(ctx.get(), nullptr, &len) <= 0) return ossl::Fail("derive size");
  SecretBytes secret(len);
  if (EVP_PKEY_derive(ctx.get(), secret.data(), &len) <= 0) return ossl::Fail("derive");
  secret.resize(len);
  if (kdf == Kdf::kRawSecret) return secret;

  std::unique_ptr<EVP_KDF, decltype(&EVP_KDF_free)> x963(
      EVP_KDF_fetch(ossl::LibCtx(), "X963KDF", nullptr), EVP_KDF_free);
  std::unique_ptr<EVP_KDF_CTX, decltype(&EVP_KDF_CTX_free)> kctx(
      x963 ? EVP_KDF_CTX_new(x963.get()) : nullptr, EVP_KDF_CTX_free);
  if (!kctx) return ossl::Fail("X963KDF");
  OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, const_cast<char *>("SHA256"), 0),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, secret.data(), secret.size()),
      OSSL_PARAM_construct_octet_string(
          OSSL_KDF_PARAM_INFO, const_cast<uint8_t *>(shared_info.data()), shared_info.size()),
      OSSL_PARAM_construct_end()};
  SecretBytes out(out_len);
  if (EVP_KDF_derive(kctx.get(), out.data(), out.size(), params) != 1) {
    return ossl::Fail("X963KDF derive");
  }
  return out;
}

}  // namespace qlhsm::crypto
