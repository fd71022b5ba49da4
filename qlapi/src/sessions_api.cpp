// Sessions: QOpenSession, QCloseSession, QGetSessionParam, QAdmOperation.
#include "api_common.h"
#include "auth_records.h"
#include "eftd_admin.h"
#include "session_cache.h"

namespace qlapi {
namespace {

bool TransportFailure(const Status &st) {
  return st.code() == QL_ERR_SESSION_CLOSED || st.code() == QL_ERR_PROTOCOL;
}

// A logged-in link for creds: from the cache when allowed, else a new connection.
Result<std::unique_ptr<Link>> Acquire(const Credentials &creds, const std::string &key,
                                      bool use_cache, uint64_t *session_id, uint32_t *acl) {
  if (use_cache) {
    while (std::unique_ptr<Link> link = CacheTake(key)) {
      Status st = Login(*link, creds, session_id, acl);
      if (st.ok()) return link;
      // A connection the HSM closed while it sat idle is dropped; try the next one.
      if (TransportFailure(st) || !link->conn || link->conn->broken()) continue;
      // Refused (user blocked, password changed, ...): the connection itself is still good.
      CachePut(key, std::move(link));
      return st;
    }
  }
  return Connect(creds, session_id, acl);
}

}  // namespace
}  // namespace qlapi

using namespace qlapi;

extern "C" int QOpenSession(HSESSIONCTX *phSession, uint32_t dwAuthType, void *pvAuthData,
                            uint32_t dwAuthDataLen, uint32_t dwFlags) {
  return Guard([&] {
    if (phSession == nullptr) return QL_ERR_BAD_ARGUMENT;
    *phSession = nullptr;
    Credentials creds;
    QL_RETURN_CODE_IF_ERROR(CheckSessionFlags(dwFlags, &creds.tls));
    const bool tls = creds.tls;
    QL_RETURN_CODE_IF_ERROR(CredentialsFromRecord(dwAuthType, pvAuthData, dwAuthDataLen, &creds));
    creds.tls = tls;
    const bool use_cache = (dwFlags & QL_SESSION_BYPASS_CACHE) == 0;
    const std::string key = creds.CacheKey();
    uint64_t session_id = 0;
    uint32_t acl = 0;
    auto link = Acquire(creds, key, use_cache, &session_id, &acl);
    if (!link.ok()) return link.status().code();
    auto handle = std::make_unique<SessionHandle>();
    handle->core =
        std::make_shared<SessionCore>(std::move(creds), key, std::move(link.value()), use_cache);
    handle->core->session_id = session_id;
    handle->core->acl = acl;
    RegisterHandle(handle.get());
    *phSession = handle.release();
    return QL_OK;
  });
}

extern "C" int QCloseSession(HSESSIONCTX *phSession, uint32_t dwFlags) {
  return Guard([&] {
    if (phSession == nullptr) return QL_ERR_BAD_ARGUMENT;
    if (*phSession == nullptr) return QL_OK;
    if ((dwFlags & ~uint32_t{QL_CLOSE_PHYSICAL}) != 0) return QL_ERR_BAD_FLAGS;
    auto *handle = AsHandle<SessionHandle>(*phSession, kSessionMagic);
    if (handle == nullptr || !UnregisterHandle(handle)) return QL_ERR_BAD_HANDLE;
    std::unique_ptr<SessionHandle> owned(handle);
    *phSession = nullptr;
    std::unique_ptr<Link> idle;
    Status st = owned->core->Close((dwFlags & QL_CLOSE_PHYSICAL) == 0, &idle);
    if (idle) CachePut(owned->core->cache_key(), std::move(idle));
    return st.code();
  });
}

extern "C" int QGetSessionParam(HSESSIONCTX hSession, uint32_t dwParam, void *pvData,
                                uint32_t *pdwDataLen, uint32_t dwFlags) {
  return Guard([&] {
    if (pdwDataLen == nullptr || dwFlags != 0) return QL_ERR_BAD_ARGUMENT;
    auto core = CoreOf(hSession);
    if (!core) return QL_ERR_BAD_HANDLE;
    switch (dwParam) {
      case QL_SP_USER_NAME:
        return CopyOut(core->creds().user + '\0', pvData, pdwDataLen).code();
      case QL_SP_SESSION_ID:
        return NumberOut(core->session_id, 8, pvData, pdwDataLen).code();
      case QL_SP_TLS:
        return NumberOut(core->tls() ? 1 : 0, 4, pvData, pdwDataLen).code();
      case QL_SP_TLS_PEER_SHA256: {
        if (!core->tls()) return QL_ERR_NOT_SUPPORTED;
        return CopyOut(core->peer_sha256(), pvData, pdwDataLen).code();
      }
      default: {
        pb::Request request;
        request.mutable_get_session_param()->set_param(dwParam);
        pb::Response response;
        QL_RETURN_CODE_IF_ERROR(AskCore(*core, request, &response));
        if (response.has_number()) {
          return NumberOut(response.number().value(), 4, pvData, pdwDataLen).code();
        }
        if (!response.has_param()) return QL_ERR_PROTOCOL;
        const pb::ParamValue &v = response.param();
        if (v.has_data()) return CopyOut(v.data(), pvData, pdwDataLen).code();
        if (v.has_text()) return CopyOut(v.text() + '\0', pvData, pdwDataLen).code();
        return NumberOut(v.number(), 4, pvData, pdwDataLen).code();
      }
    }
  });
}

extern "C" int QAdmOperation(HSESSIONCTX hSession, uint32_t dwOperation, const void *pvIn,
                             uint32_t dwInLen, void *pvOut, uint32_t *pdwOutLen, uint32_t dwFlags) {
  return Guard([&] {
    if ((pvIn == nullptr && dwInLen > 0) || dwFlags != 0) return QL_ERR_BAD_ARGUMENT;
    if (dwOperation >= QL_ADM_EFTD_AUTHORIZE && dwOperation <= QL_ADM_EFTD_SET_CONF)
      return EftdOperation(hSession, dwOperation, pvIn, dwInLen, pvOut, pdwOutLen);
    pb::Request request;
    auto *op = request.mutable_adm_operation();
    op->set_operation(dwOperation);
    if (dwOperation == QL_ADM_SET_DATE_TIME && dwInLen == sizeof(uint64_t)) {
      // The caller's uint64 travels little-endian, whatever this machine's byte order.
      uint64_t seconds = 0;
      std::memcpy(&seconds, pvIn, sizeof seconds);
      op->set_input(LittleEndian64(seconds));
    } else if (dwOperation == QL_ADM_LOG_CACHE && dwInLen == sizeof(uint32_t)) {
      uint32_t state = 0;
      std::memcpy(&state, pvIn, sizeof state);
      op->set_input(LittleEndian32(state));
    } else if (dwInLen) {
      op->set_input(pvIn, dwInLen);
    }
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (pdwOutLen == nullptr) return QL_OK;  // the caller wants no output
    if (response.has_number()) {
      // A numeric answer (the probe's state) is a uint32 in this machine's byte order; a buffer
      // shorter than 4 bytes, or none, answers 1005 with 4.
      const uint32_t value = static_cast<uint32_t>(response.number().value());
      return CopyOut(std::string(reinterpret_cast<const char *>(&value), sizeof value), pvOut,
                     pdwOutLen)
          .code();
    }
    return CopyOut(response.has_blob() ? response.blob().data() : std::string(), pvOut, pdwOutLen)
        .code();
  });
}
