#include "known_hsms.h"

#include <cctype>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

#include "home_dir.h"

namespace qlapi::knownhsms {
namespace {

constexpr int kBadFile = QL_ERR_HSM_IDENTITY_UNVERIFIED;
constexpr std::size_t kHexLen = 64;

std::mutex g_mu;  // guards g_test_path and serialises this process's updates of the file
std::string g_test_path;

using Entry = std::pair<std::string, std::string>;  // endpoint, fingerprint hex

bool ValidHex(std::string_view s) {
  if (s.size() != kHexLen) return false;
  for (char c : s) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

std::string Lower(std::string_view s) {
  std::string out(s);
  for (char &c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

// The file's text, "" when it does not exist; refused unless private to the caller.
Result<std::string> Load(const std::string &path) {
  return ReadPrivateFile(path, QL_OK, kBadFile);
}

// A malformed line makes the whole file unusable: a half-read pin list could let a changed HSM
// through as unknown.
Result<std::vector<Entry>> Parse(const std::string &text) {
  std::vector<Entry> entries;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string_view line(text.data() + pos, end - pos);
    pos = end + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.empty() || line.front() == '#') continue;
    const std::size_t sp = line.find(' ');
    if (sp == 0 || sp == std::string_view::npos || !ValidHex(line.substr(sp + 1))) {
      return Status(kBadFile);
    }
    entries.emplace_back(std::string(line.substr(0, sp)), Lower(line.substr(sp + 1)));
  }
  return entries;
}

Status Save(const std::string &path, const std::vector<Entry> &entries) {
  std::string text = "# qlapi known HSMs: address:port SP SHA-256 of the certificate (hex)\n";
  for (const Entry &e : entries) text += e.first + ' ' + e.second + '\n';
  return WriteFileAtomically(path, text, kBadFile);
}

Result<std::vector<Entry>> LoadEntries(const std::string &path) {
  auto text = Load(path);
  if (!text.ok()) return text.status();
  return Parse(text.value());
}

Result<std::string> LookupLocked(const std::string &path, const std::string &endpoint) {
  auto entries = LoadEntries(path);
  if (!entries.ok()) return entries.status();
  std::string found;
  for (const Entry &e : entries.value()) {
    if (e.first == endpoint) found = e.second;
  }
  return found;
}

Status PinLocked(const std::string &path, const std::string &endpoint, const std::string &hex) {
  if (endpoint.empty() || endpoint.find_first_of(" \t\r\n#") != std::string::npos ||
      !ValidHex(hex)) {
    return Status(QL_ERR_BAD_ARGUMENT);
  }
  auto entries = LoadEntries(path);
  if (!entries.ok()) return entries.status();
  std::vector<Entry> kept;
  for (Entry &e : entries.value()) {
    if (e.first != endpoint) kept.push_back(std::move(e));
  }
  kept.emplace_back(endpoint, Lower(hex));
  return Save(path, kept);
}

}  // namespace

std::string Endpoint(const std::string &host, int port) {
  const bool v6 = host.find(':') != std::string::npos && host.front() != '[';
  return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

Result<std::string> DefaultPath() {
  {
    std::lock_guard<std::mutex> lock(g_mu);
    if (!g_test_path.empty()) return g_test_path;
  }
#if defined(__GLIBC__)
  const char *chosen = secure_getenv("QLAPI_KNOWN_HSMS");  // never honoured when set-user-id
#else
  const char *chosen = std::getenv("QLAPI_KNOWN_HSMS");
#endif
  if (chosen != nullptr && *chosen != '\0') return std::string(chosen);
  return UserHomeFile(kFileName, kBadFile);
}

void SetPathForTesting(const std::string &path) {
  std::lock_guard<std::mutex> lock(g_mu);
  g_test_path = path;
}

Result<std::string> Lookup(const std::string &path, const std::string &endpoint) {
  std::lock_guard<std::mutex> lock(g_mu);
  return LookupLocked(path, endpoint);
}

Status Pin(const std::string &path, const std::string &endpoint, const std::string &hex) {
  std::lock_guard<std::mutex> lock(g_mu);
  return PinLocked(path, endpoint, hex);
}

Status CheckPinned(const std::string &path, const std::string &endpoint, const std::string &hex,
                   bool strict) {
  // One lock around look-up and pin, so two threads meeting a new HSM pin it once and agree.
  std::lock_guard<std::mutex> lock(g_mu);
  auto pinned = LookupLocked(path, endpoint);
  if (!pinned.ok()) return pinned.status();
  if (!pinned.value().empty()) {
    return Status(pinned.value() == Lower(hex) ? QL_OK : QL_ERR_HSM_IDENTITY_CHANGED);
  }
  if (strict) return Status(QL_ERR_HSM_IDENTITY_UNKNOWN);
  return PinLocked(path, endpoint, hex);
}

}  // namespace qlapi::knownhsms
