#include <openssl/crypto.h>

#include "engine/core.h"
#include "engine/crypto_result.h"

namespace qlhsm {

Result<KeyCache::Entry> KeyCache::Load(objects::ObjectStore &store, const objects::ObjectRef &ref) {
  std::string full = ref.Full();
  {
    std::shared_lock lock(mu_);
    auto it = entries_.find(full);
    if (it != entries_.end()) return it->second;
  }
  Result<objects::ObjectInfo> info = store.Get(ref);
  if (!info.ok()) return info.status();
  if (objects::IsDataObject(info->type))
    return Status::Error(Code::kBadKeyUsage, "the object is not a key");
  // A blockchain key's material is its BIP32 record, which only the blockchain service reads.
  if (info->flags & qlproto::kKeyBlockchain)
    return Status::Error(Code::kBadKeyUsage, "a blockchain key serves the blockchain calls");
  Result<secure::Bytes> material = store.ReadMaterial(ref);
  if (!material.ok()) return material.status();
  crypto::Result<crypto::KeyPtr> key =
      crypto::Key::Parse(crypto::ByteView(material->data(), material->size()));
  OPENSSL_cleanse(material->data(), material->size());
  if (!key.ok()) return cryptomap::FromCrypto(key.status());
  Entry entry{*info, *key};
  std::unique_lock lock(mu_);
  entries_[full] = entry;
  return entry;
}

bool KeyCache::FindUsable(const std::string &full_name, crypto::KeyPtr *key, uint32_t *flags) {
  std::shared_lock lock(mu_);
  auto it = entries_.find(full_name);
  if (it == entries_.end() || it->second.info.blocked) return false;
  *key = it->second.key;
  *flags = it->second.info.flags;
  return true;
}

void KeyCache::Forget(const std::string &full_name) {
  std::unique_lock lock(mu_);
  entries_.erase(full_name);
}

void KeyCache::ForgetAll() {
  std::unique_lock lock(mu_);
  entries_.clear();
}

}  // namespace qlhsm
