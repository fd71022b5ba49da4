// Users and access tokens.
#include "api_common.h"
#include "auth_records.h"

using namespace qlapi;

namespace {

// The name in a record's 17-byte field; a field without NUL holds a name that is too long.
Status RecordName(const char (&field)[17], std::string *name) {
  if (strnlen(field, sizeof field) == sizeof field) return Status(QL_ERR_USER_NAME_TOO_LONG);
  *name = field;
  if (name->empty()) return Status(QL_ERR_BAD_ARGUMENT);
  return Status::Ok();
}

Status RecordPassword(const char (&field)[17], std::string *password) {
  if (strnlen(field, sizeof field) == sizeof field) return Status(QL_ERR_BAD_LENGTH);
  *password = field;
  return Status::Ok();
}

Status CheckUserName(const char *name) {
  if (!HasText(name)) return Status(QL_ERR_BAD_ARGUMENT);
  if (std::strlen(name) > QL_MAX_USER_NAME) return Status(QL_ERR_USER_NAME_TOO_LONG);
  return Status::Ok();
}

}  // namespace

extern "C" int QCreateUser(HSESSIONCTX hSession, const QL_USER_INFO *pUser) {
  return Guard([&] {
    if (pUser == nullptr) return QL_ERR_BAD_ARGUMENT;
    QL_USER_INFO user;
    std::memcpy(&user, pUser, sizeof user);
    pb::Request request;
    auto *create = request.mutable_create_user();
    QL_RETURN_CODE_IF_ERROR(RecordName(user.szUserId, create->mutable_name()));
    QL_RETURN_CODE_IF_ERROR(RecordPassword(user.szPassword, create->mutable_password()));
    create->set_acl(user.dwAcl);
    return Ask(hSession, request).code();
  });
}

extern "C" int QRemoveUser(HSESSIONCTX hSession, const char *szUserName) {
  return Guard([&] {
    QL_RETURN_CODE_IF_ERROR(CheckUserName(szUserName));
    pb::Request request;
    request.mutable_remove_user()->set_name(szUserName);
    return Ask(hSession, request).code();
  });
}

extern "C" int QListUsers(HSESSIONCTX hSession, PQL_LIST_CALLBACK pfnCallback, void *pvParam) {
  return Guard([&] {
    pb::Request request;
    request.mutable_list_users();
    return ListNames(hSession, request, pfnCallback, pvParam);
  });
}

extern "C" int QGetUserAcl(HSESSIONCTX hSession, const char *szUserName, uint32_t *pdwAcl) {
  return Guard([&] {
    if (pdwAcl == nullptr) return QL_ERR_BAD_ARGUMENT;
    QL_RETURN_CODE_IF_ERROR(CheckUserName(szUserName));
    pb::Request request;
    request.mutable_get_user_acl()->set_user(szUserName);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_number()) return QL_ERR_PROTOCOL;
    *pdwAcl = static_cast<uint32_t>(response.number().value());
    return QL_OK;
  });
}

extern "C" int QSetUserParam(HSESSIONCTX hSession, uint32_t dwParam, const void *pvData,
                             uint32_t dwDataLen) {
  return Guard([&] {
    if (pvData == nullptr && dwParam != QL_UP_X509_UNASSIGN) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    auto *set = request.mutable_set_user_param();
    set->set_param(dwParam);
    switch (dwParam) {
      case QL_UP_PASSWORD: {
        const std::string pwd(static_cast<const char *>(pvData),
                              strnlen(static_cast<const char *>(pvData), dwDataLen));
        if (pwd.size() > QL_MAX_PASSWORD) return QL_ERR_BAD_LENGTH;
        set->set_password(pwd);
        break;
      }
      case QL_UP_ACL:
      case QL_UP_BLOCK:
      case QL_UP_UNBLOCK:
      case QL_UP_USER_PASSWORD: {
        if (dwDataLen < sizeof(QL_USER_INFO)) return QL_ERR_BAD_ARGUMENT;
        QL_USER_INFO user;
        std::memcpy(&user, pvData, sizeof user);
        QL_RETURN_CODE_IF_ERROR(RecordName(user.szUserId, set->mutable_user()));
        if (dwParam == QL_UP_USER_PASSWORD) {
          QL_RETURN_CODE_IF_ERROR(RecordPassword(user.szPassword, set->mutable_password()));
        }
        set->set_acl(user.dwAcl);
        break;
      }
      case QL_UP_X509_ASSIGN:
        if (dwDataLen == 0) return QL_ERR_BAD_ARGUMENT;
        set->set_data(pvData, dwDataLen);
        break;
      case QL_UP_X509_UNASSIGN:
        if (pvData == nullptr) break;  // the caller's own
        if (dwDataLen < sizeof(QL_USER_INFO)) return QL_ERR_BAD_ARGUMENT;
        {
          QL_USER_INFO user;
          std::memcpy(&user, pvData, sizeof user);
          QL_RETURN_CODE_IF_ERROR(RecordName(user.szUserId, set->mutable_user()));
        }
        break;
      default:
        return QL_ERR_BAD_ARGUMENT;
    }
    return Ask(hSession, request).code();
  });
}

extern "C" int QGetUserParam(HSESSIONCTX hSession, uint32_t dwParam, void *pvData,
                             uint32_t *pdwDataLen) {
  return Guard([&] {
    if (pvData == nullptr || pdwDataLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    auto *get = request.mutable_get_user_param();
    get->set_param(dwParam);
    const bool record = dwParam == QL_UP_ACL || dwParam == QL_UP_BLOCKED;
    if (record) {
      if (*pdwDataLen < sizeof(QL_USER_INFO)) {
        *pdwDataLen = sizeof(QL_USER_INFO);
        return QL_ERR_BUFFER_TOO_SMALL;
      }
      QL_USER_INFO user;
      std::memcpy(&user, pvData, sizeof user);
      QL_RETURN_CODE_IF_ERROR(RecordName(user.szUserId, get->mutable_user()));
    } else if (dwParam == QL_UP_OBJ_COUNT) {
      if (*pdwDataLen < 4) {
        *pdwDataLen = 4;
        return QL_ERR_BUFFER_TOO_SMALL;
      }
    } else {
      return QL_ERR_BAD_ARGUMENT;
    }
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_number()) return QL_ERR_PROTOCOL;
    const uint32_t value = static_cast<uint32_t>(response.number().value());
    if (record) {
      // The answer goes to the mask field at offset 34; the name stays as the caller wrote it.
      std::memcpy(static_cast<char *>(pvData) + offsetof(QL_USER_INFO, dwAcl), &value, 4);
      *pdwDataLen = sizeof(QL_USER_INFO);
    } else {
      std::memcpy(pvData, &value, 4);
      *pdwDataLen = 4;
    }
    return QL_OK;
  });
}

extern "C" int QManageAToken(HSESSIONCTX hSession, uint32_t dwOperation, QL_A_TOKEN *pToken,
                             uint64_t qwExpiration, PQL_ATOKEN_CALLBACK pfnCallback,
                             void *pvParam) {
  return Guard([&] {
    pb::Request request;
    auto *manage = request.mutable_manage_atoken();
    manage->set_operation(dwOperation);
    switch (dwOperation) {
      case QL_ATOKEN_ISSUE:
        if (pToken == nullptr) return QL_ERR_BAD_ARGUMENT;
        manage->set_expiration(qwExpiration);
        break;
      case QL_ATOKEN_REVOKE:
        if (pToken == nullptr) return QL_ERR_BAD_ARGUMENT;
        manage->set_user(FieldText(pToken->pcUserName, sizeof pToken->pcUserName));
        manage->set_key(pToken->pbKey, sizeof pToken->pbKey);
        break;
      case QL_ATOKEN_LIST:
        if (pfnCallback == nullptr) return QL_ERR_BAD_ARGUMENT;
        break;
      default:
        return QL_ERR_BAD_ARGUMENT;
    }
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (dwOperation == QL_ATOKEN_REVOKE) return QL_OK;
    if (!response.has_atoken()) return QL_ERR_PROTOCOL;
    const pb::ATokenReply &r = response.atoken();
    if (dwOperation == QL_ATOKEN_ISSUE) {
      if (r.key().size() != QL_ATOKEN_KEY_LEN || r.user().size() > QL_MAX_USER_NAME) {
        return QL_ERR_PROTOCOL;
      }
      std::memset(pToken, 0, sizeof *pToken);
      std::memcpy(pToken->pcUserName, r.user().data(), r.user().size());
      std::memcpy(pToken->pbKey, r.key().data(), QL_ATOKEN_KEY_LEN);
      return QL_OK;
    }
    for (const pb::ATokenInfo &t : r.tokens()) {
      QL_ATOKEN_INFO info{};
      std::memcpy(info.szUserName, t.user().data(),
                  std::min<std::size_t>(t.user().size(), QL_MAX_USER_NAME));
      std::memcpy(info.pbKeyId, t.key_id().data(),
                  std::min(t.key_id().size(), sizeof info.pbKeyId));
      info.qwIssued = t.issued();
      info.qwExpiration = t.expiration();
      if (pfnCallback(pvParam, &info) != 0) return QL_ERR_CANCELLED;
    }
    return pfnCallback(pvParam, nullptr) != 0 ? QL_ERR_CANCELLED : QL_OK;
  });
}

extern "C" int QManageATokenCache(HSESSIONCTX hSession, uint32_t dwOperation, uint64_t *pqwValue) {
  return Guard([&] {
    if (dwOperation != QL_ATOKEN_CACHE_COUNT && dwOperation != QL_ATOKEN_CACHE_GC) {
      return QL_ERR_BAD_ARGUMENT;
    }
    pb::Request request;
    request.mutable_manage_atoken_cache()->set_operation(dwOperation);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (pqwValue) *pqwValue = response.has_number() ? response.number().value() : 0;
    return QL_OK;
  });
}
