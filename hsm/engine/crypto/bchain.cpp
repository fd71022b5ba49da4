#include "crypto/bchain.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <secp256k1.h>
#include <secp256k1_extrakeys.h>
#include <secp256k1_recovery.h>
#include <secp256k1_schnorrsig.h>

#include <algorithm>

#include "crypto/bchain_codec.h"
#include "crypto/ossl.h"

namespace qlhsm::crypto::bchain {
namespace {

// One context for the process: read-only after it is made and randomised, so every thread may
// sign and verify with it at once.
const secp256k1_context *Ctx() {
  static const secp256k1_context *ctx = [] {
    secp256k1_context *c =
        secp256k1_context_create(SECP256K1_CONTEXT_SIGN | SECP256K1_CONTEXT_VERIFY);
    uint8_t seed[32];
    // Randomising only blinds against side channels; an unrandomised context still works.
    if (ossl::RandomBytes(seed).ok() && secp256k1_context_randomize(c, seed) != 1) {
      ossl::ClearErrors();
    }
    OPENSSL_cleanse(seed, sizeof seed);
    return c;
  }();
  return ctx;
}

Result<SecretBytes> HmacSha512(ByteView key, ByteView data) {
  return ossl::ComputeMac("HMAC", OSSL_MAC_PARAM_DIGEST, "SHA512", key, {data});
}

bool ParsePoint(ByteView bytes, secp256k1_pubkey *point) {
  return (bytes.size() == 33 || bytes.size() == 65) &&
         secp256k1_ec_pubkey_parse(Ctx(), point, bytes.data(), bytes.size()) == 1;
}

Bytes Serialize(const secp256k1_pubkey &point, bool compressed) {
  Bytes out(compressed ? 33 : 65);
  size_t len = out.size();
  secp256k1_ec_pubkey_serialize(Ctx(), out.data(), &len, &point,
                                compressed ? SECP256K1_EC_COMPRESSED : SECP256K1_EC_UNCOMPRESSED);
  return out;
}

Result<Bytes> CompressedOf(ByteView private_key) {
  secp256k1_pubkey point;
  if (private_key.size() != 32 ||
      secp256k1_ec_pubkey_create(Ctx(), &point, private_key.data()) != 1) {
    return Status(Code::kBadArgument, "a private key outside 1..n-1");
  }
  return Serialize(point, true);
}

void PutBe32(Bytes &out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(v >> shift));
}

uint32_t GetBe32(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | p[3];
}

}  // namespace

uint32_t Fingerprint(ByteView compressed_public_key) {
  const Bytes h = Hash160(compressed_public_key);
  return GetBe32(h.data());
}

Result<ExtendedKey> MasterFromSeed(ByteView seed, bool testnet) {
  if (seed.size() < 16 || seed.size() > 64)
    return Status(Code::kBadLength, "seeds are 16-64 bytes");
  static constexpr uint8_t kSalt[] = {'B', 'i', 't', 'c', 'o', 'i', 'n', ' ', 's', 'e', 'e', 'd'};
  Result<SecretBytes> i = HmacSha512(kSalt, seed);
  if (!i.ok()) return i.status();
  ExtendedKey key;
  key.version = testnet ? kXprvTest : kXprvMain;
  key.private_key.assign(i->begin(), i->begin() + 32);
  std::copy(i->begin() + 32, i->end(), key.chain_code.begin());
  Result<Bytes> pub = CompressedOf(key.private_key);
  if (!pub.ok()) return pub.status();
  key.public_key = std::move(*pub);
  return key;
}

Result<ExtendedKey> DeriveChild(const ExtendedKey &parent, uint32_t index) {
  const bool hardened = (index & kHardened) != 0;
  if (hardened && !parent.has_private()) {
    return Status(Code::kKeyCannotDo, "a public key has no hardened children");
  }
  Bytes data;
  if (hardened) {
    data.push_back(0);
    data.insert(data.end(), parent.private_key.begin(), parent.private_key.end());
  } else {
    data = parent.public_key;
  }
  PutBe32(data, index);
  Result<SecretBytes> i = HmacSha512(parent.chain_code, data);
  OPENSSL_cleanse(data.data(), data.size());
  if (!i.ok()) return i.status();
  ExtendedKey child;
  child.version = parent.version;
  child.depth = static_cast<uint8_t>(parent.depth + 1);
  child.parent_fingerprint = Fingerprint(parent.public_key);
  child.child_index = index;
  std::copy(i->begin() + 32, i->end(), child.chain_code.begin());
  if (parent.has_private()) {
    child.private_key = parent.private_key;
    if (secp256k1_ec_seckey_tweak_add(Ctx(), child.private_key.data(), i->data()) != 1) {
      return Status(Code::kBadArgument, "an invalid child: take the next index");
    }
    Result<Bytes> pub = CompressedOf(child.private_key);
    if (!pub.ok()) return pub.status();
    child.public_key = std::move(*pub);
    return child;
  }
  secp256k1_pubkey point;
  if (!ParsePoint(parent.public_key, &point) ||
      secp256k1_ec_pubkey_tweak_add(Ctx(), &point, i->data()) != 1) {
    return Status(Code::kBadArgument, "an invalid child: take the next index");
  }
  child.public_key = Serialize(point, true);
  return child;
}

std::string SerializeExtended(const ExtendedKey &key, bool public_only) {
  const bool priv = key.has_private() && !public_only;
  Bytes data;
  uint32_t version = key.version;
  if (!priv) version = key.testnet() ? kXpubTest : kXpubMain;
  PutBe32(data, version);
  data.push_back(key.depth);
  PutBe32(data, key.parent_fingerprint);
  PutBe32(data, key.child_index);
  data.insert(data.end(), key.chain_code.begin(), key.chain_code.end());
  if (priv) {
    data.push_back(0);
    data.insert(data.end(), key.private_key.begin(), key.private_key.end());
  } else {
    data.insert(data.end(), key.public_key.begin(), key.public_key.end());
  }
  std::string text = Base58CheckEncode(data);
  OPENSSL_cleanse(data.data(), data.size());
  return text;
}

Result<ExtendedKey> ParseExtended(std::string_view text) {
  std::optional<Bytes> data = Base58CheckDecode(text);
  if (!data || data->size() != 78) return Status(Code::kBadData, "not an extended key");
  const uint32_t version = GetBe32(data->data());
  const bool priv_version = version == kXprvMain || version == kXprvTest;
  const bool pub_version = version == kXpubMain || version == kXpubTest;
  if (!priv_version && !pub_version) return Status(Code::kBadData, "unknown extended key version");
  ExtendedKey key;
  key.depth = (*data)[4];
  key.parent_fingerprint = GetBe32(data->data() + 5);
  key.child_index = GetBe32(data->data() + 9);
  std::copy(data->begin() + 13, data->begin() + 45, key.chain_code.begin());
  if (key.depth == 0 && (key.parent_fingerprint != 0 || key.child_index != 0)) {
    return Status(Code::kBadData, "a master key with a parent");
  }
  const uint8_t *k = data->data() + 45;
  if (priv_version) {
    if (k[0] != 0) return Status(Code::kBadData, "a private version with a public key");
    key.version = version;
    key.private_key.assign(k + 1, k + 33);
    if (secp256k1_ec_seckey_verify(Ctx(), key.private_key.data()) != 1) {
      return Status(Code::kBadArgument, "a private key outside 1..n-1");
    }
    Result<Bytes> pub = CompressedOf(key.private_key);
    if (!pub.ok()) return pub.status();
    key.public_key = std::move(*pub);
  } else {
    if (k[0] != 2 && k[0] != 3) return Status(Code::kBadData, "a public key of another form");
    key.version = version == kXpubTest ? kXprvTest : kXprvMain;
    secp256k1_pubkey point;
    if (!ParsePoint(ByteView(k, 33), &point)) {
      return Status(Code::kBadArgument, "a public key off the curve");
    }
    key.public_key.assign(k, k + 33);
  }
  OPENSSL_cleanse(data->data(), data->size());
  return key;
}

Result<SecretBytes> MiniKeyToPrivate(std::string_view mini) {
  if ((mini.size() != 22 && mini.size() != 30) || mini[0] != 'S') {
    return Status(Code::kBadData, "not a mini private key");
  }
  std::string check(mini);
  check += '?';
  if (Sha256(ByteView(reinterpret_cast<const uint8_t *>(check.data()), check.size()))[0] != 0) {
    return Status(Code::kBadData, "the mini key's check fails");
  }
  const Bytes key = Sha256(ByteView(reinterpret_cast<const uint8_t *>(mini.data()), mini.size()));
  SecretBytes out(key.begin(), key.end());
  if (secp256k1_ec_seckey_verify(Ctx(), out.data()) != 1) {
    return Status(Code::kBadArgument, "a private key outside 1..n-1");
  }
  return out;
}

std::string EncodeWif(ByteView private_key, bool compressed, bool testnet) {
  Bytes data = {static_cast<uint8_t>(testnet ? 0xEF : 0x80)};
  data.insert(data.end(), private_key.begin(), private_key.end());
  if (compressed) data.push_back(1);
  std::string text = Base58CheckEncode(data);
  OPENSSL_cleanse(data.data(), data.size());
  return text;
}

Result<WifKey> DecodeWif(std::string_view text) {
  std::optional<Bytes> data = Base58CheckDecode(text);
  if (!data || (data->size() != 33 && data->size() != 34) ||
      ((*data)[0] != 0x80 && (*data)[0] != 0xEF) || (data->size() == 34 && (*data)[33] != 1)) {
    return Status(Code::kBadData, "not a WIF key");
  }
  WifKey key;
  key.testnet = (*data)[0] == 0xEF;
  key.compressed = data->size() == 34;
  key.private_key.assign(data->begin() + 1, data->begin() + 33);
  OPENSSL_cleanse(data->data(), data->size());
  if (secp256k1_ec_seckey_verify(Ctx(), key.private_key.data()) != 1) {
    return Status(Code::kBadArgument, "a private key outside 1..n-1");
  }
  return key;
}

Result<Bytes> ConvertPublicKey(ByteView public_key, PublicKeyForm form) {
  secp256k1_pubkey point;
  if (!ParsePoint(public_key, &point)) return Status(Code::kBadArgument, "not a curve point");
  switch (form) {
    case PublicKeyForm::kCompressed:
      return Serialize(point, true);
    case PublicKeyForm::kUncompressed:
      return Serialize(point, false);
    case PublicKeyForm::kXOnly: {
      Bytes compressed = Serialize(point, true);
      return Bytes(compressed.begin() + 1, compressed.end());
    }
  }
  return Status(Code::kBadArgument, "unknown public key form");
}

Result<Bytes> PublicKeyOf(ByteView private_key, PublicKeyForm form) {
  Result<Bytes> compressed = CompressedOf(private_key);
  if (!compressed.ok()) return compressed;
  return ConvertPublicKey(*compressed, form);
}

Result<std::string> AddressOf(ByteView public_key, AddressType type, bool testnet,
                              std::string_view hrp) {
  secp256k1_pubkey point;
  if (!ParsePoint(public_key, &point)) return Status(Code::kBadArgument, "not a curve point");
  const std::string_view net_hrp = hrp.empty() ? (testnet ? "tb" : "bc") : hrp;
  switch (type) {
    case AddressType::kP2pkh:
    case AddressType::kP2pkhUncompressed: {
      Bytes data = {static_cast<uint8_t>(testnet ? 0x6F : 0x00)};
      const Bytes hash = Hash160(Serialize(point, type == AddressType::kP2pkh));
      data.insert(data.end(), hash.begin(), hash.end());
      return Base58CheckEncode(data);
    }
    case AddressType::kP2wpkh: {
      std::string address = SegwitAddress(net_hrp, 0, Hash160(Serialize(point, true)));
      if (address.empty()) return Status(Code::kBadArgument, "not a valid human-readable part");
      return address;
    }
    case AddressType::kP2tr: {
      // The output key of a key-path-only spend: the internal key tweaked by its own tagged hash.
      secp256k1_xonly_pubkey internal;
      uint8_t x[32];
      secp256k1_pubkey output;
      secp256k1_xonly_pubkey output_x;
      if (secp256k1_xonly_pubkey_from_pubkey(Ctx(), &internal, nullptr, &point) != 1 ||
          secp256k1_xonly_pubkey_serialize(Ctx(), x, &internal) != 1) {
        return Status(Code::kBadArgument, "not a curve point");
      }
      const Bytes tweak = TaggedHash("TapTweak", ByteView(x, 32));
      if (secp256k1_xonly_pubkey_tweak_add(Ctx(), &output, &internal, tweak.data()) != 1 ||
          secp256k1_xonly_pubkey_from_pubkey(Ctx(), &output_x, nullptr, &output) != 1 ||
          secp256k1_xonly_pubkey_serialize(Ctx(), x, &output_x) != 1) {
        return Status(Code::kBadArgument, "an invalid tweak");
      }
      std::string address = SegwitAddress(net_hrp, 1, ByteView(x, 32));
      if (address.empty()) return Status(Code::kBadArgument, "not a valid human-readable part");
      return address;
    }
  }
  return Status(Code::kBadArgument, "unknown address type");
}

Result<Bytes> SignDigest(ByteView private_key, ByteView digest, SignatureType type,
                         ByteView aux_rand) {
  if (digest.size() != 32) return Status(Code::kBadLength, "a digest of 32 bytes");
  if (private_key.size() != 32 || secp256k1_ec_seckey_verify(Ctx(), private_key.data()) != 1) {
    return Status(Code::kBadArgument, "a private key outside 1..n-1");
  }
  switch (type) {
    case SignatureType::kCompact: {
      secp256k1_ecdsa_recoverable_signature sig;
      Bytes out(65);
      int recid = 0;
      if (secp256k1_ecdsa_sign_recoverable(Ctx(), &sig, digest.data(), private_key.data(), nullptr,
                                           nullptr) != 1 ||
          secp256k1_ecdsa_recoverable_signature_serialize_compact(Ctx(), out.data() + 1, &recid,
                                                                  &sig) != 1) {
        return Status(Code::kInternal, "ECDSA signing failed");
      }
      out[0] = static_cast<uint8_t>(31 + recid);
      return out;
    }
    case SignatureType::kDer: {
      secp256k1_ecdsa_signature sig;
      Bytes out(72);
      size_t len = out.size();
      if (secp256k1_ecdsa_sign(Ctx(), &sig, digest.data(), private_key.data(), nullptr, nullptr) !=
              1 ||
          secp256k1_ecdsa_signature_serialize_der(Ctx(), out.data(), &len, &sig) != 1) {
        return Status(Code::kInternal, "ECDSA signing failed");
      }
      out.resize(len);
      return out;
    }
    case SignatureType::kSchnorr: {
      uint8_t aux[32];
      if (aux_rand.empty()) {
        const Status st = ossl::RandomBytes(aux);
        if (!st.ok()) return st;
      } else if (aux_rand.size() == 32) {
        std::copy(aux_rand.begin(), aux_rand.end(), aux);
      } else {
        return Status(Code::kBadLength, "aux_rand is 32 bytes");
      }
      secp256k1_keypair keypair;
      Bytes out(64);
      const bool ok =
          secp256k1_keypair_create(Ctx(), &keypair, private_key.data()) == 1 &&
          secp256k1_schnorrsig_sign32(Ctx(), out.data(), digest.data(), &keypair, aux) == 1;
      OPENSSL_cleanse(&keypair, sizeof keypair);
      if (!ok) return Status(Code::kInternal, "Schnorr signing failed");
      return out;
    }
  }
  return Status(Code::kBadArgument, "unknown signature type");
}

Status VerifyDigest(ByteView public_key, ByteView digest, SignatureType type, ByteView signature) {
  if (digest.size() != 32) return Status(Code::kBadLength, "a digest of 32 bytes");
  const Status bad(Code::kBadSignature, "the signature does not verify");
  if (type == SignatureType::kSchnorr) {
    secp256k1_xonly_pubkey xonly;
    if (public_key.size() == 32) {
      if (secp256k1_xonly_pubkey_parse(Ctx(), &xonly, public_key.data()) != 1) {
        return Status(Code::kBadArgument, "not a curve point");
      }
    } else {
      secp256k1_pubkey point;
      if (!ParsePoint(public_key, &point) ||
          secp256k1_xonly_pubkey_from_pubkey(Ctx(), &xonly, nullptr, &point) != 1) {
        return Status(Code::kBadArgument, "not a curve point");
      }
    }
    if (signature.size() != 64 ||
        secp256k1_schnorrsig_verify(Ctx(), signature.data(), digest.data(), 32, &xonly) != 1) {
      return bad;
    }
    return {};
  }
  secp256k1_pubkey point;
  if (!ParsePoint(public_key, &point)) return Status(Code::kBadArgument, "not a curve point");
  secp256k1_ecdsa_signature sig;
  bool parsed = false;
  if (type == SignatureType::kCompact) {
    parsed = signature.size() == 65 &&
             secp256k1_ecdsa_signature_parse_compact(Ctx(), &sig, signature.data() + 1) == 1;
  } else if (type == SignatureType::kDer) {
    parsed =
        secp256k1_ecdsa_signature_parse_der(Ctx(), &sig, signature.data(), signature.size()) == 1;
  } else {
    return Status(Code::kBadArgument, "unknown signature type");
  }
  // The verifier refuses a high S, so a malleated signature does not pass.
  if (!parsed || secp256k1_ecdsa_verify(Ctx(), &sig, digest.data(), &point) != 1) return bad;
  return {};
}

Result<Bytes> RecoverPublicKey(ByteView digest, ByteView compact_signature) {
  if (digest.size() != 32) return Status(Code::kBadLength, "a digest of 32 bytes");
  if (compact_signature.size() != 65 || compact_signature[0] < 27 || compact_signature[0] > 42) {
    return Status(Code::kBadSignature, "not a compact signature");
  }
  const int header = compact_signature[0] - 27;
  const int recid = header & 3;
  const bool compressed = header >= 4;
  secp256k1_ecdsa_recoverable_signature sig;
  secp256k1_pubkey point;
  if (secp256k1_ecdsa_recoverable_signature_parse_compact(Ctx(), &sig, compact_signature.data() + 1,
                                                          recid) != 1 ||
      secp256k1_ecdsa_recover(Ctx(), &point, &sig, digest.data()) != 1) {
    return Status(Code::kBadSignature, "no key signs this digest with this signature");
  }
  return Serialize(point, compressed);
}

}  // namespace qlhsm::crypto::bchain
