// The key services of the engine: generate, open, import, export, sign and verify, over the
// crypto library. Stored keys are sealed like every object; a key in use is parsed once and kept
// in the engine's key cache.
#include <limits>
#include <mutex>
#include <optional>

#include "crypto/blob.h"
#include "crypto/hash.h"
#include "crypto/sign.h"
#include "engine/engine.h"
#include "engine/test_fault.h"

namespace qlhsm {

using access::Request;
using sessions::Session;

namespace {

// The crypto library's refusals as the codes the client sees.
Status FromCrypto(const crypto::Status &st) {
  using C = crypto::Code;
  Code code = Code::kInternal;
  switch (st.code()) {
    case C::kOk:
      return Status::Ok();
    case C::kBadAlgorithm:
      code = Code::kBadAlgorithm;
      break;
    case C::kNotSupported:
      code = Code::kNotSupported;
      break;
    case C::kBadArgument:
      code = Code::kBadArgument;
      break;
    case C::kBadLength:
      code = Code::kBadLength;
      break;
    case C::kBufferTooSmall:
      code = Code::kBufferTooSmall;
      break;
    case C::kBadTag:
      code = Code::kBadTag;
      break;
    case C::kKeyCannotDo:
      code = Code::kBadKeyUsage;
      break;
    case C::kDigestTooLarge:
      code = Code::kDigestTooLong;
      break;
    case C::kBadPadding:
      code = Code::kBadPadding;
      break;
    case C::kBadData:
      code = Code::kBadArgument;
      break;
    case C::kBadSignature:
      code = Code::kBadSignature;
      break;
    case C::kWholeMessageOnly:
      code = Code::kPiecesRefused;
      break;
    case C::kInternal:
      code = Code::kInternal;
      break;
  }
  // The one place a crypto result enters the engine: the fault switch sees it too.
  Status gated = secure::CryptoOutcome(true, crypto::CodeName(st.code()));
  if (!gated.ok()) return gated;
  return Status::Error(code, st.detail().empty() ? crypto::CodeName(st.code()) : st.detail());
}

template <typename T>
Status CryptoFailure(const crypto::Result<T> &r) {
  return FromCrypto(r.status());
}

// Passes a successful crypto result through the fault switch.
Status CryptoOk(const char *op) {
  return secure::CryptoOutcome(true, op);
}

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

}  // namespace

void Engine::ForgetKey(const std::string &full_name) {
  std::unique_lock lock(keys_mu_);
  keys_.erase(full_name);
}

void Engine::ForgetAllKeys() {
  std::unique_lock lock(keys_mu_);
  keys_.clear();
}

Result<Engine::CachedKey> Engine::LoadStoredKey(const objects::ObjectRef &ref) {
  std::string full = ref.Full();
  {
    std::shared_lock lock(keys_mu_);
    auto it = keys_.find(full);
    if (it != keys_.end()) return it->second;
  }
  Result<objects::ObjectInfo> info = objects_->Get(ref);
  if (!info.ok()) return info.status();
  if (info->type == static_cast<int>(objects::ObjectType::kFile) ||
      info->type == static_cast<int>(objects::ObjectType::kCertificate))
    return Status::Error(Code::kBadKeyUsage, "the object is not a key");
  Result<secure::Bytes> material = objects_->ReadMaterial(ref);
  if (!material.ok()) return material.status();
  crypto::Result<crypto::KeyPtr> key =
      crypto::Key::Parse(crypto::ByteView(material->data(), material->size()));
  OPENSSL_cleanse(material->data(), material->size());
  if (!key.ok()) return CryptoFailure(key);
  CachedKey entry{*info, *key};
  std::unique_lock lock(keys_mu_);
  keys_[full] = entry;
  return entry;
}

Result<Engine::UsableKey> Engine::ResolveKey(Session &s, const KeyArg &arg, const char *op) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  std::string_view name = arg.name;
  if (arg.handle != 0) {
    if (sessions::TempObject *t = s.FindTemp(arg.handle)) return UsableKey{t->key, t->flags};
    const std::string *opened = s.FindOpened(arg.handle);
    if (!opened) return Status::Error(Code::kBadArgument, "unknown key handle");
    name = *opened;
  }
  if (name.empty()) return Status::Error(Code::kBadArgument, "no key given");
  Result<objects::ObjectRef> ref = Ref(s, name);
  if (!ref.ok()) return ref.status();
  if (!access::Allowed(Request::kUseObject, me->mask))
    return Done<UsableKey>(s, op, name, Status::Error(Code::kAccessDenied, "access denied"), false);
  {
    // Every use after the first finds the key ready: take only what the use needs, not a copy of
    // the object's whole record (its metadata may be kilobytes).
    std::shared_lock lock(keys_mu_);
    auto it = keys_.find(ref->Full());
    if (it != keys_.end() && !it->second.info.blocked)
      return UsableKey{it->second.key, it->second.info.flags};
  }
  Result<CachedKey> cached = LoadStoredKey(*ref);
  if (!cached.ok()) return Done<UsableKey>(s, op, name, cached.status(), false);
  if (cached->info.blocked)
    return Done<UsableKey>(s, op, name, Status::Error(Code::kObjectBlocked, "object blocked"),
                           false);
  return UsableKey{cached->key, cached->info.flags};
}

Result<KeyDesc> Engine::StoreOrHold(Session &s, std::string_view name, crypto::KeyPtr key,
                                    uint32_t flags, bool want_handle, const char *op) {
  if (name.empty() || (flags & qlproto::kKeyTemporary)) {
    uint64_t h = want_handle ? s.AddTemp({key, flags}) : 0;
    return Describe(*key, flags, h);
  }
  crypto::Result<crypto::SecretBytes> stored = key->Serialize();
  if (!stored.ok()) return CryptoFailure(stored);
  KeyDesc d = Describe(*key, flags, 0);
  Status st = CreateObject(s, name, static_cast<int>(d.algorithm), static_cast<int>(d.algorithm),
                           flags, secure::Bytes(stored->begin(), stored->end()));
  if (!st.ok()) return st;
  Result<objects::ObjectRef> ref = Ref(s, name);
  if (want_handle && ref.ok()) d.handle = s.AddOpened(ref->Full());
  (void)op;
  return d;
}

Result<KeyDesc> Engine::GenerateKey(Session &s, std::string_view name, uint32_t algorithm,
                                    uint32_t flags, bool want_handle) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  bool temporary = name.empty() || (flags & qlproto::kKeyTemporary);
  if (!temporary) {
    Result<objects::ObjectRef> ref = Ref(s, name);
    if (!ref.ok()) return ref.status();
    if (!access::Allowed(Request::kCreateObject, me->mask))
      return Done<KeyDesc>(s, "generate-key", name,
                           Status::Error(Code::kAccessDenied, "access denied"), false);
  }
  if (flags & qlproto::kKeyBlockchain)
    return Status::Error(Code::kNotSupported, "blockchain keys are not built yet");
  crypto::Result<crypto::KeyPtr> key = crypto::Key::Generate(algorithm, flags);
  if (!key.ok()) return CryptoFailure(key);
  QL_RETURN_IF_ERROR(CryptoOk("generate-key"));
  return StoreOrHold(s, name, *key, flags, want_handle, "generate-key");
}

Result<KeyDesc> Engine::OpenKey(Session &s, std::string_view name) {
  Result<objects::ObjectInfo> info = OpenObject(s, name);
  if (!info.ok()) return info.status();
  KeyDesc d;
  d.algorithm = static_cast<uint32_t>(info->algorithm);
  d.flags = info->flags;
  // The length comes from the parsed key, which later uses of the handle then find ready.
  Result<CachedKey> cached = LoadStoredKey(info->ref);
  if (cached.ok()) d.key_length = static_cast<uint32_t>(cached->key->length_bytes());
  d.handle = s.AddOpened(info->ref.Full());
  return d;
}

Result<KeyDesc> Engine::ImportKey(Session &s, std::string_view name, const KeyArg &kek,
                                  const secure::Bytes &blob, uint32_t blob_type, uint32_t algorithm,
                                  uint32_t flags, bool want_handle) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  bool temporary = name.empty() || (flags & qlproto::kKeyTemporary);
  if (blob.empty()) return Status::Error(Code::kBadArgument, "empty key blob");
  if (!temporary) {
    Result<objects::ObjectRef> ref = Ref(s, name);
    if (!ref.ok()) return ref.status();
    if (!access::Allowed(Request::kCreateObject, me->mask))
      return Done<KeyDesc>(s, "import-key", name,
                           Status::Error(Code::kAccessDenied, "access denied"), false);
  }
  crypto::KeyPtr kek_key;
  if (!kek.empty()) {
    Result<UsableKey> k = ResolveKey(s, kek, "import-key");
    if (!k.ok()) return k.status();
    kek_key = k->key;
  }
  crypto::Result<crypto::KeyPtr> key =
      crypto::ImportKey(crypto::ByteView(blob.data(), blob.size()), blob_type, algorithm, kek_key);
  if (!key.ok()) return CryptoFailure(key);
  QL_RETURN_IF_ERROR(CryptoOk("import-key"));
  return StoreOrHold(s, name, *key, flags, want_handle, "import-key");
}

Result<secure::Bytes> Engine::ExportKey(Session &s, const KeyArg &key, const KeyArg &kek,
                                        uint32_t blob_type) {
  Result<UsableKey> k = ResolveKey(s, key, "export-key");
  if (!k.ok()) return k.status();
  if (!IsPublicBlob(blob_type) && !(k->flags & qlproto::kKeyExportable))
    return Status::Error(Code::kNotExportable, "the key was made without the exportable flag");
  crypto::KeyPtr kek_key;
  if (!kek.empty()) {
    Result<UsableKey> w = ResolveKey(s, kek, "export-key");
    if (!w.ok()) return w.status();
    kek_key = w->key;
  }
  crypto::Result<crypto::SecretBytes> out = crypto::ExportKey(k->key, kek_key, blob_type);
  if (!out.ok()) return CryptoFailure(out);
  QL_RETURN_IF_ERROR(CryptoOk("export-key"));
  return secure::Bytes(out->begin(), out->end());
}

Result<secure::Bytes> Engine::SignHash(Session &s, const KeyArg &key, uint32_t hash_algorithm,
                                       const secure::Bytes &digest, uint32_t flags,
                                       size_t *longest) {
  Result<UsableKey> k = ResolveKey(s, key, "sign");
  if (!k.ok()) return k.status();
  crypto::Result<crypto::Bytes> sig =
      crypto::Sign(*k->key, hash_algorithm, crypto::ByteView(digest.data(), digest.size()), flags);
  if (!sig.ok()) return CryptoFailure(sig);
  QL_RETURN_IF_ERROR(CryptoOk("sign"));
  if (longest) {
    // A key that just signed can always say how long its signatures get.
    crypto::Result<size_t> size = crypto::SignatureSize(*k->key);
    if (!size.ok()) return CryptoFailure(size);
    *longest = *size;
  }
  if (CurrentTestFault() == TestFault::kSignBitflip && !sig->empty()) sig->back() ^= 1;
  return std::move(sig.value());
}

Status Engine::VerifySignature(Session &s, const KeyArg &key, uint32_t hash_algorithm,
                               const secure::Bytes &digest, const secure::Bytes &signature) {
  Result<UsableKey> k = ResolveKey(s, key, "verify");
  if (!k.ok()) return k.status();
  crypto::Status st =
      crypto::Verify(*k->key, hash_algorithm, crypto::ByteView(digest.data(), digest.size()),
                     crypto::ByteView(signature.data(), signature.size()));
  if (!st.ok()) return FromCrypto(st);
  return CryptoOk("verify");
}

namespace {

// The cipher state of a handle, made from its key on first use.
crypto::CipherState *StateFor(Session &s, uint64_t handle, const crypto::KeyPtr &key) {
  if (crypto::CipherState *c = s.FindCipher(handle)) return c;
  return &s.AddCipher(handle, key);
}

}  // namespace

Result<secure::Bytes> Engine::Cipher(Session &s, const KeyArg &key, bool encrypt, bool final,
                                     const secure::Bytes &data, size_t capacity, uint64_t *needed,
                                     secure::Bytes *iv) {
  Result<UsableKey> k = ResolveKey(s, key, encrypt ? "encrypt" : "decrypt");
  if (!k.ok()) return k.status();
  if (k->flags & qlproto::kKeyNoCrypt)
    return Status::Error(Code::kBadKeyUsage, "the key was made without encryption");
  std::optional<crypto::CipherState> transient;
  crypto::CipherState *state = nullptr;
  if (key.handle != 0) {
    state = StateFor(s, key.handle, k->key);
  } else {
    if (!final) return Status::Error(Code::kPiecesRefused, "a named key takes whole messages");
    transient.emplace(k->key);
    state = &*transient;
  }
  size_t cap = capacity ? capacity : std::numeric_limits<size_t>::max();
  crypto::ByteView in(data.data(), data.size());
  crypto::Result<crypto::Bytes> out =
      encrypt ? state->Encrypt(in, final, cap) : state->Decrypt(in, final, cap);
  if (!out.ok()) {
    if (out.code() == crypto::Code::kBufferTooSmall && needed) *needed = out.status().needed();
    return CryptoFailure(out);
  }
  QL_RETURN_IF_ERROR(CryptoOk(encrypt ? "encrypt" : "decrypt"));
  if (iv) iv->assign(state->iv().begin(), state->iv().end());
  if (!encrypt && CurrentTestFault() == TestFault::kDecryptCorrupt && !out->empty())
    out->front() ^= 1;
  return std::move(out.value());
}

Status Engine::SetCipherParam(Session &s, uint64_t handle, uint32_t param, uint64_t number,
                              const secure::Bytes &data) {
  Result<UsableKey> k = ResolveKey(s, KeyArg{handle, ""}, "set-key-param");
  if (!k.ok()) return k.status();
  crypto::CipherState *st = StateFor(s, handle, k->key);
  crypto::ByteView view(data.data(), data.size());
  crypto::Status r;
  switch (param) {
    case qlproto::kKpIv:
      r = st->SetIv(view);
      break;
    case qlproto::kKpAad:
      r = st->SetAad(view);
      break;
    case qlproto::kKpMode:
      r = st->SetMode(static_cast<uint32_t>(number));
      break;
    case qlproto::kKpPadding:
      r = st->SetPadding(static_cast<uint32_t>(number));
      break;
    case qlproto::kKpTagLen:
      r = st->SetTagLength(static_cast<size_t>(number));
      break;
    default:
      return Status::Error(Code::kNotSupported, "key parameter not built yet");
  }
  return FromCrypto(r);
}

Result<uint64_t> Engine::GetCipherParam(Session &s, uint64_t handle, uint32_t param,
                                        secure::Bytes *data) {
  Result<UsableKey> k = ResolveKey(s, KeyArg{handle, ""}, "get-key-param");
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
    case qlproto::kKpTagLen:
      return uint64_t{st->tag_length()};
    default:
      return Status::Error(Code::kNotSupported, "key parameter not built yet");
  }
}

Result<secure::Bytes> Engine::BatchSign(Session &s, const KeyArg &key, uint32_t count,
                                        const secure::Bytes &blocks) {
  Result<UsableKey> k = ResolveKey(s, key, "batch-sign");
  if (!k.ok()) return k.status();
  size_t len = k->key->length_bytes();
  if (count == 0 || len == 0 || blocks.size() != static_cast<size_t>(count) * len)
    return Status::Error(Code::kBadLength, "blocks must be count times the key's length");
  secure::Bytes out;
  out.reserve(blocks.size());
  for (uint32_t i = 0; i < count; ++i) {
    crypto::Result<crypto::Bytes> sig =
        crypto::RsaRawSign(*k->key, crypto::ByteView(blocks.data() + i * len, len));
    if (!sig.ok()) return CryptoFailure(sig);
    out.insert(out.end(), sig->begin(), sig->end());
  }
  QL_RETURN_IF_ERROR(CryptoOk("batch-sign"));
  return out;
}

Result<secure::Bytes> Engine::Pkcs8Export(Session &s, std::string_view name,
                                          std::string_view password) {
  Result<UsableKey> k = ResolveKey(s, KeyArg{0, std::string(name)}, "pkcs8-export");
  if (!k.ok()) return k.status();
  if (!(k->flags & qlproto::kKeyExportable))
    return Status::Error(Code::kNotExportable, "the key was made without the exportable flag");
  crypto::Result<crypto::Bytes> der = crypto::ExportPkcs8Encrypted(*k->key, password);
  if (!der.ok()) return CryptoFailure(der);
  QL_RETURN_IF_ERROR(CryptoOk("pkcs8-export"));
  return std::move(der.value());
}

Result<KeyDesc> Engine::Pkcs8Import(Session &s, std::string_view name, std::string_view password,
                                    const secure::Bytes &der, uint32_t flags) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  Result<objects::ObjectRef> ref = Ref(s, name);
  if (!ref.ok()) return ref.status();
  if (!access::Allowed(Request::kCreateObject, me->mask))
    return Done<KeyDesc>(s, "pkcs8-import", name,
                         Status::Error(Code::kAccessDenied, "access denied"), false);
  crypto::Result<crypto::KeyPtr> key =
      crypto::ImportPkcs8Encrypted(crypto::ByteView(der.data(), der.size()), password, 0);
  if (!key.ok()) return CryptoFailure(key);
  QL_RETURN_IF_ERROR(CryptoOk("pkcs8-import"));
  return StoreOrHold(s, name, *key, flags & ~static_cast<uint32_t>(qlproto::kKeyTemporary), false,
                     "pkcs8-import");
}

Result<uint64_t> Engine::CreateHash(Session &s, uint32_t algorithm, const KeyArg &key) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  crypto::KeyPtr k;
  if (!key.empty()) {
    Result<UsableKey> usable = ResolveKey(s, key, "create-hash");
    if (!usable.ok()) return usable.status();
    k = usable->key;
  }
  crypto::Result<crypto::HashState> state = crypto::HashState::Create(algorithm, k);
  if (!state.ok()) return CryptoFailure(state);
  QL_RETURN_IF_ERROR(CryptoOk("create-hash"));
  return s.AddHash(std::move(state.value()));
}

Status Engine::HashData(Session &s, uint64_t hash, const secure::Bytes &data) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  crypto::HashState *h = s.FindHash(hash);
  if (!h) return Status::Error(Code::kBadArgument, "unknown hash handle");
  crypto::Status st = h->Update(crypto::ByteView(data.data(), data.size()));
  if (!st.ok()) return FromCrypto(st);
  return CryptoOk("hash-data");
}

Result<secure::Bytes> Engine::GetHashValue(Session &s, uint64_t hash) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  crypto::HashState *h = s.FindHash(hash);
  if (!h) return Status::Error(Code::kBadArgument, "unknown hash handle");
  crypto::Result<crypto::Bytes> v = h->Value();
  if (!v.ok()) return CryptoFailure(v);
  QL_RETURN_IF_ERROR(CryptoOk("hash-value"));
  return std::move(v.value());
}

Status Engine::DestroyHash(Session &s, uint64_t hash) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  if (!s.RemoveHash(hash)) return Status::Error(Code::kBadArgument, "unknown hash handle");
  return Status::Ok();
}

Result<Engine::KeyFacts> Engine::DescribeKey(Session &s, const KeyArg &arg) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  std::string name = arg.name;
  if (arg.handle != 0) {
    if (sessions::TempObject *t = s.FindTemp(arg.handle)) {
      KeyFacts f;
      f.desc = Describe(*t->key, t->flags, arg.handle);
      f.type = static_cast<int>(f.desc.algorithm);
      f.bits = t->key->info().bits;
      return f;
    }
    const std::string *opened = s.FindOpened(arg.handle);
    if (!opened) return Status::Error(Code::kBadArgument, "unknown key handle");
    name = *opened;
  }
  Result<objects::ObjectInfo> info = OpenObject(s, name);
  if (!info.ok()) return info.status();
  KeyFacts f;
  f.desc.handle = arg.handle;
  f.desc.algorithm = static_cast<uint32_t>(info->algorithm);
  f.desc.flags = info->flags;
  f.full_name = info->ref.Full();
  f.type = info->type;
  f.blocked = info->blocked;
  Result<CachedKey> cached = LoadStoredKey(info->ref);
  if (cached.ok()) {
    f.desc.key_length = static_cast<uint32_t>(cached->key->length_bytes());
    f.bits = cached->key->info().bits;
  }
  return f;
}

Status Engine::DestroyKey(Session &s, uint64_t handle, bool remove, std::string_view remove_name) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  std::string name(remove_name);
  if (handle != 0) {
    if (s.RemoveTemp(handle)) return Status::Ok();
    const std::string *opened = s.FindOpened(handle);
    if (!opened) return Status::Error(Code::kBadArgument, "unknown key handle");
    name = *opened;
    s.RemoveOpened(handle);
  }
  if (!remove) return Status::Ok();
  if (name.empty()) return Status::Error(Code::kBadArgument, "no key to remove");
  return RemoveObject(s, name);
}

}  // namespace qlhsm
