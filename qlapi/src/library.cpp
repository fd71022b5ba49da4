// Library start and stop, buffers, base64 and the version texts.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "api_guard.h"
#include "base64.h"
#include "connection.h"
#include "session.h"
#include "session_cache.h"
#include "version.h"

namespace qlapi {
namespace {

std::atomic<bool> g_started{false};
std::mutex g_start_mu;

}  // namespace

void EnsureInitialized() {
  if (g_started.load(std::memory_order_acquire)) return;
  std::lock_guard<std::mutex> lock(g_start_mu);
  if (g_started.load(std::memory_order_relaxed)) return;
  InitTls();  // a failure shows when a TLS session is opened
  g_started.store(true, std::memory_order_release);
}

}  // namespace qlapi

extern "C" int QInitialize(int nFlags) {
  return qlapi::Guard([&] { return nFlags == 0 ? QL_OK : QL_ERR_BAD_FLAGS; });
}

extern "C" int QFinalize(void) {
  try {
    std::lock_guard<std::mutex> lock(qlapi::g_start_mu);
    qlapi::ReleaseAllHandles();
    qlapi::CacheClear();
    qlapi::g_started.store(false, std::memory_order_release);
    return QL_OK;
  } catch (...) {
    return QL_ERR_LIB_INTERNAL;
  }
}

extern "C" void *QAlloc(unsigned int dwSize) {
  return std::malloc(dwSize ? dwSize : 1);
}

extern "C" void QFree(void *pvData) {
  std::free(pvData);
}

extern "C" int QBase642ByteArray(const char *szText, uint32_t dwTextLen, void *pbOut,
                                 uint32_t *pdwOutLen) {
  return qlapi::Guard([&] {
    if ((szText == nullptr && dwTextLen > 0) || pdwOutLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    std::string bytes;
    if (!qlapi::Base64Decode(std::string_view(szText ? szText : "", dwTextLen), &bytes)) {
      return QL_ERR_BAD_BASE64;
    }
    return qlapi::CopyOut(bytes, pbOut, pdwOutLen).code();
  });
}

extern "C" int QByteArray2Base64(const void *pbData, uint32_t dwDataLen, char *szOut,
                                 uint32_t *pdwOutLen) {
  return qlapi::Guard([&] {
    if ((pbData == nullptr && dwDataLen > 0) || pdwOutLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    const std::string text = qlapi::Base64Encode(
        std::string_view(static_cast<const char *>(pbData ? pbData : ""), dwDataLen));
    const uint32_t needed = static_cast<uint32_t>(text.size() + 1);
    if (szOut == nullptr || *pdwOutLen < needed) {
      *pdwOutLen = needed;
      return QL_ERR_BUFFER_TOO_SMALL;
    }
    std::memcpy(szOut, text.c_str(), needed);
    *pdwOutLen = needed - 1;
    return QL_OK;
  });
}

extern "C" int QVersion(HSESSIONCTX hSession, uint32_t dwWhich, char *szVersion,
                        uint32_t *pdwVersionLen) {
  return qlapi::Guard([&] {
    if (pdwVersionLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    std::string text;
    if (dwWhich == QL_VERSION_LIBRARY) {
      text = qlapi::kLibraryVersion;
    } else if (dwWhich == QL_VERSION_PROTOCOL) {
      text = "1.0";
    } else if (dwWhich == QL_VERSION_HSM) {
      auto core = qlapi::CoreOf(hSession);
      if (!core) return QL_ERR_BAD_HANDLE;
      text = core->server_version();
      for (char &c : text) {
        if (c == '%') c = ' ';  // version texts reach format strings
      }
    } else {
      return QL_ERR_BAD_ARGUMENT;
    }
    text.push_back('\0');
    const int rc = qlapi::CopyOut(text, szVersion, pdwVersionLen).code();
    if (rc == QL_OK) --*pdwVersionLen;  // the text's length, without its NUL
    return rc;
  });
}
