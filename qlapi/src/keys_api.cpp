// Keys: generate, open, destroy, parameters, export and import, key material, ECDH, PKCS#8.
#include "key_handle.h"

using namespace qlapi;

namespace qlapi {

HKEYCTX NewKeyHandle(const std::shared_ptr<SessionCore> &core, const pb::KeyHandleReply &reply) {
  auto key = std::make_unique<KeyHandle>();
  key->core = core;
  key->server = reply.handle();
  key->algorithm = reply.algorithm();
  key->flags = reply.flags();
  key->key_length = reply.key_length();
  RegisterHandle(key.get());
  return key.release();
}

Status ResolveKey(KeyHandle &key, uint64_t *server) {
  std::lock_guard<std::mutex> lock(key.mu);
  if (key.server == 0) {
    pb::Request request;
    request.mutable_open_key()->set_name(key.name);
    pb::Response response;
    Status st = AskCore(*key.core, request, &response);
    if (!st.ok()) return st;
    if (!response.has_key_handle()) return Status(QL_ERR_PROTOCOL);
    key.server = response.key_handle().handle();
    key.algorithm = response.key_handle().algorithm();
    key.flags = response.key_handle().flags();
    key.key_length = response.key_handle().key_length();
  }
  *server = key.server;
  return Status::Ok();
}

Status KeyFor(HKEYCTX h, KeyHandle **key, uint64_t *server) {
  *key = AsHandle<KeyHandle>(h, kKeyMagic);
  if (*key == nullptr) return Status(QL_ERR_BAD_HANDLE);
  return ResolveKey(**key, server);
}

}  // namespace qlapi

namespace {

Status CheckKeyName(const char *name, bool optional) {
  if (name == nullptr || name[0] == '\0') {
    return optional ? Status::Ok() : Status(QL_ERR_BAD_ARGUMENT);
  }
  if (std::strlen(name) > QL_MAX_USER_NAME + 1 + QL_MAX_OBJ_NAME) return Status(QL_ERR_BAD_NAME);
  return Status::Ok();
}

// Answers a request that makes a key: the handle when asked for, else just the code.
int KeyAnswer(const std::shared_ptr<SessionCore> &core, pb::Request &request, HKEYCTX *phKey) {
  pb::Response response;
  QL_RETURN_CODE_IF_ERROR(AskCore(*core, request, &response));
  if (phKey == nullptr) return QL_OK;
  if (!response.has_key_handle()) return QL_ERR_PROTOCOL;
  *phKey = NewKeyHandle(core, response.key_handle());
  return QL_OK;
}

constexpr uint32_t kKnownKeyFlags =
    QL_KEY_EXPORTABLE | QL_KEY_NO_CRYPT | QL_KEY_TEMPORARY | QL_KEY_RSA_EXP3 | QL_KEY_BLOCKCHAIN;

bool IsNumberParam(uint32_t param) {
  switch (param) {
    case QKP_ALGID:
    case QKP_PADDING:
    case QKP_MODE:
    case QKP_TAG_LEN:
    case QKP_FLAGS:
    case QKP_KEYBITS:
    case QKP_KEYLEN:
    case QKP_OBJ_TYPE:
    case QKP_BLOCKED:
      return true;
    default:
      return false;
  }
}

}  // namespace

extern "C" int QGenerateKey(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwAlgId,
                            uint32_t dwFlags, HKEYCTX *phKey) {
  return Guard([&] {
    if (phKey) *phKey = nullptr;
    if (dwFlags & ~kKnownKeyFlags) return QL_ERR_BAD_FLAGS;
    QL_RETURN_CODE_IF_ERROR(CheckKeyName(szKeyName, true));
    auto core = CoreOf(hSession);
    if (!core) return QL_ERR_BAD_HANDLE;
    pb::Request request;
    auto *gen = request.mutable_generate_key();
    if (szKeyName) gen->set_name(szKeyName);
    gen->set_algorithm(dwAlgId);
    gen->set_flags(dwFlags);
    gen->set_want_handle(phKey != nullptr);
    return KeyAnswer(core, request, phKey);
  });
}

extern "C" int QGetUserKey(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwFlags,
                           HKEYCTX *phKey) {
  return Guard([&] {
    if (phKey == nullptr) return QL_ERR_BAD_ARGUMENT;
    *phKey = nullptr;
    if (dwFlags & ~uint32_t{QL_GETKEY_OFFLINE}) return QL_ERR_BAD_FLAGS;
    QL_RETURN_CODE_IF_ERROR(CheckKeyName(szKeyName, false));
    auto core = CoreOf(hSession);
    if (!core) return QL_ERR_BAD_HANDLE;
    if (dwFlags & QL_GETKEY_OFFLINE) {
      auto key = std::make_unique<KeyHandle>();
      key->core = core;
      key->name = szKeyName;
      RegisterHandle(key.get());
      *phKey = key.release();
      return QL_OK;
    }
    pb::Request request;
    request.mutable_open_key()->set_name(szKeyName);
    return KeyAnswer(core, request, phKey);
  });
}

extern "C" int QDestroyKey(HKEYCTX *phKey, uint32_t dwFlags) {
  return Guard([&] {
    if (phKey == nullptr) return QL_ERR_BAD_ARGUMENT;
    if (*phKey == nullptr) return QL_OK;
    if (dwFlags & ~uint32_t{QL_DESTROY_REMOVE}) return QL_ERR_BAD_FLAGS;
    auto *key = AsHandle<KeyHandle>(*phKey, kKeyMagic);
    if (key == nullptr || !UnregisterHandle(key)) return QL_ERR_BAD_HANDLE;
    std::unique_ptr<KeyHandle> owned(key);
    *phKey = nullptr;
    const bool remove = (dwFlags & QL_DESTROY_REMOVE) != 0;
    if (owned->server == 0 && !remove) return QL_OK;  // an offline handle never used
    pb::Request request;
    auto *destroy = request.mutable_destroy_key();
    destroy->set_handle(owned->server);
    destroy->set_remove(remove);
    if (owned->server == 0) destroy->set_remove_name(owned->name);
    Status st = AskCore(*owned->core, request);
    // The session is gone and its handles with it: nothing is left to release.
    if (st.code() == QL_ERR_SESSION_CLOSED && !remove) return QL_OK;
    return st.code();
  });
}

extern "C" int QGetKeyParam(HKEYCTX hKey, uint32_t dwParam, void *pvData, uint32_t *pdwDataLen,
                            uint32_t dwFlags) {
  return Guard([&] {
    if (pdwDataLen == nullptr || dwFlags != 0) return QL_ERR_BAD_ARGUMENT;
    KeyHandle *key = nullptr;
    uint64_t server = 0;
    QL_RETURN_CODE_IF_ERROR(KeyFor(hKey, &key, &server));
    // What never changes over a key's life is answered from the handle.
    if (dwParam == QKP_ALGID && key->algorithm != 0) {
      return NumberOut(key->algorithm, 4, pvData, pdwDataLen).code();
    }
    if (dwParam == QKP_KEYLEN && key->key_length != 0) {
      return NumberOut(key->key_length, 4, pvData, pdwDataLen).code();
    }
    pb::Request request;
    SetKeyRef(request.mutable_get_key_param()->mutable_key(), server);
    request.mutable_get_key_param()->set_param(dwParam);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(AskCore(*key->core, request, &response));
    if (response.has_number()) {
      return NumberOut(response.number().value(), 4, pvData, pdwDataLen).code();
    }
    if (!response.has_param()) return QL_ERR_PROTOCOL;
    const pb::ParamValue &v = response.param();
    if (v.has_data()) return CopyOut(v.data(), pvData, pdwDataLen).code();
    if (v.has_text()) return CopyOut(v.text() + '\0', pvData, pdwDataLen).code();
    return NumberOut(v.number(), 4, pvData, pdwDataLen).code();
  });
}

extern "C" int QSetKeyParam(HKEYCTX hKey, uint32_t dwParam, const void *pvData, uint32_t dwDataLen,
                            uint32_t dwFlags) {
  return Guard([&] {
    if (pvData == nullptr && dwDataLen > 0) return QL_ERR_BAD_ARGUMENT;
    KeyHandle *key = AsHandle<KeyHandle>(hKey, kKeyMagic);
    if (key == nullptr) return QL_ERR_BAD_HANDLE;
    pb::Request request;
    auto *set = request.mutable_set_key_param();
    bool by_name = false;
    if (dwParam == QKP_BLOCKED) {
      // Blocking acts on the stored object: a handle not opened yet names it, so the HSM checks
      // the update right before it looks for the object, as for any other request.
      std::lock_guard<std::mutex> lock(key->mu);
      by_name = key->server == 0;
      if (by_name) set->mutable_key()->set_name(key->name);
    }
    if (!by_name) {
      uint64_t server = 0;
      QL_RETURN_CODE_IF_ERROR(ResolveKey(*key, &server));
      SetKeyRef(set->mutable_key(), server);
    }
    set->set_param(dwParam);
    set->set_flags(dwFlags);
    if (IsNumberParam(dwParam)) {
      if (dwDataLen != 4) return QL_ERR_BAD_LENGTH;
      set->mutable_value()->set_number(ReadLittleEndian32(pvData));
    } else {
      set->mutable_value()->set_data(pvData, dwDataLen);
    }
    return AskCore(*key->core, request).code();
  });
}

extern "C" int QExportKey(HKEYCTX hKey, HKEYCTX hKek, uint32_t dwBlobType, uint32_t dwFlags,
                          unsigned char *pbBlob, uint32_t *pdwBlobLen) {
  return Guard([&] {
    if (pdwBlobLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    KeyHandle *key = nullptr;
    uint64_t server = 0;
    QL_RETURN_CODE_IF_ERROR(KeyFor(hKey, &key, &server));
    pb::Request request;
    auto *exp = request.mutable_export_key();
    SetKeyRef(exp->mutable_key(), server);
    if (hKek != nullptr) {
      KeyHandle *kek = nullptr;
      uint64_t kek_server = 0;
      QL_RETURN_CODE_IF_ERROR(KeyFor(hKek, &kek, &kek_server));
      SetKeyRef(exp->mutable_kek(), kek_server);
    }
    exp->set_blob_type(dwBlobType);
    exp->set_flags(dwFlags);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(AskCore(*key->core, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    return CopyOut(response.blob().data(), pbBlob, pdwBlobLen).code();
  });
}

extern "C" int QImportKey(HSESSIONCTX hSession, const char *szKeyName, HKEYCTX hKek,
                          const unsigned char *pbBlob, uint32_t dwBlobLen, uint32_t dwBlobType,
                          uint32_t dwAlgId, uint32_t dwFlags, HKEYCTX *phKey) {
  return Guard([&] {
    if (phKey) *phKey = nullptr;
    if (pbBlob == nullptr || dwBlobLen == 0) return QL_ERR_BAD_ARGUMENT;
    if (dwFlags & ~kKnownKeyFlags) return QL_ERR_BAD_FLAGS;
    QL_RETURN_CODE_IF_ERROR(CheckKeyName(szKeyName, true));
    auto core = CoreOf(hSession);
    if (!core) return QL_ERR_BAD_HANDLE;
    pb::Request request;
    auto *imp = request.mutable_import_key();
    if (szKeyName) imp->set_name(szKeyName);
    if (hKek != nullptr) {
      KeyHandle *kek = nullptr;
      uint64_t kek_server = 0;
      QL_RETURN_CODE_IF_ERROR(KeyFor(hKek, &kek, &kek_server));
      SetKeyRef(imp->mutable_kek(), kek_server);
    }
    imp->set_blob(pbBlob, dwBlobLen);
    imp->set_blob_type(dwBlobType);
    imp->set_algorithm(dwAlgId);
    imp->set_flags(dwFlags);
    imp->set_want_handle(phKey != nullptr);
    return KeyAnswer(core, request, phKey);
  });
}

extern "C" int QGenerateKeyMaterial(HSESSIONCTX hSession, uint32_t dwAlgId, uint32_t dwFlags,
                                    unsigned char *pbData, uint32_t *pdwDataLen) {
  return Guard([&] {
    if (pdwDataLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    request.mutable_generate_key_material()->set_algorithm(dwAlgId);
    request.mutable_generate_key_material()->set_flags(dwFlags);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    return CopyOut(response.blob().data(), pbData, pdwDataLen).code();
  });
}

extern "C" int QGenEcdhKey(HSESSIONCTX hSession, uint32_t dwKdf, const char *szPrivKeyName,
                           const unsigned char *pbPeerPub, uint32_t dwPeerPubLen,
                           const unsigned char *pbSharedInfo, uint32_t dwSharedInfoLen,
                           const char *szTargetName, uint32_t dwTargetAlgId, uint32_t dwFlags,
                           unsigned char *pbOut, uint32_t *pdwOutLen) {
  return Guard([&] {
    QL_RETURN_CODE_IF_ERROR(CheckKeyName(szPrivKeyName, false));
    QL_RETURN_CODE_IF_ERROR(CheckKeyName(szTargetName, true));
    if (pbPeerPub == nullptr || dwPeerPubLen == 0 ||
        (pbSharedInfo == nullptr && dwSharedInfoLen > 0)) {
      return QL_ERR_BAD_ARGUMENT;
    }
    const bool stored = HasText(szTargetName);
    if (!stored && pdwOutLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    auto *ecdh = request.mutable_gen_ecdh_key();
    ecdh->set_kdf(dwKdf);
    ecdh->set_private_key(szPrivKeyName);
    ecdh->set_peer_public_key(pbPeerPub, dwPeerPubLen);
    if (dwSharedInfoLen) ecdh->set_shared_info(pbSharedInfo, dwSharedInfoLen);
    if (stored) ecdh->set_target_name(szTargetName);
    ecdh->set_target_algorithm(dwTargetAlgId);
    ecdh->set_flags(dwFlags);
    ecdh->set_out_length(pdwOutLen ? *pdwOutLen : 0);
    pb::Response response;
    Status st = Ask(hSession, request, &response);
    if (st.code() == QL_ERR_BUFFER_TOO_SMALL) return TooSmall(response, pdwOutLen).code();
    QL_RETURN_CODE_IF_ERROR(st);
    if (stored) return QL_OK;
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    return CopyOut(response.blob().data(), pbOut, pdwOutLen).code();
  });
}

extern "C" int QPKCS8ExportKey(HSESSIONCTX hSession, const char *szKeyName, const char *szPassword,
                               unsigned char **ppbData, uint32_t *pdwDataLen) {
  return Guard([&] {
    if (ppbData == nullptr || pdwDataLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    *ppbData = nullptr;
    QL_RETURN_CODE_IF_ERROR(CheckKeyName(szKeyName, false));
    pb::Request request;
    request.mutable_pkcs8_export()->set_name(szKeyName);
    if (szPassword) request.mutable_pkcs8_export()->set_password(szPassword);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    return AllocOut(response.blob().data(), ppbData, pdwDataLen).code();
  });
}

extern "C" int QPKCS8ImportKey(HSESSIONCTX hSession, const char *szKeyName, const char *szPassword,
                               const unsigned char *pbData, uint32_t dwDataLen, uint32_t dwFlags) {
  return Guard([&] {
    QL_RETURN_CODE_IF_ERROR(CheckKeyName(szKeyName, false));
    if (pbData == nullptr || dwDataLen == 0) return QL_ERR_BAD_ARGUMENT;
    if (dwFlags & ~kKnownKeyFlags) return QL_ERR_BAD_FLAGS;
    pb::Request request;
    auto *imp = request.mutable_pkcs8_import();
    imp->set_name(szKeyName);
    if (szPassword) imp->set_password(szPassword);
    imp->set_data(pbData, dwDataLen);
    imp->set_flags(dwFlags);
    return Ask(hSession, request).code();
  });
}
