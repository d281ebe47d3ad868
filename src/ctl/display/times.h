// Times as people write and read them.

#ifndef CTL_DISPLAY_TIMES_H
#define CTL_DISPLAY_TIMES_H

#include <ctime>
#include <optional>
#include <string>

namespace kest::ctl {

// The local time; nothing outside the range of the calendar. Conversions are cached by quarters of
// an hour, because predictions make hundreds of thousands of them.
std::optional<std::tm> LocalTime(std::time_t time);

// Empties that cache, after a change of the time zone.
void ForgetLocalTimes();

// The same; all zero outside the range of the calendar.
std::tm Local(std::time_t time);

// A local time relative to `now`: "today 03:17", "tomorrow 00:05", "Tue 9 Jun 03:17", in other
// years "9 Jun 2027 03:17". The zone is appended if its offset from UTC differs from that at `now`.
std::string WhenInWords(std::time_t time, std::time_t now);

// The short form: "03:17" for today, "Tue 03:17" for the six days before and after today, "9 Jun
// 03:17", in other years "9 Jun 2027".
std::string WhenInShort(std::time_t time, std::time_t now);

// The same with seconds, and always with the time of day: "03:17:09", "9 Jun 2027 03:17:09".
std::string MomentInShort(std::time_t time, std::time_t now);

// The day in short form: "" for today, "Tue", "9 Jun", "9 Jun 2027".
std::string DayInShort(std::time_t time, std::time_t now);

// The day: "today", "Tue 9 Jun".
std::string DayInWords(std::time_t time, std::time_t now);

// The local time of day, "03:17", with the zone as in WhenInWords.
std::string ClockInWords(std::time_t time, std::time_t now);

// A span of time in its largest unit, rounded down: "40 s", "12 min", "3 h", "5 d".
std::string SpanInWords(std::time_t seconds);

// "2026-11-15T03:00:00+01:00"
std::string Iso(std::time_t time);

// Parses a time, relative to `now`: "2026-11-15", optionally followed by "T" or a blank and "03:00"
// or "03:00:10", and by "Z" or "+01:00"; "03:00" for today; "now", "today", "yesterday",
// "tomorrow"; "@" and seconds since the epoch; "2h", "30min", "3d" for a time before `now`; "+2h"
// for a time after it. Returns nothing for other texts.
std::optional<std::time_t> ReadTime(const std::string &text, std::time_t now);

} // namespace kest::ctl

#endif
