#include "crypto/payment.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <algorithm>
#include <bit>
#include <cstring>

#include "crypto/ossl.h"

namespace qlhsm::crypto::payment {
namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

bool AllDigits(std::string_view s) {
  return std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Hex text (even length, checked by the caller or here) to bytes; false on a non-hex character.
bool FromHex(std::string_view hex, SecretBytes *out) {
  if (hex.size() % 2 != 0) return false;
  out->assign(hex.size() / 2, 0);
  for (size_t i = 0; i < hex.size(); i += 2) {
    const int hi = HexValue(hex[i]);
    const int lo = HexValue(hex[i + 1]);
    if (hi < 0 || lo < 0) return false;
    (*out)[i / 2] = static_cast<uint8_t>(hi << 4 | lo);
  }
  return true;
}

std::string ToHex(ByteView bytes) {
  std::string hex;
  hex.reserve(bytes.size() * 2);
  for (uint8_t b : bytes) {
    hex += kHexDigits[b >> 4];
    hex += kHexDigits[b & 0xF];
  }
  return hex;
}

// Nibbles (values 0-15, one a byte) packed two a byte.
SecretBytes PackNibbles(const SecretBytes &nibbles) {
  SecretBytes out(nibbles.size() / 2);
  for (size_t i = 0; i < out.size(); ++i) {
    out[i] = static_cast<uint8_t>(nibbles[2 * i] << 4 | nibbles[2 * i + 1]);
  }
  return out;
}

SecretBytes Nibbles(ByteView bytes) {
  SecretBytes out;
  out.reserve(bytes.size() * 2);
  for (uint8_t b : bytes) {
    out.push_back(b >> 4);
    out.push_back(b & 0xF);
  }
  return out;
}

void XorInto(std::span<uint8_t> a, ByteView b) {
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) a[i] ^= b[i];
}

// A triple-DES key as the 24 bytes the cipher takes.
Result<SecretBytes> TdesKey(ByteView key) {
  SecretBytes k;
  switch (key.size()) {
    case 8:
      k.insert(k.end(), key.begin(), key.end());
      k.insert(k.end(), key.begin(), key.end());
      k.insert(k.end(), key.begin(), key.end());
      return k;
    case 16:
      k.assign(key.begin(), key.end());
      k.insert(k.end(), key.begin(), key.begin() + 8);
      return k;
    case 24:
      k.assign(key.begin(), key.end());
      return k;
    default:
      return Status(Code::kBadLength, "a triple-DES key is 8, 16 or 24 bytes");
  }
}

const char *AesCipherName(size_t key_len, bool cbc) {
  switch (key_len) {
    case 16:
      return cbc ? "AES-128-CBC" : "AES-128-ECB";
    case 24:
      return cbc ? "AES-192-CBC" : "AES-192-ECB";
    case 32:
      return cbc ? "AES-256-CBC" : "AES-256-ECB";
    default:
      return nullptr;
  }
}

Result<SecretBytes> RunCipher(const char *name, ByteView key, ByteView iv, ByteView data,
                              bool encrypt, size_t block) {
  if (data.size() % block != 0) return Status(Code::kBadLength, "data must fill whole blocks");
  const EVP_CIPHER *cipher = ossl::Cipher(name);
  if (cipher == nullptr) return Status(Code::kNotSupported, name);
  ossl::CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  if (!ctx ||
      EVP_CipherInit_ex2(ctx.get(), cipher, key.data(), iv.empty() ? nullptr : iv.data(),
                         encrypt ? 1 : 0, nullptr) != 1 ||
      EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1) {
    return ossl::Fail("EVP_CipherInit_ex2");
  }
  SecretBytes out(data.size() + block);
  int len = 0;
  int fin = 0;
  if (EVP_CipherUpdate(ctx.get(), out.data(), &len, data.data(), static_cast<int>(data.size())) !=
          1 ||
      EVP_CipherFinal_ex(ctx.get(), out.data() + len, &fin) != 1) {
    return ossl::Fail("EVP_CipherUpdate");
  }
  out.resize(static_cast<size_t>(len + fin));
  return out;
}

Result<Bytes> RunCmac(const char *cipher_name, ByteView key, ByteView data) {
  Result<SecretBytes> mac =
      ossl::ComputeMac("CMAC", OSSL_MAC_PARAM_CIPHER, cipher_name, key, {data});
  if (!mac.ok()) return mac.status();
  return Bytes(mac->begin(), mac->end());
}

// The 12 PAN digits left of the check digit, zero-filled on the left for short PANs.
Result<std::string> PanDigits12(std::string_view pan) {
  if (pan.size() < 12 || pan.size() > 19 || !AllDigits(pan)) {
    return Status(Code::kBadArgument, "a PAN is 12 to 19 digits");
  }
  std::string digits(pan.substr(0, pan.size() - 1));
  if (digits.size() > 12) digits = digits.substr(digits.size() - 12);
  return std::string(12 - digits.size(), '0') + digits;
}

Status CheckPin(std::string_view pin) {
  if (pin.size() < 4 || pin.size() > 12 || !AllDigits(pin)) {
    return Status(Code::kBadArgument, "a PIN is 4 to 12 digits");
  }
  return {};
}

// Draws `n` fill bytes from `fill`, or from the generator when it is empty.
Result<SecretBytes> FillBytes(ByteView fill, size_t n) {
  SecretBytes out(n);
  if (fill.empty()) {
    const Status st = ossl::RandomBytes(out);
    if (!st.ok()) return st;
    return out;
  }
  if (fill.size() < n) return Status(Code::kBadLength, "not enough fill bytes");
  std::copy(fill.begin(), fill.begin() + static_cast<std::ptrdiff_t>(n), out.begin());
  return out;
}

// Formats 0, 1, 3: the clear block (PIN field XOR PAN field where the format binds the PAN).
Result<SecretBytes> BuildClearBlock8(PinBlockFormat format, std::string_view pin,
                                     std::string_view pan, ByteView fill) {
  const Status pin_ok = CheckPin(pin);
  if (!pin_ok.ok()) return pin_ok;
  SecretBytes nibbles(16, 0);
  nibbles[0] = static_cast<uint8_t>(format);
  nibbles[1] = static_cast<uint8_t>(pin.size());
  for (size_t i = 0; i < pin.size(); ++i) nibbles[2 + i] = static_cast<uint8_t>(pin[i] - '0');
  const size_t fill_count = 14 - pin.size();
  if (format == PinBlockFormat::k0) {
    std::fill(nibbles.begin() + 2 + static_cast<std::ptrdiff_t>(pin.size()), nibbles.end(), 0xF);
  } else {
    Result<SecretBytes> random = FillBytes(fill, fill_count);
    if (!random.ok()) return random.status();
    for (size_t i = 0; i < fill_count; ++i) {
      const uint8_t r = (*random)[i];
      nibbles[2 + pin.size() + i] =
          format == PinBlockFormat::k3 ? static_cast<uint8_t>(10 + r % 6) : (r & 0xF);
    }
  }
  SecretBytes block = PackNibbles(nibbles);
  if (format != PinBlockFormat::k1) {
    Result<std::string> digits = PanDigits12(pan);
    if (!digits.ok()) return digits.status();
    SecretBytes pan_field;
    FromHex("0000" + *digits, &pan_field);
    XorInto(block, pan_field);
  }
  return block;
}

// Format 4's PAN field: M (PAN length - 12), the PAN, zeros to 32 nibbles.
Result<SecretBytes> Format4PanField(std::string_view pan) {
  if (pan.size() < 12 || pan.size() > 19 || !AllDigits(pan)) {
    return Status(Code::kBadArgument, "a PAN is 12 to 19 digits");
  }
  std::string text(1, kHexDigits[pan.size() - 12]);
  text += pan;
  text.resize(32, '0');
  SecretBytes field;
  FromHex(text, &field);
  return field;
}

// Reads control, length and PIN from the nibbles; checks the fill with `fill_ok`.
template <typename FillOk>
Result<std::string> ReadPinField(const SecretBytes &nibbles, uint8_t control, size_t field_len,
                                 FillOk fill_ok) {
  if (nibbles[0] != control) return Status(Code::kBadData, "wrong control field");
  const size_t n = nibbles[1];
  if (n < 4 || n > 12) return Status(Code::kBadData, "wrong PIN length");
  std::string pin;
  for (size_t i = 0; i < n; ++i) {
    const uint8_t d = nibbles[2 + i];
    if (d > 9) return Status(Code::kBadData, "a PIN digit that is not a digit");
    pin += static_cast<char>('0' + d);
  }
  for (size_t i = 2 + n; i < field_len; ++i) {
    if (!fill_ok(nibbles[i])) return Status(Code::kBadData, "wrong fill");
  }
  return pin;
}

// One step of the triple-DES scheme's non-reversible key generation.
Result<SecretBytes> NonReversibleKey(const SecretBytes &key, ByteView reg) {
  static constexpr uint8_t kMask[16] = {0xC0, 0xC0, 0xC0, 0xC0, 0, 0, 0, 0,
                                        0xC0, 0xC0, 0xC0, 0xC0, 0, 0, 0, 0};
  auto half = [&reg](const SecretBytes &k) -> Result<SecretBytes> {
    SecretBytes r(reg.begin(), reg.end());
    XorInto(r, ByteView(k).subspan(8, 8));
    Result<SecretBytes> e = TdesEcb(ByteView(k).subspan(0, 8), r, true);
    if (!e.ok()) return e;
    XorInto(*e, ByteView(k).subspan(8, 8));
    return e;
  };
  Result<SecretBytes> right = half(key);
  if (!right.ok()) return right;
  SecretBytes masked = key;
  XorInto(masked, kMask);
  Result<SecretBytes> left = half(masked);
  if (!left.ok()) return left;
  SecretBytes out = std::move(*left);
  out.insert(out.end(), right->begin(), right->end());
  return out;
}

// The AES scheme's derivation: AES-ECB of the derivation data under `key`, one block a 128 bits
// of the derived key.
Result<SecretBytes> AesDerive(ByteView key, uint16_t usage, size_t out_len, ByteView tail8) {
  const uint16_t algorithm = out_len == 16 ? 2 : out_len == 24 ? 3 : 4;
  const uint16_t bits = static_cast<uint16_t>(out_len * 8);
  SecretBytes out;
  for (uint8_t counter = 1; out.size() < out_len; ++counter) {
    uint8_t data[16] = {0x01,
                        counter,
                        static_cast<uint8_t>(usage >> 8),
                        static_cast<uint8_t>(usage),
                        static_cast<uint8_t>(algorithm >> 8),
                        static_cast<uint8_t>(algorithm),
                        static_cast<uint8_t>(bits >> 8),
                        static_cast<uint8_t>(bits)};
    std::copy(tail8.begin(), tail8.end(), data + 8);
    Result<SecretBytes> block = AesEcb(key, data, true);
    if (!block.ok()) return block;
    out.insert(out.end(), block->begin(), block->end());
  }
  out.resize(out_len);
  return out;
}

// Key block key derivation (NIST SP 800-108 counter mode with CMAC): the encryption key (usage
// 0) or the MAC key (usage 1) of the KBPK.
Result<SecretBytes> KeyBlockDerive(char version, ByteView kbpk, uint16_t usage) {
  const bool aes = version == 'D';
  uint16_t algorithm = 0;
  if (aes) {
    algorithm = kbpk.size() == 16 ? 2 : kbpk.size() == 24 ? 3 : 4;
  } else {
    algorithm = kbpk.size() == 16 ? 0 : 1;
  }
  const uint16_t bits = static_cast<uint16_t>(kbpk.size() * 8);
  SecretBytes out;
  for (uint8_t counter = 1; out.size() < kbpk.size(); ++counter) {
    const uint8_t data[8] = {counter,
                             static_cast<uint8_t>(usage >> 8),
                             static_cast<uint8_t>(usage),
                             0,
                             static_cast<uint8_t>(algorithm >> 8),
                             static_cast<uint8_t>(algorithm),
                             static_cast<uint8_t>(bits >> 8),
                             static_cast<uint8_t>(bits)};
    Result<Bytes> block = aes ? AesCmac(kbpk, data) : TdesCmac(kbpk, data);
    if (!block.ok()) return block.status();
    out.insert(out.end(), block->begin(), block->end());
  }
  out.resize(kbpk.size());
  return out;
}

Status CheckKbpk(char version, ByteView kbpk) {
  if (version == 'B' && kbpk.size() != 16 && kbpk.size() != 24) {
    return Status(Code::kBadLength, "a version B key block needs a triple-DES KBPK");
  }
  if (version == 'D' && kbpk.size() != 16 && kbpk.size() != 24 && kbpk.size() != 32) {
    return Status(Code::kBadLength, "a version D key block needs an AES KBPK");
  }
  return {};
}

bool IsHeaderText(std::string_view s) {
  return std::all_of(s.begin(), s.end(), [](char c) { return c >= 0x20 && c <= 0x7E; });
}

}  // namespace

Result<SecretBytes> TdesEcb(ByteView key, ByteView data, bool encrypt) {
  Result<SecretBytes> k = TdesKey(key);
  if (!k.ok()) return k;
  return RunCipher("DES-EDE3-ECB", *k, {}, data, encrypt, 8);
}

Result<SecretBytes> AesEcb(ByteView key, ByteView data, bool encrypt) {
  const char *name = AesCipherName(key.size(), false);
  if (name == nullptr) return Status(Code::kBadLength, "an AES key is 16, 24 or 32 bytes");
  return RunCipher(name, key, {}, data, encrypt, 16);
}

Result<SecretBytes> TdesCbc(ByteView key, ByteView iv, ByteView data, bool encrypt) {
  Result<SecretBytes> k = TdesKey(key);
  if (!k.ok()) return k;
  if (iv.size() != 8) return Status(Code::kBadLength, "the IV is one block");
  return RunCipher("DES-EDE3-CBC", *k, iv, data, encrypt, 8);
}

Result<SecretBytes> AesCbc(ByteView key, ByteView iv, ByteView data, bool encrypt) {
  const char *name = AesCipherName(key.size(), true);
  if (name == nullptr) return Status(Code::kBadLength, "an AES key is 16, 24 or 32 bytes");
  if (iv.size() != 16) return Status(Code::kBadLength, "the IV is one block");
  return RunCipher(name, key, iv, data, encrypt, 16);
}

Result<Bytes> TdesCmac(ByteView key, ByteView data) {
  Result<SecretBytes> k = TdesKey(key);
  if (!k.ok()) return k.status();
  return RunCmac("DES-EDE3-CBC", *k, data);
}

Result<Bytes> AesCmac(ByteView key, ByteView data) {
  const char *name = AesCipherName(key.size(), true);
  if (name == nullptr) return Status(Code::kBadLength, "an AES key is 16, 24 or 32 bytes");
  return RunCmac(name, key, data);
}

bool EqualInConstantTime(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

Result<std::string> CardVerificationValue(ByteView key_a, ByteView key_b, std::string_view pan,
                                          std::string_view expiry, std::string_view service_code) {
  if (key_a.size() != 8 || key_b.size() != 8) {
    return Status(Code::kBadLength, "CVV keys A and B are 8 bytes each");
  }
  if (pan.size() < 12 || pan.size() > 19 || !AllDigits(pan) || expiry.size() != 4 ||
      !AllDigits(expiry) || service_code.size() != 3 || !AllDigits(service_code)) {
    return Status(Code::kBadArgument, "PAN 12-19 digits, expiry 4, service code 3");
  }
  std::string data = std::string(pan) + std::string(expiry) + std::string(service_code);
  data.resize(32, '0');
  SecretBytes blocks;
  FromHex(data, &blocks);
  Result<SecretBytes> r = TdesEcb(key_a, ByteView(blocks).subspan(0, 8), true);
  if (!r.ok()) return r.status();
  XorInto(*r, ByteView(blocks).subspan(8, 8));
  SecretBytes ab(key_a.begin(), key_a.end());
  ab.insert(ab.end(), key_b.begin(), key_b.end());
  r = TdesEcb(ab, *r, true);
  if (!r.ok()) return r.status();
  const SecretBytes nibbles = Nibbles(*r);
  std::string cvv;
  for (uint8_t n : nibbles) {
    if (n <= 9 && cvv.size() < 3) cvv += static_cast<char>('0' + n);
  }
  for (uint8_t n : nibbles) {
    if (n > 9 && cvv.size() < 3) cvv += static_cast<char>('0' + n - 10);
  }
  return cvv;
}

bool IsPinBlockFormat(unsigned value) {
  return value == 0 || value == 1 || value == 3 || value == 4;
}

Result<Bytes> ClearPinBlock(PinBlockFormat format, std::string_view pin, std::string_view pan,
                            ByteView fill) {
  if (format == PinBlockFormat::k4) {
    return Status(Code::kBadArgument, "format 4 has no single clear block");
  }
  Result<SecretBytes> block = BuildClearBlock8(format, pin, pan, fill);
  if (!block.ok()) return block.status();
  return Bytes(block->begin(), block->end());
}

Result<Bytes> EncipherPinBlock(PinBlockFormat format, ByteView key, std::string_view pin,
                               std::string_view pan, ByteView fill) {
  if (format != PinBlockFormat::k4) {
    Result<SecretBytes> clear = BuildClearBlock8(format, pin, pan, fill);
    if (!clear.ok()) return clear.status();
    Result<SecretBytes> enc = TdesEcb(key, *clear, true);
    if (!enc.ok()) return enc.status();
    return Bytes(enc->begin(), enc->end());
  }
  const Status pin_ok = CheckPin(pin);
  if (!pin_ok.ok()) return pin_ok;
  Result<SecretBytes> pan_field = Format4PanField(pan);
  if (!pan_field.ok()) return pan_field.status();
  SecretBytes nibbles(16, 0xA);
  nibbles[0] = 4;
  nibbles[1] = static_cast<uint8_t>(pin.size());
  for (size_t i = 0; i < pin.size(); ++i) nibbles[2 + i] = static_cast<uint8_t>(pin[i] - '0');
  SecretBytes pin_field = PackNibbles(nibbles);
  Result<SecretBytes> random = FillBytes(fill, 8);
  if (!random.ok()) return random.status();
  pin_field.insert(pin_field.end(), random->begin(), random->end());
  Result<SecretBytes> a = AesEcb(key, pin_field, true);
  if (!a.ok()) return a.status();
  XorInto(*a, *pan_field);
  Result<SecretBytes> c = AesEcb(key, *a, true);
  if (!c.ok()) return c.status();
  return Bytes(c->begin(), c->end());
}

Result<std::string> DecipherPinBlock(PinBlockFormat format, ByteView key, ByteView block,
                                     std::string_view pan) {
  if (!IsPinBlockFormat(static_cast<unsigned>(format))) {
    return Status(Code::kBadArgument, "PIN block formats are 0, 1, 3 and 4");
  }
  const size_t size = format == PinBlockFormat::k4 ? 16 : 8;
  if (block.size() != size) return Status(Code::kBadLength, "wrong PIN block length");
  if (format == PinBlockFormat::k4) {
    Result<SecretBytes> pan_field = Format4PanField(pan);
    if (!pan_field.ok()) return pan_field.status();
    Result<SecretBytes> b = AesEcb(key, block, false);
    if (!b.ok()) return b.status();
    XorInto(*b, *pan_field);
    Result<SecretBytes> field = AesEcb(key, *b, false);
    if (!field.ok()) return field.status();
    return ReadPinField(Nibbles(ByteView(*field).subspan(0, 8)), 4, 16,
                        [](uint8_t n) { return n == 0xA; });
  }
  Result<SecretBytes> clear = TdesEcb(key, block, false);
  if (!clear.ok()) return clear.status();
  if (format != PinBlockFormat::k1) {
    Result<std::string> digits = PanDigits12(pan);
    if (!digits.ok()) return digits.status();
    SecretBytes pan_field;
    FromHex("0000" + *digits, &pan_field);
    XorInto(*clear, pan_field);
  }
  const SecretBytes nibbles = Nibbles(*clear);
  switch (format) {
    case PinBlockFormat::k0:
      return ReadPinField(nibbles, 0, 16, [](uint8_t n) { return n == 0xF; });
    case PinBlockFormat::k3:
      return ReadPinField(nibbles, 3, 16, [](uint8_t n) { return n >= 0xA; });
    default:
      return ReadPinField(nibbles, 1, 16, [](uint8_t) { return true; });
  }
}

Result<std::string> NaturalPin(ByteView pgk, std::string_view pan, std::string_view decimalisation,
                               unsigned length) {
  if (length < 4 || length > 12) return Status(Code::kBadArgument, "a PIN is 4 to 12 digits");
  if (decimalisation.size() != 16 || !AllDigits(decimalisation)) {
    return Status(Code::kBadArgument, "a decimalisation table is 16 digits");
  }
  Result<std::string> digits = PanDigits12(pan);
  if (!digits.ok()) return digits.status();
  SecretBytes validation;
  FromHex("0000" + *digits, &validation);
  Result<SecretBytes> enc = TdesEcb(pgk, validation, true);
  if (!enc.ok()) return enc.status();
  std::string pin;
  for (uint8_t n : Nibbles(*enc)) {
    if (pin.size() == length) break;
    pin += decimalisation[n];
  }
  return pin;
}

Result<SecretBytes> DukptTdes(ByteView bdk, ByteView ksn, DukptKey which) {
  if (bdk.size() != 16) return Status(Code::kBadLength, "the BDK is a double-length DES key");
  if (ksn.size() != 10) return Status(Code::kBadLength, "the KSN is 10 bytes");
  const uint32_t counter =
      static_cast<uint32_t>(ksn[7] & 0x1F) << 16 | static_cast<uint32_t>(ksn[8]) << 8 | ksn[9];
  if (which != DukptKey::kInitial && (counter == 0 || std::popcount(counter) > 10)) {
    return Status(Code::kBadArgument, "a transaction counter the scheme does not allow");
  }
  SecretBytes base(ksn.begin(), ksn.end());
  base[7] &= 0xE0;
  base[8] = 0;
  base[9] = 0;
  static constexpr uint8_t kMask[16] = {0xC0, 0xC0, 0xC0, 0xC0, 0, 0, 0, 0,
                                        0xC0, 0xC0, 0xC0, 0xC0, 0, 0, 0, 0};
  Result<SecretBytes> left = TdesEcb(bdk, ByteView(base).subspan(0, 8), true);
  if (!left.ok()) return left;
  SecretBytes masked(bdk.begin(), bdk.end());
  XorInto(masked, kMask);
  Result<SecretBytes> right = TdesEcb(masked, ByteView(base).subspan(0, 8), true);
  if (!right.ok()) return right;
  SecretBytes key = std::move(*left);
  key.insert(key.end(), right->begin(), right->end());
  if (which == DukptKey::kInitial) return key;

  SecretBytes reg(base.begin() + 2, base.end());  // the rightmost 8 bytes of the KSN
  for (uint32_t bit = 0x100000; bit != 0; bit >>= 1) {
    if ((counter & bit) == 0) continue;
    reg[5] |= static_cast<uint8_t>(bit >> 16);
    reg[6] |= static_cast<uint8_t>(bit >> 8);
    reg[7] |= static_cast<uint8_t>(bit);
    Result<SecretBytes> next = NonReversibleKey(key, reg);
    if (!next.ok()) return next;
    key = std::move(*next);
  }
  uint8_t variant = 0;
  size_t at = 0;
  switch (which) {
    case DukptKey::kPin:
      variant = 0xFF, at = 7;
      break;
    case DukptKey::kMac:
      variant = 0xFF, at = 6;
      break;
    case DukptKey::kData:
      variant = 0xFF, at = 5;
      break;
    default:
      return key;
  }
  key[at] ^= variant;
  key[8 + at] ^= variant;
  if (which != DukptKey::kData) return key;
  // The data key is the variant key enciphered under itself, half by half.
  Result<SecretBytes> l = TdesEcb(key, ByteView(key).subspan(0, 8), true);
  Result<SecretBytes> r = TdesEcb(key, ByteView(key).subspan(8, 8), true);
  if (!l.ok()) return l;
  if (!r.ok()) return r;
  SecretBytes data_key = std::move(*l);
  data_key.insert(data_key.end(), r->begin(), r->end());
  return data_key;
}

Result<SecretBytes> DukptAes(ByteView bdk, ByteView ksn, DukptKey which) {
  if (bdk.size() != 16 && bdk.size() != 24 && bdk.size() != 32) {
    return Status(Code::kBadLength, "an AES BDK is 16, 24 or 32 bytes");
  }
  if (ksn.size() != 12) return Status(Code::kBadLength, "the KSN is 12 bytes");
  const uint32_t counter = static_cast<uint32_t>(ksn[8]) << 24 |
                           static_cast<uint32_t>(ksn[9]) << 16 |
                           static_cast<uint32_t>(ksn[10]) << 8 | ksn[11];
  if (which != DukptKey::kInitial && (counter == 0 || std::popcount(counter) > 16)) {
    return Status(Code::kBadArgument, "a transaction counter the scheme does not allow");
  }
  Result<SecretBytes> key = AesDerive(bdk, 0x8001, bdk.size(), ksn.subspan(0, 8));
  if (!key.ok() || which == DukptKey::kInitial) return key;
  uint8_t tail[8];
  std::copy(ksn.begin() + 4, ksn.begin() + 8, tail);
  uint32_t working = 0;
  for (uint32_t bit = 0x80000000u; bit != 0; bit >>= 1) {
    if ((counter & bit) == 0) continue;
    working |= bit;
    tail[4] = static_cast<uint8_t>(working >> 24);
    tail[5] = static_cast<uint8_t>(working >> 16);
    tail[6] = static_cast<uint8_t>(working >> 8);
    tail[7] = static_cast<uint8_t>(working);
    key = AesDerive(*key, 0x8000, bdk.size(), tail);
    if (!key.ok()) return key;
  }
  switch (which) {
    case DukptKey::kPin:
      return AesDerive(*key, 0x1000, bdk.size(), tail);
    case DukptKey::kMac:
      return AesDerive(*key, 0x2000, bdk.size(), tail);
    case DukptKey::kData:
      return AesDerive(*key, 0x3000, bdk.size(), tail);
    default:
      return key;
  }
}

bool IsAllowedKeyBlock(std::string_view usage, char algorithm, char mode) {
  if (usage.size() != 2) return false;
  const bool tdes = algorithm == 'T' || algorithm == 'D';
  const bool aes = algorithm == 'A';
  if (!tdes && !aes) return false;  // symmetric keys only
  auto mode_in = [mode](std::string_view modes) { return modes.find(mode) != std::string::npos; };
  const char kind = usage[0];
  const char n = usage[1];
  switch (kind) {
    case 'B':
      return n >= '0' && n <= '2' && mode_in("XN");
    case 'C':
      return n == '0' && mode_in("CGVN");
    case 'D':
      return (n == '0' || n == '2') && mode_in("BDEN");
    case 'E':
      return n >= '0' && n <= '6' && mode_in("XN");
    case 'I':
      return n == '0' && mode_in("N");
    case 'K':
      return (n == '0' || n == '1') && mode_in("BDEN");
    case 'M':
      if (n < '0' || n > '8' || !mode_in("CGVN")) return false;
      if (n == '7') return false;  // HMAC keys are not DES or AES keys
      if (n == '5' || n == '6') return true;
      return tdes;
    case 'P':
      return n == '0' && mode_in("BDEN");
    case 'V':
      return n >= '0' && n <= '4' && mode_in("CGVN");
    default:
      return false;
  }
}

Result<std::string> WrapKeyBlock(ByteView kbpk, const KeyBlockHeader &header, ByteView key,
                                 ByteView padding) {
  if (header.version != 'B' && header.version != 'D') {
    return Status(Code::kNotSupported, "key blocks are written in versions B and D");
  }
  const Status kbpk_ok = CheckKbpk(header.version, kbpk);
  if (!kbpk_ok.ok()) return kbpk_ok;
  if (header.usage.size() != 2 || header.key_version.size() != 2 ||
      header.optional_block_count > 99 || !IsHeaderText(header.usage) ||
      !IsHeaderText(header.key_version) || !IsHeaderText(header.optional_blocks)) {
    return Status(Code::kBadArgument, "malformed key block header");
  }
  if (key.empty() || key.size() > 64) return Status(Code::kBadLength, "wrong key length");
  const size_t block = header.version == 'D' ? 16 : 8;
  const size_t mac_len = header.version == 'D' ? 16 : 8;
  const size_t pad = (block - (2 + key.size()) % block) % block;
  Result<SecretBytes> pad_bytes = FillBytes(padding, pad);
  if (!pad_bytes.ok()) return pad_bytes.status();
  if (!padding.empty() && padding.size() != pad) {
    return Status(Code::kBadLength, "the padding does not fill the last block");
  }
  SecretBytes clear;
  const size_t bits = key.size() * 8;
  clear.push_back(static_cast<uint8_t>(bits >> 8));
  clear.push_back(static_cast<uint8_t>(bits));
  clear.insert(clear.end(), key.begin(), key.end());
  clear.insert(clear.end(), pad_bytes->begin(), pad_bytes->end());

  const size_t total = 16 + header.optional_blocks.size() + 2 * clear.size() + 2 * mac_len;
  if (total > 9999) return Status(Code::kBadLength, "the key block is too long");
  char head[17];
  snprintf(head, sizeof head, "%c%04zu%s%c%c%s%c%02u00", header.version, total,
           header.usage.c_str(), header.algorithm, header.mode, header.key_version.c_str(),
           header.exportability, header.optional_block_count);
  const std::string text = std::string(head, 16) + header.optional_blocks;

  Result<SecretBytes> kbek = KeyBlockDerive(header.version, kbpk, 0);
  Result<SecretBytes> kbak = KeyBlockDerive(header.version, kbpk, 1);
  if (!kbek.ok()) return kbek.status();
  if (!kbak.ok()) return kbak.status();
  Bytes mac_input(text.begin(), text.end());
  mac_input.insert(mac_input.end(), clear.begin(), clear.end());
  Result<Bytes> mac =
      header.version == 'D' ? AesCmac(*kbak, mac_input) : TdesCmac(*kbak, mac_input);
  if (!mac.ok()) return mac.status();
  mac->resize(mac_len);
  Result<SecretBytes> enc =
      header.version == 'D' ? AesCbc(*kbek, *mac, clear, true) : TdesCbc(*kbek, *mac, clear, true);
  if (!enc.ok()) return enc.status();
  return text + ToHex(*enc) + ToHex(*mac);
}

Result<UnwrappedKeyBlock> UnwrapKeyBlock(ByteView kbpk, std::string_view block) {
  if (block.size() < 16 || !IsHeaderText(block)) {
    return Status(Code::kBadData, "not a key block");
  }
  UnwrappedKeyBlock out;
  KeyBlockHeader &h = out.header;
  h.version = block[0];
  if (h.version == 'A' || h.version == 'C') {
    return Status(Code::kNotSupported, "key block versions A and C are not read");
  }
  if (h.version != 'B' && h.version != 'D') return Status(Code::kBadData, "unknown version");
  const Status kbpk_ok = CheckKbpk(h.version, kbpk);
  if (!kbpk_ok.ok()) return kbpk_ok;
  const std::string_view length_text = block.substr(1, 4);
  const std::string_view count_text = block.substr(12, 2);
  if (!AllDigits(length_text) || !AllDigits(count_text) ||
      static_cast<size_t>(std::stoul(std::string(length_text))) != block.size()) {
    return Status(Code::kBadData, "the key block's length field does not match");
  }
  h.usage = std::string(block.substr(5, 2));
  h.algorithm = block[7];
  h.mode = block[8];
  h.key_version = std::string(block.substr(9, 2));
  h.exportability = block[11];
  h.optional_block_count = static_cast<unsigned>(std::stoul(std::string(count_text)));
  size_t at = 16;
  for (unsigned i = 0; i < h.optional_block_count; ++i) {
    if (at + 4 > block.size()) return Status(Code::kBadData, "truncated optional block");
    SecretBytes len_byte;
    if (!FromHex(block.substr(at + 2, 2), &len_byte) || len_byte[0] < 4 ||
        at + len_byte[0] > block.size()) {
      return Status(Code::kBadData, "malformed optional block");
    }
    at += len_byte[0];
  }
  h.optional_blocks = std::string(block.substr(16, at - 16));

  const size_t unit = h.version == 'D' ? 16 : 8;
  const size_t mac_hex = 2 * unit;
  if (block.size() < at + mac_hex || (block.size() - at - mac_hex) % (2 * unit) != 0 ||
      block.size() - at - mac_hex == 0) {
    return Status(Code::kBadData, "the key block's data has the wrong length");
  }
  SecretBytes enc;
  SecretBytes mac;
  if (!FromHex(block.substr(at, block.size() - at - mac_hex), &enc) ||
      !FromHex(block.substr(block.size() - mac_hex), &mac)) {
    return Status(Code::kBadData, "the key block's data is not hex");
  }
  Result<SecretBytes> kbek = KeyBlockDerive(h.version, kbpk, 0);
  Result<SecretBytes> kbak = KeyBlockDerive(h.version, kbpk, 1);
  if (!kbek.ok()) return kbek.status();
  if (!kbak.ok()) return kbak.status();
  Result<SecretBytes> clear =
      h.version == 'D' ? AesCbc(*kbek, mac, enc, false) : TdesCbc(*kbek, mac, enc, false);
  if (!clear.ok()) return clear.status();
  Bytes mac_input(block.begin(), block.begin() + static_cast<std::ptrdiff_t>(at));
  mac_input.insert(mac_input.end(), clear->begin(), clear->end());
  Result<Bytes> expected =
      h.version == 'D' ? AesCmac(*kbak, mac_input) : TdesCmac(*kbak, mac_input);
  if (!expected.ok()) return expected.status();
  if (CRYPTO_memcmp(expected->data(), mac.data(), unit) != 0) {
    return Status(Code::kBadTag, "the key block's MAC does not verify");
  }
  const size_t bits = static_cast<size_t>((*clear)[0]) << 8 | (*clear)[1];
  if (bits == 0 || bits % 8 != 0 || bits / 8 > clear->size() - 2) {
    return Status(Code::kBadData, "the key block's key length is wrong");
  }
  out.key.assign(clear->begin() + 2, clear->begin() + 2 + static_cast<std::ptrdiff_t>(bits / 8));
  return out;
}

}  // namespace qlhsm::crypto::payment
