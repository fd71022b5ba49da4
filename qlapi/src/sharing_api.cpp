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
