#include "crypto/sign.h"

#include <openssl/rsa.h>

#include <algorithm>

namespace qlhsm::crypto {
namespace {

// DigestInfo prefixes (RFC 8017, section 9.2, note 1; the SHA-3 ones follow the same pattern with
// the NIST hash OIDs 2.16.840.1.101.3.4.2.7 to .10).
constexpr uint8_t kMd5Info[] = {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48,
                                0x86, 0xf7, 0x0d, 0x02, 0x05, 0x05, 0x00, 0x04, 0x10};
constexpr uint8_t kSha1Info[] = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e,
                                 0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14};
#define QL_NIST_HASH_INFO(total, oid_last, len)                                                    \
  {                                                                                                \
    0x30, total, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, oid_last, \
        0x05, 0x00, 0x04, len                                                                      \
  }
constexpr uint8_t kSha224Info[] = QL_NIST_HASH_INFO(0x2d, 0x04, 0x1c);
constexpr uint8_t kSha256Info[] = QL_NIST_HASH_INFO(0x31, 0x01, 0x20);
constexpr uint8_t kSha384Info[] = QL_NIST_HASH_INFO(0x41, 0x02, 0x30);
constexpr uint8_t kSha512Info[] = QL_NIST_HASH_INFO(0x51, 0x03, 0x40);
constexpr uint8_t kSha3_224Info[] = QL_NIST_HASH_INFO(0x2d, 0x07, 0x1c);
constexpr uint8_t kSha3_256Info[] = QL_NIST_HASH_INFO(0x31, 0x08, 0x20);
constexpr uint8_t kSha3_384Info[] = QL_NIST_HASH_INFO(0x41, 0x09, 0x30);
constexpr uint8_t kSha3_512Info[] = QL_NIST_HASH_INFO(0x51, 0x0a, 0x40);
#undef QL_NIST_HASH_INFO

// PKCS#1 type 1 needs at least 8 bytes of FF plus 00 01 and the 00 separator.
constexpr size_t kPkcs1Overhead = 11;

Status CanSign(const Key &key, bool need_private) {
  if (key.is_secret() || key.kind() == KeyKind::kMontgomery) {
    return Status(Code::kKeyCannotDo, "this key cannot sign");
  }
  if (need_private && !key.has_private()) {
    return Status(Code::kKeyCannotDo, "a public key cannot sign");
  }
  return {};
}

Status CheckDigest(AlgId hash_alg, ByteView digest) {
  if (!IsHashAlgorithm(hash_alg)) return Status(Code::kBadAlgorithm, "unknown hash algorithm");
  if (hash_alg == hash::kIdFunc) return {};
  if (digest.size() != HashSize(hash_alg)) return Status(Code::kBadLength, "digest length");
  return {};
}

// What an RSA signature's type-1 block carries: DigestInfo || digest, or the bare value.
Result<Bytes> RsaPayload(const Key &key, AlgId hash_alg, ByteView digest, uint32_t flags) {
  ByteView prefix = DigestInfoPrefix(hash_alg);
  if (prefix.empty() && (flags & kSignNoLegacy) != 0) {
    return Status(Code::kNotSupported, "legacy (bare-value) RSA signature refused");
  }
  if (digest.empty()) return Status(Code::kBadLength, "empty value");
  Bytes t(prefix.begin(), prefix.end());
  t.insert(t.end(), digest.begin(), digest.end());
  if (t.size() + kPkcs1Overhead > key.length_bytes()) {
    return Status(Code::kDigestTooLarge, "digest does not fit the RSA key");
  }
  return t;
}

Result<Bytes> PkeySign(const Key &key, ByteView tbs, int rsa_padding) {
  ossl::PkeyCtxPtr ctx = key.TakeSignCtx();
  if (!ctx) return ossl::Fail("signing context");
  if (rsa_padding != 0 && EVP_PKEY_CTX_set_rsa_padding(ctx.get(), rsa_padding) <= 0) {
    return ossl::Fail("RSA padding");
  }
  size_t len = 0;
  if (EVP_PKEY_sign(ctx.get(), nullptr, &len, tbs.data(), tbs.size()) <= 0) {
    return ossl::Fail("EVP_PKEY_sign size");
  }
  Bytes sig(len);
  if (EVP_PKEY_sign(ctx.get(), sig.data(), &len, tbs.data(), tbs.size()) <= 0) {
    // For raw RSA the only input error left is a block not below the modulus.
    if (rsa_padding == RSA_NO_PADDING) {
      ossl::ClearErrors();
      return Status(Code::kBadData, "block not below the modulus");
    }
    return ossl::Fail("EVP_PKEY_sign");
  }
  key.GiveBackSignCtx(std::move(ctx));  // only a context that just worked goes back
  sig.resize(len);
  return sig;
}

Status PkeyVerify(const Key &key, ByteView tbs, ByteView sig, int rsa_padding) {
  ossl::PkeyCtxPtr ctx = key.TakeVerifyCtx();
  if (!ctx) return ossl::Fail("EVP_PKEY_verify_init");
  if (rsa_padding != 0 && EVP_PKEY_CTX_set_rsa_padding(ctx.get(), rsa_padding) <= 0) {
    return ossl::Fail("RSA padding");
  }
  int rc = EVP_PKEY_verify(ctx.get(), sig.data(), sig.size(), tbs.data(), tbs.size());
  if (rc != 1) {
    ossl::ClearErrors();
    return Status(Code::kBadSignature, "signature does not verify");
  }
  key.GiveBackVerifyCtx(std::move(ctx));  // only a context that just worked goes back
  return {};
}

Result<Bytes> EdSign(const Key &key, ByteView msg) {
  ossl::MdCtxPtr md(EVP_MD_CTX_new());
  if (!md || EVP_DigestSignInit_ex(md.get(), nullptr, nullptr, ossl::LibCtx(), nullptr, key.pkey(),
                                   nullptr) != 1) {
    return ossl::Fail("EVP_DigestSignInit_ex");
  }
  size_t len = 0;
  if (EVP_DigestSign(md.get(), nullptr, &len, msg.data(), msg.size()) != 1) {
    return ossl::Fail("EVP_DigestSign size");
  }
  Bytes sig(len);
  if (EVP_DigestSign(md.get(), sig.data(), &len, msg.data(), msg.size()) != 1) {
    return ossl::Fail("EVP_DigestSign");
  }
  sig.resize(len);
  return sig;
}

Status EdVerify(const Key &key, ByteView msg, ByteView sig) {
  ossl::MdCtxPtr md(EVP_MD_CTX_new());
  if (!md || EVP_DigestVerifyInit_ex(md.get(), nullptr, nullptr, ossl::LibCtx(), nullptr,
                                     key.pkey(), nullptr) != 1) {
    return ossl::Fail("EVP_DigestVerifyInit_ex");
  }
  if (EVP_DigestVerify(md.get(), sig.data(), sig.size(), msg.data(), msg.size()) != 1) {
    ossl::ClearErrors();
    return Status(Code::kBadSignature, "signature does not verify");
  }
  return {};
}

}  // namespace

ByteView DigestInfoPrefix(AlgId hash_alg) {
  switch (hash_alg) {
    case hash::kMd5:
      return kMd5Info;
    case hash::kSha1:
      return kSha1Info;
    case hash::kSha224:
      return kSha224Info;
    case hash::kSha256:
      return kSha256Info;
    case hash::kSha384:
      return kSha384Info;
    case hash::kSha512:
      return kSha512Info;
    case hash::kSha3_224:
      return kSha3_224Info;
    case hash::kSha3_256:
      return kSha3_256Info;
    case hash::kSha3_384:
      return kSha3_384Info;
    case hash::kSha3_512:
      return kSha3_512Info;
    default:
      return {};
  }
}

Result<size_t> SignatureSize(const Key &key) {
  if (Status s = CanSign(key, false); !s.ok()) return s;
  return static_cast<size_t>(EVP_PKEY_get_size(key.pkey()));
}

Result<Bytes> Sign(const Key &key, AlgId hash_alg, ByteView digest, uint32_t flags) {
  if (Status s = CanSign(key, true); !s.ok()) return s;
  if (Status s = CheckDigest(hash_alg, digest); !s.ok()) return s;
  switch (key.kind()) {
    case KeyKind::kRsa: {
      auto t = RsaPayload(key, hash_alg, digest, flags);
      if (!t.ok()) return t.status();
      return PkeySign(key, *t, RSA_PKCS1_PADDING);
    }
    case KeyKind::kEc:
      if (digest.empty()) return Status(Code::kBadLength, "empty value");
      return PkeySign(key, digest, 0);
    case KeyKind::kEdwards:
      if (hash_alg != hash::kIdFunc) {
        return Status(Code::kNotSupported, "EdDSA signs the message: use idfunc");
      }
      return EdSign(key, digest);
    default:
      return Status(Code::kKeyCannotDo, "this key cannot sign");
  }
}

Status Verify(const Key &key, AlgId hash_alg, ByteView digest, ByteView signature, uint32_t flags) {
  if (Status s = CanSign(key, false); !s.ok()) return s;
  if (Status s = CheckDigest(hash_alg, digest); !s.ok()) return s;
  switch (key.kind()) {
    case KeyKind::kRsa: {
      auto t = RsaPayload(key, hash_alg, digest, flags);
      if (!t.ok()) return t.status();
      return PkeyVerify(key, *t, signature, RSA_PKCS1_PADDING);
    }
    case KeyKind::kEc:
      if (digest.empty()) return Status(Code::kBadLength, "empty value");
      return PkeyVerify(key, digest, signature, 0);
    case KeyKind::kEdwards:
      if (hash_alg != hash::kIdFunc) {
        return Status(Code::kNotSupported, "EdDSA signs the message: use idfunc");
      }
      return EdVerify(key, digest, signature);
    default:
      return Status(Code::kKeyCannotDo, "this key cannot verify");
  }
}

Result<Bytes> RsaRawSign(const Key &key, ByteView block) {
  if (key.kind() != KeyKind::kRsa) return Status(Code::kKeyCannotDo, "raw signing needs RSA");
  if (!key.has_private()) return Status(Code::kKeyCannotDo, "a public key cannot sign");
  if (block.size() != key.length_bytes()) return Status(Code::kBadLength, "block length");
  return PkeySign(key, block, RSA_NO_PADDING);
}

Status RsaRawSignBatch(const Key &key, std::span<uint8_t> blocks) {
  size_t k = key.kind() == KeyKind::kRsa ? key.length_bytes() : 0;
  if (k == 0) return Status(Code::kKeyCannotDo, "raw signing needs RSA");
  if (blocks.empty() || blocks.size() % k != 0) return Status(Code::kBadLength, "batch length");
  for (size_t at = 0; at < blocks.size(); at += k) {
    auto sig = RsaRawSign(key, blocks.subspan(at, k));
    if (!sig.ok()) return sig.status();
    // A raw signature is a number below the modulus: left-pad to the block's length.
    std::fill_n(blocks.begin() + at, k - sig->size(), 0);
    std::copy(sig->begin(), sig->end(), blocks.begin() + at + (k - sig->size()));
  }
  return {};
}

Result<Bytes> DoRSAPadding(ByteView digest, size_t key_len, int digest_id) {
  AlgId hash_alg = 0;
  switch (digest_id) {
    case digest_id::kBare:
      break;
    case digest_id::kMd5:
      hash_alg = hash::kMd5;
      break;
    case digest_id::kSha1:
      hash_alg = hash::kSha1;
      break;
    case digest_id::kSha256:
      hash_alg = hash::kSha256;
      break;
    case digest_id::kSha384:
      hash_alg = hash::kSha384;
      break;
    case digest_id::kSha512:
      hash_alg = hash::kSha512;
      break;
    case digest_id::kSha224:
      hash_alg = hash::kSha224;
      break;
    default:
      return Status(Code::kBadAlgorithm, "unknown digest id");
  }
  if (digest.empty() || (hash_alg != 0 && digest.size() != HashSize(hash_alg))) {
    return Status(Code::kBadLength, "digest length");
  }
  ByteView prefix = DigestInfoPrefix(hash_alg);
  size_t t_len = prefix.size() + digest.size();
  if (t_len + kPkcs1Overhead > key_len) return Status(Code::kDigestTooLarge, "does not fit");
  Bytes block(key_len, 0xff);
  block[0] = 0x00;
  block[1] = 0x01;
  size_t at = key_len - t_len;
  block[at - 1] = 0x00;
  std::copy(prefix.begin(), prefix.end(), block.begin() + at);
  std::copy(digest.begin(), digest.end(), block.begin() + at + prefix.size());
  return block;
}

}  // namespace qlhsm::crypto
