#include "fake_qlapi.h"

#include <openssl/evp.h>

#include <cstring>

#include "qlapi_credstore.h"

namespace {
// A distinct non-null address per open session is all the harness looks at.
unsigned char g_sessions[1024];
std::atomic<unsigned> g_next_session{0};
}  // namespace

FakeLibrary &FakeLibrary::Get() {
  static FakeLibrary library;
  return library;
}

void FakeLibrary::Reset() {
  std::lock_guard<std::mutex> lock(mutex);
  open_result = 0;
  opens.clear();
  close_flags.clear();
  stat_result = 0;
  stat_calls = 0;
  info_result = 0;
  users.clear();
  user_calls.clear();
  user_param_record.clear();
  acl_answer = 0;
  credentials.clear();
  credential_reads = 0;
}

std::vector<FakeOpenCall> FakeLibrary::Opens() {
  std::lock_guard<std::mutex> lock(mutex);
  return opens;
}

std::vector<uint32_t> FakeLibrary::Closes() {
  std::lock_guard<std::mutex> lock(mutex);
  return close_flags;
}

extern "C" {

int QOpenSession(HSESSIONCTX *phSession, uint32_t dwAuthType, void *pvAuthData,
                 uint32_t dwAuthDataLen, uint32_t dwFlags) {
  FakeLibrary &lib = FakeLibrary::Get();
  std::lock_guard<std::mutex> lock(lib.mutex);
  const auto *bytes = static_cast<const unsigned char *>(pvAuthData);
  lib.opens.push_back(
      {dwAuthType, std::vector<unsigned char>(bytes, bytes + dwAuthDataLen), dwFlags});
  if (lib.open_result != 0) return lib.open_result;
  *phSession = &g_sessions[g_next_session++ % sizeof g_sessions];
  return 0;
}

int QCloseSession(HSESSIONCTX *phSession, uint32_t dwFlags) {
  FakeLibrary &lib = FakeLibrary::Get();
  std::lock_guard<std::mutex> lock(lib.mutex);
  if (phSession == nullptr || *phSession == nullptr) return 0;
  lib.close_flags.push_back(dwFlags);
  *phSession = nullptr;
  return 0;
}

int QGetStatInfo(HSESSIONCTX, uint32_t *pdwSessionCount, uint32_t *pdwCpuUsage,
                 uint32_t *pdwMemUnit, uint32_t *pdwMemTotal, uint32_t *pdwMemUsed,
                 uint32_t *pdwSwapTotal, uint32_t *pdwSwapUsed) {
  FakeLibrary &lib = FakeLibrary::Get();
  int result;
  {
    std::lock_guard<std::mutex> lock(lib.mutex);
    result = lib.stat_result;
  }
  const uint32_t n = static_cast<uint32_t>(lib.stat_calls++);
  if (result != 0) return result;
  *pdwSessionCount = n;
  *pdwCpuUsage = 10 + n;
  *pdwMemUnit = QL_MEM_UNIT_MIB;
  *pdwMemTotal = 1000;
  *pdwMemUsed = 100 + n;
  *pdwSwapTotal = 0;
  *pdwSwapUsed = 0;
  return 0;
}

int QGetHsmInfo(HSESSIONCTX, QL_HSM_INFO *pInfo) {
  FakeLibrary &lib = FakeLibrary::Get();
  std::lock_guard<std::mutex> lock(lib.mutex);
  if (lib.info_result != 0) return lib.info_result;
  *pInfo = QL_HSM_INFO{};
  strcpy(pInfo->szModel, "model");
  strcpy(pInfo->szFirmwareVersion, "fw");
  strcpy(pInfo->szSerialNumber, "serial");
  strcpy(pInfo->szHardwareVersion, "hw");
  strcpy(pInfo->szHsmName, "name");
  strcpy(pInfo->szLibraryVersion, "lib");
  return 0;
}

int QBase642ByteArray(const char *szText, uint32_t dwTextLen, void *pbOut, uint32_t *pdwOutLen) {
  std::vector<unsigned char> decoded(dwTextLen / 4 * 3 + 3);
  const int len = EVP_DecodeBlock(decoded.data(), reinterpret_cast<const unsigned char *>(szText),
                                  static_cast<int>(dwTextLen));
  if (len < 0) return QL_ERR_BAD_LENGTH;
  const uint32_t n = static_cast<uint32_t>(len) < *pdwOutLen ? len : *pdwOutLen;
  memcpy(pbOut, decoded.data(), n);
  *pdwOutLen = n;
  return 0;
}

int QCreateUser(HSESSIONCTX, const QL_USER_INFO *pUser) {
  FakeLibrary &lib = FakeLibrary::Get();
  std::lock_guard<std::mutex> lock(lib.mutex);
  const std::string name(pUser->szUserId, strnlen(pUser->szUserId, sizeof pUser->szUserId));
  lib.user_calls.push_back("create:" + name);
  for (const std::string &user : lib.users) {
    if (user == name) return 5013;
  }
  lib.users.push_back(name);
  return 0;
}

int QRemoveUser(HSESSIONCTX, const char *szUserName) {
  FakeLibrary &lib = FakeLibrary::Get();
  std::lock_guard<std::mutex> lock(lib.mutex);
  lib.user_calls.push_back(std::string("remove:") + szUserName);
  for (auto it = lib.users.begin(); it != lib.users.end(); ++it) {
    if (*it == szUserName) {
      lib.users.erase(it);
      return 0;
    }
  }
  return 5020;
}

int QGetUserParam(HSESSIONCTX, uint32_t dwParam, void *pvData, uint32_t *pdwDataLen) {
  FakeLibrary &lib = FakeLibrary::Get();
  std::lock_guard<std::mutex> lock(lib.mutex);
  if (dwParam != QL_UP_ACL) return QL_ERR_NOT_SUPPORTED;
  auto *bytes = static_cast<unsigned char *>(pvData);
  lib.user_param_record.assign(bytes, bytes + *pdwDataLen);
  if (*pdwDataLen < 38) return QL_ERR_BUFFER_TOO_SMALL;
  memcpy(bytes + 34, &lib.acl_answer, sizeof lib.acl_answer);
  return 0;
}

namespace {
void CopyOut(const std::string &text, char *out, size_t out_len) {
  if (out == nullptr || out_len == 0) return;
  const size_t n = text.size() < out_len ? text.size() : out_len;
  memcpy(out, text.data(), n);
  if (n < out_len) out[n] = '\0';
}
}  // namespace

int QLCredRead(const char *szTarget, char *szUser, size_t dwUserLen, char *szSecret,
               size_t dwSecretLen) {
  FakeLibrary &lib = FakeLibrary::Get();
  std::lock_guard<std::mutex> lock(lib.mutex);
  ++lib.credential_reads;
  const auto it = lib.credentials.find(szTarget);
  if (it == lib.credentials.end()) return QL_ERR_CREDENTIAL_NOT_FOUND;
  CopyOut(it->second.first, szUser, dwUserLen);
  CopyOut(it->second.second, szSecret, dwSecretLen);
  return 0;
}

int QLCredWrite(const char *szTarget, const char *szUser, const char *szSecret) {
  FakeLibrary &lib = FakeLibrary::Get();
  std::lock_guard<std::mutex> lock(lib.mutex);
  lib.credentials[szTarget] = {szUser, szSecret};
  return 0;
}

int QLCredDelete(const char *szTarget) {
  FakeLibrary &lib = FakeLibrary::Get();
  std::lock_guard<std::mutex> lock(lib.mutex);
  return lib.credentials.erase(szTarget) == 1 ? 0 : QL_ERR_CREDENTIAL_NOT_FOUND;
}

}  // extern "C"
