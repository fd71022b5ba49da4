#include "engine/backup/backup.h"

#include <openssl/crypto.h>

#include <filesystem>

#include "engine/data_dir.h"

namespace qlhsm::backup {
namespace {

constexpr std::string_view kAad = "qlhsm.backup.v1";

}  // namespace

Result<secure::Bytes> MakeBackup(store::Store &store, const secure::Bytes &master_key,
                                 std::string_view pin, const std::string &scratch_dir,
                                 const secure::KdfParams &kdf) {
  if (pin.empty()) return Status::Error(Code::kBadArgument, "empty backup PIN");
  Result<secure::Bytes> tag = secure::RandomBytes(8);
  if (!tag.ok()) return tag.status();
  std::string snapshot =
      (std::filesystem::path(scratch_dir) / ("backup-" + secure::Hex(*tag) + ".tmp")).string();
  Status copied = store.CopyTo(snapshot);
  Result<secure::Bytes> db = copied.ok() ? ReadFileBytes(snapshot) : Result<secure::Bytes>(copied);
  std::error_code ec;
  std::filesystem::remove(snapshot, ec);
  if (!db.ok()) return db.status();

  secure::Bytes plain;
  uint32_t klen = static_cast<uint32_t>(master_key.size());
  for (int i = 3; i >= 0; --i) plain.push_back(static_cast<uint8_t>(klen >> (8 * i)));
  plain.insert(plain.end(), master_key.begin(), master_key.end());
  plain.insert(plain.end(), db->begin(), db->end());

  Result<secure::Bytes> salt = secure::RandomBytes(secure::kSaltLen);
  if (!salt.ok()) return salt.status();
  Result<secure::Bytes> key = secure::Scrypt(pin, *salt, kdf);
  if (!key.ok()) return key.status();
  Result<secure::Bytes> sealed = secure::Seal(*key, plain, kAad);
  OPENSSL_cleanse(plain.data(), plain.size());
  OPENSSL_cleanse(key->data(), key->size());
  if (!sealed.ok()) return sealed.status();

  secure::Bytes out(kMagic.begin(), kMagic.end());
  secure::AppendKdfParams(out, kdf);  // any cost a backup was made with can be restored
  out.insert(out.end(), salt->begin(), salt->end());
  out.insert(out.end(), sealed->begin(), sealed->end());
  return out;
}

Status RestoreBackup(const secure::Bytes &backup, std::string_view pin, const std::string &data_dir,
                     std::string_view unlock_secret, const secure::KdfParams &unlock_kdf) {
  const size_t head = kMagic.size() + secure::kKdfParamsLen + secure::kSaltLen;
  if (backup.size() < head + secure::kNonceLen + secure::kTagLen ||
      !std::equal(kMagic.begin(), kMagic.end(), backup.begin()))
    return Status::Error(Code::kBadArgument, "not a backup file");
  const std::optional<secure::KdfParams> kdf = secure::ReadKdfParams(backup.data() + kMagic.size());
  if (!kdf) return Status::Error(Code::kBadArgument, "backup header damaged");
  secure::Bytes salt(backup.begin() + kMagic.size() + secure::kKdfParamsLen, backup.begin() + head);
  Result<secure::Bytes> key = secure::Scrypt(pin, salt, *kdf);
  if (!key.ok()) return key.status();
  Result<secure::Bytes> plain =
      secure::Open(*key, secure::Bytes(backup.begin() + head, backup.end()), kAad);
  OPENSSL_cleanse(key->data(), key->size());
  if (!plain.ok()) return Status::Error(Code::kBadPin, "wrong PIN or damaged backup");
  if (plain->size() < 4) return Status::Error(Code::kBadArgument, "backup damaged");
  uint32_t klen = (*plain)[0] << 24 | (*plain)[1] << 16 | (*plain)[2] << 8 | (*plain)[3];
  if (klen != secure::kKeyLen || plain->size() < 4 + klen)
    return Status::Error(Code::kBadArgument, "backup damaged");

  QL_RETURN_IF_ERROR(EnsureDataDir(data_dir));
  std::string db_path = DataPath(data_dir, store::kDbFile);
  std::error_code ec;
  if (std::filesystem::exists(db_path, ec))
    return Status::Error(Code::kBadArgument, "the data directory already holds a store");
  secure::Bytes master(plain->begin() + 4, plain->begin() + 4 + klen);
  Status sealed_key = WriteMasterKey(data_dir, master, unlock_secret, unlock_kdf);
  OPENSSL_cleanse(master.data(), master.size());
  QL_RETURN_IF_ERROR(sealed_key);
  QL_RETURN_IF_ERROR(
      WritePrivateFile(db_path, secure::Bytes(plain->begin() + 4 + klen, plain->end())));
  OPENSSL_cleanse(plain->data(), plain->size());
  return Status::Ok();
}

}  // namespace qlhsm::backup
