// Key material handed out and key agreement (ECDH, X25519, X448) over the crypto library.
#include "crypto/derive.h"
#include "crypto/key.h"
#include "engine/crypto_result.h"
#include "engine/engine.h"

namespace qlhsm {

using access::Request;
using cryptomap::CryptoOk;
using cryptomap::FromCrypto;
using sessions::Session;

namespace {

// The most bytes one X9.63 derivation gives (the crypto library's limit too).
constexpr uint32_t kMaxDerived = 1024;

}  // namespace

Result<secure::Bytes> Engine::GenerateKeyMaterial(Session &s, uint32_t algorithm, uint32_t flags) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();
  if (flags & qlproto::kKeyBlockchain)
    return Status::Error(Code::kNotSupported, "blockchain keys are not built yet");
  crypto::Result<crypto::SecretBytes> material = crypto::GenerateKeyMaterial(algorithm, flags);
  if (!material.ok()) return FromCrypto(material.status());
  QL_RETURN_IF_ERROR(CryptoOk("generate-key-material"));
  return secure::Bytes(material->begin(), material->end());
}

Result<secure::Bytes> Engine::GenEcdhKey(Session &s, const EcdhArgs &a, uint64_t *needed) {
  Result<users::UserInfo> me = Caller(s);
  if (!me.ok()) return me.status();

  // Arguments.
  const bool raw = a.kdf == qlproto::kGenKeyKdfRawSecret;
  if (!raw && a.kdf != qlproto::kGenKeyX963Sha256)
    return Status::Error(Code::kBadAlgorithm, "unknown key-derivation function");
  if (a.private_key.empty()) return Status::Error(Code::kBadArgument, "no private key named");
  if (a.peer_public_key.empty()) return Status::Error(Code::kBadArgument, "no peer public key");
  const bool keep = !a.target_name.empty();
  // The raw secret is a curve point's coordinate, not a key of any algorithm: it is handed out,
  // never kept.
  if (raw && keep) return Status::Error(Code::kBadArgument, "the raw secret cannot be kept");
  if (!raw && (a.out_length == 0 || a.out_length > kMaxDerived))
    return Status::Error(Code::kBadLength, "X9.63 derives 1 to 1024 bytes");
  if (keep && (a.flags & qlproto::kKeyBlockchain))
    return Status::Error(Code::kNotSupported, "blockchain keys are not built yet");
  if (keep) {
    Result<objects::ObjectRef> ref = Ref(s, a.target_name);
    if (!ref.ok()) return ref.status();
    // The kept key's algorithm and length are arguments too: tried on zeros of that length, so a
    // caller learns of them before any right is checked or any secret derived.
    crypto::Result<crypto::KeyPtr> trial =
        crypto::Key::FromSecret(a.target_algorithm, crypto::SecretBytes(a.out_length));
    if (!trial.ok()) return FromCrypto(trial.status());
  }
  Result<objects::ObjectRef> own_ref = Ref(s, a.private_key);
  if (!own_ref.ok()) return own_ref.status();
  // The peer's algorithm comes from its own encoding; Derive refuses one that differs from ours.
  crypto::Result<crypto::KeyPtr> peer = crypto::Key::FromSpki(
      0, crypto::ByteView(a.peer_public_key.data(), a.peer_public_key.size()));
  if (!peer.ok()) return FromCrypto(peer.status());

  // Rights (every right before any existence), then existence and state of the private key.
  const bool stored_target = keep && !(a.flags & qlproto::kKeyTemporary);
  if (stored_target && !access::Allowed(Request::kCreateObject, me->mask))
    return Done<secure::Bytes>(s, "ecdh", a.target_name,
                               Status::Error(Code::kAccessDenied, "access denied"), false);
  Result<UsableKey> own = ResolveKey(s, KeyArg{0, a.private_key}, "ecdh");
  if (!own.ok()) return own.status();

  crypto::Result<crypto::SecretBytes> secret =
      crypto::Derive(*own->key, **peer, static_cast<crypto::Kdf>(a.kdf), a.out_length,
                     crypto::ByteView(a.shared_info.data(), a.shared_info.size()));
  if (!secret.ok()) return FromCrypto(secret.status());
  QL_RETURN_IF_ERROR(CryptoOk("ecdh"));

  if (!keep) {
    if (raw && a.out_length != 0 && secret->size() > a.out_length) {
      if (needed) *needed = secret->size();
      return Status::Error(Code::kBufferTooSmall, "the secret is longer than the buffer");
    }
    return secure::Bytes(secret->begin(), secret->end());
  }
  crypto::Result<crypto::KeyPtr> key =
      crypto::Key::FromSecret(a.target_algorithm, crypto::ByteView(secret->data(), secret->size()));
  if (!key.ok()) return FromCrypto(key.status());
  // A temporary target has no handle to reach it by (the call hands none out), so it ends here,
  // as a temporary key generated without a handle does.
  Result<KeyDesc> kept = StoreOrHold(s, a.target_name, *key, a.flags, false, "ecdh");
  if (!kept.ok()) return kept.status();
  return secure::Bytes{};
}

}  // namespace qlhsm
