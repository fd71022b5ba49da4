#include "ql_hsm_log.h"

#include <zlib.h>

#include <algorithm>

namespace ql_hsm_log {
namespace {

bool Digits(std::string_view s, size_t at, size_t n, int *value) {
  if (at + n > s.size()) return false;
  int v = 0;
  for (size_t i = at; i < at + n; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    v = v * 10 + (s[i] - '0');
  }
  *value = v;
  return true;
}

// Days since 1970-01-01 of a civil date (proleptic Gregorian), without the C library's time zone.
int64_t DaysFromCivil(int y, int m, int d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

std::optional<time_t> Stamp(std::string_view s, bool with_time, bool end_of_day) {
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, se = 0;
  if (!Digits(s, 0, 4, &y) || s.size() < 10 || s[4] != '-' || !Digits(s, 5, 2, &mo) ||
      s[7] != '-' || !Digits(s, 8, 2, &d) || mo < 1 || mo > 12 || d < 1 || d > 31) {
    return std::nullopt;
  }
  if (with_time) {
    if (s.size() < 19 || s[10] != ' ' || !Digits(s, 11, 2, &h) || s[13] != ':' ||
        !Digits(s, 14, 2, &mi) || s[16] != ':' || !Digits(s, 17, 2, &se) || h > 23 || mi > 59 ||
        se > 60) {
      return std::nullopt;
    }
  } else if (end_of_day) {
    h = 23, mi = 59, se = 59;
  }
  return static_cast<time_t>(DaysFromCivil(y, mo, d) * 86400 + h * 3600 + mi * 60 + se);
}

}  // namespace

PageResult DecodePage(const unsigned char *page, size_t len, std::string *text) {
  text->clear();
  if (len == 0 || page[0] != 'Z') {
    text->assign(reinterpret_cast<const char *>(page), len);
    return PageResult::kOk;
  }
  z_stream zs{};
  if (inflateInit(&zs) != Z_OK) return PageResult::kCorrupt;
  zs.next_in = const_cast<unsigned char *>(page + 1);
  zs.avail_in = static_cast<uInt>(len - 1);
  unsigned char chunk[16384];
  int rc = Z_OK;
  while (rc == Z_OK) {
    zs.next_out = chunk;
    zs.avail_out = sizeof chunk;
    rc = inflate(&zs, Z_NO_FLUSH);
    if (rc != Z_OK && rc != Z_STREAM_END) break;
    text->append(reinterpret_cast<char *>(chunk), sizeof chunk - zs.avail_out);
    if (text->size() > kMaxPageText) {
      rc = Z_DATA_ERROR;
      break;
    }
    if (rc == Z_OK && zs.avail_in == 0 && zs.avail_out != 0) {
      rc = Z_BUF_ERROR;  // the input ended before the stream did: cut short
      break;
    }
  }
  inflateEnd(&zs);
  if (rc != Z_STREAM_END) {
    text->clear();
    return PageResult::kCorrupt;
  }
  return PageResult::kOk;
}

std::vector<std::string_view> SplitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    lines.push_back(line);
    start = end + 1;
  }
  return lines;
}

std::optional<time_t> LineTime(std::string_view line) {
  return Stamp(line, true, false);
}

std::optional<time_t> ParseDay(std::string_view text, bool end_of_day) {
  if (text.size() == 10) return Stamp(text, false, end_of_day);
  if (text.size() == 19) return Stamp(text, true, end_of_day);
  return std::nullopt;
}

bool DateRange::Contains(std::string_view line) const {
  const std::optional<time_t> t = LineTime(line);
  return t.has_value() && *t >= from && *t <= to;
}

DateRange LastDays(unsigned days, time_t now) {
  const time_t midnight = now - now % 86400;
  const time_t back = static_cast<time_t>(days == 0 ? 0 : days - 1) * 86400;
  return {midnight - back, now};
}

PageResult ReadLines(const std::function<bool(std::vector<unsigned char> *page)> &next_page,
                     bool newest_first, const std::function<bool(std::string_view line)> &on_line) {
  std::vector<unsigned char> page;
  std::string text;
  while (next_page(&page)) {
    if (DecodePage(page.data(), page.size(), &text) != PageResult::kOk) return PageResult::kCorrupt;
    std::vector<std::string_view> lines = SplitLines(text);
    if (newest_first) std::reverse(lines.begin(), lines.end());
    for (std::string_view line : lines) {
      if (!on_line(line)) return PageResult::kOk;
    }
  }
  return PageResult::kOk;
}

}  // namespace ql_hsm_log
