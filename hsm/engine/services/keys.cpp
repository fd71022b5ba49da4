// Keys over the crypto library: generate, open, import, export, parameters, destroy, signatures,
// ciphers, PKCS#8, key material handed out and key agreement.
#include "engine/services/keys.h"

#include <algorithm>
#include <limits>
#include <optional>

#include "crypto/blob.h"
#include "crypto/derive.h"
#include "crypto/hash.h"
#include "crypto/key.h"
#include "crypto/sign.h"
#include "engine/crypto_result.h"
#include "engine/fault_points.h"
#include "engine/services/objects.h"

namespace qlhsm {

using access::Request;
using cryptomap::FromCrypto;
using sessions::Session;

namespace {

// The most bytes one X9.63 derivation gives (the crypto library's limit too).
constexpr uint32_t kMaxDerived = 1024;

KeyDesc Describe(const crypto::Key &key, uint32_t flags, uint64_t handle) {
  KeyDesc d;
  d.handle = handle;
  d.algorithm =
      key.algorithm() | (key.has_private() || key.is_secret() ? 0 : qlproto::kAlgPublicKeyBit);
  d.flags = flags;
  d.key_length = static_cast<uint32_t>(key.length_bytes());
  return d;
}

bool IsPublicBlob(uint32_t type) {
  return type == crypto::blob::kPublicKey || type == crypto::blob::kPublicKeyHsm;
}

bool IsTemporary(std::string_view name, uint32_t flags) {
  return name.empty() || (flags & qlproto::kKeyTemporary);
}

std::string_view AuditName(const KeyArg &arg) {
  return arg.name.empty() ? std::string_view("-") : std::string_view(arg.name);
}

// The name of the key, also when a handle names it: an opened object's "owner/object", a named
// session key's name, else "-".
std::string KeyNameOf(Session &s, const KeyArg &arg) {
  if (!arg.name.empty() || arg.handle == 0) return std::string(AuditName(arg));
  if (const std::string *opened = s.FindOpened(arg.handle)) return *opened;
  const sessions::TempObject *temp = s.FindTemp(arg.handle);
  return temp != nullptr && !temp->name.empty() ? temp->name : "-";
}

// The cipher state of a handle, made from its key on first use.
crypto::CipherState *StateFor(Session &s, uint64_t handle, const crypto::KeyPtr &key) {
  if (crypto::CipherState *c = s.FindCipher(handle)) return c;
  return &s.AddCipher(handle, key);
}

bool IsCipherParam(uint32_t param) {
  return param == qlproto::kKpIv || param == qlproto::kKpMode || param == qlproto::kKpPadding ||
         param == qlproto::kKpTagLen || param == qlproto::kKpAad;
}

}  // namespace

// --- finding a key ---

Status KeysService::Target(Session &s, const KeyArg &arg, KeyTarget *out) const {
  std::string_view name = arg.name;
  if (arg.handle != 0) {
    if ((out->temp = s.FindTemp(arg.handle))) return Status::Ok();
    const std::string *opened = s.FindOpened(arg.handle);
    if (!opened) return Status::Error(Code::kBadArgument, "unknown key handle");
    name = *opened;
  }
  if (name.empty()) return Status::Error(Code::kBadArgument, "no key given");
  if (arg.handle == 0 && (out->temp = s.FindTempByName(name))) return Status::Ok();
  return core_.Ref(s, name, &out->ref);
}

access::Request KeysService::UseRight(Session &s, const KeyArg &arg) {
  if (arg.empty() || (arg.handle != 0 && s.FindTemp(arg.handle))) return Request::kFree;
  if (arg.handle == 0 && s.FindTempByName(arg.name)) return Request::kFree;
  return Request::kUseObject;
}

Result<KeysService::UsableKey> KeysService::Usable(const KeyTarget &t) {
  if (t.temp) {
    // A blockchain key holds BIP32 data, not a generic key: only the blockchain calls use it.
    if (t.temp->flags & qlproto::kKeyBlockchain)
      return Status::Error(Code::kBadKeyUsage, "a blockchain key serves the blockchain calls");
    return UsableKey{t.temp->key, t.temp->flags};
  }
  // Every use after the first finds the key ready: take only what the use needs.
  UsableKey k;
  const std::string full = t.ref.Full();
  if (core_.keys.FindUsable(full, &k.key, &k.flags)) return k;
  Result<KeyCache::Entry> cached = core_.keys.Load(*core_.objects, t.ref);
  if (!cached.ok()) return cached.status();
  if (cached->info.blocked) return Status::Error(Code::kObjectBlocked, "object blocked");
  return UsableKey{cached->key, cached->info.flags};
}

Result<KeyDesc> KeysService::KeepNewKey(Session &s, std::string_view name, crypto::KeyPtr key,
                                        uint32_t flags, bool want_handle,
                                        std::vector<objects::ObjectStore::Record> records) {
  if (IsTemporary(name, flags)) {
    if (s.FindTempByName(name))
      return Status::Error(Code::kObjectExists, "a session key of that name exists");
    uint64_t h = 0;
    if (want_handle) {
      sessions::TempObject temp{key, flags, std::string(name), {}};
      for (auto &r : records) temp.records.emplace_back(r.id, std::move(r.value));
      h = s.AddTemp(std::move(temp));
    }
    return Describe(*key, flags, h);
  }
  crypto::Result<crypto::SecretBytes> stored = key->Serialize();
  if (!stored.ok()) return FromCrypto(stored.status());
  KeyDesc d = Describe(*key, flags, 0);
  QL_RETURN_IF_ERROR(objects_.CreateObject(
      s, name, static_cast<int>(d.algorithm), static_cast<int>(d.algorithm), flags,
      secure::Bytes(stored->begin(), stored->end()), std::move(records)));
  objects::ObjectRef ref;
  if (want_handle && core_.Ref(s, name, &ref).ok()) d.handle = s.AddOpened(ref.Full());
  return d;
}

// --- making, opening, importing, exporting ---

Result<KeyDesc> KeysService::GenerateKey(Session &s, std::string_view name, uint32_t algorithm,
                                         uint32_t flags, bool want_handle) {
  const bool temporary = IsTemporary(name, flags);
  objects::ObjectRef ref;
  Op op{"generate-key", name, temporary ? Request::kFree : Request::kCreateObject,
        AuditMode::kRefusal};
  return guard_.Run(
      s, op, [&] { return temporary ? Status::Ok() : core_.Ref(s, name, &ref); },
      [&](const users::UserInfo &) -> Result<KeyDesc> {
        if (flags & qlproto::kKeyBlockchain)
          return Status::Error(Code::kNotSupported, "blockchain keys are made by their service");
        crypto::Result<crypto::KeyPtr> key = crypto::Key::Generate(algorithm, flags);
        if (!key.ok()) return FromCrypto(key.status());
        return KeepNewKey(s, name, *key, flags, want_handle);
      });
}

Result<KeyDesc> KeysService::OpenKey(Session &s, std::string_view name) {
  if (s.FindTempByName(name)) {
    // A named session key: a handle of its own to the same key, so that its cipher state and
    // its release are the new handle's alone.
    return guard_.Run(
        s, Op{"open-key", name, Request::kFree, AuditMode::kRefusal}, NoArgs,
        [&](const users::UserInfo &) -> Result<KeyDesc> {
          const sessions::TempObject *t = s.FindTempByName(name);
          return Describe(*t->key, t->flags, s.AddTemp({t->key, t->flags, {}, t->records}));
        });
  }
  Result<objects::ObjectInfo> info = objects_.OpenObject(s, name);
  if (!info.ok()) return info.status();
  KeyDesc d;
  d.algorithm = static_cast<uint32_t>(info->algorithm);
  d.flags = info->flags;
  // The length comes from the parsed key, which later uses of the handle then find ready.
  Result<KeyCache::Entry> cached = core_.keys.Load(*core_.objects, info->ref);
  if (cached.ok()) d.key_length = static_cast<uint32_t>(cached->key->length_bytes());
  d.handle = s.AddOpened(info->ref.Full());
  return d;
}

Result<KeyDesc> KeysService::ImportKey(Session &s, std::string_view name, const KeyArg &kek,
                                       const secure::Bytes &blob, uint32_t blob_type,
                                       uint32_t algorithm, uint32_t flags, bool want_handle) {
  const bool temporary = IsTemporary(name, flags);
  objects::ObjectRef ref;
  KeyTarget wrap;
  Op op{"import-key", name, temporary ? Request::kFree : Request::kCreateObject,
        AuditMode::kRefusal, UseRight(s, kek)};
  return guard_.Run(
      s, op,
      [&] {
        if (blob.empty()) return Status::Error(Code::kBadArgument, "empty key blob");
        if (!temporary) QL_RETURN_IF_ERROR(core_.Ref(s, name, &ref));
        return kek.empty() ? Status::Ok() : Target(s, kek, &wrap);
      },
      [&](const users::UserInfo &) -> Result<KeyDesc> {
        crypto::KeyPtr kek_key;
        if (!kek.empty()) {
          Result<UsableKey> k = Usable(wrap);
          if (!k.ok()) return k.status();
          kek_key = k->key;
        }
        crypto::Result<crypto::KeyPtr> key = crypto::ImportKey(
            crypto::ByteView(blob.data(), blob.size()), blob_type, algorithm, kek_key);
        if (!key.ok()) return FromCrypto(key.status());
        return KeepNewKey(s, name, *key, flags, want_handle);
      });
}

Result<secure::Bytes> KeysService::ExportKey(Session &s, const KeyArg &key, const KeyArg &kek,
                                             uint32_t blob_type) {
  KeyTarget target, wrap;
  Op op{"export-key", AuditName(key), UseRight(s, key), AuditMode::kRefusal, UseRight(s, kek)};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(Target(s, key, &target));
        return kek.empty() ? Status::Ok() : Target(s, kek, &wrap);
      },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<UsableKey> k = Usable(target);
        if (!k.ok()) return k.status();
        if (!IsPublicBlob(blob_type) && !(k->flags & qlproto::kKeyExportable))
          return Status::Error(Code::kNotExportable,
                               "the key was made without the exportable flag");
        crypto::KeyPtr kek_key;
        if (!kek.empty()) {
          Result<UsableKey> w = Usable(wrap);
          if (!w.ok()) return w.status();
          kek_key = w->key;
        }
        crypto::Result<crypto::SecretBytes> out = crypto::ExportKey(k->key, kek_key, blob_type);
        if (!out.ok()) return FromCrypto(out.status());
        return secure::Bytes(out->begin(), out->end());
      });
}

Result<KeyFacts> KeysService::DescribeKey(Session &s, const KeyArg &arg) {
  std::string name = arg.name;
  if (arg.handle != 0) {
    if (sessions::TempObject *t = s.FindTemp(arg.handle)) {
      return guard_.Run(s, Op{"describe-key", "-", Request::kFree, AuditMode::kRefusal}, NoArgs,
                        [&](const users::UserInfo &) -> Result<KeyFacts> {
                          KeyFacts f;
                          f.desc = Describe(*t->key, t->flags, arg.handle);
                          f.type = static_cast<int>(f.desc.algorithm);
                          f.bits = t->key->info().bits;
                          return f;
                        });
    }
    const std::string *opened = s.FindOpened(arg.handle);
    if (!opened) return guard_.Refuse(s, Status::Error(Code::kBadArgument, "unknown key handle"));
    name = *opened;
  }
  Result<objects::ObjectInfo> info = objects_.OpenObject(s, name);
  if (!info.ok()) return info.status();
  KeyFacts f;
  f.desc.handle = arg.handle;
  f.desc.algorithm = static_cast<uint32_t>(info->algorithm);
  f.desc.flags = info->flags;
  f.full_name = info->ref.Full();
  f.type = info->type;
  f.blocked = info->blocked;
  Result<KeyCache::Entry> cached = core_.keys.Load(*core_.objects, info->ref);
  if (cached.ok()) {
    f.desc.key_length = static_cast<uint32_t>(cached->key->length_bytes());
    f.bits = cached->key->info().bits;
  }
  return f;
}

Status KeysService::DestroyKey(Session &s, uint64_t handle, bool remove,
                               std::string_view remove_name) {
  std::string name(remove_name);
  Status released = guard_.Run(
      s, Op{"destroy-key", "-", Request::kFree, AuditMode::kRefusal},
      [&] {
        if (handle == 0 || s.FindTemp(handle) || s.FindOpened(handle)) return Status::Ok();
        return Status::Error(Code::kBadArgument, "unknown key handle");
      },
      [&](const users::UserInfo &) {
        if (handle == 0) return Status::Ok();
        if (s.RemoveTemp(handle)) {
          name.clear();
          remove = false;  // a temporary key has nothing stored
          return Status::Ok();
        }
        name = *s.FindOpened(handle);
        s.RemoveOpened(handle);
        return Status::Ok();
      });
  if (!released.ok() || !remove) return released;
  if (name.empty()) return Status::Error(Code::kBadArgument, "no key to remove");
  return objects_.RemoveObject(s, name);
}

// --- parameters ---

Status KeysService::SetKeyParam(Session &s, const KeyArg &key, uint32_t param,
                                const ParamValue &value) {
  if (param == qlproto::kKpBlocked) {
    // The block state belongs to a stored key, named or opened.
    std::string name = key.name;
    Status args = [&] {
      if (key.handle != 0) {
        const std::string *opened = s.FindOpened(key.handle);
        if (!opened) return Status::Error(Code::kBadArgument, "unknown key handle");
        name = *opened;
      }
      if (name.empty()) return Status::Error(Code::kBadArgument, "no key given");
      if (!value.has_number)
        return Status::Error(Code::kBadArgument, "the block state is a number");
      return Status::Ok();
    }();
    if (!args.ok()) return guard_.Refuse(s, args);
    return objects_.SetObjectBlocked(s, name, value.number != 0);
  }
  if (key.handle == 0)
    return guard_.Refuse(s, Status::Error(Code::kBadArgument, "cipher parameters need a handle"));
  return SetCipherParam(s, key.handle, param, value.number, value.data);
}

Result<ParamValue> KeysService::GetKeyParam(Session &s, const KeyArg &key, uint32_t param) {
  ParamValue v;
  if (IsCipherParam(param) && param != qlproto::kKpAad) {
    if (key.handle == 0)
      return guard_.Refuse(s, Status::Error(Code::kBadArgument, "cipher parameters need a handle"));
    Result<uint64_t> n = GetCipherParam(s, key.handle, param, &v.data);
    if (!n.ok()) return n.status();
    v.has_number = param != qlproto::kKpIv;
    v.number = *n;
    return v;
  }
  Result<KeyFacts> f = DescribeKey(s, key);
  if (!f.ok()) return f.status();
  v.has_number = true;
  switch (param) {
    case qlproto::kKpBlocked:
      v.number = f->blocked ? 1 : 0;
      break;
    case qlproto::kKpAlgId:
      v.number = f->desc.algorithm;
      break;
    case qlproto::kKpFlags:
      v.number = f->desc.flags;
      break;
    case qlproto::kKpKeyLen:
      v.number = f->desc.key_length;
      break;
    case qlproto::kKpKeyBits:
      v.number = f->bits;
      break;
    case qlproto::kKpObjType:
      v.number = static_cast<uint32_t>(f->type);
      break;
    case qlproto::kKpObjId:
      v.has_number = false;
      v.text = f->full_name;
      break;
    default:
      return Status::Error(Code::kNotSupported, "key parameter not built yet");
  }
  return v;
}

Status KeysService::SetCipherParam(Session &s, uint64_t handle, uint32_t param, uint64_t number,
                                   const secure::Bytes &data) {
  KeyArg arg{handle, ""};
  KeyTarget target;
  Op op{"set-key-param", "-", UseRight(s, arg), AuditMode::kRefusal};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(Target(s, arg, &target));
        if (!IsCipherParam(param))
          return Status::Error(Code::kNotSupported, "key parameter not built yet");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Status {
        Result<UsableKey> k = Usable(target);
        if (!k.ok()) return k.status();
        crypto::CipherState *st = StateFor(s, handle, k->key);
        crypto::ByteView view(data.data(), data.size());
        switch (param) {
          case qlproto::kKpIv:
            return FromCrypto(st->SetIv(view));
          case qlproto::kKpAad:
            return FromCrypto(st->SetAad(view));
          case qlproto::kKpMode:
            return FromCrypto(st->SetMode(static_cast<uint32_t>(number)));
          case qlproto::kKpPadding:
            return FromCrypto(st->SetPadding(static_cast<uint32_t>(number)));
          default:
            return FromCrypto(st->SetTagLength(static_cast<size_t>(number)));
        }
      });
}

Result<uint64_t> KeysService::GetCipherParam(Session &s, uint64_t handle, uint32_t param,
                                             secure::Bytes *data) {
  KeyArg arg{handle, ""};
  KeyTarget target;
  Op op{"get-key-param", "-", UseRight(s, arg), AuditMode::kRefusal};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(Target(s, arg, &target));
        if (!IsCipherParam(param) || param == qlproto::kKpAad)
          return Status::Error(Code::kNotSupported, "key parameter not built yet");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Result<uint64_t> {
        Result<UsableKey> k = Usable(target);
        if (!k.ok()) return k.status();
        crypto::CipherState *st = StateFor(s, handle, k->key);
        switch (param) {
          case qlproto::kKpIv:
            data->assign(st->iv().begin(), st->iv().end());
            return uint64_t{0};
          case qlproto::kKpMode:
            return uint64_t{st->mode()};
          case qlproto::kKpPadding:
            return uint64_t{st->padding()};
          default:
            return uint64_t{st->tag_length()};
        }
      });
}

// --- signatures and ciphers ---

Result<secure::Bytes> KeysService::SignHash(Session &s, const KeyArg &key, uint32_t hash_algorithm,
                                            const secure::Bytes &digest, uint32_t flags,
                                            size_t capacity, size_t *longest) {
  KeyTarget target;
  // Every signature is a line of the log (kept in memory while the log cache is on).
  const std::string key_name = KeyNameOf(s, key);
  Op op{"sign", key_name, UseRight(s, key), AuditMode::kRead};
  return guard_.Run(
      s, op, [&] { return Target(s, key, &target); },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<UsableKey> k = Usable(target);
        if (!k.ok()) return k.status();
        crypto::Result<crypto::Bytes> sig = crypto::Sign(
            *k->key, hash_algorithm, crypto::ByteView(digest.data(), digest.size()), flags);
        if (!sig.ok()) return FromCrypto(sig.status());
        // A key that just signed can always say how long its signatures get.
        crypto::Result<size_t> size = crypto::SignatureSize(*k->key);
        if (!size.ok()) return FromCrypto(size.status());
        if (longest) *longest = std::max(*size, sig->size());
        if (capacity != 0 && sig->size() > capacity)
          return Status::Error(Code::kBufferTooSmall, "signature longer than the buffer");
        secure::Bytes out(std::move(sig.value()));
        if (const FaultPoints *f = InstalledFaults()) f->AlterSignature(out);
        return out;
      });
}

Status KeysService::VerifySignature(Session &s, const KeyArg &key, uint32_t hash_algorithm,
                                    const secure::Bytes &digest, const secure::Bytes &signature) {
  KeyTarget target;
  Op op{"verify", AuditName(key), UseRight(s, key), AuditMode::kRefusal};
  return guard_.Run(
      s, op, [&] { return Target(s, key, &target); },
      [&](const users::UserInfo &) -> Status {
        Result<UsableKey> k = Usable(target);
        if (!k.ok()) return k.status();
        crypto::Status st =
            crypto::Verify(*k->key, hash_algorithm, crypto::ByteView(digest.data(), digest.size()),
                           crypto::ByteView(signature.data(), signature.size()));
        if (!st.ok()) return FromCrypto(st);
        return Status::Ok();
      });
}

Result<secure::Bytes> KeysService::Cipher(Session &s, const KeyArg &key, bool encrypt, bool final,
                                          const secure::Bytes &data, size_t capacity,
                                          uint64_t *needed, secure::Bytes *iv) {
  KeyTarget target;
  const char *name = encrypt ? "encrypt" : "decrypt";
  Op op{name, AuditName(key), UseRight(s, key), AuditMode::kRefusal};
  return guard_.Run(
      s, op, [&] { return Target(s, key, &target); },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<UsableKey> k = Usable(target);
        if (!k.ok()) return k.status();
        if (k->flags & qlproto::kKeyNoCrypt)
          return Status::Error(Code::kBadKeyUsage, "the key was made without encryption");
        std::optional<crypto::CipherState> transient;
        crypto::CipherState *state = nullptr;
        if (key.handle != 0) {
          state = StateFor(s, key.handle, k->key);
        } else {
          if (!final)
            return Status::Error(Code::kPiecesRefused, "a named key takes whole messages");
          transient.emplace(k->key);
          state = &*transient;
        }
        size_t cap = capacity ? capacity : std::numeric_limits<size_t>::max();
        crypto::ByteView in(data.data(), data.size());
        crypto::Result<crypto::Bytes> out =
            encrypt ? state->Encrypt(in, final, cap) : state->Decrypt(in, final, cap);
        if (!out.ok()) {
          if (out.code() == crypto::Code::kBufferTooSmall && needed)
            *needed = out.status().needed();
          return FromCrypto(out.status());
        }
        if (iv) iv->assign(state->iv().begin(), state->iv().end());
        secure::Bytes result(std::move(out.value()));
        if (const FaultPoints *f = InstalledFaults(); f && !encrypt) f->AlterPlaintext(result);
        return result;
      });
}

Result<secure::Bytes> KeysService::RsaPrivateEncrypt(Session &s, const KeyArg &key,
                                                     const secure::Bytes &value, size_t capacity,
                                                     uint64_t *needed) {
  KeyTarget target;
  Op op{"rsa-private-encrypt", AuditName(key), UseRight(s, key), AuditMode::kRefusal};
  return guard_.Run(
      s, op, [&] { return Target(s, key, &target); },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<UsableKey> k = Usable(target);
        if (!k.ok()) return k.status();
        if (k->key->kind() != crypto::KeyKind::kRsa || !k->key->has_private())
          return Status::Error(Code::kBadKeyUsage, "a private RSA key encrypts this way");
        const size_t len = k->key->length_bytes();
        if (value.empty() || value.size() + 11 > len)
          return Status::Error(Code::kBadLength, "the value does not fit the key's padding");
        if (capacity != 0 && capacity < len) {
          if (needed) *needed = len;
          return Status::Error(Code::kBufferTooSmall, "output buffer too small");
        }
        crypto::Result<crypto::Bytes> block =
            crypto::DoRSAPadding(crypto::ByteView(value.data(), value.size()), len, 0);
        if (!block.ok()) return FromCrypto(block.status());
        crypto::Result<crypto::Bytes> out =
            crypto::RsaRawSign(*k->key, crypto::ByteView(block->data(), block->size()));
        if (!out.ok()) return FromCrypto(out.status());
        return secure::Bytes(out->begin(), out->end());
      });
}

Result<secure::Bytes> KeysService::BatchSign(Session &s, const KeyArg &key, uint32_t count,
                                             const secure::Bytes &blocks) {
  KeyTarget target;
  const std::string key_name = KeyNameOf(s, key);
  Op op{"batch-sign", key_name, UseRight(s, key), AuditMode::kRead};
  return guard_.Run(
      s, op, [&] { return Target(s, key, &target); },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<UsableKey> k = Usable(target);
        if (!k.ok()) return k.status();
        size_t len = k->key->length_bytes();
        if (count == 0 || len == 0 || blocks.size() != static_cast<size_t>(count) * len)
          return Status::Error(Code::kBadLength, "blocks must be count times the key's length");
        secure::Bytes out;
        out.reserve(blocks.size());
        for (uint32_t i = 0; i < count; ++i) {
          crypto::Result<crypto::Bytes> sig =
              crypto::RsaRawSign(*k->key, crypto::ByteView(blocks.data() + i * len, len));
          if (!sig.ok()) return FromCrypto(sig.status());
          out.insert(out.end(), sig->begin(), sig->end());
        }
        return out;
      });
}

// --- PKCS#8 ---

Result<secure::Bytes> KeysService::Pkcs8Export(Session &s, std::string_view name,
                                               std::string_view password) {
  // Without a password the key travels in the clear, as a PrivateKeyInfo: the strict private
  // key blob, under the same exportable rule.
  KeyArg key{0, std::string(name)};
  if (password.empty()) return ExportKey(s, key, KeyArg{}, qlproto::kPrivateKeyBlobStrict);
  KeyTarget target;
  Op op{"pkcs8-export", name, Request::kUseObject, AuditMode::kRefusal};
  return guard_.Run(
      s, op, [&] { return Target(s, key, &target); },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<UsableKey> k = Usable(target);
        if (!k.ok()) return k.status();
        if (!(k->flags & qlproto::kKeyExportable))
          return Status::Error(Code::kNotExportable,
                               "the key was made without the exportable flag");
        crypto::Result<crypto::Bytes> der = crypto::ExportPkcs8Encrypted(*k->key, password);
        if (!der.ok()) return FromCrypto(der.status());
        return secure::Bytes(std::move(der.value()));
      });
}

Result<KeyDesc> KeysService::Pkcs8Import(Session &s, std::string_view name,
                                         std::string_view password, const secure::Bytes &der,
                                         uint32_t flags) {
  // The key is always stored, never temporary.
  flags &= ~qlproto::kKeyTemporary;
  if (name.empty()) return guard_.Refuse(s, Status::Error(Code::kBadName, "no key name"));
  // Without a password: a PrivateKeyInfo in the clear (the strict private key blob, so a key
  // pair that does not check out is refused).
  if (password.empty())
    return ImportKey(s, name, KeyArg{}, der, qlproto::kPrivateKeyBlobStrict, 0, flags, false);
  objects::ObjectRef ref;
  Op op{"pkcs8-import", name, Request::kCreateObject, AuditMode::kRefusal};
  return guard_.Run(
      s, op, [&] { return core_.Ref(s, name, &ref); },
      [&](const users::UserInfo &) -> Result<KeyDesc> {
        crypto::Result<crypto::KeyPtr> key =
            crypto::ImportPkcs8Encrypted(crypto::ByteView(der.data(), der.size()), password, 0);
        if (!key.ok()) return FromCrypto(key.status());
        return KeepNewKey(s, name, *key, flags, false);
      });
}

// --- key material and key agreement ---

Result<secure::Bytes> KeysService::GenerateKeyMaterial(Session &s, uint32_t algorithm,
                                                       uint32_t flags) {
  return guard_.Run(s, Op{"generate-key-material", "-", Request::kFree, AuditMode::kRefusal},
                    NoArgs, [&](const users::UserInfo &) -> Result<secure::Bytes> {
                      if (flags & qlproto::kKeyBlockchain)
                        return Status::Error(Code::kNotSupported,
                                             "blockchain keys are made by their own calls");
                      crypto::Result<crypto::SecretBytes> material =
                          crypto::GenerateKeyMaterial(algorithm, flags);
                      if (!material.ok()) return FromCrypto(material.status());
                      return secure::Bytes(material->begin(), material->end());
                    });
}

Result<secure::Bytes> KeysService::GenEcdhKey(Session &s, const EcdhArgs &a, uint64_t *needed) {
  const bool raw = a.kdf == qlproto::kGenKeyKdfRawSecret;
  const bool keep = !a.target_name.empty();
  const bool stored_target = keep && !(a.flags & qlproto::kKeyTemporary);
  KeyArg own{0, a.private_key};
  KeyTarget target;
  crypto::KeyPtr peer;
  // Rights: every right before any existence.
  Op op{"ecdh", a.target_name.empty() ? std::string_view("-") : std::string_view(a.target_name),
        stored_target ? Request::kCreateObject : Request::kFree, AuditMode::kRefusal,
        Request::kUseObject};
  return guard_.Run(
      s, op,
      [&] {
        if (!raw && a.kdf != qlproto::kGenKeyX963Sha256)
          return Status::Error(Code::kBadAlgorithm, "unknown key-derivation function");
        if (a.private_key.empty()) return Status::Error(Code::kBadArgument, "no private key named");
        if (a.peer_public_key.empty())
          return Status::Error(Code::kBadArgument, "no peer public key");
        // The raw secret is a curve point's coordinate, not a key of any algorithm: it is handed
        // out, never kept.
        if (raw && keep) return Status::Error(Code::kBadArgument, "the raw secret cannot be kept");
        if (!raw && (a.out_length == 0 || a.out_length > kMaxDerived))
          return Status::Error(Code::kBadLength, "X9.63 derives 1 to 1024 bytes");
        if (keep && (a.flags & qlproto::kKeyBlockchain))
          return Status::Error(Code::kNotSupported, "a derived secret is never a blockchain key");
        if (keep) {
          objects::ObjectRef kept;
          QL_RETURN_IF_ERROR(core_.Ref(s, a.target_name, &kept));
          // The kept key's algorithm and length are arguments too: tried on zeros of that
          // length, so a caller learns of them before any right is checked or secret derived.
          crypto::Result<crypto::KeyPtr> trial =
              crypto::Key::FromSecret(a.target_algorithm, crypto::SecretBytes(a.out_length));
          if (!trial.ok()) return FromCrypto(trial.status());
        }
        QL_RETURN_IF_ERROR(Target(s, own, &target));
        // The peer's algorithm comes from its own encoding; Derive refuses one that differs.
        crypto::Result<crypto::KeyPtr> p = crypto::Key::FromSpki(
            0, crypto::ByteView(a.peer_public_key.data(), a.peer_public_key.size()));
        if (!p.ok()) return FromCrypto(p.status());
        peer = *p;
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<UsableKey> k = Usable(target);
        if (!k.ok()) return k.status();
        crypto::Result<crypto::SecretBytes> secret =
            crypto::Derive(*k->key, *peer, static_cast<crypto::Kdf>(a.kdf), a.out_length,
                           crypto::ByteView(a.shared_info.data(), a.shared_info.size()));
        if (!secret.ok()) return FromCrypto(secret.status());
        if (!keep) {
          if (raw && a.out_length != 0 && secret->size() > a.out_length) {
            if (needed) *needed = secret->size();
            return Status::Error(Code::kBufferTooSmall, "the secret is longer than the buffer");
          }
          return secure::Bytes(secret->begin(), secret->end());
        }
        crypto::Result<crypto::KeyPtr> derived = crypto::Key::FromSecret(
            a.target_algorithm, crypto::ByteView(secret->data(), secret->size()));
        if (!derived.ok()) return FromCrypto(derived.status());
        // A temporary target has no handle to reach it by (the call hands none out), so it ends
        // here, as a temporary key generated without a handle does.
        Result<KeyDesc> kept = KeepNewKey(s, a.target_name, *derived, a.flags, false);
        if (!kept.ok()) return kept.status();
        return secure::Bytes{};
      });
}

}  // namespace qlhsm
