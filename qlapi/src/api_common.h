#pragma once
// Helpers shared by the API families: asking the HSM through a session handle and moving
// results into callers' buffers.

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "api_guard.h"
#include "session.h"

namespace qlapi {

// Sends request on the session behind hSession. QL_ERR_BAD_HANDLE for a bad handle, a
// transport code, or the HSM's code; *response (when given) holds the answer.
inline Status Ask(HSESSIONCTX hSession, pb::Request &request, pb::Response *response = nullptr) {
  auto core = CoreOf(hSession);
  if (!core) return Status(QL_ERR_BAD_HANDLE);
  auto answer = core->Call(request);
  if (!answer.ok()) return answer.status();
  const int code = answer.value().code();  // read before the answer is moved out
  if (response) *response = std::move(answer.value());
  return Status(code);
}

inline Status AskCore(SessionCore &core, pb::Request &request, pb::Response *response = nullptr) {
  auto answer = core.Call(request);
  if (!answer.ok()) return answer.status();
  const int code = answer.value().code();  // read before the answer is moved out
  if (response) *response = std::move(answer.value());
  return Status(code);
}

// A C string argument that must be present and non-empty.
inline bool HasText(const char *s) {
  return s != nullptr && s[0] != '\0';
}

inline std::string LittleEndian32(uint32_t v) {
  std::string s(4, '\0');
  for (int i = 0; i < 4; ++i) s[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
  return s;
}

inline std::string LittleEndian64(uint64_t v) {
  std::string s(8, '\0');
  for (int i = 0; i < 8; ++i) s[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
  return s;
}

inline uint32_t ReadLittleEndian32(const void *p) {
  const auto *b = static_cast<const unsigned char *>(p);
  return uint32_t{b[0]} | (uint32_t{b[1]} << 8) | (uint32_t{b[2]} << 16) | (uint32_t{b[3]} << 24);
}

// Writes a number into a caller's buffer of *len bytes: 4 bytes, or 8 when width is 8.
inline Status NumberOut(uint64_t v, std::size_t width, void *out, uint32_t *len) {
  return CopyOut(width == 8 ? LittleEndian64(v) : LittleEndian32(static_cast<uint32_t>(v)), out,
                 len);
}

// The whole of a local file: QL_ERR_FILE_IO when it cannot be opened or read.
inline Status ReadLocalFile(const char *path, std::string *data) {
  std::unique_ptr<FILE, int (*)(FILE *)> f(std::fopen(path, "rb"), std::fclose);
  if (!f) return Status(QL_ERR_FILE_IO);
  char buf[65536];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f.get())) > 0) data->append(buf, n);
  return std::ferror(f.get()) ? Status(QL_ERR_FILE_IO) : Status::Ok();
}

// A copy of data in a buffer from QAlloc, for the calls that hand out buffers.
inline Status AllocOut(const std::string &data, unsigned char **out, uint32_t *out_len) {
  if (out == nullptr || out_len == nullptr) return Status(QL_ERR_BAD_ARGUMENT);
  void *p = QAlloc(static_cast<unsigned int>(data.size()));
  if (p == nullptr) return Status(QL_ERR_NO_MEMORY);
  if (!data.empty()) std::memcpy(p, data.data(), data.size());
  *out = static_cast<unsigned char *>(p);
  *out_len = static_cast<uint32_t>(data.size());
  return Status::Ok();
}

// Runs a listing whose answer is a NameList through the callback protocol of qlapi.h: once per
// name, then once with null.
inline int ListNames(HSESSIONCTX hSession, pb::Request &request, PQL_LIST_CALLBACK cb,
                     void *param) {
  if (cb == nullptr) return QL_ERR_BAD_ARGUMENT;
  pb::Response response;
  Status st = Ask(hSession, request, &response);
  if (!st.ok()) return st.code();
  if (!response.has_names()) return QL_ERR_PROTOCOL;
  for (const std::string &name : response.names().names()) {
    if (cb(param, name.c_str(), 0) != 0) return QL_ERR_CANCELLED;
  }
  return cb(param, nullptr, 1) != 0 ? QL_ERR_CANCELLED : QL_OK;
}

}  // namespace qlapi
