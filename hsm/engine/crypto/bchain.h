// bchain.h: secp256k1 keys for blockchains: BIP32 extended keys, WIF and mini keys, public key
// forms, addresses, and ECDSA (compact recoverable or DER, low S, RFC 6979 nonces) and BIP340
// Schnorr signatures, over libsecp256k1.
//
// The refusals: kBadData for a text that does not decode (Base58Check, length, version: the
// engine answers a bad encoding), kBadArgument for a key out of range or a point off the curve
// (an invalid key; a caller deriving children takes the next index), kKeyCannotDo for a hardened
// child of a public-only key, kBadLength for a seed or digest of the wrong length,
// kBadSignature for a signature that does not verify.
#ifndef QLHSM_CRYPTO_BCHAIN_H_
#define QLHSM_CRYPTO_BCHAIN_H_

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "crypto/bytes.h"
#include "crypto/status.h"

namespace qlhsm::crypto::bchain {

constexpr uint32_t kXprvMain = 0x0488ADE4;
constexpr uint32_t kXpubMain = 0x0488B21E;
constexpr uint32_t kXprvTest = 0x04358394;
constexpr uint32_t kXpubTest = 0x043587CF;
constexpr uint32_t kHardened = 0x80000000;

struct ExtendedKey {
  uint32_t version = kXprvMain;  // the private version of its network
  uint8_t depth = 0;
  uint32_t parent_fingerprint = 0;
  uint32_t child_index = 0;
  std::array<uint8_t, 32> chain_code{};
  SecretBytes private_key;  // 32 bytes, or empty for a public-only key
  Bytes public_key;         // 33 bytes, compressed
  bool has_private() const { return !private_key.empty(); }
  bool testnet() const { return version == kXprvTest || version == kXpubTest; }
};

// The master key of a 16 to 64-byte seed.
Result<ExtendedKey> MasterFromSeed(ByteView seed, bool testnet);
Result<ExtendedKey> DeriveChild(const ExtendedKey &parent, uint32_t index);
// xprv (a private key, unless public_only) or xpub text.
std::string SerializeExtended(const ExtendedKey &key, bool public_only);
Result<ExtendedKey> ParseExtended(std::string_view text);
// The first 4 bytes of HASH160 of the compressed public key.
uint32_t Fingerprint(ByteView compressed_public_key);

// The private key of a "mini private key" (22 or 30 characters starting with S, valid when the
// SHA-256 of the key and "?" starts with a zero byte).
Result<SecretBytes> MiniKeyToPrivate(std::string_view mini);

std::string EncodeWif(ByteView private_key, bool compressed, bool testnet);
struct WifKey {
  SecretBytes private_key;
  bool compressed;
  bool testnet;
};
Result<WifKey> DecodeWif(std::string_view text);

enum class PublicKeyForm : uint8_t { kCompressed = 1, kUncompressed = 2, kXOnly = 3 };
Result<Bytes> PublicKeyOf(ByteView private_key, PublicKeyForm form);
// A public key (33 or 65 bytes) in another form.
Result<Bytes> ConvertPublicKey(ByteView public_key, PublicKeyForm form);

enum class AddressType : uint8_t { kP2pkh = 1, kP2pkhUncompressed = 2, kP2wpkh = 3, kP2tr = 4 };
// The address of a public key (33 or 65 bytes). `hrp` empty: bc, or tb on testnet.
Result<std::string> AddressOf(ByteView public_key, AddressType type, bool testnet,
                              std::string_view hrp = {});

enum class SignatureType : uint8_t { kCompact = 1, kDer = 2, kSchnorr = 3 };
// Signs a 32-byte digest. Compact signatures carry the header 31 + recovery id (a compressed
// key); Schnorr signatures take `aux_rand` (32 bytes; empty: from the generator).
Result<Bytes> SignDigest(ByteView private_key, ByteView digest, SignatureType type,
                         ByteView aux_rand = {});
// kBadSignature when it does not verify (a high S included). Schnorr takes the x-only key or
// any full form.
Status VerifyDigest(ByteView public_key, ByteView digest, SignatureType type, ByteView signature);
// The signer's public key of a compact signature: compressed or not as its header says.
Result<Bytes> RecoverPublicKey(ByteView digest, ByteView compact_signature);

}  // namespace qlhsm::crypto::bchain

#endif  // QLHSM_CRYPTO_BCHAIN_H_
