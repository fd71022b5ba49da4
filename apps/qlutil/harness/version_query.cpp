// The HSM version texts of the -out row, asked over the run's own connection.
#include <cstring>
#include <mutex>

#include "Output.h"
#include "harness/connection.h"
#include "harness/report.h"
#include "harness/runners.h"

bool QueryHsmVersionTexts(const char *address, const char *user, const char *password,
                          unsigned flags, int port, char texts[6][512]) {
  AUTH_PWD_EX record{};
  SetAuthPwdEx(&record, address, user, password, port, 0);
  const uint32_t kind = user != nullptr && *user != '\0' ? kAuthUserPwd : kAuthAnonymous;
  QLUniquePtr<HSESSIONCTX, &CloseSession> session;
  if (QOpenSession(session.Put(), kind, &record, sizeof record, flags) != 0) return false;
  QL_HSM_INFO info{};
  if (QGetHsmInfo(session.Get(), &info) != 0) return false;
  const char *fields[6] = {info.szModel,           info.szFirmwareVersion, info.szSerialNumber,
                           info.szHardwareVersion, info.szHsmName,         info.szLibraryVersion};
  for (int i = 0; i < 6; ++i) {
    CopyFixedField(texts[i], 511, fields[i]);
    texts[i][511] = '\0';
  }
  return true;
}

namespace runner_detail {

void EnsureHsmVersionQuery() {
  static std::once_flag once;
  std::call_once(once, [] { SetHsmVersionQuery(&QueryHsmVersionTexts); });
}

}  // namespace runner_detail
