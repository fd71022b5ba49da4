#include "crypto/hash.h"

#include <openssl/core_names.h>
#include <openssl/kdf.h>

#include "crypto/ossl.h"

namespace qlhsm::crypto {
namespace {

bool IsHmac(AlgId alg) {
  return alg >= hash::kHmacMd5 && alg <= hash::kHmacSha3_512;
}
bool IsCmac(AlgId alg) {
  return alg == hash::kCmacAes || alg == hash::kCmacDes;
}

// The CBC cipher a CMAC runs over, or null when the key does not suit the CMAC.
const char *CmacCipher(AlgId alg, const Key &key) {
  if (alg == hash::kCmacAes) {
    switch (key.algorithm()) {
      case alg::kAes128:
        return "AES-128-CBC";
      case alg::kAes192:
        return "AES-192-CBC";
      case alg::kAes256:
        return "AES-256-CBC";
      default:
        return nullptr;
    }
  }
  switch (key.algorithm()) {
    case alg::kDes:
      return "DES-CBC";
    case alg::k3Des112:
      return "DES-EDE-CBC";
    case alg::k3Des168:
      return "DES-EDE3-CBC";
    default:
      return nullptr;
  }
}

}  // namespace

Result<HashState> HashState::Create(AlgId alg, KeyPtr key) {
  HashState h;
  h.alg_ = alg;
  if (IsPlainDigest(alg) || alg == hash::kIdFunc) {
    if (key) return Status(Code::kKeyCannotDo, "a plain digest takes no key");
    if (alg == hash::kIdFunc) return h;
    const EVP_MD *md = ossl::Digest(DigestName(alg));
    if (md == nullptr) return Status(Code::kNotSupported, "digest not available");
    h.md_.reset(EVP_MD_CTX_new());
    if (!h.md_ || EVP_DigestInit_ex2(h.md_.get(), md, nullptr) != 1) {
      return ossl::Fail("EVP_DigestInit_ex2");
    }
    return h;
  }
  if (!IsHmac(alg) && !IsCmac(alg)) return Status(Code::kBadAlgorithm, "unknown hash algorithm");
  if (!key || !key->is_secret()) return Status(Code::kKeyCannotDo, "a MAC needs a secret key");
  OSSL_PARAM params[2] = {OSSL_PARAM_construct_end(), OSSL_PARAM_construct_end()};
  EVP_MAC *mac = nullptr;
  if (IsHmac(alg)) {
    mac = ossl::Mac("HMAC");
    params[0] = OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST,
                                                 const_cast<char *>(DigestName(alg)), 0);
  } else {
    const char *cipher = CmacCipher(alg, *key);
    if (cipher == nullptr) return Status(Code::kKeyCannotDo, "the key does not suit this CMAC");
    mac = ossl::Mac("CMAC");
    params[0] =
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER, const_cast<char *>(cipher), 0);
  }
  if (mac == nullptr) return Status(Code::kNotSupported, "MAC not available");
  h.mac_.reset(EVP_MAC_CTX_new(mac));
  ByteView secret = key->secret();
  if (!h.mac_ || EVP_MAC_init(h.mac_.get(), secret.data(), secret.size(), params) != 1) {
    return ossl::Fail("EVP_MAC_init");
  }
  h.key_ = std::move(key);
  return h;
}

Status HashState::Update(ByteView data) {
  set_value_.reset();
  if (md_) {
    if (EVP_DigestUpdate(md_.get(), data.data(), data.size()) != 1) {
      return ossl::Fail("EVP_DigestUpdate");
    }
  } else if (mac_) {
    if (EVP_MAC_update(mac_.get(), data.data(), data.size()) != 1) {
      return ossl::Fail("EVP_MAC_update");
    }
  } else {
    data_.insert(data_.end(), data.begin(), data.end());
  }
  return {};
}

Result<Bytes> HashState::Value() const {
  if (set_value_) return *set_value_;
  if (md_) {
    // Finalise a copy, so the running state goes on.
    ossl::MdCtxPtr copy(EVP_MD_CTX_new());
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned int len = 0;
    if (!copy || EVP_MD_CTX_copy_ex(copy.get(), md_.get()) != 1 ||
        EVP_DigestFinal_ex(copy.get(), out.data(), &len) != 1) {
      return ossl::Fail("digest value");
    }
    out.resize(len);
    return out;
  }
  if (mac_) {
    ossl::MacCtxPtr copy(EVP_MAC_CTX_dup(mac_.get()));
    Bytes out(EVP_MAX_MD_SIZE);
    size_t len = 0;
    if (!copy || EVP_MAC_final(copy.get(), out.data(), &len, out.size()) != 1) {
      return ossl::Fail("MAC value");
    }
    out.resize(len);
    return out;
  }
  return Bytes(data_.begin(), data_.end());
}

Status HashState::SetValue(ByteView value) {
  if (alg_ != hash::kIdFunc && value.size() != HashSize(alg_)) {
    return Status(Code::kBadLength, "hash value length");
  }
  // The running state starts again, so data fed after this is hashed from scratch.
  if (md_ && EVP_DigestInit_ex2(md_.get(), nullptr, nullptr) != 1) return ossl::Fail("restart");
  if (mac_ && EVP_MAC_init(mac_.get(), nullptr, 0, nullptr) != 1) return ossl::Fail("restart");
  data_.clear();
  set_value_ = Bytes(value.begin(), value.end());
  return {};
}

size_t HashState::size() const {
  if (set_value_) return set_value_->size();
  if (alg_ == hash::kIdFunc) return data_.size();
  return HashSize(alg_);
}

Result<Bytes> Digest(AlgId alg, ByteView data) {
  auto h = HashState::Create(alg);
  if (!h.ok()) return h.status();
  if (Status s = h->Update(data); !s.ok()) return s;
  return h->Value();
}

Result<Bytes> Mac(AlgId alg, const KeyPtr &key, ByteView data) {
  auto h = HashState::Create(alg, key);
  if (!h.ok()) return h.status();
  if (Status s = h->Update(data); !s.ok()) return s;
  return h->Value();
}

Result<SecretBytes> HkdfSha256(ByteView ikm, ByteView salt, ByteView info, size_t out_len) {
  if (out_len == 0 || out_len > 255 * 32) return Status(Code::kBadLength, "HKDF length");
  EVP_KDF *kdf = EVP_KDF_fetch(ossl::LibCtx(), "HKDF", nullptr);
  if (kdf == nullptr) return ossl::Fail("EVP_KDF_fetch(HKDF)");
  EVP_KDF_CTX *ctx = EVP_KDF_CTX_new(kdf);
  EVP_KDF_free(kdf);
  if (ctx == nullptr) return ossl::Fail("EVP_KDF_CTX_new");
  char digest[] = "SHA256";
  // OpenSSL takes the buffers as void*; it only reads them.
  auto *key = const_cast<uint8_t *>(ikm.data());
  auto *salt_p = const_cast<uint8_t *>(salt.data());
  auto *info_p = const_cast<uint8_t *>(info.data());
  // An empty salt is left out: HKDF then uses a block of zeros, as RFC 5869 says.
  OSSL_PARAM params[5];
  size_t n = 0;
  params[n++] = OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0);
  params[n++] = OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, key, ikm.size());
  if (!salt.empty())
    params[n++] = OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, salt_p, salt.size());
  if (!info.empty())
    params[n++] = OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, info_p, info.size());
  params[n] = OSSL_PARAM_construct_end();
  SecretBytes out(out_len);
  const int ok = EVP_KDF_derive(ctx, out.data(), out.size(), params);
  EVP_KDF_CTX_free(ctx);
  if (ok != 1) return ossl::Fail("EVP_KDF_derive(HKDF)");
  return out;
}

}  // namespace qlhsm::crypto
