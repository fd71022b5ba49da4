#include "base64.h"

#include <array>
#include <cstdint>

namespace qlapi {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> MakeReverse() {
  std::array<int8_t, 256> r{};
  for (auto &v : r) v = -1;
  for (int i = 0; i < 64; ++i) r[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
  return r;
}
constexpr std::array<int8_t, 256> kReverse = MakeReverse();

bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

}  // namespace

std::string Base64Encode(std::string_view data) {
  std::string out;
  out.reserve((data.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= data.size(); i += 3) {
    const uint32_t v = (uint32_t{static_cast<unsigned char>(data[i])} << 16) |
                       (uint32_t{static_cast<unsigned char>(data[i + 1])} << 8) |
                       static_cast<unsigned char>(data[i + 2]);
    out.push_back(kAlphabet[(v >> 18) & 63]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    out.push_back(kAlphabet[(v >> 6) & 63]);
    out.push_back(kAlphabet[v & 63]);
  }
  const std::size_t rest = data.size() - i;
  if (rest > 0) {
    uint32_t v = uint32_t{static_cast<unsigned char>(data[i])} << 16;
    if (rest == 2) v |= uint32_t{static_cast<unsigned char>(data[i + 1])} << 8;
    out.push_back(kAlphabet[(v >> 18) & 63]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    out.push_back(rest == 2 ? kAlphabet[(v >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

bool Base64Decode(std::string_view text, std::string *out) {
  out->clear();
  out->reserve(text.size() / 4 * 3 + 3);
  uint32_t acc = 0;
  int bits = 0;
  int chars = 0;    // data characters in the current quantum
  int padding = 0;  // '=' seen; only white space and more '=' may follow
  for (char c : text) {
    if (IsSpace(c)) continue;
    if (c == '=') {
      if (chars < 2) return false;
      ++padding;
      if (chars + padding > 4) return false;
      continue;
    }
    if (padding > 0) return false;
    const int v = kReverse[static_cast<unsigned char>(c)];
    if (v < 0) return false;
    acc = (acc << 6) | static_cast<uint32_t>(v);
    bits += 6;
    chars = (chars + 1) % 4;
    if (bits >= 8) {
      bits -= 8;
      out->push_back(static_cast<char>((acc >> bits) & 0xFF));
    }
  }
  if (chars == 1) return false;                           // 6 bits cannot make a byte
  if (padding > 0 && chars + padding != 4) return false;  // "QQ=" is short of its padding
  return true;
}

}  // namespace qlapi
