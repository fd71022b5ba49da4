#include "ql_string_helper.h"

#include <utility>

namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool IsSeparator(char c) {
  return c == ' ' || c == '\t' || c == ':' || c == '-';
}

}  // namespace

bool TryConvertHexStrToByteVector(std::string_view hex, std::vector<unsigned char> *pOut) {
  pOut->clear();
  if (hex.size() >= 2 && hex[0] == '0' && (hex[1] == 'x' || hex[1] == 'X')) {
    hex.remove_prefix(2);
  }
  std::vector<unsigned char> bytes;
  bytes.reserve(hex.size() / 2);
  int high = -1;  // the pending high nibble, -1 between bytes
  for (const char c : hex) {
    const int d = HexDigit(c);
    if (d >= 0) {
      if (high < 0) {
        high = d;
      } else {
        bytes.push_back(static_cast<unsigned char>((high << 4) | d));
        high = -1;
      }
    } else if (!IsSeparator(c) || high >= 0) {
      return false;
    }
  }
  if (high >= 0) {
    return false;
  }
  *pOut = std::move(bytes);
  return true;
}

std::vector<unsigned char> ConvertHexStrToByteVector(std::string_view hex) {
  std::vector<unsigned char> out;
  TryConvertHexStrToByteVector(hex, &out);
  return out;
}

std::string ConvertByteVectorToHexStr(const unsigned char *pbData, size_t cbData) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(cbData * 2);
  for (size_t i = 0; i < cbData; ++i) {
    out.push_back(kDigits[pbData[i] >> 4]);
    out.push_back(kDigits[pbData[i] & 0xf]);
  }
  return out;
}
