// OATH: tokens of users (the second factor of their logins), and token blobs checked and read by
// the HSM under a master key the caller names.
#include <cstring>

#include "api_common.h"

using namespace qlapi;

namespace {

// The record as the HSM sends it (little-endian, fixed offsets) into the caller's structure.
constexpr std::size_t kWireRecordSize = 44 + QL_OATH_MAX_SEED;

uint64_t Field(const std::string &b, std::size_t at, std::size_t n) {
  uint64_t v = 0;
  for (std::size_t i = 0; i < n; ++i)
    v |= uint64_t{static_cast<unsigned char>(b[at + i])} << (8 * i);
  return v;
}

bool ToRecord(const std::string &b, QL_OATH_TOKEN_INFO *out) {
  if (b.size() != kWireRecordSize) return false;
  std::memset(out, 0, sizeof *out);
  out->dwType = static_cast<uint32_t>(Field(b, 0, 4));
  out->dwHash = static_cast<uint32_t>(Field(b, 4, 4));
  out->dwDigits = static_cast<uint32_t>(Field(b, 8, 4));
  out->dwTimeStep = static_cast<uint32_t>(Field(b, 12, 4));
  out->qwCounter = Field(b, 16, 8);
  out->qwT0 = Field(b, 24, 8);
  out->nDrift = static_cast<int32_t>(static_cast<uint32_t>(Field(b, 32, 4)));
  out->dwFailures = static_cast<uint32_t>(Field(b, 36, 4));
  out->dwSeedLen = static_cast<uint32_t>(Field(b, 40, 4));
  std::memcpy(out->pbSeed, b.data() + 44, QL_OATH_MAX_SEED);
  return true;
}

}  // namespace

extern "C" int QOATHCheckHOTP(HSESSIONCTX hSession, const char *szMasterKey,
                              const unsigned char *pbBlob, uint32_t dwBlobLen, const char *szOtp,
                              unsigned char *pbNewBlob, uint32_t *pdwNewBlobLen, uint32_t dwFlags) {
  return Guard([&] {
    if (!HasText(szMasterKey) || pbBlob == nullptr || dwBlobLen == 0 || !HasText(szOtp) ||
        pdwNewBlobLen == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    // The new blob is as long as the old one: a size query is answered here, before the HSM
    // spends the OTP.
    if (pbNewBlob == nullptr || *pdwNewBlobLen < dwBlobLen) {
      *pdwNewBlobLen = dwBlobLen;
      return QL_ERR_BUFFER_TOO_SMALL;
    }
    pb::Request request;
    pb::OathCheckBlob *o = request.mutable_oath_check_blob();
    o->mutable_key()->set_name(szMasterKey);
    o->set_blob(reinterpret_cast<const char *>(pbBlob), dwBlobLen);
    o->set_otp(szOtp);
    o->set_flags(dwFlags);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    return CopyOut(response.blob().data(), pbNewBlob, pdwNewBlobLen).code();
  });
}

extern "C" int QOATHGetBlobInfo(HSESSIONCTX hSession, const char *szMasterKey,
                                const unsigned char *pbBlob, uint32_t dwBlobLen,
                                uint32_t dwInfoType, unsigned char *pbOut, uint32_t *pdwOutLen) {
  return Guard([&] {
    if (!HasText(szMasterKey) || pbBlob == nullptr || dwBlobLen == 0 || pdwOutLen == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    pb::Request request;
    pb::OathBlobInfo *o = request.mutable_oath_blob_info();
    o->mutable_key()->set_name(szMasterKey);
    o->set_blob(reinterpret_cast<const char *>(pbBlob), dwBlobLen);
    o->set_info(dwInfoType);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    if (dwInfoType != QL_OATH_INFO_RECORD)
      return CopyOut(response.blob().data(), pbOut, pdwOutLen).code();
    if (pbOut == nullptr || *pdwOutLen < sizeof(QL_OATH_TOKEN_INFO)) {
      *pdwOutLen = sizeof(QL_OATH_TOKEN_INFO);
      return QL_ERR_BUFFER_TOO_SMALL;
    }
    QL_OATH_TOKEN_INFO record;
    if (!ToRecord(response.blob().data(), &record)) return QL_ERR_PROTOCOL;
    std::memcpy(pbOut, &record, sizeof record);
    *pdwOutLen = sizeof record;
    return QL_OK;
  });
}

extern "C" int QAssignToken(HSESSIONCTX hSession, const char *szUserName, uint32_t dwType,
                            const unsigned char *pbSeed, uint32_t dwSeedLen, uint32_t dwTimeStep,
                            uint64_t qwT0, uint32_t dwFlags) {
  return Guard([&] {
    if (!HasText(szUserName) || (pbSeed == nullptr && dwSeedLen != 0)) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    pb::AssignToken *a = request.mutable_assign_token();
    a->set_user(szUserName);
    a->set_type(dwType);
    if (dwSeedLen != 0) a->set_seed(reinterpret_cast<const char *>(pbSeed), dwSeedLen);
    a->set_time_step(dwTimeStep);
    a->set_t0(qwT0);
    a->set_flags(dwFlags);
    pb::Response response;
    return Ask(hSession, request, &response).code();
  });
}

extern "C" int QUnassignToken(HSESSIONCTX hSession, const char *szUserName) {
  return Guard([&] {
    if (!HasText(szUserName)) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    request.mutable_unassign_token()->set_user(szUserName);
    pb::Response response;
    return Ask(hSession, request, &response).code();
  });
}

extern "C" int QOATHResync(HSESSIONCTX hSession, const char *szUserName, const char *szOtp1,
                           const char *szOtp2) {
  return Guard([&] {
    if (!HasText(szUserName) || !HasText(szOtp1) || !HasText(szOtp2)) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    pb::OathResync *o = request.mutable_oath_resync();
    o->set_user(szUserName);
    o->set_otp1(szOtp1);
    o->set_otp2(szOtp2);
    pb::Response response;
    return Ask(hSession, request, &response).code();
  });
}
