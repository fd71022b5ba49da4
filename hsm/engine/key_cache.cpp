#include <openssl/crypto.h>

#include <memory>

#include "crypto/algorithms.h"
#include "engine/core.h"
#include "engine/crypto_result.h"

namespace qlhsm {

Result<KeyCache::Entry> KeyCache::Load(objects::ObjectStore &store, const objects::ObjectRef &ref) {
  return LoadEntry(store, ref, false);
}

Result<KeyCache::Entry> KeyCache::LoadBlockchain(objects::ObjectStore &store,
                                                 const objects::ObjectRef &ref) {
  return LoadEntry(store, ref, true);
}

Result<KeyCache::Entry> KeyCache::LoadEntry(objects::ObjectStore &store,
                                            const objects::ObjectRef &ref, bool blockchain) {
  // A blockchain key's material is its BIP32 record, which only the blockchain service reads;
  // that service takes nothing else.
  auto kind = [&](const objects::ObjectInfo &info) {
    if (((info.flags & qlproto::kKeyBlockchain) != 0) == blockchain) return Status::Ok();
    return Status::Error(Code::kBadKeyUsage, blockchain
                                                 ? "not a blockchain key"
                                                 : "a blockchain key serves the blockchain calls");
  };
  std::string full = ref.Full();
  {
    std::shared_lock lock(mu_);
    auto it = entries_.find(full);
    if (it != entries_.end()) {
      QL_RETURN_IF_ERROR(kind(it->second.info));
      return it->second;
    }
  }
  Result<objects::ObjectInfo> info = store.Get(ref);
  if (!info.ok()) return info.status();
  if (!objects::IsKeyObject(info->type))
    return Status::Error(Code::kBadKeyUsage, "the object is not a key");
  QL_RETURN_IF_ERROR(kind(*info));
  Result<secure::Bytes> material = store.ReadMaterial(ref);
  if (!material.ok()) return material.status();
  crypto::KeyPtr key;
  if (blockchain) {
    key = std::make_shared<const crypto::Key>(
        crypto::FindKeyAlgorithm(crypto::alg::kSecp256k1),
        crypto::SecretBytes(material->begin(), material->end()));
  } else {
    crypto::Result<crypto::KeyPtr> parsed =
        crypto::Key::Parse(crypto::ByteView(material->data(), material->size()));
    if (!parsed.ok()) {
      OPENSSL_cleanse(material->data(), material->size());
      return cryptomap::FromCrypto(parsed.status());
    }
    key = *parsed;
  }
  OPENSSL_cleanse(material->data(), material->size());
  Entry entry{*info, key};
  std::unique_lock lock(mu_);
  entries_[full] = entry;
  return entry;
}

bool KeyCache::FindUsable(const std::string &full_name, crypto::KeyPtr *key, uint32_t *flags) {
  std::shared_lock lock(mu_);
  auto it = entries_.find(full_name);
  if (it == entries_.end() || it->second.info.blocked ||
      (it->second.info.flags & qlproto::kKeyBlockchain))
    return false;
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

std::vector<objects::ObjectInfo> KeyCache::Snapshot() {
  std::shared_lock lock(mu_);
  std::vector<objects::ObjectInfo> infos;
  infos.reserve(entries_.size());
  for (const auto &entry : entries_) infos.push_back(entry.second.info);
  return infos;
}

}  // namespace qlhsm
