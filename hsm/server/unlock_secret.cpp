#include "server/unlock_secret.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "engine/data_dir.h"

namespace qlhsm::server {
namespace {

void StripLineBreak(std::string *s) {
  if (!s->empty() && s->back() == '\n') s->pop_back();
  if (!s->empty() && s->back() == '\r') s->pop_back();
}

Result<std::string> FromFile(const std::string &file) {
  struct stat st {};
  if (::stat(file.c_str(), &st) != 0)
    return Status::Error(Code::kBadArgument, "cannot read the unlock file " + file);
  if ((st.st_mode & (S_IRWXG | S_IRWXO)) != 0)
    return Status::Error(Code::kBadArgument,
                         "the unlock file " + file + " is open to group or others; chmod 600 it");
  Result<secure::Bytes> bytes = ReadFileBytes(file);
  if (!bytes.ok()) return bytes.status();
  std::string secret(bytes->begin(), bytes->end());
  StripLineBreak(&secret);
  return secret;
}

// One line typed on the controlling terminal, without echo.
Result<std::string> Prompt(const char *text) {
  const int fd = ::open("/dev/tty", O_RDWR | O_CLOEXEC);
  if (fd < 0) return Status::Error(Code::kBadArgument, "no terminal");
  termios saved{};
  const bool is_tty = tcgetattr(fd, &saved) == 0;
  if (is_tty) {
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(fd, TCSAFLUSH, &quiet);
  }
  (void)!::write(fd, text, std::strlen(text));
  std::string line;
  char c;
  while (::read(fd, &c, 1) == 1 && c != '\n') line.push_back(c);
  if (is_tty) tcsetattr(fd, TCSAFLUSH, &saved);
  (void)!::write(fd, "\n", 1);
  ::close(fd);
  StripLineBreak(&line);
  return line;
}

}  // namespace

Result<std::string> ReadUnlockSecret(const std::string &file, bool confirm) {
  Result<std::string> secret = std::string();
  if (!file.empty()) {
    secret = FromFile(file);
  } else if (const char *env = std::getenv("QLHSMD_UNLOCK"); env != nullptr && *env != '\0') {
    secret = std::string(env);
  } else if (isatty(STDIN_FILENO)) {
    secret = Prompt("unlock secret: ");
    if (secret.ok() && confirm) {
      Result<std::string> again = Prompt("unlock secret again: ");
      if (!again.ok()) return again.status();
      if (*again != *secret)
        return Status::Error(Code::kBadArgument, "the two unlock secrets differ");
    }
  } else {
    return Status::Error(Code::kBadArgument,
                         "no unlock secret: give --unlock-file FILE, set QLHSMD_UNLOCK, or run on "
                         "a terminal");
  }
  if (!secret.ok()) return secret.status();
  if (secret->empty()) return Status::Error(Code::kBadArgument, "the unlock secret is empty");
  return secret;
}

}  // namespace qlhsm::server
