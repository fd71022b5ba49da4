// M-of-N sharing: the HSM splits and recovers; the parts travel as one buffer of equal-sized
// parts on this side of the API.
#include <openssl/crypto.h>
#include <openssl/sha.h>

#include "api_common.h"

using namespace qlapi;

namespace {

// Wipes a protobuf string that held a secret before it is freed.
void Wipe(std::string *s) {
  if (!s->empty()) OPENSSL_cleanse(s->data(), s->size());
}

}  // namespace

extern "C" int QMofNSplit(HSESSIONCTX hSession, uint32_t dwM, uint32_t dwN,
                          const unsigned char *pbSecret, uint32_t dwSecretLen,
                          unsigned char **ppbParts, uint32_t *pdwPartLen) {
  return Guard([&] {
    if (ppbParts == nullptr || pdwPartLen == nullptr || (pbSecret == nullptr && dwSecretLen > 0)) {
      return QL_ERR_BAD_ARGUMENT;
    }
    *ppbParts = nullptr;
    *pdwPartLen = 0;
    pb::Request request;
    pb::MofNSplit *split = request.mutable_mofn_split();
    split->set_m(dwM);
    split->set_n(dwN);
    split->set_secret(reinterpret_cast<const char *>(pbSecret), dwSecretLen);
    pb::Response response;
    const Status st = Ask(hSession, request, &response);
    Wipe(split->mutable_secret());
    QL_RETURN_CODE_IF_ERROR(st);
    if (!response.has_mofn_parts() || response.mofn_parts().parts_size() != static_cast<int>(dwN)) {
      return QL_ERR_PROTOCOL;
    }
    const auto &parts = response.mofn_parts().parts();
    const size_t part_len = parts.empty() ? 0 : parts[0].size();
    std::string joined;
    joined.reserve(part_len * parts.size());
    for (const std::string &p : parts) {
      if (p.size() != part_len || part_len == 0) return QL_ERR_PROTOCOL;
      joined += p;
    }
    QL_RETURN_CODE_IF_ERROR(AllocOut(joined, ppbParts, pdwPartLen));
    *pdwPartLen = static_cast<uint32_t>(part_len);
    return QL_OK;
  });
}

extern "C" int QMofNRecover(HSESSIONCTX hSession, const unsigned char *pbParts,
                            uint32_t dwPartCount, uint32_t dwPartLen, unsigned char **ppbSecret,
                            uint32_t *pdwSecretLen) {
  return Guard([&] {
    if (ppbSecret == nullptr || pdwSecretLen == nullptr ||
        (pbParts == nullptr && dwPartCount > 0 && dwPartLen > 0)) {
      return QL_ERR_BAD_ARGUMENT;
    }
    *ppbSecret = nullptr;
    *pdwSecretLen = 0;
    pb::Request request;
    pb::MofNRecover *recover = request.mutable_mofn_recover();
    for (uint32_t i = 0; i < dwPartCount; ++i) {
      recover->add_parts(reinterpret_cast<const char *>(pbParts) + size_t{i} * dwPartLen,
                         dwPartLen);
    }
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    const Status st = AllocOut(response.blob().data(), ppbSecret, pdwSecretLen);
    Wipe(response.mutable_blob()->mutable_data());
    return st.code();
  });
}

// A custodian's check of a kept secret's share: the first 4 bytes of SHA-256(share), read
// big-endian (printed XXXX-XXXX). Runs here: the share itself is all it needs.
extern "C" int QSKeepCalcShareCks(const unsigned char *pbShare, uint32_t dwShareLen,
                                  uint32_t *pdwChecksum) {
  return Guard([&] {
    if (pbShare == nullptr || dwShareLen == 0 || pdwChecksum == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    unsigned char digest[SHA256_DIGEST_LENGTH];
    if (SHA256(pbShare, dwShareLen, digest) == nullptr) return QL_ERR_LIB_INTERNAL;
    *pdwChecksum = (uint32_t{digest[0]} << 24) | (uint32_t{digest[1]} << 16) |
                   (uint32_t{digest[2]} << 8) | uint32_t{digest[3]};
    return QL_OK;
  });
}

// Secret keeping: the HSM draws, keeps, splits and takes back secrets named by an id; shares
// travel as one buffer of equal-sized shares on this side of the API.

namespace {

void SetShares(pb::SKeepShares *m, const char *id, const unsigned char *shares, uint32_t count,
               uint32_t len) {
  m->set_id(id);
  for (uint32_t i = 0; i < count; ++i) {
    m->add_shares(reinterpret_cast<const char *>(shares) + size_t{i} * len, len);
  }
}

bool SharesGood(const char *id, const unsigned char *shares, uint32_t count, uint32_t len) {
  return HasText(id) && (shares != nullptr || count == 0 || len == 0);
}

}  // namespace

extern "C" int QSKeepNewSecret(HSESSIONCTX hSession, const char *szId, uint32_t dwSecLevel,
                               uint32_t dwAuthType) {
  return Guard([&] {
    if (!HasText(szId)) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    pb::SKeepSecret *m = request.mutable_skeep_new();
    m->set_id(szId);
    m->set_level(dwSecLevel);
    m->set_auth(dwAuthType);
    return Ask(hSession, request).code();
  });
}

extern "C" int QSKeepRemoveSecret(HSESSIONCTX hSession, const char *szId, uint32_t dwSecLevel,
                                  uint32_t dwAuthType) {
  return Guard([&] {
    if (!HasText(szId)) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    pb::SKeepSecret *m = request.mutable_skeep_remove();
    m->set_id(szId);
    m->set_level(dwSecLevel);
    m->set_auth(dwAuthType);
    return Ask(hSession, request).code();
  });
}

extern "C" int QSKeepSplitSecret(HSESSIONCTX hSession, const char *szId, uint32_t dwSecLevel,
                                 uint32_t dwAuthType, uint32_t dwM, uint32_t dwN,
                                 unsigned char **ppbShares, uint32_t *pdwShareLen) {
  return Guard([&] {
    if (!HasText(szId) || ppbShares == nullptr || pdwShareLen == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    *ppbShares = nullptr;
    *pdwShareLen = 0;
    pb::Request request;
    pb::SKeepSplit *m = request.mutable_skeep_split();
    m->set_id(szId);
    m->set_level(dwSecLevel);
    m->set_auth(dwAuthType);
    m->set_m(dwM);
    m->set_n(dwN);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_mofn_parts() || response.mofn_parts().parts_size() != static_cast<int>(dwN)) {
      return QL_ERR_PROTOCOL;
    }
    auto *shares = response.mutable_mofn_parts()->mutable_parts();
    const size_t share_len = shares->empty() ? 0 : (*shares)[0].size();
    std::string joined;
    joined.reserve(share_len * shares->size());
    for (std::string &s : *shares) {
      if (s.size() != share_len || share_len == 0) return QL_ERR_PROTOCOL;
      joined += s;
      Wipe(&s);
    }
    const Status st = AllocOut(joined, ppbShares, pdwShareLen);
    Wipe(&joined);
    QL_RETURN_CODE_IF_ERROR(st);
    *pdwShareLen = static_cast<uint32_t>(share_len);
    return QL_OK;
  });
}

extern "C" int QSKeepProbeSecret(HSESSIONCTX hSession, const char *szId, uint32_t *pdwResult) {
  return Guard([&] {
    if (!HasText(szId) || pdwResult == nullptr) return QL_ERR_BAD_ARGUMENT;
    *pdwResult = 0;
    pb::Request request;
    request.mutable_skeep_probe()->set_id(szId);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_number()) return QL_ERR_PROTOCOL;
    *pdwResult = static_cast<uint32_t>(response.number().value());
    return QL_OK;
  });
}

extern "C" int QSKeepMatchSecret(HSESSIONCTX hSession, const char *szId,
                                 const unsigned char *pbShares, uint32_t dwShareCount,
                                 uint32_t dwShareLen) {
  return Guard([&] {
    if (!SharesGood(szId, pbShares, dwShareCount, dwShareLen)) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    SetShares(request.mutable_skeep_match(), szId, pbShares, dwShareCount, dwShareLen);
    const Status st = Ask(hSession, request);
    for (std::string &s : *request.mutable_skeep_match()->mutable_shares()) Wipe(&s);
    return st.code();
  });
}

extern "C" int QSKeepRecoverSecret(HSESSIONCTX hSession, const char *szId,
                                   const unsigned char *pbShares, uint32_t dwShareCount,
                                   uint32_t dwShareLen, uint32_t *pdwResult) {
  return Guard([&] {
    if (!SharesGood(szId, pbShares, dwShareCount, dwShareLen) || pdwResult == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    *pdwResult = 0;
    pb::Request request;
    SetShares(request.mutable_skeep_recover(), szId, pbShares, dwShareCount, dwShareLen);
    pb::Response response;
    const Status st = Ask(hSession, request, &response);
    for (std::string &s : *request.mutable_skeep_recover()->mutable_shares()) Wipe(&s);
    QL_RETURN_CODE_IF_ERROR(st);
    if (!response.has_number()) return QL_ERR_PROTOCOL;
    *pdwResult = static_cast<uint32_t>(response.number().value());
    return QL_OK;
  });
}
