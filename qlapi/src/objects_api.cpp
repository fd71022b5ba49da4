// Objects and files.

#include "api_common.h"

using namespace qlapi;

namespace {

constexpr uint32_t kReadChunk = 64 * 1024;

Status CheckObjName(const char *name) {
  if (!HasText(name)) return Status(QL_ERR_BAD_ARGUMENT);
  // "owner/object": the owner part is a user name, the rest an object name.
  if (std::strlen(name) > QL_MAX_USER_NAME + 1 + QL_MAX_OBJ_NAME) return Status(QL_ERR_BAD_NAME);
  return Status::Ok();
}

}  // namespace

extern "C" int QListObjs(HSESSIONCTX hSession, PQL_LIST_CALLBACK pfnCallback, void *pvParam) {
  return Guard([&] {
    pb::Request request;
    request.mutable_list_objs();
    return ListNames(hSession, request, pfnCallback, pvParam);
  });
}

extern "C" int QRemoveObj(HSESSIONCTX hSession, const char *szObjName) {
  return Guard([&] {
    QL_RETURN_CODE_IF_ERROR(CheckObjName(szObjName));
    pb::Request request;
    request.mutable_remove_obj()->set_name(szObjName);
    return Ask(hSession, request).code();
  });
}

extern "C" int QRenameObj(HSESSIONCTX hSession, const char *szObjName, const char *szNewName) {
  return Guard([&] {
    QL_RETURN_CODE_IF_ERROR(CheckObjName(szObjName));
    QL_RETURN_CODE_IF_ERROR(CheckObjName(szNewName));
    pb::Request request;
    request.mutable_rename_obj()->set_name(szObjName);
    request.mutable_rename_obj()->set_new_name(szNewName);
    return Ask(hSession, request).code();
  });
}

extern "C" int QGetObjInfo(HSESSIONCTX hSession, const char *szObjName, QL_OBJ_INFO *pInfo) {
  return Guard([&] {
    if (pInfo == nullptr) return QL_ERR_BAD_ARGUMENT;
    QL_RETURN_CODE_IF_ERROR(CheckObjName(szObjName));
    pb::Request request;
    request.mutable_get_obj_info()->set_name(szObjName);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_obj_info()) return QL_ERR_PROTOCOL;
    const pb::ObjInfoReply &r = response.obj_info();
    std::memset(pInfo, 0, sizeof *pInfo);
    std::memcpy(pInfo->szName, r.name().data(),
                std::min<std::size_t>(r.name().size(), QL_MAX_OBJ_NAME));
    std::memcpy(pInfo->szOwner, r.owner().data(),
                std::min<std::size_t>(r.owner().size(), QL_MAX_USER_NAME));
    pInfo->dwType = r.type();
    pInfo->dwFlags = r.flags();
    pInfo->dwBlocked = r.blocked() ? 1 : 0;
    pInfo->stStats.qwCreated = r.created();
    pInfo->stStats.qwModified = r.modified();
    pInfo->stStats.dwSize = r.size();
    pInfo->stStats.dwUseCount = r.use_count();
    return QL_OK;
  });
}

extern "C" int QReadFile(HSESSIONCTX hSession, const char *szObjName, PQL_READ_CALLBACK pfnCallback,
                         void *pvParam) {
  return Guard([&] {
    if (pfnCallback == nullptr) return QL_ERR_BAD_ARGUMENT;
    QL_RETURN_CODE_IF_ERROR(CheckObjName(szObjName));
    uint64_t offset = 0;
    for (;;) {
      pb::Request request;
      auto *read = request.mutable_read_file();
      read->set_name(szObjName);
      read->set_offset(offset);
      read->set_max_length(kReadChunk);
      pb::Response response;
      QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
      if (!response.has_file_chunk()) return QL_ERR_PROTOCOL;
      const pb::FileChunk &chunk = response.file_chunk();
      if (chunk.data().size() > kReadChunk) return QL_ERR_PROTOCOL;
      if (!chunk.data().empty()) {
        if (pfnCallback(pvParam, reinterpret_cast<const unsigned char *>(chunk.data().data()),
                        static_cast<uint32_t>(chunk.data().size())) != 0) {
          return QL_ERR_CANCELLED;
        }
        offset += chunk.data().size();
      }
      // An empty chunk before the end would loop forever: treat it as the end.
      if (offset >= chunk.total_size() || chunk.data().empty()) break;
    }
    return pfnCallback(pvParam, nullptr, 0) != 0 ? QL_ERR_CANCELLED : QL_OK;
  });
}

extern "C" int QWriteFileBuffer(HSESSIONCTX hSession, const char *szObjName,
                                const unsigned char *pbData, uint32_t dwDataLen, uint32_t dwFlags) {
  return Guard([&] {
    if ((pbData == nullptr && dwDataLen > 0) ||
        (dwFlags & ~uint32_t{QL_WRITE_FILE_REPLACE | QL_WRITE_FILE_TYPED})) {
      return QL_ERR_BAD_ARGUMENT;
    }
    QL_RETURN_CODE_IF_ERROR(CheckObjName(szObjName));
    pb::Request request;
    auto *write = request.mutable_write_file();
    write->set_name(szObjName);
    if (dwDataLen) write->set_data(pbData, dwDataLen);
    write->set_flags(dwFlags);
    return Ask(hSession, request).code();
  });
}

extern "C" int QWriteFile(HSESSIONCTX hSession, const char *szLocalPath, const char *szObjName,
                          uint32_t dwFlags) {
  return Guard([&] {
    if (!HasText(szLocalPath)) return QL_ERR_BAD_ARGUMENT;
    std::string data;
    QL_RETURN_CODE_IF_ERROR(ReadLocalFile(szLocalPath, &data));
    return QWriteFileBuffer(hSession, szObjName,
                            reinterpret_cast<const unsigned char *>(data.data()),
                            static_cast<uint32_t>(data.size()), dwFlags);
  });
}
