#include "crypto/bchain_codec.h"

#include <openssl/evp.h>

#include <algorithm>

#include "crypto/ossl.h"

namespace qlhsm::crypto::bchain {
namespace {

constexpr char kBase58[] = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz";
constexpr char kBech32[] = "qpzry9x8gf2tvdw0s3jn54khce6mua7l";
constexpr uint32_t kBech32Const = 1;
constexpr uint32_t kBech32mConst = 0x2bc830a3;

Bytes Digest(const char *name, ByteView data) {
  Bytes out(EVP_MAX_MD_SIZE);
  unsigned int len = 0;
  const EVP_MD *md = ossl::Digest(name);
  if (md == nullptr || EVP_Digest(data.data(), data.size(), out.data(), &len, md, nullptr) != 1) {
    ossl::ClearErrors();
    return {};
  }
  out.resize(len);
  return out;
}

uint32_t Polymod(const Bytes &values) {
  static constexpr uint32_t kGen[5] = {0x3b6a57b2, 0x26508e6d, 0x1ea119fa, 0x3d4233dd, 0x2a1462b3};
  uint32_t chk = 1;
  for (uint8_t v : values) {
    const uint32_t top = chk >> 25;
    chk = ((chk & 0x1ffffff) << 5) ^ v;
    for (int i = 0; i < 5; ++i) {
      if ((top >> i) & 1) chk ^= kGen[i];
    }
  }
  return chk;
}

Bytes HrpExpand(std::string_view hrp) {
  Bytes out;
  for (char c : hrp) out.push_back(static_cast<uint8_t>(c) >> 5);
  out.push_back(0);
  for (char c : hrp) out.push_back(static_cast<uint8_t>(c) & 31);
  return out;
}

// Regroups bits: 8 to 5 (pad) or 5 to 8 (no pad: leftover bits must be zero and fewer than 5).
std::optional<Bytes> ConvertBits(ByteView data, int from, int to, bool pad) {
  uint32_t acc = 0;
  int bits = 0;
  Bytes out;
  const uint32_t maxv = (1u << to) - 1;
  for (uint8_t value : data) {
    if ((value >> from) != 0) return std::nullopt;
    acc = (acc << from) | value;
    bits += from;
    while (bits >= to) {
      bits -= to;
      out.push_back(static_cast<uint8_t>((acc >> bits) & maxv));
    }
  }
  if (pad) {
    if (bits > 0) out.push_back(static_cast<uint8_t>((acc << (to - bits)) & maxv));
  } else if (bits >= from || ((acc << (to - bits)) & maxv) != 0) {
    return std::nullopt;
  }
  return out;
}

bool ValidHrp(std::string_view hrp) {
  return !hrp.empty() && hrp.size() <= 83 &&
         std::all_of(hrp.begin(), hrp.end(), [](char c) { return c >= 33 && c <= 126; });
}

}  // namespace

std::string Base58Encode(ByteView data) {
  size_t zeros = 0;
  while (zeros < data.size() && data[zeros] == 0) ++zeros;
  std::vector<uint8_t> digits;  // base 58, least significant first
  for (size_t i = zeros; i < data.size(); ++i) {
    uint32_t carry = data[i];
    for (uint8_t &d : digits) {
      carry += static_cast<uint32_t>(d) << 8;
      d = static_cast<uint8_t>(carry % 58);
      carry /= 58;
    }
    while (carry > 0) {
      digits.push_back(static_cast<uint8_t>(carry % 58));
      carry /= 58;
    }
  }
  std::string out(zeros, '1');
  for (size_t i = digits.size(); i-- > 0;) out += kBase58[digits[i]];
  return out;
}

std::optional<Bytes> Base58Decode(std::string_view text) {
  size_t ones = 0;
  while (ones < text.size() && text[ones] == '1') ++ones;
  std::vector<uint8_t> bytes;  // base 256, least significant first
  for (size_t i = ones; i < text.size(); ++i) {
    const char *p = std::find(kBase58, kBase58 + 58, text[i]);
    if (p == kBase58 + 58) return std::nullopt;
    uint32_t carry = static_cast<uint32_t>(p - kBase58);
    for (uint8_t &b : bytes) {
      carry += static_cast<uint32_t>(b) * 58;
      b = static_cast<uint8_t>(carry & 0xFF);
      carry >>= 8;
    }
    while (carry > 0) {
      bytes.push_back(static_cast<uint8_t>(carry & 0xFF));
      carry >>= 8;
    }
  }
  Bytes out(ones, 0);
  out.insert(out.end(), bytes.rbegin(), bytes.rend());
  return out;
}

std::string Base58CheckEncode(ByteView data) {
  Bytes full(data.begin(), data.end());
  const Bytes check = Sha256d(data);
  full.insert(full.end(), check.begin(), check.begin() + 4);
  return Base58Encode(full);
}

std::optional<Bytes> Base58CheckDecode(std::string_view text) {
  std::optional<Bytes> full = Base58Decode(text);
  if (!full || full->size() < 4) return std::nullopt;
  const Bytes body(full->begin(), full->end() - 4);
  const Bytes check = Sha256d(body);
  if (!std::equal(check.begin(), check.begin() + 4, full->end() - 4)) return std::nullopt;
  return body;
}

std::string Bech32Encode(std::string_view hrp, ByteView groups, Bech32Variant variant) {
  if (!ValidHrp(hrp) || hrp.size() + 1 + groups.size() + 6 > 90) return {};
  std::string lower(hrp);
  for (char &c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  Bytes values = HrpExpand(lower);
  values.insert(values.end(), groups.begin(), groups.end());
  values.insert(values.end(), 6, 0);
  const uint32_t mod =
      Polymod(values) ^ (variant == Bech32Variant::kBech32 ? kBech32Const : kBech32mConst);
  std::string out = lower + "1";
  for (uint8_t g : groups) {
    if (g > 31) return {};
    out += kBech32[g];
  }
  for (int i = 0; i < 6; ++i) out += kBech32[(mod >> (5 * (5 - i))) & 31];
  return out;
}

std::optional<Bech32Decoded> Bech32Decode(std::string_view text) {
  if (text.size() > 90) return std::nullopt;
  bool lower = false;
  bool upper = false;
  for (char c : text) {
    if (c < 33 || c > 126) return std::nullopt;
    lower = lower || (c >= 'a' && c <= 'z');
    upper = upper || (c >= 'A' && c <= 'Z');
  }
  if (lower && upper) return std::nullopt;
  const size_t sep = text.rfind('1');
  if (sep == std::string_view::npos || sep == 0 || sep + 7 > text.size()) return std::nullopt;
  std::string folded(text);
  for (char &c : folded) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  Bech32Decoded out;
  out.hrp = folded.substr(0, sep);
  Bytes values = HrpExpand(out.hrp);
  for (size_t i = sep + 1; i < folded.size(); ++i) {
    const char *p = std::find(kBech32, kBech32 + 32, folded[i]);
    if (p == kBech32 + 32) return std::nullopt;
    values.push_back(static_cast<uint8_t>(p - kBech32));
  }
  const uint32_t mod = Polymod(values);
  if (mod == kBech32Const) {
    out.variant = Bech32Variant::kBech32;
  } else if (mod == kBech32mConst) {
    out.variant = Bech32Variant::kBech32m;
  } else {
    return std::nullopt;
  }
  out.groups.assign(values.end() - static_cast<std::ptrdiff_t>(folded.size() - sep - 1),
                    values.end() - 6);
  return out;
}

std::string SegwitAddress(std::string_view hrp, unsigned version, ByteView program) {
  if (version > 16 || program.size() < 2 || program.size() > 40 ||
      (version == 0 && program.size() != 20 && program.size() != 32)) {
    return {};
  }
  std::optional<Bytes> groups = ConvertBits(program, 8, 5, true);
  if (!groups) return {};
  groups->insert(groups->begin(), static_cast<uint8_t>(version));
  return Bech32Encode(hrp, *groups,
                      version == 0 ? Bech32Variant::kBech32 : Bech32Variant::kBech32m);
}

std::optional<SegwitProgram> ParseSegwitAddress(std::string_view hrp, std::string_view address) {
  std::optional<Bech32Decoded> d = Bech32Decode(address);
  if (!d || d->hrp != hrp || d->groups.empty()) return std::nullopt;
  const unsigned version = d->groups[0];
  if (version > 16 || (version == 0) != (d->variant == Bech32Variant::kBech32)) {
    return std::nullopt;
  }
  std::optional<Bytes> program = ConvertBits(ByteView(d->groups).subspan(1), 5, 8, false);
  if (!program || program->size() < 2 || program->size() > 40 ||
      (version == 0 && program->size() != 20 && program->size() != 32)) {
    return std::nullopt;
  }
  return SegwitProgram{version, std::move(*program)};
}

Bytes Sha256(ByteView data) {
  return Digest("SHA256", data);
}

Bytes Sha256d(ByteView data) {
  return Sha256(Sha256(data));
}

Bytes Hash160(ByteView data) {
  return Digest("RIPEMD160", Sha256(data));
}

Bytes MessageHash(ByteView message) {
  static constexpr char kMagic[] =
      "\x18"
      "Bitcoin Signed Message:\n";
  Bytes data(kMagic, kMagic + sizeof kMagic - 1);
  const uint64_t n = message.size();
  if (n < 0xFD) {
    data.push_back(static_cast<uint8_t>(n));
  } else if (n <= 0xFFFF) {
    data.insert(data.end(), {0xFD, static_cast<uint8_t>(n), static_cast<uint8_t>(n >> 8)});
  } else if (n <= 0xFFFFFFFF) {
    data.push_back(0xFE);
    for (int i = 0; i < 4; ++i) data.push_back(static_cast<uint8_t>(n >> (8 * i)));
  } else {
    data.push_back(0xFF);
    for (int i = 0; i < 8; ++i) data.push_back(static_cast<uint8_t>(n >> (8 * i)));
  }
  data.insert(data.end(), message.begin(), message.end());
  return Sha256d(data);
}

Bytes TaggedHash(std::string_view tag, ByteView data) {
  const Bytes tag_hash =
      Sha256(ByteView(reinterpret_cast<const uint8_t *>(tag.data()), tag.size()));
  Bytes input = tag_hash;
  input.insert(input.end(), tag_hash.begin(), tag_hash.end());
  input.insert(input.end(), data.begin(), data.end());
  return Sha256(input);
}

}  // namespace qlhsm::crypto::bchain
