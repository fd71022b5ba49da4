// What PKCS#11 modules see of the HSM: metadata records (built here, read and written by the
// HSM), map objects, the token's information and its mechanisms.
#include <map>

#include "api_common.h"
#include "meta_records.h"

using namespace qlapi;

namespace {

// A metadata record being built or read: values by id.
struct MetaRecord {
  std::map<uint32_t, std::string> values;
};

// The token's information, field by field as QGetHSMP11InfoAttr hands it out.
struct P11InfoCtx {
  std::map<uint32_t, std::string> fields;
};

Status CheckObjName(const char *name) {
  if (!HasText(name)) return Status(QL_ERR_BAD_ARGUMENT);
  if (std::strlen(name) > QL_MAX_USER_NAME + 1 + QL_MAX_OBJ_NAME) return Status(QL_ERR_BAD_NAME);
  return Status::Ok();
}

// A map member: empty, or a name that fits.
Status CheckMember(const char *name, size_t cap) {
  const size_t len = strnlen(name, cap);
  if (len == cap) return Status(QL_ERR_BAD_NAME);  // not terminated inside its field
  if (len > QL_MAX_USER_NAME + 1 + QL_MAX_OBJ_NAME) return Status(QL_ERR_BAD_NAME);
  return Status::Ok();
}

// Copies a full name into a map field, which holds QL_MAX_OBJ_NAME bytes and a NUL.
Status NameOut(const std::string &name, char *field) {
  if (name.size() > QL_MAX_OBJ_NAME) return Status(QL_ERR_BAD_LENGTH);
  std::memcpy(field, name.data(), name.size());
  field[name.size()] = '\0';
  return Status::Ok();
}

std::string Version(uint32_t v) {
  return std::string{static_cast<char>((v >> 8) & 0xFF), static_cast<char>(v & 0xFF)};
}

std::string Text(const std::string &s) {
  return s + '\0';
}

std::string Count(uint64_t v) {
  return std::string(reinterpret_cast<const char *>(&v), sizeof v);
}

}  // namespace

extern "C" int QCreateObjMetadata(HOBJMETACTX *phMeta, uint32_t dwParam) {
  return Guard([&] {
    if (phMeta == nullptr) return QL_ERR_BAD_ARGUMENT;
    *phMeta = nullptr;
    if (dwParam != 0) return QL_ERR_BAD_FLAGS;
    *phMeta = new MetaRecord;
    return QL_OK;
  });
}

extern "C" int QSetObjMetadata(HOBJMETACTX hMeta, uint32_t dwOption, const void *pvData,
                               uint32_t dwDataLen, uint32_t dwParam) {
  return Guard([&] {
    if (hMeta == nullptr) return QL_ERR_BAD_HANDLE;
    if (dwParam != 0) return QL_ERR_BAD_FLAGS;
    const auto *data = static_cast<const uint8_t *>(pvData);
    if (!qlproto::ValidMetaValue(dwOption, data, dwDataLen)) return QL_ERR_BAD_ARGUMENT;
    static_cast<MetaRecord *>(hMeta)->values[dwOption].assign(reinterpret_cast<const char *>(data),
                                                              dwDataLen);
    return QL_OK;
  });
}

extern "C" int QGetObjMetadata(HOBJMETACTX hMeta, uint32_t dwOption, void *pvData,
                               uint32_t *pdwDataLen, uint32_t dwParam) {
  return Guard([&] {
    if (hMeta == nullptr) return QL_ERR_BAD_HANDLE;
    if (pdwDataLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    if (dwParam != 0) return QL_ERR_BAD_FLAGS;
    if (qlproto::FindMetaType(dwOption) == nullptr) return QL_ERR_BAD_ARGUMENT;
    const auto &values = static_cast<MetaRecord *>(hMeta)->values;
    auto it = values.find(dwOption);
    if (it == values.end()) return QL_ERR_OBJ_NOT_FOUND;
    return CopyOut(it->second, pvData, pdwDataLen).code();
  });
}

extern "C" int QDestroyObjMetadata(HOBJMETACTX *phMeta, uint32_t) {
  return Guard([&] {
    if (phMeta == nullptr) return QL_ERR_BAD_ARGUMENT;
    delete static_cast<MetaRecord *>(*phMeta);
    *phMeta = nullptr;
    return QL_OK;
  });
}

extern "C" int QManageObjMetadata(HSESSIONCTX hSession, uint32_t dwOperation, const char *szObjName,
                                  HOBJMETACTX hIn, HOBJMETACTX hOut, uint32_t dwParam) {
  return Guard([&] {
    if (dwParam != 0) return QL_ERR_BAD_FLAGS;
    if (dwOperation < 1 || dwOperation > 4) return QL_ERR_BAD_ARGUMENT;
    QL_RETURN_CODE_IF_ERROR(CheckObjName(szObjName));
    if (dwOperation == 1 && hOut == nullptr) return QL_ERR_BAD_ARGUMENT;
    if ((dwOperation == 2 || dwOperation == 3) && hIn == nullptr) return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    auto *m = request.mutable_manage_obj_records();
    m->set_name(szObjName);
    m->set_operation(dwOperation);
    if (dwOperation != 1 && hIn != nullptr) {
      for (const auto &[id, value] : static_cast<MetaRecord *>(hIn)->values) {
        auto *rec = m->add_records();
        rec->set_id(id);
        if (dwOperation != 4) rec->set_value(value);
      }
    }
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (dwOperation != 1) return QL_OK;
    if (!response.has_obj_records()) return QL_ERR_PROTOCOL;
    MetaRecord read;
    for (const pb::ObjRecord &rec : response.obj_records().records())
      read.values[rec.id()] = rec.value();
    static_cast<MetaRecord *>(hOut)->values = std::move(read.values);
    return QL_OK;
  });
}

extern "C" int QGetObjMetadataTypeInfoList(HSESSIONCTX hSession, PQL_LIST_CALLBACK pfnCallback,
                                           void *pvParam) {
  return Guard([&] {
    if (hSession == nullptr || pfnCallback == nullptr) return QL_ERR_BAD_ARGUMENT;
    for (const qlproto::MetaType &t : qlproto::kMetaTypes) {
      const std::string line = std::to_string(t.id) + " " + t.name + " " + t.kind_name;
      if (pfnCallback(pvParam, line.c_str(), 0) != 0) return QL_ERR_CANCELLED;
    }
    return pfnCallback(pvParam, nullptr, 1) != 0 ? QL_ERR_CANCELLED : QL_OK;
  });
}

extern "C" int QGenerateMapObj(HSESSIONCTX hSession, const char *szMapName,
                               const QL_PKCS11_MAP *pMap, uint32_t dwFlags) {
  return Guard([&] {
    if (pMap == nullptr) return QL_ERR_BAD_ARGUMENT;
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    QL_RETURN_CODE_IF_ERROR(CheckObjName(szMapName));
    QL_RETURN_CODE_IF_ERROR(CheckMember(pMap->szPrivateKey, sizeof pMap->szPrivateKey));
    QL_RETURN_CODE_IF_ERROR(CheckMember(pMap->szPublicKey, sizeof pMap->szPublicKey));
    QL_RETURN_CODE_IF_ERROR(CheckMember(pMap->szCertificate, sizeof pMap->szCertificate));
    if (!pMap->szPrivateKey[0] && !pMap->szPublicKey[0] && !pMap->szCertificate[0])
      return QL_ERR_BAD_ARGUMENT;
    pb::Request request;
    auto *g = request.mutable_generate_map();
    g->set_name(szMapName);
    g->set_private_key(pMap->szPrivateKey);
    g->set_public_key(pMap->szPublicKey);
    g->set_certificate(pMap->szCertificate);
    g->set_flags(dwFlags);
    return Ask(hSession, request).code();
  });
}

extern "C" int QRemoveMapObj(HSESSIONCTX hSession, const char *szMapName) {
  return Guard([&] {
    QL_RETURN_CODE_IF_ERROR(CheckObjName(szMapName));
    pb::Request request;
    request.mutable_remove_map()->set_name(szMapName);
    return Ask(hSession, request).code();
  });
}

extern "C" int QGetPkcs11Map(HSESSIONCTX hSession, const char *szMapName, QL_PKCS11_MAP *pMap) {
  return Guard([&] {
    if (pMap == nullptr) return QL_ERR_BAD_ARGUMENT;
    QL_RETURN_CODE_IF_ERROR(CheckObjName(szMapName));
    pb::Request request;
    request.mutable_get_map()->set_name(szMapName);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_map()) return QL_ERR_PROTOCOL;
    QL_PKCS11_MAP out{};
    QL_RETURN_CODE_IF_ERROR(NameOut(response.map().private_key(), out.szPrivateKey));
    QL_RETURN_CODE_IF_ERROR(NameOut(response.map().public_key(), out.szPublicKey));
    QL_RETURN_CODE_IF_ERROR(NameOut(response.map().certificate(), out.szCertificate));
    *pMap = out;
    return QL_OK;
  });
}

extern "C" int QGetHSMP11Info(HSESSIONCTX hSession, HP11INFOCTX *phInfo, uint32_t dwFlags) {
  return Guard([&] {
    if (phInfo == nullptr) return QL_ERR_BAD_ARGUMENT;
    *phInfo = nullptr;
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    pb::Request request;
    request.mutable_get_p11_info();
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_p11_info()) return QL_ERR_PROTOCOL;
    const pb::P11InfoReply &p = response.p11_info();
    auto info = std::make_unique<P11InfoCtx>();
    info->fields = {
        {QL_P11_INFO_CRYPTOKI_VERSION, Version(p.cryptoki_version())},
        {QL_P11_INFO_MANUFACTURER, Text(p.manufacturer())},
        {QL_P11_INFO_FLAGS, Count(p.info_flags())},
        {QL_P11_INFO_LIBRARY_DESCRIPTION, Text(p.library_description())},
        {QL_P11_INFO_LIBRARY_VERSION, Version(p.library_version())},
        {QL_P11_INFO_TOKEN_LABEL, Text(p.label())},
        {QL_P11_INFO_TOKEN_MANUFACTURER, Text(p.manufacturer())},
        {QL_P11_INFO_TOKEN_MODEL, Text(p.model())},
        {QL_P11_INFO_TOKEN_SERIAL, Text(p.serial_number())},
        {QL_P11_INFO_TOKEN_FLAGS, Count(p.token_flags())},
        {QL_P11_INFO_MAX_SESSION_COUNT, Count(p.max_sessions())},
        {QL_P11_INFO_SESSION_COUNT, Count(p.sessions())},
        {QL_P11_INFO_MAX_RW_SESSION_COUNT, Count(p.max_rw_sessions())},
        {QL_P11_INFO_RW_SESSION_COUNT, Count(p.rw_sessions())},
        {QL_P11_INFO_MAX_PIN_LEN, Count(p.max_pin_length())},
        {QL_P11_INFO_MIN_PIN_LEN, Count(p.min_pin_length())},
        {QL_P11_INFO_TOTAL_PUBLIC_MEMORY, Count(p.total_public_memory())},
        {QL_P11_INFO_FREE_PUBLIC_MEMORY, Count(p.free_public_memory())},
        {QL_P11_INFO_TOTAL_PRIVATE_MEMORY, Count(p.total_private_memory())},
        {QL_P11_INFO_FREE_PRIVATE_MEMORY, Count(p.free_private_memory())},
        {QL_P11_INFO_HARDWARE_VERSION, Version(p.hardware_version())},
        {QL_P11_INFO_FIRMWARE_VERSION, Version(p.firmware_version())},
        {QL_P11_INFO_UTC_TIME, Text(p.utc_time())},
    };
    *phInfo = info.release();
    return QL_OK;
  });
}

extern "C" int QGetHSMP11InfoAttr(HP11INFOCTX hInfo, uint32_t dwAttr, void *pvData,
                                  uint32_t *pdwDataLen) {
  return Guard([&] {
    if (hInfo == nullptr) return QL_ERR_BAD_HANDLE;
    if (pdwDataLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    const auto &fields = static_cast<P11InfoCtx *>(hInfo)->fields;
    auto it = fields.find(dwAttr);
    if (it == fields.end()) return QL_ERR_BAD_ARGUMENT;
    return CopyOut(it->second, pvData, pdwDataLen).code();
  });
}

extern "C" int QDestroyHSMP11Info(HP11INFOCTX *phInfo) {
  return Guard([&] {
    if (phInfo == nullptr) return QL_ERR_BAD_ARGUMENT;
    delete static_cast<P11InfoCtx *>(*phInfo);
    *phInfo = nullptr;
    return QL_OK;
  });
}

extern "C" int QGetHSMP11TypeInfoList(HSESSIONCTX hSession, PQL_LIST_CALLBACK pfnCallback,
                                      void *pvParam) {
  return Guard([&] {
    pb::Request request;
    request.mutable_list_p11_mechanisms();
    return ListNames(hSession, request, pfnCallback, pvParam);
  });
}
