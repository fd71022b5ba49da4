// The client facade built from a thread descriptor.
#include "harness/connection.h"
#include "quelta_client.h"

QueltaClient GetQueltaClient(const THREAD_INFO *ti, bool is_anonymous) {
  uint32_t auth_type = 0, flags = 0, data_len = 0;
  int ret = 0;
  const void *record = GetConnectionParams(ti, &auth_type, &flags, &data_len, is_anonymous, &ret);
  if (record == nullptr) return QueltaClient();
  return QueltaClient(auth_type, record, data_len, flags);
}

std::unique_ptr<QueltaClient> NewQueltaClient(const THREAD_INFO *ti, bool is_anonymous) {
  uint32_t auth_type = 0, flags = 0, data_len = 0;
  int ret = 0;
  const void *record = GetConnectionParams(ti, &auth_type, &flags, &data_len, is_anonymous, &ret);
  if (record == nullptr) return nullptr;
  return std::make_unique<QueltaClient>(auth_type, record, data_len, flags);
}
