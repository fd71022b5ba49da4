// Signatures: sign a hash's value, sign a digest by key name, verify, batch sign, and the
// PKCS#1 type-1 block built locally.
#include <algorithm>
#include <array>

#include "key_handle.h"

using namespace qlapi;

namespace {

// The DER DigestInfo prefixes of PKCS#1 v1.5 (RFC 8017, section 9.2, note 1).
struct DigestPrefix {
  uint32_t id;
  std::size_t digest_len;
  std::array<unsigned char, 19> prefix;
  std::size_t prefix_len;
};

constexpr DigestPrefix kPrefixes[] = {
    {QL_DIGEST_ID_MD5,
     16,
     {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x02, 0x05, 0x05,
      0x00, 0x04, 0x10},
     18},
    {QL_DIGEST_ID_SHA1,
     20,
     {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e, 0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14},
     15},
    {QL_DIGEST_ID_SHA224,
     28,
     {0x30, 0x2d, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x04,
      0x05, 0x00, 0x04, 0x1c},
     19},
    {QL_DIGEST_ID_SHA256,
     32,
     {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01,
      0x05, 0x00, 0x04, 0x20},
     19},
    {QL_DIGEST_ID_SHA384,
     48,
     {0x30, 0x41, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x02,
      0x05, 0x00, 0x04, 0x30},
     19},
    {QL_DIGEST_ID_SHA512,
     64,
     {0x30, 0x51, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03,
      0x05, 0x00, 0x04, 0x40},
     19},
};

// Answers a SignHash request into the caller's buffer (size query included).
// Copies a signature out. A size query (no buffer) or a short buffer learns the key's longest
// signature, which the HSM sends along, so the next call holds whatever length it gets.
int SignatureOut(const pb::Response &response, unsigned char *pbSignature,
                 uint32_t *pdwSignatureLen) {
  const std::string &sig = response.signature().signature();
  if (pbSignature == nullptr || *pdwSignatureLen < sig.size()) {
    *pdwSignatureLen =
        static_cast<uint32_t>(std::max<uint64_t>(sig.size(), response.needed_length()));
    return QL_ERR_BUFFER_TOO_SMALL;
  }
  return CopyOut(sig, pbSignature, pdwSignatureLen).code();
}

int SignInto(KeyHandle &key, pb::Request &request, unsigned char *pbSignature,
             uint32_t *pdwSignatureLen) {
  pb::Response response;
  Status st = AskCore(*key.core, request, &response);
  if (st.code() == QL_ERR_BUFFER_TOO_SMALL) return TooSmall(response, pdwSignatureLen).code();
  QL_RETURN_CODE_IF_ERROR(st);
  if (!response.has_signature()) return QL_ERR_PROTOCOL;
  return SignatureOut(response, pbSignature, pdwSignatureLen);
}

}  // namespace

namespace qlapi {

// Builds the type-1 block; false when the digest does not fit or the id is unknown.
bool BuildPkcs1Type1(uint32_t digest_id, const unsigned char *digest, std::size_t digest_len,
                     std::size_t key_len, unsigned char *out) {
  const DigestPrefix *prefix = nullptr;
  if (digest_id != QL_DIGEST_ID_NONE) {
    for (const DigestPrefix &p : kPrefixes) {
      if (p.id == digest_id) prefix = &p;
    }
    if (prefix == nullptr || prefix->digest_len != digest_len) return false;
  }
  const std::size_t t_len = digest_len + (prefix ? prefix->prefix_len : 0);
  if (digest_len == 0 || key_len < t_len + 11) return false;
  std::size_t at = 0;
  out[at++] = 0x00;
  out[at++] = 0x01;
  const std::size_t ps = key_len - t_len - 3;
  std::memset(out + at, 0xFF, ps);
  at += ps;
  out[at++] = 0x00;
  if (prefix) {
    std::memcpy(out + at, prefix->prefix.data(), prefix->prefix_len);
    at += prefix->prefix_len;
  }
  std::memcpy(out + at, digest, digest_len);
  return true;
}

}  // namespace qlapi

extern "C" int QSignHash(HHASHCTX hHash, HKEYCTX hKey, uint32_t dwFlags, unsigned char *pbSignature,
                         uint32_t *pdwSignatureLen) {
  return Guard([&] {
    if (pdwSignatureLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    if (dwFlags & ~uint32_t{QL_SIGN_DISABLE_LEGACY}) return QL_ERR_BAD_FLAGS;
    auto *hash = AsHandle<HashHandle>(hHash, kHashMagic);
    if (hash == nullptr) return QL_ERR_BAD_HANDLE;
    KeyHandle *key = nullptr;
    uint64_t server = 0;
    QL_RETURN_CODE_IF_ERROR(KeyFor(hKey, &key, &server));
    if (hash->server != 0) return QL_ERR_BAD_ALGORITHM;  // a MAC is not signed
    pb::Request request;
    auto *sign = request.mutable_sign_hash();
    SetKeyRef(sign->mutable_key(), server);
    sign->set_hash_algorithm(hash->algorithm);
    QL_RETURN_CODE_IF_ERROR(HashValue(*hash, sign->mutable_digest()));
    sign->set_flags(dwFlags);
    sign->set_out_capacity(pbSignature ? *pdwSignatureLen : 0);
    return SignInto(*key, request, pbSignature, pdwSignatureLen);
  });
}

extern "C" int QSignHashedData(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwPadding,
                               const unsigned char *pbHash, uint32_t dwHashLen,
                               uint32_t dwHashAlgId, unsigned char *pbSignature,
                               uint32_t *pdwSignatureLen, uint32_t dwFlags) {
  return Guard([&] {
    if (!HasText(szKeyName) || pbHash == nullptr || dwHashLen == 0 || pdwSignatureLen == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    if (dwFlags & ~uint32_t{QL_SIGN_DISABLE_LEGACY}) return QL_ERR_BAD_FLAGS;
    auto core = CoreOf(hSession);
    if (!core) return QL_ERR_BAD_HANDLE;
    pb::Request request;
    auto *sign = request.mutable_sign_hash();
    sign->mutable_key()->set_name(szKeyName);
    sign->set_hash_algorithm(dwHashAlgId);
    sign->set_digest(pbHash, dwHashLen);
    sign->set_flags(dwFlags);
    sign->set_padding(dwPadding);
    sign->set_out_capacity(pbSignature ? *pdwSignatureLen : 0);
    pb::Response response;
    Status st = AskCore(*core, request, &response);
    if (st.code() == QL_ERR_BUFFER_TOO_SMALL) return TooSmall(response, pdwSignatureLen).code();
    QL_RETURN_CODE_IF_ERROR(st);
    if (!response.has_signature()) return QL_ERR_PROTOCOL;
    return SignatureOut(response, pbSignature, pdwSignatureLen);
  });
}

extern "C" int QVerifySignature(HHASHCTX hHash, const unsigned char *pbSignature,
                                uint32_t dwSignatureLen, HKEYCTX hKey) {
  return Guard([&] {
    if (pbSignature == nullptr || dwSignatureLen == 0) return QL_ERR_BAD_ARGUMENT;
    auto *hash = AsHandle<HashHandle>(hHash, kHashMagic);
    if (hash == nullptr) return QL_ERR_BAD_HANDLE;
    KeyHandle *key = nullptr;
    uint64_t server = 0;
    QL_RETURN_CODE_IF_ERROR(KeyFor(hKey, &key, &server));
    if (hash->server != 0) return QL_ERR_BAD_ALGORITHM;
    pb::Request request;
    auto *verify = request.mutable_verify_signature();
    SetKeyRef(verify->mutable_key(), server);
    verify->set_hash_algorithm(hash->algorithm);
    QL_RETURN_CODE_IF_ERROR(HashValue(*hash, verify->mutable_digest()));
    verify->set_signature(pbSignature, dwSignatureLen);
    return AskCore(*key->core, request).code();
  });
}

extern "C" int QBatchSign(HKEYCTX hKey, unsigned char *pbBatch, uint32_t dwCount,
                          uint32_t dwFlags) {
  return Guard([&] {
    if (pbBatch == nullptr || dwCount == 0) return QL_ERR_BAD_ARGUMENT;
    KeyHandle *key = nullptr;
    uint64_t server = 0;
    QL_RETURN_CODE_IF_ERROR(KeyFor(hKey, &key, &server));
    if (key->key_length == 0) return QL_ERR_BAD_KEY_USAGE;
    const std::size_t total = std::size_t{dwCount} * key->key_length;
    unsigned char *blocks = pbBatch + QL_BATCH_HEADER_LEN;
    pb::Request request;
    auto *batch = request.mutable_batch_sign();
    SetKeyRef(batch->mutable_key(), server);
    batch->set_count(dwCount);
    batch->set_blocks(blocks, total);
    batch->set_flags(dwFlags);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(AskCore(*key->core, request, &response));
    if (!response.has_blob() || response.blob().data().size() != total) return QL_ERR_PROTOCOL;
    std::memcpy(blocks, response.blob().data().data(), total);
    return QL_OK;
  });
}

extern "C" int QDoRSAPadding(HSESSIONCTX, uint32_t dwType, unsigned char *pbOut,
                             const unsigned char *pbHash, uint32_t *pdwHashLen, uint32_t dwKeyLen,
                             uint32_t dwDigestId) {
  // Non-zero on success, 0 on any failure: this one call answers the other way round.
  try {
    if (dwType != QL_RSA_PADDING_PKCS1_TYPE1 || pbOut == nullptr || pbHash == nullptr ||
        pdwHashLen == nullptr) {
      return 0;
    }
    if (!BuildPkcs1Type1(dwDigestId, pbHash, *pdwHashLen, dwKeyLen, pbOut)) return 0;
    *pdwHashLen = dwKeyLen;
    return 1;
  } catch (...) {
    return 0;
  }
}
