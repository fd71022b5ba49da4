// HSM information, statistics, random, backup and update packages.
#include <cstdio>
#include <memory>

#include "api_common.h"
#include "base64.h"
#include "version.h"

using namespace qlapi;

namespace {

void CopyInfoText(const std::string &s, char (&field)[QL_HSM_INFO_TEXT_LEN]) {
  std::string text = s.substr(0, QL_HSM_INFO_TEXT_LEN - 1);
  for (char &c : text) {
    if (c == '%') c = ' ';  // the texts reach format strings; the HSM never sends '%' anyway
  }
  std::memcpy(field, text.c_str(), text.size() + 1);
}

}  // namespace

extern "C" int QGetHsmInfo(HSESSIONCTX hSession, QL_HSM_INFO *pInfo) {
  return Guard([&] {
    if (pInfo == nullptr) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    request.mutable_get_hsm_info();
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_hsm_info()) return QL_ERR_PROTOCOL;
    const pb::HsmInfoReply &r = response.hsm_info();
    std::memset(pInfo, 0, sizeof *pInfo);
    CopyInfoText(r.model(), pInfo->szModel);
    CopyInfoText(r.firmware_version(), pInfo->szFirmwareVersion);
    CopyInfoText(r.serial_number(), pInfo->szSerialNumber);
    CopyInfoText(r.hardware_version(), pInfo->szHardwareVersion);
    CopyInfoText(r.hsm_name(), pInfo->szHsmName);
    CopyInfoText(kLibraryVersion, pInfo->szLibraryVersion);
    const std::string &tx = r.pending_transaction();
    std::memcpy(pInfo->pbPendingTransaction, tx.data(),
                std::min(tx.size(), sizeof pInfo->pbPendingTransaction));
    return QL_OK;
  });
}

extern "C" int QGetStatInfo(HSESSIONCTX hSession, uint32_t *pdwSessionCount, uint32_t *pdwCpuUsage,
                            uint32_t *pdwMemUnit, uint32_t *pdwMemTotal, uint32_t *pdwMemUsed,
                            uint32_t *pdwSwapTotal, uint32_t *pdwSwapUsed) {
  return Guard([&] {
    pb::Request request;
    request.mutable_get_stat_info();
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_stat_info()) return QL_ERR_PROTOCOL;
    const pb::StatInfoReply &r = response.stat_info();
    if (pdwSessionCount) *pdwSessionCount = r.session_count();
    if (pdwCpuUsage) *pdwCpuUsage = r.cpu_usage();
    if (pdwMemUnit) *pdwMemUnit = r.mem_unit();
    if (pdwMemTotal) *pdwMemTotal = r.mem_total();
    if (pdwMemUsed) *pdwMemUsed = r.mem_used();
    if (pdwSwapTotal) *pdwSwapTotal = r.swap_total();
    if (pdwSwapUsed) *pdwSwapUsed = r.swap_used();
    return QL_OK;
  });
}

extern "C" int QGetStatLogSize(HSESSIONCTX hSession, uint64_t *pqwLogSize) {
  return Guard([&] {
    if (pqwLogSize == nullptr) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    request.mutable_get_stat_log_size();
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_number()) return QL_ERR_PROTOCOL;
    *pqwLogSize = response.number().value();
    return QL_OK;
  });
}

extern "C" int QGetNetInfo(HSESSIONCTX hSession, char *szInfo, uint32_t *pdwInfoLen) {
  return Guard([&] {
    if (pdwInfoLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    request.mutable_get_net_info();
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    // Text with its terminating NUL, under the usual size query.
    std::string text = response.blob().data();
    text.push_back('\0');
    return CopyOut(text, reinterpret_cast<unsigned char *>(szInfo), pdwInfoLen).code();
  });
}

extern "C" int QListLoadedModules(HSESSIONCTX hSession, PQL_LIST_CALLBACK pfnCallback,
                                  void *pvParam) {
  return Guard([&] {
    pb::Request request;
    request.mutable_list_modules();
    return ListNames(hSession, request, pfnCallback, pvParam);
  });
}

extern "C" int QGetRandom(HSESSIONCTX hSession, unsigned char *pbData, uint32_t dwDataLen) {
  return Guard([&] {
    if (pbData == nullptr && dwDataLen > 0) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    request.mutable_get_random()->set_length(dwDataLen);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob() || response.blob().data().size() != dwDataLen) {
      return QL_ERR_PROTOCOL;
    }
    if (dwDataLen) std::memcpy(pbData, response.blob().data().data(), dwDataLen);
    return QL_OK;
  });
}

extern "C" int QGetHSMTLSCert(HSESSIONCTX hSession, uint32_t dwFormat, unsigned char **ppbCert,
                              uint32_t *pdwCertLen) {
  return Guard([&] {
    if (ppbCert == nullptr || pdwCertLen == nullptr || (dwFormat != 1 && dwFormat != 2)) {
      return QL_ERR_BAD_ARGUMENT;
    }
    *ppbCert = nullptr;
    pb::Request request;
    request.mutable_get_tls_cert();
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    const std::string &der = response.blob().data();
    if (dwFormat == 1) return AllocOut(der, ppbCert, pdwCertLen).code();
    std::string b64 = Base64Encode(der);
    std::string pem = "-----BEGIN CERTIFICATE-----\n";
    for (std::size_t i = 0; i < b64.size(); i += 64) pem += b64.substr(i, 64) + '\n';
    pem += "-----END CERTIFICATE-----\n";
    return AllocOut(pem, ppbCert, pdwCertLen).code();
  });
}

extern "C" int QBackupData(HSESSIONCTX hSession, const char *szFile, const char *szPin,
                           uint32_t dwFlags) {
  return Guard([&] {
    if (!HasText(szFile) || szPin == nullptr) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    request.mutable_backup()->set_pin(szPin);
    request.mutable_backup()->set_flags(dwFlags);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    const std::string &data = response.blob().data();
    std::unique_ptr<FILE, int (*)(FILE *)> f(std::fopen(szFile, "wb"), std::fclose);
    if (!f) return QL_ERR_FILE_IO;
    if (std::fwrite(data.data(), 1, data.size(), f.get()) != data.size()) return QL_ERR_FILE_IO;
    if (std::fclose(f.release()) != 0) return QL_ERR_FILE_IO;
    return QL_OK;
  });
}

extern "C" int QUPackPush(HSESSIONCTX hSession, const unsigned char *pbPackage,
                          uint32_t dwPackageLen, uint32_t dwFlags) {
  return Guard([&] {
    if (pbPackage == nullptr && dwPackageLen > 0) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    if (dwPackageLen) request.mutable_upack_push()->set_package(pbPackage, dwPackageLen);
    request.mutable_upack_push()->set_flags(dwFlags);
    return Ask(hSession, request).code();
  });
}
