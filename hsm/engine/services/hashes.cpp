#include "engine/services/hashes.h"

#include "crypto/hash.h"
#include "engine/crypto_result.h"

namespace qlhsm {

using access::Request;
using cryptomap::FromCrypto;
using sessions::Session;

Status HashesService::Known(Session &s, uint64_t hash) {
  if (!s.FindHash(hash)) return Status::Error(Code::kBadArgument, "unknown hash handle");
  return Status::Ok();
}

Result<uint64_t> HashesService::CreateHash(Session &s, uint32_t algorithm, const KeyArg &key) {
  KeysService::KeyTarget target;
  Op op{"create-hash", key.name.empty() ? std::string_view("-") : std::string_view(key.name),
        KeysService::UseRight(s, key), AuditMode::kRefusal};
  return guard_.Run(
      s, op, [&] { return key.empty() ? Status::Ok() : keys_.Target(s, key, &target); },
      [&](const users::UserInfo &) -> Result<uint64_t> {
        crypto::KeyPtr k;
        if (!key.empty()) {
          Result<KeysService::UsableKey> usable = keys_.Usable(target);
          if (!usable.ok()) return usable.status();
          k = usable->key;
        }
        crypto::Result<crypto::HashState> state = crypto::HashState::Create(algorithm, k);
        if (!state.ok()) return FromCrypto(state.status());
        return s.AddHash(std::move(state.value()));
      });
}

Status HashesService::HashData(Session &s, uint64_t hash, const secure::Bytes &data) {
  return guard_.Run(
      s, Op{"hash-data", "-", Request::kFree, AuditMode::kRefusal}, [&] { return Known(s, hash); },
      [&](const users::UserInfo &) -> Status {
        crypto::Status st = s.FindHash(hash)->Update(crypto::ByteView(data.data(), data.size()));
        if (!st.ok()) return FromCrypto(st);
        return Status::Ok();
      });
}

Result<secure::Bytes> HashesService::GetHashValue(Session &s, uint64_t hash) {
  return guard_.Run(
      s, Op{"hash-value", "-", Request::kFree, AuditMode::kRefusal}, [&] { return Known(s, hash); },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        crypto::Result<crypto::Bytes> v = s.FindHash(hash)->Value();
        if (!v.ok()) return FromCrypto(v.status());
        return secure::Bytes(std::move(v.value()));
      });
}

Status HashesService::DestroyHash(Session &s, uint64_t hash) {
  return guard_.Run(
      s, Op{"destroy-hash", "-", Request::kFree, AuditMode::kRefusal},
      [&] { return Known(s, hash); },
      [&](const users::UserInfo &) {
        s.RemoveHash(hash);
        return Status::Ok();
      });
}

}  // namespace qlhsm
