// Blockchain calls: hashing runs here (it needs no secret); signatures are checked and keys
// recovered in the HSM, which holds the curve code.
#include <openssl/evp.h>

#include "api_common.h"

using namespace qlapi;

namespace {

bool Digest(const char *name, const std::string &data, std::string *out) {
  EVP_MD *md = EVP_MD_fetch(nullptr, name, nullptr);
  if (md == nullptr) return false;
  unsigned char value[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  const bool ok = EVP_Digest(data.data(), data.size(), value, &len, md, nullptr) == 1;
  EVP_MD_free(md);
  if (ok) out->assign(reinterpret_cast<char *>(value), len);
  return ok;
}

// The length prefix of a signed message (a compact-size integer).
std::string CompactSize(size_t n) {
  std::string s;
  auto little = [&](uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) s += static_cast<char>((v >> (8 * i)) & 0xFF);
  };
  if (n < 0xFD) {
    little(n, 1);
  } else if (n <= 0xFFFF) {
    s += '\xFD';
    little(n, 2);
  } else {
    s += '\xFE';
    little(n, 4);
  }
  return s;
}

bool BchainHash(uint32_t mode, const std::string &data, std::string *out) {
  std::string first;
  switch (mode) {
    case QL_BCHAIN_HASH_SHA256:
      return Digest("SHA256", data, out);
    case QL_BCHAIN_HASH_SHA256D:
      return Digest("SHA256", data, &first) && Digest("SHA256", first, out);
    case QL_BCHAIN_HASH_HASH160:
      return Digest("SHA256", data, &first) && Digest("RIPEMD160", first, out);
    case QL_BCHAIN_HASH_MESSAGE: {
      // The magic prefix of signed messages, itself length-prefixed, then the message.
      static const std::string kMagic = "Bitcoin Signed Message:\n";
      const std::string framed =
          CompactSize(kMagic.size()) + kMagic + CompactSize(data.size()) + data;
      return Digest("SHA256", framed, &first) && Digest("SHA256", first, out);
    }
    default:
      return false;
  }
}

std::string Text(const unsigned char *p, uint32_t len) {
  return p == nullptr ? std::string() : std::string(reinterpret_cast<const char *>(p), len);
}

template <typename M>
void SetSignature(M *m, uint32_t type, uint32_t hash_mode, const unsigned char *hash,
                  uint32_t hash_len, const unsigned char *sig, uint32_t sig_len) {
  m->set_type(type);
  m->set_hash_mode(hash_mode);
  m->set_hash(Text(hash, hash_len));
  m->set_signature(Text(sig, sig_len));
}

}  // namespace

extern "C" int QBchainHashData(HSESSIONCTX, uint32_t dwHashMode, const unsigned char *pbData,
                               uint32_t dwDataLen, unsigned char *pbHash, uint32_t *pdwHashLen) {
  return Guard([&] {
    if ((pbData == nullptr && dwDataLen > 0) || pdwHashLen == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    if (dwHashMode < QL_BCHAIN_HASH_SHA256 || dwHashMode > QL_BCHAIN_HASH_MESSAGE) {
      return QL_ERR_BAD_ALGORITHM;
    }
    std::string hash;
    if (!BchainHash(dwHashMode, Text(pbData, dwDataLen), &hash)) return QL_ERR_LIB_INTERNAL;
    return CopyOut(hash, pbHash, pdwHashLen).code();
  });
}

extern "C" int QBchainVerify(HSESSIONCTX hSession, uint32_t dwType, uint32_t dwHashMode,
                             const unsigned char *pbHash, uint32_t dwHashLen,
                             const unsigned char *pbSignature, uint32_t dwSignatureLen,
                             uint32_t dwPubKeyType, const unsigned char *pbPubKey,
                             uint32_t dwPubKeyLen) {
  return Guard([&] {
    if ((pbHash == nullptr && dwHashLen > 0) || (pbSignature == nullptr && dwSignatureLen > 0) ||
        (pbPubKey == nullptr && dwPubKeyLen > 0)) {
      return QL_ERR_BAD_ARGUMENT;
    }
    pb::Request request;
    pb::BchainVerify *v = request.mutable_bchain_verify();
    SetSignature(v, dwType, dwHashMode, pbHash, dwHashLen, pbSignature, dwSignatureLen);
    v->set_pubkey_type(dwPubKeyType);
    v->set_pubkey(Text(pbPubKey, dwPubKeyLen));
    return Ask(hSession, request).code();
  });
}

extern "C" int QBchainRecoverPbkFromSignature(HSESSIONCTX hSession, uint32_t dwType,
                                              uint32_t dwHashMode, const unsigned char *pbHash,
                                              uint32_t dwHashLen, const unsigned char *pbSignature,
                                              uint32_t dwSignatureLen, unsigned char *pbPubKey,
                                              uint32_t *pdwPubKeyLen) {
  return Guard([&] {
    if ((pbHash == nullptr && dwHashLen > 0) || (pbSignature == nullptr && dwSignatureLen > 0) ||
        pdwPubKeyLen == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    pb::Request request;
    SetSignature(request.mutable_bchain_recover_pbk(), dwType, dwHashMode, pbHash, dwHashLen,
                 pbSignature, dwSignatureLen);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    return CopyOut(response.blob().data(), pbPubKey, pdwPubKeyLen).code();
  });
}
