// The common options of THREAD_INFO: volume, statistics, result files, session reuse and the
// connection (which fills the login records through connection.h).
#include "harness/loaders.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "harness/connection.h"
#include "option_usage.h"

namespace {

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

}  // namespace

void LoadTestVolumeParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count) {
  ti->Threads = GetParameterInt(param, param_count, "-t");
  ti->Iterations = GetParameterInt(param, param_count, "-i");
}

void LoadTestStatsParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count) {
  ti->printStatsOnScreen = IsParameterDefined(param, param_count, "--stats_print") != 0;
  ti->pszStatsFile = GetParameterStr(param, param_count, "--stats_file");
  ti->statSleepIntervalMs = kDefaultStatsIntervalMs;
  if (IsParameterDefined(param, param_count, "--stats_interval")) {
    const int interval = GetParameterInt(param, param_count, "--stats_interval");
    if (interval != -1) ti->statSleepIntervalMs = static_cast<uint32_t>(interval);
  }
}

void LoadReturnFileParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count) {
  ti->pszTestCase = GetParameterStr(param, param_count, "-tc");
  ti->writeReturnFiles = IsParameterDefined(param, param_count, "--retfiles") != 0;
}

void LoadReuseParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count) {
  const int reuse = GetParameterInt(param, param_count, "-r");
  ti->ReuseSession = reuse == 0 ? 0 : 1;
}

void LoadGenericParameters(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count) {
  LoadLibConnectionParams(ti, param, param_count);
  LoadTestVolumeParams(ti, param, param_count);
  LoadTestStatsParams(ti, param, param_count);
  LoadReturnFileParams(ti, param, param_count);
  LoadReuseParams(ti, param, param_count);
}

void LoadGenericJobParameters(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count,
                              bool is_anonymous) {
  if (is_anonymous) {
    LoadAnonymousConnectionParams(ti, param, param_count);
  } else {
    LoadLibConnectionParams(ti, param, param_count);
  }
  LoadReturnFileParams(ti, param, param_count);
  ti->UseLoadBalance = 0;
  ti->Iterations = 1;
  ti->Threads = 1;
}

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
  // -b is another name of --cm.
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
