// Times as people write and read them.

#ifndef CTL_DISPLAY_TIMES_H
#define CTL_DISPLAY_TIMES_H

#include <ctime>
#include <optional>
#include <string>

namespace kest::ctl {

std::tm Local(std::time_t time);

// A local time as somebody at `now` would say it: "today 03:17", "tomorrow 00:05", "Tue 9 Jun
// 03:17", in other years "9 Jun 2027 03:17". Where the clock has another offset from UTC than at
// `now`, its zone follows.
std::string WhenInWords(std::time_t time, std::time_t now);

// The same in short: "03:17" of today, "Tue 03:17" of the six days before and after it, "9 Jun
// 03:17", in other years "9 Jun 2027".
std::string WhenInShort(std::time_t time, std::time_t now);

// Only the day of it: "" of today, "Tue", "9 Jun", "9 Jun 2027".
std::string DayInShort(std::time_t time, std::time_t now);

// Only the day of it: "today", "Tue 9 Jun".
std::string DayInWords(std::time_t time, std::time_t now);

// "03:17", of a local time, its zone as in WhenInWords.
std::string ClockInWords(std::time_t time, std::time_t now);

// How long something takes: "3 d 4 h", "5 h 12 min", "7 min", "30 s".
std::string SpanInWords(std::time_t seconds);

// "2026-11-15T03:00:00+01:00"
std::string Iso(std::time_t time);

// Reads a time as people write it on a command line, seen from `now`: "2026-11-15", a "T" or a
// blank and "03:00" or "03:00:10" behind it, with "Z" or "+01:00"; "03:00" alone is of today;
// "today", "yesterday", "tomorrow"; "@" and seconds since the epoch; "2h", "30min", "3d" before
// `now`,
// "+2h" after it. Nothing for anything else.
std::optional<std::time_t> ReadTime(const std::string &text, std::time_t now);

} // namespace kest::ctl

#endif
