// Well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF), for the texts
// the HSM keeps: user names, passwords, object metadata.
#pragma once

#include <cstdint>
#include <string_view>

namespace qlhsm {

// `allow_nul`: whether U+0000 is a character of the text (SQLite's JSON parser would take it for
// the end of the text, so metadata refuses it).
inline bool IsUtf8(std::string_view text, bool allow_nul = true) {
  const auto *p = reinterpret_cast<const unsigned char *>(text.data());
  const size_t n = text.size();
  for (size_t i = 0; i < n;) {
    const unsigned char c = p[i];
    if (c == 0 && !allow_nul) return false;
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t len = 0;
    uint32_t cp = 0, min = 0;
    if ((c & 0xE0) == 0xC0) {
      len = 2, cp = c & 0x1F, min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
      len = 3, cp = c & 0x0F, min = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
      len = 4, cp = c & 0x07, min = 0x10000;
    } else {
      return false;
    }
    if (n - i < len) return false;
    for (size_t k = 1; k < len; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i + k] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += len;
  }
  return true;
}

}  // namespace qlhsm
