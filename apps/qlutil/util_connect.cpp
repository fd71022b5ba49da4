// Connection options, authentication records and session opening.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "Output.h"
#include "option_usage.h"
#include "ql_win_helper.h"
#include "util.h"

namespace {

// Copies text into a fixed field the way the records expect it: at most
// field_len bytes, the rest zero (no terminator when the text fills the field).

// A field that may lack its terminator, as a string.
std::string FieldText(const char *field, size_t field_len) {
  return std::string(field, strnlen(field, field_len));
}

// --port: absent, empty or -1 mean 4433 and 1-65535 is the port. Any other value is refused
// (0 is answered and the connection is left unloaded, so the command shows its help page):
// credentials must never go to another HSM because of a typo.
int LoadPortParam(TEST_PARAMETER *param, int param_count) {
  char *value = nullptr;
  if (!FindParameter(param, param_count, "--port", &value)) return kDefaultHsmPort;
  std::string text = value;
  // "--port -5": a value starting with a dash was parsed as a switch of its own. It is the port's
  // value all the same, so that "-1" keeps meaning 4433 and "-5" is refused.
  const auto *entry = reinterpret_cast<const TEST_PARAMETER *>(
      reinterpret_cast<const char *>(value) - offsetof(TEST_PARAMETER, szValue));
  const int index = static_cast<int>(entry - param);
  if (text.empty() && index + 1 < param_count) {
    const char *next = param[index + 1].szParameter;
    if (next[0] == '-' && next[1] >= '0' && next[1] <= '9' && param[index + 1].szValue[0] == '\0') {
      text = next;
      MarkOptionRead(param, index + 1);
    }
  }
  if (text.empty() || text == "-1") return kDefaultHsmPort;
  const int port = atoi(text.c_str());
  if (port >= 1 && port <= 65535) return port;
  const std::string line =
      "--port " + text + " is not a port number (1-65535, or -1 for 4433); refused";
  ReportOptionValue("--port", line.c_str());
  return 0;
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
// Loading

void LoadLibConnectionFlagsParam(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count) {
  auto zero_or_one = [&](const char *name, int fallback) {
    const int value = GetParameterInt(param, param_count, name);
    return value == 0 || value == 1 ? value : fallback;
  };
  ti->UseLoadBalance = zero_or_one("-lb", 0);
  ti->SessionCache = zero_or_one("-sc", 1);
  ti->UseTLS = zero_or_one("-tls", 1);
}

void LoadLibConnectionParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count) {
  LoadLibConnectionFlagsParam(ti, param, param_count);
  const char *password = GetParameterStr(param, param_count, "-w");
  const char *address = GetParameterStr(param, param_count, "-a");
  const char *user = GetParameterStr(param, param_count, "-u");
  const int port = LoadPortParam(param, param_count);
  if (port == 0) return;

  if (IsUserPwdConnection(address, user, password)) {
    SetupUserPwdConnection(ti, address, user, password, port);
    return;
  }
  // -b is the old name of --cm; scripts still use it.
  const char *target = GetParameterStr(param, param_count, "--cm");
  if (target == nullptr) target = GetParameterStr(param, param_count, "-b");
  if (IsWinCredentialsConnection(target)) {
    SetupWinCredentialsConnection(ti, target, port);
    return;
  }
  const char *token = GetParameterStr(param, param_count, "-at");
  const char *token_file = GetParameterStr(param, param_count, "-atf");
  if (IsAtokenConnection(token, token_file)) {
    SetupAtokenConnection(ti, address, port, token, token_file);
  }
}

void LoadAnonymousConnectionParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count) {
  const int port = LoadPortParam(param, param_count);
  // A refused port leaves the address empty: the command cannot connect.
  CopyFixedField(ti->stAuthPwdEx.szAddr, sizeof ti->stAuthPwdEx.szAddr,
                 port == 0 ? nullptr : GetParameterStr(param, param_count, "-a"));
  ti->stAuthPwdEx.nPort = port;
  ti->dwAuthParam = kAuthAnonymous;
  ti->stAuthPwdEx.pbStrongAuth = nullptr;
  ti->stAuthPwdEx.nStrongAuthLen = 0;
  ti->stAuthPwdEx.dwAuthType = 0;
}

void LoadUserCreationParams(char **password, uint32_t *acl, TEST_PARAMETER *param,
                            int param_count) {
  *password = GetParameterStr(param, param_count, "-pwd");
  *acl = 0;
  if (IsParameterDefined(param, param_count, "-operator")) {
    *acl = 128;
    return;
  }
  static constexpr struct {
    const char *name;
    uint32_t bit;
  } kSwitches[] = {{"-usr_create", 16},      {"-usr_list", 64},     {"-remote_log", 32},
                   {"-backup", 256},         {"-firm_update", 512}, {"-ns_auth", 1024},
                   {"-cold_partition", 2048}};
  for (const auto &entry : kSwitches) {
    if (IsParameterDefined(param, param_count, entry.name)) *acl |= entry.bit;
  }
}

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
