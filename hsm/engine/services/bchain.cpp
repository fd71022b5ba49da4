#include "engine/services/bchain.h"

#include <openssl/crypto.h>

#include <memory>
#include <optional>

#include "crypto/algorithms.h"
#include "crypto/bchain.h"
#include "crypto/key.h"
#include "engine/crypto_result.h"
#include "engine/services/objects.h"

namespace qlhsm {

using access::Request;
using cryptomap::FromCrypto;
using sessions::Session;
namespace bc = crypto::bchain;

namespace {

// --- blockchain keys: the stored record ---
//
//   byte 0       0xB1 (never a generic key's format version, so the generic parser refuses it)
//   byte 1       1 a BIP32 key, 2 a plain key (no chain code: raw, WIF or mini key)
//   bytes 2..5   version (the private version of its network), big-endian
//   byte 6       depth
//   bytes 7..10  parent fingerprint
//   bytes 11..14 child index
//   bytes 15..46 chain code
//   byte 47      1 the private key (32 bytes) and then its compressed public key (33 bytes)
//                follow, 0 the compressed public key alone
// The public key is kept beside the private one so that no use of the key computes it again.

constexpr uint8_t kRecordMarker = 0xB1;
constexpr uint8_t kRecordExtended = 1;
constexpr uint8_t kRecordPlain = 2;
constexpr size_t kRecordHead = 48;

struct BchainKey {
  bc::ExtendedKey key;
  bool plain = false;
  uint32_t flags = 0;  // the object's (when loaded)
};

void PutBe32(crypto::SecretBytes &out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(v >> shift));
}

uint32_t GetBe32(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | p[3];
}

crypto::SecretBytes EncodeRecord(const BchainKey &k) {
  crypto::SecretBytes out;
  out.push_back(kRecordMarker);
  out.push_back(k.plain ? kRecordPlain : kRecordExtended);
  PutBe32(out, k.key.version);
  out.push_back(k.key.depth);
  PutBe32(out, k.key.parent_fingerprint);
  PutBe32(out, k.key.child_index);
  out.insert(out.end(), k.key.chain_code.begin(), k.key.chain_code.end());
  out.push_back(k.key.has_private() ? 1 : 0);
  if (k.key.has_private()) {
    out.insert(out.end(), k.key.private_key.begin(), k.key.private_key.end());
  }
  out.insert(out.end(), k.key.public_key.begin(), k.key.public_key.end());
  return out;
}

Result<BchainKey> DecodeRecord(crypto::ByteView r) {
  const Status bad = Status::Error(Code::kBadKeyUsage, "not a blockchain key");
  if (r.size() < kRecordHead || r[0] != kRecordMarker ||
      (r[1] != kRecordExtended && r[1] != kRecordPlain)) {
    return bad;
  }
  const bool priv = r[47] == 1;
  if (r.size() != kRecordHead + (priv ? 32 : 0) + 33) return bad;
  BchainKey k;
  k.plain = r[1] == kRecordPlain;
  k.key.version = GetBe32(r.data() + 2);
  k.key.depth = r[6];
  k.key.parent_fingerprint = GetBe32(r.data() + 7);
  k.key.child_index = GetBe32(r.data() + 11);
  std::copy(r.begin() + 15, r.begin() + 47, k.key.chain_code.begin());
  if (priv) k.key.private_key.assign(r.begin() + kRecordHead, r.begin() + kRecordHead + 32);
  k.key.public_key.assign(r.end() - 33, r.end());
  return k;
}

uint32_t KindOf(const BchainKey &k) {
  if (k.plain) return qlproto::kBchainKeyPlain;
  return k.key.has_private() ? qlproto::kBchainKeyExtended : qlproto::kBchainKeyExtendedPublic;
}

BchainKeyFacts FactsOf(const BchainKey &k) {
  BchainKeyFacts f;
  f.type = KindOf(k);
  if (!k.plain) {
    f.version =
        k.key.has_private() ? k.key.version : (k.key.testnet() ? bc::kXpubTest : bc::kXpubMain);
    f.depth = k.key.depth;
    f.index = k.key.child_index;
    f.parent_fingerprint = k.key.parent_fingerprint;
    f.chain_code.assign(k.key.chain_code.begin(), k.key.chain_code.end());
  }
  f.public_key.assign(k.key.public_key.begin(), k.key.public_key.end());
  return f;
}

// The codes of the curve library's refusals for keys and their texts: a text that does not
// decode is a bad encoding, a key out of range an invalid key.
Status KeyStatus(const crypto::Status &st) {
  if (st.code() == crypto::Code::kBadData) {
    return Status::Error(Code::kBchainBadEncoding, st.detail());
  }
  if (st.code() == crypto::Code::kBadArgument) {
    return Status::Error(Code::kBchainInvalidKey, st.detail());
  }
  return FromCrypto(st);
}

bool IsTemporary(uint32_t flags) {
  return (flags & qlproto::kKeyTemporary) != 0;
}

std::string_view AuditName(std::string_view name) {
  return name.empty() ? std::string_view("-") : name;
}

// The version a BIP32 word names, as the private version of its network; 0 when unknown.
uint32_t NetworkVersion(uint32_t version) {
  switch (version) {
    case bc::kXprvMain:
    case bc::kXpubMain:
      return bc::kXprvMain;
    case bc::kXprvTest:
    case bc::kXpubTest:
      return bc::kXprvTest;
    default:
      return 0;
  }
}

// What a key name refers to: a temporary key of the session, or a stored object.
struct BchainTarget {
  sessions::TempObject *temp = nullptr;
  objects::ObjectRef ref;
};

Request KeyRight(Session &s, std::string_view name) {
  return s.FindTempByName(name) ? Request::kFree : Request::kUseObject;
}

// The argument step shared by verification and recovery: a known signature type and hash mode,
// and a digest of 32 bytes (HASH160's 20 bytes are not a digest one signs).
Status SignatureArgs(const BchainSignatureArgs &sig) {
  if (sig.type < qlproto::kBchainSigCompact || sig.type > qlproto::kBchainSigSchnorr) {
    return Status::Error(Code::kBadAlgorithm, "unknown signature type");
  }
  if (sig.hash_mode < qlproto::kBchainHashSha256 || sig.hash_mode > qlproto::kBchainHashMessage) {
    return Status::Error(Code::kBadAlgorithm, "unknown hash mode");
  }
  if (sig.hash_mode == qlproto::kBchainHashHash160 || sig.hash.size() != 32) {
    return Status::Error(Code::kBadLength, "a digest of 32 bytes");
  }
  return Status::Ok();
}

// The length each public key form has.
size_t PublicKeyLength(uint32_t form) {
  switch (form) {
    case qlproto::kBchainPbkCompressed:
      return 33;
    case qlproto::kBchainPbkUncompressed:
      return 65;
    case qlproto::kBchainPbkXOnly:
      return 32;
    default:
      return 0;
  }
}

}  // namespace

Status BchainService::Verify(Session &s, const BchainSignatureArgs &sig, uint32_t pubkey_type,
                             const secure::Bytes &pubkey) {
  auto args = [&] {
    if (Status st = SignatureArgs(sig); !st.ok()) return st;
    const size_t length = PublicKeyLength(pubkey_type);
    if (length == 0) return Status::Error(Code::kBadAlgorithm, "unknown public key form");
    // An x-only key carries no parity: only BIP340 signatures are checked against one.
    if (pubkey.size() != length ||
        (pubkey_type == qlproto::kBchainPbkXOnly && sig.type != qlproto::kBchainSigSchnorr)) {
      return Status::Error(Code::kBchainBadEncoding, "the public key does not fit its form");
    }
    return Status::Ok();
  };
  return guard_.Run(s, Op{"bchain-verify", "-", Request::kFree, AuditMode::kRefusal}, args,
                    [&](const users::UserInfo &) -> Status {
                      crypto::Status st = bc::VerifyDigest(
                          crypto::ByteView(pubkey.data(), pubkey.size()),
                          crypto::ByteView(sig.hash.data(), sig.hash.size()),
                          static_cast<bc::SignatureType>(sig.type),
                          crypto::ByteView(sig.signature.data(), sig.signature.size()));
                      if (st.code() == crypto::Code::kBadArgument) {
                        return Status::Error(Code::kBchainBadEncoding, "not a curve point");
                      }
                      return FromCrypto(st);
                    });
}

Result<secure::Bytes> BchainService::RecoverPublicKey(Session &s, const BchainSignatureArgs &sig) {
  auto args = [&] {
    if (Status st = SignatureArgs(sig); !st.ok()) return st;
    if (sig.type != qlproto::kBchainSigCompact) {
      return Status::Error(Code::kBadAlgorithm, "only compact signatures carry a recovery id");
    }
    return Status::Ok();
  };
  return guard_.Run(s, Op{"bchain-recover-pbk", "-", Request::kFree, AuditMode::kRefusal}, args,
                    [&](const users::UserInfo &) -> Result<secure::Bytes> {
                      crypto::Result<crypto::Bytes> key = bc::RecoverPublicKey(
                          crypto::ByteView(sig.hash.data(), sig.hash.size()),
                          crypto::ByteView(sig.signature.data(), sig.signature.size()));
                      if (!key.ok()) return FromCrypto(key.status());
                      return std::move(key.value());
                    });
}

// --- blockchain keys ---

namespace {

// The argument step of a key name.
Status FindKey(Core &core, Session &s, std::string_view name, BchainTarget *out) {
  if (name.empty()) return Status::Error(Code::kBadArgument, "no key given");
  if ((out->temp = s.FindTempByName(name))) return Status::Ok();
  return core.Ref(s, name, &out->ref);
}

// Existence, state and kind of the key, from inside a guarded body. A stored key is read and
// opened once, then found in the key cache.
Result<BchainKey> LoadKey(Core &core, const BchainTarget &t) {
  crypto::KeyPtr record;
  uint32_t flags = 0;
  if (t.temp) {
    if (!(t.temp->flags & qlproto::kKeyBlockchain)) {
      return Status::Error(Code::kBadKeyUsage, "not a blockchain key");
    }
    record = t.temp->key;
    flags = t.temp->flags;
  } else {
    Result<KeyCache::Entry> entry = core.keys.LoadBlockchain(*core.objects, t.ref);
    if (!entry.ok()) return entry.status();
    if (entry->info.blocked) return Status::Error(Code::kObjectBlocked, "object blocked");
    record = entry->key;
    flags = entry->info.flags;
  }
  Result<BchainKey> key = DecodeRecord(record->secret());
  if (key.ok()) key->flags = flags;
  return key;
}

// The argument step of a key about to be made: a name, and no flags but these.
Status NewKeyArgs(Core &core, Session &s, std::string_view name, uint32_t flags) {
  if (name.empty() && !IsTemporary(flags)) {
    return Status::Error(Code::kBadArgument, "no key name");
  }
  if (flags & ~(qlproto::kKeyExportable | qlproto::kKeyTemporary | qlproto::kKeyBlockchain)) {
    return Status::Error(Code::kBadArgument, "unknown key flags");
  }
  objects::ObjectRef ref;
  return IsTemporary(flags) ? Status::Ok() : core.Ref(s, name, &ref);
}

// Keeps a key just made, from inside a guarded body: in the session when temporary, else stored
// (one write: all or nothing).
Result<KeyDesc> Keep(ObjectsService &objects, Session &s, std::string_view name, const BchainKey &k,
                     uint32_t flags, bool want_handle) {
  flags |= qlproto::kKeyBlockchain;
  crypto::SecretBytes record = EncodeRecord(k);
  KeyDesc d;
  d.algorithm = crypto::alg::kSecp256k1;
  d.flags = flags;
  d.key_length = 32;
  if (IsTemporary(flags)) {
    if (!name.empty() && s.FindTempByName(name)) {
      return Status::Error(Code::kObjectExists, "a session key of that name exists");
    }
    auto key = std::make_shared<const crypto::Key>(
        crypto::FindKeyAlgorithm(crypto::alg::kSecp256k1), std::move(record));
    const uint64_t h = s.AddTemp({key, flags, std::string(name), {}});
    if (want_handle) d.handle = h;
    return d;
  }
  secure::Bytes material(record.begin(), record.end());
  Status st = objects.CreateObject(s, name, static_cast<int>(crypto::alg::kSecp256k1),
                                   static_cast<int>(crypto::alg::kSecp256k1), flags, material);
  OPENSSL_cleanse(material.data(), material.size());
  if (!st.ok()) return st;
  if (want_handle) {
    Result<objects::ObjectRef> ref = objects::ParseObjectName(name, s.user());
    if (ref.ok()) d.handle = s.AddOpened(ref->Full());
  }
  return d;
}

Request CreateRight(uint32_t flags) {
  return IsTemporary(flags) ? Request::kFree : Request::kCreateObject;
}

}  // namespace

Result<KeyDesc> BchainService::GenerateKey(Session &s, std::string_view name, uint32_t algorithm,
                                           uint32_t flags, bool want_handle) {
  auto args = [&] {
    QL_RETURN_IF_ERROR(NewKeyArgs(core_, s, name, flags));
    if (algorithm != crypto::alg::kSecp256k1) {
      return Status::Error(Code::kBadAlgorithm, "blockchain keys are secp256k1 keys");
    }
    return Status::Ok();
  };
  return guard_.Run(
      s, Op{"generate-key", name, CreateRight(flags), AuditMode::kRefusal}, args,
      [&](const users::UserInfo &) -> Result<KeyDesc> {
        crypto::Result<crypto::SecretBytes> seed = crypto::RandomBytes(32);
        if (!seed.ok()) return FromCrypto(seed.status());
        crypto::Result<bc::ExtendedKey> master = bc::MasterFromSeed(*seed, false);
        if (!master.ok()) return KeyStatus(master.status());
        return Keep(objects_, s, name, BchainKey{std::move(*master), false}, flags, want_handle);
      });
}

Status BchainService::CreateXprv(Session &s, std::string_view name, uint32_t type,
                                 const secure::Bytes &data, uint32_t flags) {
  auto args = [&] {
    QL_RETURN_IF_ERROR(NewKeyArgs(core_, s, name, flags));
    if (type < qlproto::kBchainXprvBip32 || type > qlproto::kBchainXprvMinikey) {
      return Status::Error(Code::kBadAlgorithm, "unknown key type");
    }
    if (type != qlproto::kBchainXprvMinikey && (data.size() < 16 || data.size() > 64)) {
      return Status::Error(Code::kBadLength, "seeds are 16 to 64 bytes");
    }
    return Status::Ok();
  };
  Result<KeyDesc> made = guard_.Run(
      s, Op{"bchain-create-xprv", AuditName(name), CreateRight(flags), AuditMode::kRefusal}, args,
      [&](const users::UserInfo &) -> Result<KeyDesc> {
        crypto::ByteView in(data.data(), data.size());
        BchainKey k;
        if (type == qlproto::kBchainXprvMinikey) {
          crypto::Result<crypto::SecretBytes> priv = bc::MiniKeyToPrivate(
              std::string_view(reinterpret_cast<const char *>(data.data()), data.size()));
          if (!priv.ok()) return KeyStatus(priv.status());
          crypto::Result<crypto::Bytes> pub =
              bc::PublicKeyOf(*priv, bc::PublicKeyForm::kCompressed);
          if (!pub.ok()) return KeyStatus(pub.status());
          k.plain = true;
          k.key.private_key = std::move(*priv);
          k.key.public_key = std::move(*pub);
        } else {
          crypto::Result<bc::ExtendedKey> master =
              bc::MasterFromSeed(in, type == qlproto::kBchainXprvBip32Test);
          if (!master.ok()) return KeyStatus(master.status());
          k.key = std::move(*master);
        }
        return Keep(objects_, s, name, k, flags, false);
      });
  return made.ok() ? Status::Ok() : made.status();
}

Result<BchainKeyFacts> BchainService::DeriveChild(Session &s, std::string_view parent,
                                                  std::string_view name, uint32_t version,
                                                  uint32_t index, uint32_t flags) {
  BchainTarget target;
  auto args = [&] {
    QL_RETURN_IF_ERROR(NewKeyArgs(core_, s, name, flags));
    if (version != 0 && NetworkVersion(version) == 0) {
      return Status::Error(Code::kBadArgument, "unknown BIP32 version");
    }
    return FindKey(core_, s, parent, &target);
  };
  Op op{"bchain-create-ckd", AuditName(name), CreateRight(flags), AuditMode::kRefusal,
        KeyRight(s, parent)};
  return guard_.Run(s, op, args, [&](const users::UserInfo &) -> Result<BchainKeyFacts> {
    Result<BchainKey> p = LoadKey(core_, target);
    if (!p.ok()) return p.status();
    if (p->plain) return Status::Error(Code::kBadKeyUsage, "a key without chain code");
    crypto::Result<bc::ExtendedKey> child = bc::DeriveChild(p->key, index);
    if (!child.ok()) return KeyStatus(child.status());
    if (version != 0) child->version = NetworkVersion(version);
    BchainKey k{std::move(*child), false};
    Result<KeyDesc> kept = Keep(objects_, s, name, k, flags, false);
    if (!kept.ok()) return kept.status();
    return FactsOf(k);
  });
}

Result<BchainKeyFacts> BchainService::KeyInfo(Session &s, std::string_view name) {
  BchainTarget target;
  return guard_.Run(
      s, Op{"bchain-key-info", AuditName(name), KeyRight(s, name), AuditMode::kRefusal},
      [&] { return FindKey(core_, s, name, &target); },
      [&](const users::UserInfo &) -> Result<BchainKeyFacts> {
        Result<BchainKey> k = LoadKey(core_, target);
        if (!k.ok()) return k.status();
        return FactsOf(*k);
      });
}

Result<secure::Bytes> BchainService::PublicKey(Session &s, std::string_view name, uint32_t form) {
  BchainTarget target;
  auto args = [&] {
    if (form < qlproto::kBchainPbkCompressed || form > qlproto::kBchainPbkXOnly) {
      return Status::Error(Code::kBadAlgorithm, "unknown public key form");
    }
    return FindKey(core_, s, name, &target);
  };
  return guard_.Run(
      s, Op{"bchain-get-pbk", AuditName(name), KeyRight(s, name), AuditMode::kRefusal}, args,
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<BchainKey> k = LoadKey(core_, target);
        if (!k.ok()) return k.status();
        crypto::Result<crypto::Bytes> pub =
            bc::ConvertPublicKey(k->key.public_key, static_cast<bc::PublicKeyForm>(form));
        if (!pub.ok()) return KeyStatus(pub.status());
        return std::move(*pub);
      });
}

Result<std::string> BchainService::Address(Session &s, std::string_view name, uint32_t type,
                                           uint32_t version, std::string_view hrp) {
  BchainTarget target;
  auto args = [&] {
    if (type < qlproto::kBchainAddrP2pkh || type > qlproto::kBchainAddrP2tr) {
      return Status::Error(Code::kBadAlgorithm, "unknown address type");
    }
    if (version != qlproto::kBchainAddrMainnet && version != qlproto::kBchainAddrTestnet) {
      return Status::Error(Code::kBadArgument, "unknown address version");
    }
    return FindKey(core_, s, name, &target);
  };
  return guard_.Run(s,
                    Op{"bchain-get-addr", AuditName(name), KeyRight(s, name), AuditMode::kRefusal},
                    args, [&](const users::UserInfo &) -> Result<std::string> {
                      Result<BchainKey> k = LoadKey(core_, target);
                      if (!k.ok()) return k.status();
                      crypto::Result<std::string> address =
                          bc::AddressOf(k->key.public_key, static_cast<bc::AddressType>(type),
                                        version == qlproto::kBchainAddrTestnet, hrp);
                      if (!address.ok())
                        return Status::Error(Code::kBadArgument, address.status().detail());
                      return std::move(*address);
                    });
}

Result<secure::Bytes> BchainService::SignHash(Session &s, std::string_view name,
                                              const BchainSignatureArgs &sig) {
  BchainTarget target;
  auto args = [&] {
    QL_RETURN_IF_ERROR(SignatureArgs(sig));
    return FindKey(core_, s, name, &target);
  };
  return guard_.Run(s, Op{"bchain-sign", AuditName(name), KeyRight(s, name), AuditMode::kRefusal},
                    args, [&](const users::UserInfo &) -> Result<secure::Bytes> {
                      Result<BchainKey> k = LoadKey(core_, target);
                      if (!k.ok()) return k.status();
                      if (!k->key.has_private()) {
                        return Status::Error(Code::kBadKeyUsage, "a public-only key does not sign");
                      }
                      crypto::Result<crypto::Bytes> out = bc::SignDigest(
                          k->key.private_key, crypto::ByteView(sig.hash.data(), sig.hash.size()),
                          static_cast<bc::SignatureType>(sig.type));
                      if (!out.ok()) return FromCrypto(out.status());
                      return std::move(*out);
                    });
}

Result<secure::Bytes> BchainService::ExportKey(Session &s, std::string_view name, uint32_t format,
                                               uint32_t version, bool compressed) {
  BchainTarget target;
  auto args = [&] {
    if (format < qlproto::kBchainFormatRaw || format > qlproto::kBchainFormatXpub) {
      return Status::Error(Code::kBadAlgorithm, "unknown key format");
    }
    const bool known =
        version == 0 || (format == qlproto::kBchainFormatRaw) ||
        (format == qlproto::kBchainFormatWif &&
         (version == qlproto::kBchainWifMainnet || version == qlproto::kBchainWifTestnet)) ||
        (format >= qlproto::kBchainFormatXprv && NetworkVersion(version) != 0);
    if (!known) return Status::Error(Code::kBadArgument, "unknown version for the format");
    return FindKey(core_, s, name, &target);
  };
  return guard_.Run(
      s, Op{"bchain-export", AuditName(name), KeyRight(s, name), AuditMode::kRefusal}, args,
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<BchainKey> k = LoadKey(core_, target);
        if (!k.ok()) return k.status();
        const bool private_form = format != qlproto::kBchainFormatXpub;
        if (private_form) {
          if (!(k->flags & qlproto::kKeyExportable)) {
            return Status::Error(Code::kNotExportable,
                                 "the key was made without the exportable flag");
          }
          if (!k->key.has_private()) {
            return Status::Error(Code::kBadKeyUsage, "a public-only key has no private form");
          }
        }
        if (k->plain && format >= qlproto::kBchainFormatXprv) {
          return Status::Error(Code::kBadKeyUsage, "a key without BIP32 data");
        }
        std::string text;
        switch (format) {
          case qlproto::kBchainFormatRaw:
            return secure::Bytes(k->key.private_key.begin(), k->key.private_key.end());
          case qlproto::kBchainFormatWif: {
            const bool testnet =
                version == 0 ? k->key.testnet() : version == qlproto::kBchainWifTestnet;
            text = bc::EncodeWif(k->key.private_key, compressed, testnet);
            break;
          }
          default:
            if (version != 0) k->key.version = NetworkVersion(version);
            text = bc::SerializeExtended(k->key, format == qlproto::kBchainFormatXpub);
            break;
        }
        secure::Bytes out(text.begin(), text.end());
        OPENSSL_cleanse(text.data(), text.size());
        return out;
      });
}

Status BchainService::ImportKey(Session &s, std::string_view name, uint32_t format, uint32_t flags,
                                const secure::Bytes &data) {
  auto args = [&] {
    QL_RETURN_IF_ERROR(NewKeyArgs(core_, s, name, flags));
    if (format < qlproto::kBchainFormatRaw || format > qlproto::kBchainFormatXpub) {
      return Status::Error(Code::kBadAlgorithm, "unknown key format");
    }
    if (format == qlproto::kBchainFormatRaw && data.size() != 32) {
      return Status::Error(Code::kBadLength, "a raw private key is 32 bytes");
    }
    return Status::Ok();
  };
  Result<KeyDesc> made = guard_.Run(
      s, Op{"bchain-import", AuditName(name), CreateRight(flags), AuditMode::kRefusal}, args,
      [&](const users::UserInfo &) -> Result<KeyDesc> {
        const std::string_view text(reinterpret_cast<const char *>(data.data()), data.size());
        BchainKey k;
        if (format == qlproto::kBchainFormatRaw || format == qlproto::kBchainFormatWif) {
          k.plain = true;
          if (format == qlproto::kBchainFormatRaw) {
            k.key.private_key.assign(data.begin(), data.end());
          } else {
            crypto::Result<bc::WifKey> wif = bc::DecodeWif(text);
            if (!wif.ok()) return KeyStatus(wif.status());
            k.key.private_key = std::move(wif->private_key);
            if (wif->testnet) k.key.version = bc::kXprvTest;
          }
          crypto::Result<crypto::Bytes> pub =
              bc::PublicKeyOf(k.key.private_key, bc::PublicKeyForm::kCompressed);
          if (!pub.ok()) return KeyStatus(pub.status());
          k.key.public_key = std::move(*pub);
        } else {
          crypto::Result<bc::ExtendedKey> parsed = bc::ParseExtended(text);
          if (!parsed.ok()) return KeyStatus(parsed.status());
          const bool is_private = parsed->has_private();
          if (is_private != (format == qlproto::kBchainFormatXprv)) {
            return Status::Error(Code::kBchainBadEncoding, "the text is not of that format");
          }
          k.key = std::move(*parsed);
        }
        return Keep(objects_, s, name, k, flags, false);
      });
  return made.ok() ? Status::Ok() : made.status();
}

}  // namespace qlhsm
