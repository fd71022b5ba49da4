// The credential store on Windows: generic credentials of the credential manager.
#include <wincred.h>
#include <windows.h>

#include <cstring>
#include <memory>
#include <string>

#include "ql_win_helper.h"

namespace {
constexpr size_t kMaxBlob = 5120;  // CRED_MAX_CREDENTIAL_BLOB_SIZE
struct CredDeleter {
  void operator()(PCREDENTIALA credential) const { CredFree(credential); }
};
}  // namespace

bool read_windows_credential(const char *target_id, char *user, size_t user_len, char *secret,
                             size_t secret_len) {
  PCREDENTIALA raw = nullptr;
  if (!CredReadA(target_id, CRED_TYPE_GENERIC, 0, &raw)) return false;
  std::unique_ptr<CREDENTIALA, CredDeleter> credential(raw);
  if (secret != nullptr && secret_len != 0 && credential->CredentialBlobSize != 0) {
    // The password is stored as UTF-16 without a terminator.
    wchar_t blob[kMaxBlob / sizeof(wchar_t) + 1] = {};
    memcpy(blob, credential->CredentialBlob,
           credential->CredentialBlobSize < kMaxBlob ? credential->CredentialBlobSize : kMaxBlob);
    if (WideCharToMultiByte(CP_ACP, 0, blob, -1, secret, static_cast<int>(secret_len), nullptr,
                            nullptr) == 0) {
      return false;
    }
  }
  if (user != nullptr && user_len > 0 && credential->UserName != nullptr) {
    strncpy(user, credential->UserName, user_len);
  }
  return true;
}

bool write_windows_credential(const char *target_id, const char *user_name, const char *secret) {
  const int chars = MultiByteToWideChar(CP_ACP, 0, secret, -1, nullptr, 0);
  if (chars <= 0) return false;
  std::wstring password(static_cast<size_t>(chars), L'\0');
  MultiByteToWideChar(CP_ACP, 0, secret, -1, password.data(), chars);
  CREDENTIALA credential = {};
  credential.Type = CRED_TYPE_GENERIC;
  credential.TargetName = const_cast<char *>(target_id);
  credential.UserName = const_cast<char *>(user_name);
  credential.CredentialBlobSize = static_cast<DWORD>((chars - 1) * sizeof(wchar_t));
  credential.CredentialBlob = reinterpret_cast<LPBYTE>(password.data());
  credential.Persist = CRED_PERSIST_LOCAL_MACHINE;
  return CredWriteA(&credential, 0) != FALSE;
}

bool delete_windows_credential(const char *target_id) {
  return CredDeleteA(target_id, CRED_TYPE_GENERIC, 0) != FALSE;
}
