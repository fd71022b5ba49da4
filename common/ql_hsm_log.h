#pragma once
// Reading the HSM's audit log: its pages as the library hands them out, the lines in them
// forwards or backwards, and the filters of the log jobs (a date range, the last N days).
//
// A page is plain text, one line per operation ("2026-11-23 10:00:00 master create-user alice 0"),
// or the byte 'Z' followed by a zlib stream of such text. Lines carry the HSM's time in UTC.

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ql_hsm_log {

// A page's text, inflated when it is compressed. kCorrupt for a stream that is cut short or
// damaged, or that would inflate past kMaxPageText.
enum class PageResult { kOk, kCorrupt };
constexpr size_t kMaxPageText = 16 * 1024 * 1024;
PageResult DecodePage(const unsigned char *page, size_t len, std::string *text);

// The lines of a page's text, without their line ends; an empty last line is dropped.
std::vector<std::string_view> SplitLines(std::string_view text);

// The time stamp at the head of a line ("YYYY-MM-DD HH:MM:SS", UTC), or nullopt.
std::optional<time_t> LineTime(std::string_view line);

// Lines stamped from `from` to `to`, both included. Unstamped lines are outside every range.
struct DateRange {
  time_t from = 0;
  time_t to = 0;
  bool Contains(std::string_view line) const;
};
// "YYYY-MM-DD" (the whole day) or "YYYY-MM-DD HH:MM:SS"; nullopt when it does not parse.
std::optional<time_t> ParseDay(std::string_view text, bool end_of_day);
// The last `days` days up to `now`: from midnight (UTC) `days - 1` days ago.
DateRange LastDays(unsigned days, time_t now);

// Reads the lines of a log whose pages come from `next_page` (which answers false when there is
// no page left, and fills *page otherwise), in the order of the pages. With `newest_first` the
// pages come newest first and each page's lines are given newest first too. `on_line` answers
// false to stop. Answers kCorrupt at the first page that does not decode, after the lines before
// it were given.
PageResult ReadLines(const std::function<bool(std::vector<unsigned char> *page)> &next_page,
                     bool newest_first, const std::function<bool(std::string_view line)> &on_line);

}  // namespace ql_hsm_log
