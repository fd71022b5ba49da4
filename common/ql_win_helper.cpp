// The credential store outside Windows: the library's file store (qlapi_credstore.h).
#include "ql_win_helper.h"

#include "qlapi_credstore.h"

bool read_windows_credential(const char *target_id, char *user, size_t user_len, char *secret,
                             size_t secret_len) {
  if (target_id == nullptr) return false;
  return QLCredRead(target_id, user_len > 0 ? user : nullptr, user != nullptr ? user_len : 0,
                    secret_len > 0 ? secret : nullptr, secret != nullptr ? secret_len : 0) == 0;
}

bool write_windows_credential(const char *target_id, const char *user_name, const char *secret) {
  if (target_id == nullptr) return false;
  return QLCredWrite(target_id, user_name, secret) == 0;
}

bool delete_windows_credential(const char *target_id) {
  if (target_id == nullptr) return false;
  return QLCredDelete(target_id) == 0;
}
