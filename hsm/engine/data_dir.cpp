#include "engine/data_dir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace qlhsm {

std::string DataPath(const std::string &data_dir, const char *file) {
  return (std::filesystem::path(data_dir) / file).string();
}

Status EnsureDataDir(const std::string &data_dir) {
  std::error_code ec;
  if (std::filesystem::is_directory(data_dir, ec)) return Status::Ok();
  if (!std::filesystem::create_directories(data_dir, ec) || ec)
    return Status::Error(Code::kBadArgument, "cannot create " + data_dir);
  std::filesystem::permissions(data_dir, std::filesystem::perms::owner_all, ec);
  return Status::Ok();
}

Status WritePrivateFile(const std::string &path, const secure::Bytes &data) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return Status::Error(Code::kBadArgument, "cannot create " + path);
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n <= 0) {
      ::close(fd);
      return Status::Error(Code::kInternal, "cannot write " + path);
    }
    done += static_cast<size_t>(n);
  }
  bool synced = ::fsync(fd) == 0;
  ::close(fd);
  return synced ? Status::Ok() : Status::Error(Code::kInternal, "cannot sync " + path);
}

Result<secure::Bytes> ReadFileBytes(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return Status::Error(Code::kObjectNotFound, "cannot read " + path);
  return secure::Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Status WriteFileBytes(const std::string &path, const secure::Bytes &data) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char *>(data.data()), static_cast<std::streamsize>(data.size()));
  out.close();
  if (!out) return Status::Error(Code::kInternal, "cannot write " + path);
  return Status::Ok();
}

Status CreateMasterKey(const std::string &data_dir) {
  Result<secure::Bytes> key = secure::RandomBytes(secure::kKeyLen);
  if (!key.ok()) return key.status();
  return WritePrivateFile(DataPath(data_dir, kMasterKeyFile), *key);
}

Result<secure::Bytes> LoadMasterKey(const std::string &data_dir) {
  std::string path = DataPath(data_dir, kMasterKeyFile);
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return Status::Error(Code::kBadArgument, "no " + path);
  if ((st.st_mode & (S_IRWXG | S_IRWXO)) != 0)
    return Status::Error(Code::kBadArgument, path + " is open to group or others; chmod 600 it");
  Result<secure::Bytes> key = ReadFileBytes(path);
  if (!key.ok()) return key.status();
  if (key->size() != secure::kKeyLen)
    return Status::Error(Code::kBadArgument, path + " is damaged");
  return key;
}

}  // namespace qlhsm
