// bchain_codec.h: the text forms and hashes of blockchain keys and addresses: Base58 and
// Base58Check, Bech32 (BIP173) and Bech32m (BIP350) with segwit addresses, SHA-256d, HASH160
// and the signed-message hash of BIP137.
#ifndef QLHSM_CRYPTO_BCHAIN_CODEC_H_
#define QLHSM_CRYPTO_BCHAIN_CODEC_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "crypto/bytes.h"
#include "crypto/status.h"

namespace qlhsm::crypto::bchain {

std::string Base58Encode(ByteView data);
std::optional<Bytes> Base58Decode(std::string_view text);
// Data followed by the first 4 bytes of its SHA-256d.
std::string Base58CheckEncode(ByteView data);
// nullopt for a bad character or a checksum that does not match.
std::optional<Bytes> Base58CheckDecode(std::string_view text);

enum class Bech32Variant : uint8_t { kBech32, kBech32m };

// A human-readable part (1 to 83 characters 33-126) and 5-bit groups; the text is lower case.
// Empty when the result would pass 90 characters or the part is not valid.
std::string Bech32Encode(std::string_view hrp, ByteView groups, Bech32Variant variant);

struct Bech32Decoded {
  Bech32Variant variant;
  std::string hrp;  // lower case
  Bytes groups;
};
// Any case but mixed, at most 90 characters, the checksum of either variant.
std::optional<Bech32Decoded> Bech32Decode(std::string_view text);

// Segwit addresses: version 0 programs of 20 or 32 bytes in Bech32, versions 1 to 16 of 2 to 40
// bytes in Bech32m. Empty (or nullopt) for anything else.
std::string SegwitAddress(std::string_view hrp, unsigned version, ByteView program);
struct SegwitProgram {
  unsigned version;
  Bytes program;
};
std::optional<SegwitProgram> ParseSegwitAddress(std::string_view hrp, std::string_view address);

// Hash modes.
Bytes Sha256(ByteView data);
Bytes Sha256d(ByteView data);
Bytes Hash160(ByteView data);  // RIPEMD-160 of SHA-256
// SHA-256d of "\x18Bitcoin Signed Message:\n", the message length as a compact size, the message.
Bytes MessageHash(ByteView message);
// BIP340's tagged hash: SHA-256(SHA-256(tag) || SHA-256(tag) || data).
Bytes TaggedHash(std::string_view tag, ByteView data);

}  // namespace qlhsm::crypto::bchain

#endif  // QLHSM_CRYPTO_BCHAIN_CODEC_H_
