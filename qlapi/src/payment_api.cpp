// Payment: card verification values, natural PINs, PIN block checks and translation, DUKPT,
// key blocks. Arguments are checked here first, so that a malformed card never costs a round
// trip; the HSM checks them again.
#include <cstring>

#include "eftd_admin.h"
#include "key_handle.h"

using namespace qlapi;

namespace {

bool Digits(const char *s, std::size_t min, std::size_t max) {
  if (s == nullptr) return false;
  const std::size_t n = std::strlen(s);
  if (n < min || n > max) return false;
  for (std::size_t i = 0; i < n; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
  }
  return true;
}

bool Pan(const char *s) {
  return Digits(s, 12, 19);
}

bool Card(const char *pan, const char *expiry, const char *service_code) {
  return Pan(pan) && Digits(expiry, 4, 4) && Digits(service_code, 3, 3);
}

bool PinBlockFormat(uint32_t f) {
  return f == 0 || f == 1 || f == 3 || f == 4;
}

uint32_t PinBlockLength(uint32_t format) {
  return format == 4 ? 16 : 8;
}

// Asks the HSM on hKey's session: fill(request) writes the request's fields and answers the
// reference its key goes into.
template <typename Fill>
Status AskWithKey(HKEYCTX hKey, Fill &&fill, pb::Response *response = nullptr) {
  KeyHandle *key = nullptr;
  uint64_t server = 0;
  QL_RETURN_IF_ERROR(KeyFor(hKey, &key, &server));
  pb::Request request;
  SetKeyRef(fill(request), server);
  return AskCore(*key->core, request, response);
}

}  // namespace

extern "C" int QGenerateCVV(HKEYCTX hKey, const char *szPan, const char *szExpiry,
                            const char *szServiceCode, char *szCvv, uint32_t dwFlags) {
  return Guard([&] {
    if (!Card(szPan, szExpiry, szServiceCode) || szCvv == nullptr) return QL_ERR_BAD_ARGUMENT;
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(AskWithKey(
        hKey,
        [&](pb::Request &request) {
          auto *m = request.mutable_generate_cvv();
          m->set_pan(szPan);
          m->set_expiry(szExpiry);
          m->set_service_code(szServiceCode);
          return m->mutable_key();
        },
        &response));
    const std::string &cvv = response.blob().data();
    if (!response.has_blob() || cvv.size() != 3) return QL_ERR_PROTOCOL;
    std::memcpy(szCvv, cvv.data(), 3);
    szCvv[3] = '\0';
    return QL_OK;
  });
}

extern "C" int QVerifyCVV(HKEYCTX hKey, const char *szPan, const char *szExpiry,
                          const char *szServiceCode, const char *szCvv, uint32_t dwFlags) {
  return Guard([&] {
    if (!Card(szPan, szExpiry, szServiceCode) || !Digits(szCvv, 3, 3)) return QL_ERR_BAD_ARGUMENT;
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    return AskWithKey(hKey,
                      [&](pb::Request &request) {
                        auto *m = request.mutable_verify_cvv();
                        m->set_pan(szPan);
                        m->set_expiry(szExpiry);
                        m->set_service_code(szServiceCode);
                        m->set_cvv(szCvv);
                        return m->mutable_key();
                      })
        .code();
  });
}

extern "C" int QGeneratePIN(HKEYCTX hPinKey, const char *szPan, uint32_t dwPinLen, char *szPin,
                            uint32_t *pdwPinLen, uint32_t dwFlags) {
  return Guard([&] {
    if (!Pan(szPan) || dwPinLen < 4 || dwPinLen > 12 || pdwPinLen == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    // The PIN's digits and a NUL.
    if (szPin == nullptr || *pdwPinLen < dwPinLen + 1) {
      *pdwPinLen = dwPinLen + 1;
      return QL_ERR_BUFFER_TOO_SMALL;
    }
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(AskWithKey(
        hPinKey,
        [&](pb::Request &request) {
          auto *m = request.mutable_generate_pin();
          m->set_pan(szPan);
          m->set_length(dwPinLen);
          return m->mutable_key();
        },
        &response));
    const std::string &pin = response.blob().data();
    if (!response.has_blob() || pin.size() != dwPinLen) return QL_ERR_PROTOCOL;
    std::memcpy(szPin, pin.data(), pin.size());
    szPin[pin.size()] = '\0';
    *pdwPinLen = static_cast<uint32_t>(pin.size());
    return QL_OK;
  });
}

extern "C" int QVerifyPINBlock(HKEYCTX hPtk, HKEYCTX hPgk, uint32_t dwFormat, const char *szPan,
                               const unsigned char *pbPinBlock, uint32_t dwPinBlockLen,
                               uint32_t dwFlags) {
  return Guard([&] {
    if (!Pan(szPan) || pbPinBlock == nullptr || !PinBlockFormat(dwFormat)) {
      return QL_ERR_BAD_ARGUMENT;
    }
    if (dwPinBlockLen != PinBlockLength(dwFormat)) return QL_ERR_BAD_LENGTH;
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    KeyHandle *ptk = nullptr, *pgk = nullptr;
    uint64_t ptk_server = 0, pgk_server = 0;
    QL_RETURN_CODE_IF_ERROR(KeyFor(hPtk, &ptk, &ptk_server));
    QL_RETURN_CODE_IF_ERROR(KeyFor(hPgk, &pgk, &pgk_server));
    if (ptk->core != pgk->core) return QL_ERR_BAD_HANDLE;  // both keys of one session
    pb::Request request;
    auto *m = request.mutable_verify_pin_block();
    SetKeyRef(m->mutable_ptk(), ptk_server);
    SetKeyRef(m->mutable_pgk(), pgk_server);
    m->set_format(dwFormat);
    m->set_pan(szPan);
    m->set_block(pbPinBlock, dwPinBlockLen);
    return AskCore(*ptk->core, request).code();
  });
}

extern "C" int QPINBlockTranslate(HSESSIONCTX hSession, const char *szSrcPek, const char *szDstPek,
                                  uint32_t dwFormat, const char *szPan, const unsigned char *pbIn,
                                  uint32_t dwInLen, unsigned char *pbOut, uint32_t *pdwOutLen,
                                  uint32_t dwFlags) {
  return Guard([&] {
    const uint32_t from = dwFormat & 0xFF, to = (dwFormat >> 8) & 0xFF;
    if (!HasText(szSrcPek) || !HasText(szDstPek) || pbIn == nullptr || pdwOutLen == nullptr ||
        (dwFormat & ~0xFFFFu) || !PinBlockFormat(from) || !PinBlockFormat(to)) {
      return QL_ERR_BAD_ARGUMENT;
    }
    // Format 1 alone does without a PAN.
    const bool needs_pan = from != 1 || to != 1;
    if (needs_pan ? !Pan(szPan) : (szPan != nullptr && szPan[0] != '\0' && !Pan(szPan))) {
      return QL_ERR_BAD_ARGUMENT;
    }
    if (dwInLen != PinBlockLength(from)) return QL_ERR_BAD_LENGTH;
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    const uint32_t out_len = PinBlockLength(to);
    if (pbOut == nullptr || *pdwOutLen < out_len) {
      *pdwOutLen = out_len;
      return QL_ERR_BUFFER_TOO_SMALL;
    }
    pb::Request request;
    auto *m = request.mutable_translate_pin_block();
    m->mutable_src()->set_name(szSrcPek);
    m->mutable_dst()->set_name(szDstPek);
    m->set_format(dwFormat);
    if (szPan != nullptr) m->set_pan(szPan);
    m->set_block(pbIn, dwInLen);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    const std::string &out = response.blob().data();
    if (!response.has_blob() || out.size() != out_len) return QL_ERR_PROTOCOL;
    return CopyOut(out, pbOut, pdwOutLen).code();
  });
}

extern "C" int QGenerateBDKName(HSESSIONCTX hSession, const unsigned char *pbKsi, uint32_t dwKsiLen,
                                char *szBdkName, uint32_t *pdwNameLen) {
  return Guard([&] {
    if (pbKsi == nullptr || pdwNameLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    if (!CoreOf(hSession)) return QL_ERR_BAD_HANDLE;
    // A key set identifier (triple DES) or a BDK ID (AES).
    if (dwKsiLen != 5 && dwKsiLen != 4) return QL_ERR_BAD_LENGTH;
    static const char kDigits[] = "0123456789ABCDEF";
    std::string name = "BDK_";
    for (uint32_t i = 0; i < dwKsiLen; ++i) {
      name += kDigits[pbKsi[i] >> 4];
      name += kDigits[pbKsi[i] & 15];
    }
    name.push_back('\0');
    return CopyOut(name, szBdkName, pdwNameLen).code();
  });
}

extern "C" int QGenerateDUKPT(HSESSIONCTX hSession, const char *szBdkName,
                              const unsigned char *pbKsn, uint32_t dwKsnLen, const char *szKeyName,
                              uint32_t dwFlags) {
  return Guard([&] {
    if (!HasText(szBdkName) || !HasText(szKeyName) || pbKsn == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    if (dwKsnLen != 10 && dwKsnLen != 12) return QL_ERR_BAD_LENGTH;
    const uint32_t key_flags = dwFlags & ~uint32_t{QL_DUKPT_KEY_MASK};
    if ((dwFlags & QL_DUKPT_KEY_MASK) > QL_DUKPT_DATA_KEY ||
        (key_flags & ~uint32_t{QL_KEY_EXPORTABLE | QL_KEY_TEMPORARY})) {
      return QL_ERR_BAD_FLAGS;
    }
    pb::Request request;
    auto *m = request.mutable_generate_dukpt();
    m->set_bdk(szBdkName);
    m->set_ksn(pbKsn, dwKsnLen);
    m->set_name(szKeyName);
    m->set_flags(dwFlags);
    return Ask(hSession, request).code();
  });
}

namespace {

bool HeaderChar(uint32_t c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z');
}

}  // namespace

extern "C" int QEFTExportTR31(HSESSIONCTX hSession, const char *szKbpkName, const char *szKeyName,
                              uint32_t dwUsage, uint32_t dwMode, uint32_t dwExportability,
                              char *szKeyBlock, uint32_t *pdwKeyBlockLen, uint32_t dwFlags) {
  return Guard([&] {
    if (!HasText(szKbpkName) || !HasText(szKeyName) || pdwKeyBlockLen == nullptr)
      return QL_ERR_BAD_ARGUMENT;
    // 0 is "auto" for each attribute.
    if (dwUsage != 0 &&
        (dwUsage > 0xFFFF || !HeaderChar(dwUsage & 0xFF) || !HeaderChar(dwUsage >> 8))) {
      return QL_ERR_BAD_ARGUMENT;
    }
    if (dwMode != 0 && !HeaderChar(dwMode)) return QL_ERR_BAD_ARGUMENT;
    if (dwExportability != 0 && dwExportability != 'E' && dwExportability != 'N' &&
        dwExportability != 'S') {
      return QL_ERR_BAD_ARGUMENT;
    }
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    pb::Request request;
    auto *m = request.mutable_export_key_block();
    m->mutable_kbpk()->set_name(szKbpkName);
    m->mutable_key()->set_name(szKeyName);
    m->set_usage(dwUsage);
    m->set_mode(dwMode);
    m->set_exportability(dwExportability);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob() || response.blob().data().empty()) return QL_ERR_PROTOCOL;
    // The block's text and its NUL.
    std::string text = response.blob().data();
    text.push_back('\0');
    return CopyOut(text, szKeyBlock, pdwKeyBlockLen).code();
  });
}

extern "C" int QEFTImportTR31(HSESSIONCTX hSession, const char *szKbpkName, const char *szKeyName,
                              const char *szKeyBlock, uint32_t dwKeyBlockLen, uint32_t dwFlags) {
  return Guard([&] {
    if (!HasText(szKbpkName) || !HasText(szKeyName) || szKeyBlock == nullptr)
      return QL_ERR_BAD_ARGUMENT;
    if (dwFlags & ~uint32_t{QL_KEY_TEMPORARY}) return QL_ERR_BAD_FLAGS;
    // The length may count the text's NUL.
    const std::size_t len = strnlen(szKeyBlock, dwKeyBlockLen);
    if (len < 16) return QL_ERR_BAD_LENGTH;
    pb::Request request;
    auto *m = request.mutable_import_key_block();
    m->mutable_kbpk()->set_name(szKbpkName);
    m->set_name(szKeyName);
    m->set_block(szKeyBlock, len);
    m->set_flags(dwFlags);
    return Ask(hSession, request).code();
  });
}

// --- the EFT daemon ---

namespace qlapi {
namespace {

constexpr uint32_t kAllFormats =
    QL_EFTD_FORMAT(0) | QL_EFTD_FORMAT(1) | QL_EFTD_FORMAT(3) | QL_EFTD_FORMAT(4);

bool GoodConf(const QL_EFTD_CONF &c) {
  // The table must end within its field.
  if (std::memchr(c.szDecTable, '\0', sizeof c.szDecTable) == nullptr) return false;
  return Digits(c.szDecTable, 16, 16) && c.dwPinMin >= 4 && c.dwPinMax <= 12 &&
         c.dwPinMin <= c.dwPinMax && c.dwFormats != 0 && (c.dwFormats & ~kAllFormats) == 0 &&
         (c.dwAuthRequired & ~uint32_t{QL_EFTD_ACT_ALL}) == 0;
}

void CopyText(const std::string &text, char *out, std::size_t size) {
  const std::size_t n = text.size() < size - 1 ? text.size() : size - 1;
  std::memcpy(out, text.data(), n);
  out[n] = '\0';
}

}  // namespace

int EftdOperation(HSESSIONCTX hSession, uint32_t dwOperation, const void *pvIn, uint32_t dwInLen,
                  void *pvOut, uint32_t *pdwOutLen) {
  pb::Request request;
  switch (dwOperation) {
    case QL_ADM_EFTD_AUTHORIZE:
    case QL_ADM_EFTD_DEAUTHORIZE: {
      if (pvIn == nullptr) return QL_ERR_BAD_ARGUMENT;
      if (dwInLen != sizeof(QL_EFTD_AUTH)) return QL_ERR_BAD_LENGTH;
      QL_EFTD_AUTH auth;
      std::memcpy(&auth, pvIn, sizeof auth);
      const bool deauthorize = dwOperation == QL_ADM_EFTD_DEAUTHORIZE;
      if (auth.dwActivities == 0 || (auth.dwActivities & ~uint32_t{QL_EFTD_ACT_ALL}) ||
          (!deauthorize && (auth.dwMinutes < 1 || auth.dwMinutes > QL_EFTD_MAX_MINUTES))) {
        return QL_ERR_BAD_ARGUMENT;
      }
      auto *m = request.mutable_eftd_authorize();
      m->set_activities(auth.dwActivities);
      m->set_minutes(auth.dwMinutes);
      m->set_deauthorize(deauthorize);
      return Ask(hSession, request).code();
    }
    case QL_ADM_EFTD_RESET:
      request.mutable_eftd_reset();
      return Ask(hSession, request).code();
    case QL_ADM_EFTD_SET_CONF: {
      if (pvIn == nullptr) return QL_ERR_BAD_ARGUMENT;
      if (dwInLen != sizeof(QL_EFTD_CONF)) return QL_ERR_BAD_LENGTH;
      QL_EFTD_CONF conf;
      std::memcpy(&conf, pvIn, sizeof conf);
      if (!GoodConf(conf)) return QL_ERR_BAD_ARGUMENT;
      auto *m = request.mutable_eftd_set_conf()->mutable_conf();
      m->set_decimalisation(conf.szDecTable);
      m->set_pin_min(conf.dwPinMin);
      m->set_pin_max(conf.dwPinMax);
      m->set_formats(conf.dwFormats);
      m->set_auth_required(conf.dwAuthRequired);
      return Ask(hSession, request).code();
    }
    case QL_ADM_EFTD_INFO: {
      if (pdwOutLen == nullptr) return QL_ERR_BAD_ARGUMENT;
      if (pvOut == nullptr || *pdwOutLen < sizeof(QL_EFTD_INFO)) {
        *pdwOutLen = sizeof(QL_EFTD_INFO);
        return QL_ERR_BUFFER_TOO_SMALL;
      }
      request.mutable_eftd_info();
      pb::Response response;
      QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
      if (!response.has_eftd_info()) return QL_ERR_PROTOCOL;
      const pb::EftdInfoReply &r = response.eftd_info();
      QL_EFTD_INFO info;
      std::memset(&info, 0, sizeof info);
      CopyText(r.conf().decimalisation(), info.stConf.szDecTable, sizeof info.stConf.szDecTable);
      info.stConf.dwPinMin = r.conf().pin_min();
      info.stConf.dwPinMax = r.conf().pin_max();
      info.stConf.dwFormats = r.conf().formats();
      info.stConf.dwAuthRequired = r.conf().auth_required();
      info.dwAuthActivities = r.activities();
      info.qwAuthUntil = r.until();
      CopyText(r.user(), info.szAuthUser, sizeof info.szAuthUser);
      for (int i = 0; i < r.counters_size() && i < QL_EFTD_OP_COUNT; ++i) {
        info.astCounters[i].qwSuccesses = r.counters(i).successes();
        info.astCounters[i].qwFailures = r.counters(i).failures();
      }
      std::memcpy(pvOut, &info, sizeof info);
      *pdwOutLen = sizeof info;
      return QL_OK;
    }
    default:
      return QL_ERR_BAD_ARGUMENT;
  }
}

}  // namespace qlapi
