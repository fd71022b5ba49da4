// Blockchain calls: hashing runs here (it needs no secret); keys are made, derived, used,
// exported and imported, signatures checked and keys recovered in the HSM, which holds the curve
// code.
#include <openssl/crypto.h>
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

namespace {

// The child's or the key's BIP32 data from the HSM's answer.
int FillKeyInfo(const pb::Response &response, QL_BCHAIN_KEY_INFO *info) {
  if (!response.has_bchain_key_info()) return QL_ERR_PROTOCOL;
  const pb::BchainKeyInfo &k = response.bchain_key_info();
  if (k.public_key().size() > sizeof info->pbPublicKey ||
      (!k.chain_code().empty() && k.chain_code().size() != sizeof info->pbChainCode)) {
    return QL_ERR_PROTOCOL;
  }
  std::memset(info, 0, sizeof *info);
  info->dwType = k.type();
  info->dwVersion = k.version();
  info->dwDepth = k.depth();
  info->dwIndex = k.index();
  for (int i = 0; i < 4; ++i) {
    info->pbParentFingerprint[i] =
        static_cast<unsigned char>(k.parent_fingerprint() >> (24 - 8 * i));
  }
  std::memcpy(info->pbChainCode, k.chain_code().data(), k.chain_code().size());
  std::memcpy(info->pbPublicKey, k.public_key().data(), k.public_key().size());
  info->dwPublicKeyLen = static_cast<uint32_t>(k.public_key().size());
  return QL_OK;
}

int BlobOut(HSESSIONCTX hSession, pb::Request &request, unsigned char *out, uint32_t *out_len) {
  pb::Response response;
  QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
  if (!response.has_blob()) return QL_ERR_PROTOCOL;
  return CopyOut(response.blob().data(), out, out_len).code();
}

}  // namespace

extern "C" int QBchainCreateXPrv(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwType,
                                 const unsigned char *pbData, uint32_t dwDataLen,
                                 uint32_t dwAttributes) {
  return Guard([&] {
    if (!HasText(szKeyName) || (pbData == nullptr && dwDataLen > 0)) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    pb::BchainCreateXprv *m = request.mutable_bchain_create_xprv();
    m->set_name(szKeyName);
    m->set_type(dwType);
    m->set_data(Text(pbData, dwDataLen));
    m->set_flags(dwAttributes);
    const int rc = Ask(hSession, request).code();
    std::string *seed = m->mutable_data();
    OPENSSL_cleanse(seed->data(), seed->size());
    return rc;
  });
}

extern "C" int QBchainCreateBip32Ckd(HSESSIONCTX hSession, const char *szParentName,
                                     const char *szDstName, uint32_t dwVersion, uint32_t dwIndex,
                                     uint32_t dwAttributes, QL_BCHAIN_KEY_INFO *pInfo) {
  return Guard([&] {
    if (!HasText(szParentName) || !HasText(szDstName)) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    pb::BchainDeriveChild *m = request.mutable_bchain_derive_child();
    m->set_parent(szParentName);
    m->set_name(szDstName);
    m->set_version(dwVersion);
    m->set_index(dwIndex);
    m->set_flags(dwAttributes);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (pInfo == nullptr) return QL_OK;
    return FillKeyInfo(response, pInfo);
  });
}

extern "C" int QBchainGetKeyInfo(HSESSIONCTX hSession, const char *szKeyName,
                                 QL_BCHAIN_KEY_INFO *pInfo) {
  return Guard([&] {
    if (!HasText(szKeyName) || pInfo == nullptr) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    request.mutable_bchain_key_info()->set_name(szKeyName);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    return FillKeyInfo(response, pInfo);
  });
}

extern "C" int QBchainGetPubKey(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwType,
                                unsigned char *pbPubKey, uint32_t *pdwPubKeyLen) {
  return Guard([&] {
    if (!HasText(szKeyName) || pdwPubKeyLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    pb::BchainGetPubKey *m = request.mutable_bchain_get_pubkey();
    m->set_name(szKeyName);
    m->set_type(dwType);
    return BlobOut(hSession, request, pbPubKey, pdwPubKeyLen);
  });
}

extern "C" int QBchainGetAddress(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwType,
                                 uint32_t dwVersion, const char *szHrp, char *szAddress,
                                 uint32_t *pdwAddressLen) {
  return Guard([&] {
    if (!HasText(szKeyName) || pdwAddressLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    pb::BchainGetAddress *m = request.mutable_bchain_get_address();
    m->set_name(szKeyName);
    m->set_type(dwType);
    m->set_version(dwVersion);
    if (szHrp != nullptr) m->set_hrp(szHrp);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob() || response.blob().data().empty()) return QL_ERR_PROTOCOL;
    // The address's text and its NUL.
    std::string text = response.blob().data();
    text.push_back('\0');
    return CopyOut(text, szAddress, pdwAddressLen).code();
  });
}

extern "C" int QBchainSignHash(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwType,
                               uint32_t dwHashMode, const unsigned char *pbHash, uint32_t dwHashLen,
                               unsigned char *pbSignature, uint32_t *pdwSignatureLen) {
  return Guard([&] {
    if (!HasText(szKeyName) || (pbHash == nullptr && dwHashLen > 0) || pdwSignatureLen == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    pb::Request request;
    pb::BchainSignHash *m = request.mutable_bchain_sign_hash();
    m->set_name(szKeyName);
    m->set_type(dwType);
    m->set_hash_mode(dwHashMode);
    m->set_hash(Text(pbHash, dwHashLen));
    return BlobOut(hSession, request, pbSignature, pdwSignatureLen);
  });
}

extern "C" int QBchainPkExport(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwFormat,
                               uint32_t dwVersion, int bCompressed, unsigned char **ppbOut,
                               uint32_t *pdwOutLen) {
  return Guard([&] {
    if (!HasText(szKeyName) || ppbOut == nullptr || pdwOutLen == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    pb::Request request;
    pb::BchainExportPk *m = request.mutable_bchain_export_pk();
    m->set_name(szKeyName);
    m->set_format(dwFormat);
    m->set_version(dwVersion);
    m->set_compressed(bCompressed != 0);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    std::string *key = response.mutable_blob()->mutable_data();
    const int rc = AllocOut(*key, ppbOut, pdwOutLen).code();
    OPENSSL_cleanse(key->data(), key->size());
    return rc;
  });
}

extern "C" int QBchainPkImport(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwFormat,
                               uint32_t dwAttributes, const unsigned char *pbData,
                               uint32_t dwDataLen) {
  return Guard([&] {
    if (!HasText(szKeyName) || pbData == nullptr || dwDataLen == 0) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    pb::BchainImportPk *m = request.mutable_bchain_import_pk();
    m->set_name(szKeyName);
    m->set_format(dwFormat);
    m->set_flags(dwAttributes);
    m->set_data(Text(pbData, dwDataLen));
    const int rc = Ask(hSession, request).code();
    std::string *key = m->mutable_data();
    OPENSSL_cleanse(key->data(), key->size());
    return rc;
  });
}
