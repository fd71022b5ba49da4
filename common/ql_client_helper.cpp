#include "ql_client_helper.h"

int CloseSession(HSESSIONCTX *phSession) {
  return QCloseSession(phSession, 0);
}

int DestroyKeyHandle(HKEYCTX *phKey) {
  return QDestroyKey(phKey, 0);
}

int DestroyHashHandle(HHASHCTX *phHash) {
  return QDestroyHash(phHash);
}
