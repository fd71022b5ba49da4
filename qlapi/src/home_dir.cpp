#include "home_dir.h"

#include <cstdlib>
#include <vector>

#ifndef _WIN32
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#endif

namespace qlapi {

Result<std::string> UserHomeFile(const char *name, int error) {
#ifdef _WIN32
  const char *profile = std::getenv("USERPROFILE");
  if (profile == nullptr || *profile == '\0') return Status(error);
  return std::string(profile) + "\\" + name;
#else
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd pw{};
  passwd *found = nullptr;
  while (getpwuid_r(getuid(), &pw, buf.data(), buf.size(), &found) == ERANGE) {
    buf.resize(buf.size() * 2);
  }
  if (found == nullptr || pw.pw_dir == nullptr || pw.pw_dir[0] == '\0') return Status(error);
  return std::string(pw.pw_dir) + "/" + name;
#endif
}

}  // namespace qlapi
