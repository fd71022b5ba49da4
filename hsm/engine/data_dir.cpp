#include "engine/data_dir.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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

namespace {

// master.key: magic, scrypt N, r, p (big-endian, 8 bytes each), salt, then the sealed key.
constexpr std::string_view kMasterMagic = "QLMK1\n";
constexpr std::string_view kMasterAad = "qlhsm.master-key.v1";
constexpr size_t kMasterHead = 6 + secure::kKdfParamsLen + secure::kSaltLen;

}  // namespace

Status WriteMasterKey(const std::string &data_dir, const secure::Bytes &key,
                      std::string_view unlock_secret, const secure::KdfParams &kdf) {
  Result<secure::Bytes> salt = secure::RandomBytes(secure::kSaltLen);
  if (!salt.ok()) return salt.status();
  Result<secure::Bytes> wrapping = secure::Scrypt(unlock_secret, *salt, kdf);
  if (!wrapping.ok()) return wrapping.status();
  Result<secure::Bytes> sealed = secure::Seal(*wrapping, key, kMasterAad);
  OPENSSL_cleanse(wrapping->data(), wrapping->size());
  if (!sealed.ok()) return sealed.status();
  secure::Bytes file(kMasterMagic.begin(), kMasterMagic.end());
  secure::AppendKdfParams(file, kdf);
  file.insert(file.end(), salt->begin(), salt->end());
  file.insert(file.end(), sealed->begin(), sealed->end());
  return WritePrivateFile(DataPath(data_dir, kMasterKeyFile), file);
}

Status CreateMasterKey(const std::string &data_dir, std::string_view unlock_secret,
                       const secure::KdfParams &kdf) {
  Result<secure::Bytes> key = secure::RandomBytes(secure::kKeyLen);
  if (!key.ok()) return key.status();
  Status st = WriteMasterKey(data_dir, *key, unlock_secret, kdf);
  OPENSSL_cleanse(key->data(), key->size());
  return st;
}

Result<secure::Bytes> LoadMasterKey(const std::string &data_dir, std::string_view unlock_secret) {
  std::string path = DataPath(data_dir, kMasterKeyFile);
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return Status::Error(Code::kBadArgument, "no " + path);
  if ((st.st_mode & (S_IRWXG | S_IRWXO)) != 0)
    return Status::Error(Code::kBadArgument, path + " is open to group or others; chmod 600 it");
  Result<secure::Bytes> file = ReadFileBytes(path);
  if (!file.ok()) return file.status();
  if (file->size() != kMasterHead + secure::kNonceLen + secure::kKeyLen + secure::kTagLen ||
      !std::equal(kMasterMagic.begin(), kMasterMagic.end(), file->begin()))
    return Status::Error(Code::kBadArgument, path + " is damaged or not a sealed master key");
  const std::optional<secure::KdfParams> kdf = secure::ReadKdfParams(file->data() + 6);
  if (!kdf) return Status::Error(Code::kBadArgument, path + " is damaged");
  secure::Bytes salt(file->begin() + 6 + secure::kKdfParamsLen, file->begin() + kMasterHead);
  Result<secure::Bytes> wrapping = secure::Scrypt(unlock_secret, salt, *kdf);
  if (!wrapping.ok()) return wrapping.status();
  Result<secure::Bytes> key =
      secure::Open(*wrapping, secure::Bytes(file->begin() + kMasterHead, file->end()), kMasterAad);
  OPENSSL_cleanse(wrapping->data(), wrapping->size());
  if (!key.ok()) return Status::Error(Code::kBadPin, "wrong unlock secret");
  return key;
}

}  // namespace qlhsm
