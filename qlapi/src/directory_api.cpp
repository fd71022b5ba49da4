// Directory binding: the HSM publishes its entry in an LDAP directory, or removes it.
#include "api_common.h"

using namespace qlapi;

extern "C" int QDSBindHSM(HSESSIONCTX hSession, const char *szServiceUrl, const char *szUser,
                          const char *szPassword, uint32_t dwFlags) {
  return Guard([&] {
    if (!HasText(szServiceUrl) || !HasText(szUser) || szPassword == nullptr)
      return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    auto *bind = request.mutable_directory_bind();
    bind->set_url(szServiceUrl);
    bind->set_bind_dn(szUser);
    bind->set_password(szPassword);
    bind->set_flags(dwFlags);
    return Ask(hSession, request).code();
  });
}

extern "C" int QDSUnbindHSM(HSESSIONCTX hSession, uint32_t dwFlags) {
  return Guard([&] {
    pb::Request request;
    request.mutable_directory_unbind()->set_flags(dwFlags);
    return Ask(hSession, request).code();
  });
}
