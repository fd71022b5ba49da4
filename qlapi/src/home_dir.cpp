#include "home_dir.h"

#include <atomic>
#include <cstdlib>
#include <vector>

#ifdef _WIN32
#include <fstream>
#include <sstream>
#else
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
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

Result<std::string> ReadPrivateFile(const std::string &path, int missing, int error) {
#ifdef _WIN32
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    if (missing == QL_OK) return std::string();
    return Status(missing);
  }
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
#else
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) {
    if (errno != ENOENT) return Status(error);
    if (missing == QL_OK) return std::string();
    return Status(missing);
  }
  struct stat st {};
  std::string text;
  bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == getuid() &&
            (st.st_mode & 077) == 0;
  if (ok) {
    char buf[4096];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0) text.append(buf, static_cast<std::size_t>(n));
    ok = n == 0;
  }
  ::close(fd);
  if (!ok) return Status(error);
  return text;
#endif
}

Status WriteFileAtomically(const std::string &path, const std::string &text, int error) {
#ifdef _WIN32
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  return out ? Status::Ok() : Status(error);
#else
  static std::atomic<unsigned> counter{0};
  const std::string tmp =
      path + ".tmp" + std::to_string(getpid()) + "." + std::to_string(counter++);
  const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return Status(error);
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  const bool ok = done == text.size() && fsync(fd) == 0;
  ::close(fd);
  if (!ok || ::rename(tmp.c_str(), path.c_str()) != 0) {
    ::unlink(tmp.c_str());
    return Status(error);
  }
  return Status::Ok();
#endif
}

}  // namespace qlapi
