#include "credential_store.h"

#include <cstring>
#include <mutex>
#include <string_view>
#include <vector>

#include "api_guard.h"
#include "base64.h"
#include "home_dir.h"
#include "qlapi_credstore.h"

#ifdef _WIN32
#include <wincred.h>
#include <windows.h>
#endif

namespace qlapi::credstore {

#ifndef _WIN32
namespace {

constexpr char kFileName[] = ".qlapi_credentials";

struct Line {
  std::string target;
  Credential credential;
};

bool ValidField(std::string_view s) {
  return !s.empty() && s.find_first_of(std::string_view("\t\n\0", 3)) == std::string_view::npos;
}

// Opens the store and checks that it is private. QL_ERR_CREDENTIAL_NOT_FOUND when it does not
// exist.
Result<std::string> Load(const std::string &path) {
  return ReadPrivateFile(path, QL_ERR_CREDENTIAL_NOT_FOUND, QL_ERR_CREDENTIAL_STORE);
}

// Parses the text; malformed lines make the whole store unreadable rather than half-read.
Result<std::vector<Line>> Parse(const std::string &text) {
  std::vector<Line> lines;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string_view line(text.data() + pos, end - pos);
    pos = end + 1;
    if (line.empty() || line.front() == '#') continue;
    const std::size_t t1 = line.find('\t');
    const std::size_t t2 = t1 == std::string_view::npos ? t1 : line.find('\t', t1 + 1);
    if (t2 == std::string_view::npos) return Status(QL_ERR_CREDENTIAL_STORE);
    Line l;
    l.target.assign(line.substr(0, t1));
    l.credential.user.assign(line.substr(t1 + 1, t2 - t1 - 1));
    if (!Base64Decode(line.substr(t2 + 1), &l.credential.password)) {
      return Status(QL_ERR_CREDENTIAL_STORE);
    }
    lines.push_back(std::move(l));
  }
  return lines;
}

Status Save(const std::string &path, const std::vector<Line> &lines) {
  std::string text = "# qlapi credential store: target TAB user TAB base64(password)\n";
  for (const Line &l : lines) {
    text += l.target + '\t' + l.credential.user + '\t' + Base64Encode(l.credential.password) + '\n';
  }
  return WriteFileAtomically(path, text, QL_ERR_CREDENTIAL_STORE);
}

// The lines of the store, or none when it does not exist yet.
Result<std::vector<Line>> LoadForUpdate(const std::string &path) {
  auto text = Load(path);
  if (!text.ok()) {
    if (text.status().code() == QL_ERR_CREDENTIAL_NOT_FOUND) return std::vector<Line>();
    return text.status();
  }
  return Parse(text.value());
}

}  // namespace

Result<std::string> DefaultPath() {
  return UserHomeFile(kFileName, QL_ERR_CREDENTIAL_STORE);
}

Result<Credential> Read(const std::string &path, const std::string &target) {
  if (!ValidField(target)) return Status(QL_ERR_BAD_ARGUMENT);
  auto text = Load(path);
  if (!text.ok()) return text.status();
  auto lines = Parse(text.value());
  if (!lines.ok()) return lines.status();
  const Line *hit = nullptr;
  for (const Line &l : lines.value()) {
    if (l.target == target) hit = &l;  // the last line for a target wins
  }
  if (hit == nullptr) return Status(QL_ERR_CREDENTIAL_NOT_FOUND);
  return hit->credential;
}

// Writers in one process take turns, so two updates never read the same old file. (Between
// processes the rename keeps the file whole; the later writer wins.)
std::mutex g_update_mu;

Status Write(const std::string &path, const std::string &target, const Credential &credential) {
  if (!ValidField(target) || !ValidField(credential.user)) return Status(QL_ERR_BAD_ARGUMENT);
  std::lock_guard<std::mutex> lock(g_update_mu);
  auto lines = LoadForUpdate(path);
  if (!lines.ok()) return lines.status();
  std::vector<Line> kept;
  for (Line &l : lines.value()) {
    if (l.target != target) kept.push_back(std::move(l));
  }
  kept.push_back(Line{target, credential});
  return Save(path, kept);
}

Status Delete(const std::string &path, const std::string &target) {
  if (!ValidField(target)) return Status(QL_ERR_BAD_ARGUMENT);
  std::lock_guard<std::mutex> lock(g_update_mu);
  auto lines = LoadForUpdate(path);
  if (!lines.ok()) return lines.status();
  std::vector<Line> kept;
  bool found = false;
  for (Line &l : lines.value()) {
    if (l.target == target) {
      found = true;
    } else {
      kept.push_back(std::move(l));
    }
  }
  if (!found) return Status(QL_ERR_CREDENTIAL_NOT_FOUND);
  return Save(path, kept);
}

#else  // _WIN32

Result<std::string> DefaultPath() {
  return std::string();
}

Result<Credential> Read(const std::string &, const std::string &target) {
  PCREDENTIALA cred = nullptr;
  if (!CredReadA(target.c_str(), CRED_TYPE_GENERIC, 0, &cred)) {
    return Status(GetLastError() == ERROR_NOT_FOUND ? QL_ERR_CREDENTIAL_NOT_FOUND
                                                    : QL_ERR_CREDENTIAL_STORE);
  }
  Credential out;
  if (cred->UserName) out.user = cred->UserName;
  if (cred->CredentialBlobSize > 0) {
    const auto *wide = reinterpret_cast<const wchar_t *>(cred->CredentialBlob);
    const int chars = static_cast<int>(cred->CredentialBlobSize / sizeof(wchar_t));
    const int n = WideCharToMultiByte(CP_ACP, 0, wide, chars, nullptr, 0, nullptr, nullptr);
    out.password.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    if (n > 0) {
      WideCharToMultiByte(CP_ACP, 0, wide, chars, out.password.data(), n, nullptr, nullptr);
    }
  }
  CredFree(cred);
  return out;
}

Status Write(const std::string &, const std::string &target, const Credential &credential) {
  const int n = MultiByteToWideChar(CP_ACP, 0, credential.password.data(),
                                    static_cast<int>(credential.password.size()), nullptr, 0);
  std::wstring wide(n > 0 ? static_cast<std::size_t>(n) : 0, L'\0');
  if (n > 0) {
    MultiByteToWideChar(CP_ACP, 0, credential.password.data(),
                        static_cast<int>(credential.password.size()), wide.data(), n);
  }
  CREDENTIALA cred{};
  cred.Type = CRED_TYPE_GENERIC;
  cred.TargetName = const_cast<char *>(target.c_str());
  cred.UserName = const_cast<char *>(credential.user.c_str());
  cred.CredentialBlobSize = static_cast<DWORD>(wide.size() * sizeof(wchar_t));
  cred.CredentialBlob = reinterpret_cast<LPBYTE>(wide.data());
  cred.Persist = CRED_PERSIST_LOCAL_MACHINE;
  return Status(CredWriteA(&cred, 0) ? QL_OK : QL_ERR_CREDENTIAL_STORE);
}

Status Delete(const std::string &, const std::string &target) {
  if (CredDeleteA(target.c_str(), CRED_TYPE_GENERIC, 0)) return Status::Ok();
  return Status(GetLastError() == ERROR_NOT_FOUND ? QL_ERR_CREDENTIAL_NOT_FOUND
                                                  : QL_ERR_CREDENTIAL_STORE);
}

#endif

}  // namespace qlapi::credstore

namespace {

void CopyText(const std::string &s, char *out, size_t out_len) {
  if (out == nullptr || out_len == 0) return;
  const size_t n = s.size() < out_len ? s.size() : out_len;
  std::memcpy(out, s.data(), n);
  if (n < out_len) out[n] = '\0';
}

}  // namespace

extern "C" int QLCredRead(const char *szTarget, char *szUser, size_t dwUserLen, char *szSecret,
                          size_t dwSecretLen) {
  return qlapi::Guard([&] {
    if (szTarget == nullptr) return QL_ERR_BAD_ARGUMENT;
    auto path = qlapi::credstore::DefaultPath();
    if (!path.ok()) return path.status().code();
    auto cred = qlapi::credstore::Read(path.value(), szTarget);
    if (!cred.ok()) return cred.status().code();
    CopyText(cred.value().user, szUser, dwUserLen);
    CopyText(cred.value().password, szSecret, dwSecretLen);
    return QL_OK;
  });
}

extern "C" int QLCredWrite(const char *szTarget, const char *szUser, const char *szSecret) {
  return qlapi::Guard([&] {
    if (szTarget == nullptr || szUser == nullptr || szSecret == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    auto path = qlapi::credstore::DefaultPath();
    if (!path.ok()) return path.status().code();
    return qlapi::credstore::Write(path.value(), szTarget, {szUser, szSecret}).code();
  });
}

extern "C" int QLCredDelete(const char *szTarget) {
  return qlapi::Guard([&] {
    if (szTarget == nullptr) return QL_ERR_BAD_ARGUMENT;
    auto path = qlapi::credstore::DefaultPath();
    if (!path.ok()) return path.status().code();
    return qlapi::credstore::Delete(path.value(), szTarget).code();
  });
}
