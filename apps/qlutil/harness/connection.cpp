// Login records, the session flags and session opening.
#include "harness/connection.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "Output.h"
#include "harness/thread_info.h"
#include "ql_win_helper.h"

namespace {

// Copies text into a fixed field the way the records expect it: at most
// field_len bytes, the rest zero (no terminator when the text fills the field).

// A field that may lack its terminator, as a string.
std::string FieldText(const char *field, size_t field_len) {
  return std::string(field, strnlen(field, field_len));
}

// Reads the whole file into a QAlloc buffer one byte longer than the file, that
// byte 0.
bool ReadTextFile(const char *path, DBLOB *blob) {
  std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(path, "rb"), fclose);
  if (!file) return false;
  if (fseek(file.get(), 0, SEEK_END) != 0) return false;
  const long size = ftell(file.get());
  if (size < 0 || fseek(file.get(), 0, SEEK_SET) != 0) return false;
  blob->pvData = static_cast<unsigned char *>(QAlloc(static_cast<uint32_t>(size) + 1));
  if (blob->pvData == nullptr) return false;
  blob->dwDataLen = static_cast<uint32_t>(size);
  if (fread(blob->pvData, 1, static_cast<size_t>(size), file.get()) != static_cast<size_t>(size)) {
    return false;
  }
  blob->pvData[size] = 0;
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Login records

bool IsUserPwdConnection(const char *address, const char *user, const char *password) {
  return address != nullptr && user != nullptr && password != nullptr;
}

void SetAuthPwdEx(AUTH_PWD_EX *record, const char *address, const char *user, const char *password,
                  int port, uint32_t auth_type) {
  record->nPort = port;
  record->dwAuthType = auth_type;
  CopyFixedField(record->szAddr, sizeof record->szAddr, address);
  CopyFixedField(record->szUserId, sizeof record->szUserId, user);
  CopyFixedField(record->szPassword, sizeof record->szPassword, password);
}

void SetupUserPwdConnection(THREAD_INFO *ti, const char *address, const char *user,
                            const char *password, int port) {
  SetAuthPwdEx(&ti->stAuthPwdEx, address, user, password, port, 0);
  ti->stAuthPwdEx.pbStrongAuth = nullptr;
  ti->stAuthPwdEx.nStrongAuthLen = 0;
  ti->dwAuthParam = kAuthUserPwd;
}

bool IsWinCredentialsConnection(const char *target) {
  return target != nullptr;
}

void SetupWinCredentialsConnection(THREAD_INFO *ti, const char *target, int port) {
  ti->stWinCredential.nPort = port;
  CopyFixedField(ti->stWinCredential.szAddr, sizeof ti->stWinCredential.szAddr, target);
  ti->dwAuthParam = kAuthWinCredential;
}

bool IsAtokenConnection(const char *token, const char *token_file) {
  return token != nullptr || token_file != nullptr;
}

void SetupAtokenConnection(THREAD_INFO *thread_info, const char *addr, int port,
                           const char *atoken_b64, const char *atoken_b64_file) {
  thread_info->useAccessToken = false;
  DBLOB file_text{};
  const char *text = atoken_b64;
  if (atoken_b64_file != nullptr) {
    if (!ReadTextFile(atoken_b64_file, &file_text)) {
      ScreenOutput("Error reading file(%s).\r\n", atoken_b64_file);
      ResetDblob(&file_text);
      return;
    }
    text = reinterpret_cast<const char *>(file_text.pvData);
  }
  if (text != nullptr) {
    AUTH_ATOKEN &token = thread_info->stAccessToken;
    token.nPort = port;
    if (addr != nullptr) {
      memset(token.szAddr, 0, sizeof token.szAddr);
      CopyFixedField(token.szAddr, sizeof token.szAddr, addr);
    }
    uint32_t len = sizeof token.stAToken;
    // A token that does not decode leaves what it could; the HSM refuses it at
    // login.
    QBase642ByteArray(text, static_cast<uint32_t>(strlen(text)),
                      reinterpret_cast<unsigned char *>(&token.stAToken), &len);
    thread_info->useAccessToken = true;
  }
  ResetDblob(&file_text);
}

// ---------------------------------------------------------------------------------------------
// The descriptor's view of its login

namespace {
// A token loaded by -at/-atf never becomes dwAuthParam; the descriptor still shows the token's
// address and port, so that a token set-up passes CheckConnectionFlags (Connect then finds no
// record for the kind and answers 100001).
uint32_t ViewKind(const THREAD_INFO &ti) {
  if (ti.dwAuthParam == kAuthNone && ti.useAccessToken) return kAuthAccessToken;
  return ti.dwAuthParam;
}
}  // namespace

std::string THREAD_INFO::GetAddress() const {
  switch (ViewKind(*this)) {
    case kAuthAnonymous:
    case kAuthUserPwd:
      return FieldText(stAuthPwdEx.szAddr, sizeof stAuthPwdEx.szAddr);
    case kAuthAccessToken:
      return FieldText(stAccessToken.szAddr, sizeof stAccessToken.szAddr);
    case kAuthWinCredential:
      return FieldText(stWinCredential.szAddr, sizeof stWinCredential.szAddr);
    default:
      return {};
  }
}

std::string THREAD_INFO::GetUserId() const {
  switch (ViewKind(*this)) {
    case kAuthUserPwd:
      return FieldText(stAuthPwdEx.szUserId, sizeof stAuthPwdEx.szUserId);
    case kAuthWinCredential: {
      char user[17] = {};
      const std::string target = GetAddress();
      if (!read_windows_credential(target.c_str(), user, sizeof user, nullptr, 0)) return {};
      return FieldText(user, sizeof user);
    }
    default:
      return {};
  }
}

std::string THREAD_INFO::GetPassword() const {
  switch (ViewKind(*this)) {
    case kAuthUserPwd:
      return FieldText(stAuthPwdEx.szPassword, sizeof stAuthPwdEx.szPassword);
    case kAuthWinCredential: {
      char secret[17] = {};
      const std::string target = GetAddress();
      if (!read_windows_credential(target.c_str(), nullptr, 0, secret, sizeof secret)) return {};
      return FieldText(secret, sizeof secret);
    }
    default:
      return {};
  }
}

int THREAD_INFO::GetPort() const {
  switch (ViewKind(*this)) {
    case kAuthAnonymous:
    case kAuthUserPwd:
      return stAuthPwdEx.nPort;
    case kAuthAccessToken:
      return stAccessToken.nPort;
    case kAuthWinCredential:
      return stWinCredential.nPort;
    default:
      return kDefaultHsmPort;
  }
}

// ---------------------------------------------------------------------------------------------
// Checking and opening

uint32_t GetConnectionFlags(const THREAD_INFO *ti) {
  uint32_t flags = ti->UseTLS != 0 ? kSessionEncrypted : kSessionUnencrypted;
  if (ti->UseLoadBalance == 0) flags += kSessionBypassLoadBalance;
  if (ti->SessionCache == 0) flags += kSessionBypassCache;
  return flags;
}

bool CheckConnectionFlags(const THREAD_INFO *test_info, bool is_anonymous) {
  const std::string address = test_info->GetAddress();
  if (is_anonymous && !address.empty()) return true;
  if (!address.empty() && !test_info->GetPassword().empty() && !test_info->GetUserId().empty()) {
    return true;
  }
  return !address.empty() && test_info->useAccessToken;
}

const void *GetAuthData(const THREAD_INFO *ti, uint32_t *len) {
  switch (ti->dwAuthParam) {
    case kAuthAnonymous:
    case kAuthUserPwd:
      *len = sizeof ti->stAuthPwdEx;
      return &ti->stAuthPwdEx;
    case kAuthAccessToken:
      *len = sizeof ti->stAccessToken;
      return &ti->stAccessToken;
    case kAuthWinCredential:
      *len = sizeof ti->stWinCredential;
      return &ti->stWinCredential;
    default:
      return nullptr;
  }
}

const void *GetConnectionParams(const THREAD_INFO *ti, uint32_t *auth_type, uint32_t *flags,
                                uint32_t *data_len, bool isAnonymous, int *ret) {
  *auth_type = isAnonymous ? kAuthAnonymous : ti->dwAuthParam;
  *data_len = 0;
  const void *record = GetAuthData(ti, data_len);
  if (record == nullptr) {
    *ret = kResultShowHelp;
    return nullptr;
  }
  *flags = GetConnectionFlags(ti);
  *ret = 0;
  return record;
}

int Connect(const THREAD_INFO *ti, HSESSIONCTX *session, bool is_anonymous) {
  uint32_t auth_type = 0, flags = 0, data_len = 0;
  int ret = 0;
  const void *record = GetConnectionParams(ti, &auth_type, &flags, &data_len, is_anonymous, &ret);
  if (record == nullptr) return ret;
  return QOpenSession(session, auth_type, const_cast<void *>(record), data_len, flags);
}

int ConnectEx(HSESSIONCTX *session, const THREAD_INFO *ti) {
  return Connect(ti, session, false);
}

int ConnectAnonymous(HSESSIONCTX *session, const THREAD_INFO *ti) {
  return Connect(ti, session, true);
}

int Connect(HSESSIONCTX *session, const char *address, const char *user, const char *password,
            int port, uint32_t flags) {
  AUTH_PWD_EX record{};
  SetAuthPwdEx(&record, address, user, password, port, 0);
  return QOpenSession(session, kAuthUserPwd, &record, sizeof record, flags);
}
