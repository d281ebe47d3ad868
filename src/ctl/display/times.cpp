#include "ctl/display/times.h"

#include "log/timestamp.h"

#include <array>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <cstdlib>

namespace kest::ctl {

namespace {

constexpr std::time_t kQuarter = 900; // seconds

// The local time at the beginning of a quarter of an hour.
struct QuarterTime {
    std::time_t begin = -1;
    std::tm local{};
    bool isPlain = false; // the quarter lies in one hour of one offset from UTC
};

// The known ones; more than a month has.
std::array<QuarterTime, 4096> &QuarterTimes() {
    static std::array<QuarterTime, 4096> known;
    return known;
}

QuarterTime QuarterTimeOf(std::time_t begin) {
    QuarterTime quarter;
    std::tm last{};
    const std::time_t end = begin + kQuarter - 1;
    if (localtime_r(&begin, &quarter.local) == nullptr || localtime_r(&end, &last) == nullptr)
        return quarter;
    quarter.begin = begin;
    quarter.isPlain = quarter.local.tm_gmtoff == last.tm_gmtoff &&
                      quarter.local.tm_isdst == last.tm_isdst &&
                      quarter.local.tm_hour == last.tm_hour;
    return quarter;
}

} // namespace

std::optional<std::tm> LocalTime(std::time_t time) {
    constexpr std::time_t farthest = std::time_t{1} << 56; // its year does not fit into an int
    if (time < -farthest || time > farthest)
        return std::nullopt;
    const std::time_t into = (time % kQuarter + kQuarter) % kQuarter;
    const std::time_t begin = time - into;
    QuarterTime &quarter =
        QuarterTimes().at(static_cast<std::size_t>(begin / kQuarter) % QuarterTimes().size());
    if (quarter.begin != begin)
        quarter = QuarterTimeOf(begin);
    std::tm local = quarter.local;
    if (quarter.begin == begin && quarter.isPlain) {
        const int seconds = local.tm_min * 60 + local.tm_sec + static_cast<int>(into);
        local.tm_min = seconds / 60;
        local.tm_sec = seconds % 60;
        return local;
    }
    if (localtime_r(&time, &local) == nullptr)
        return std::nullopt;
    return local;
}

void ForgetLocalTimes() {
    QuarterTimes().fill({});
}

std::tm Local(std::time_t time) {
    return LocalTime(time).value_or(std::tm{});
}

namespace {

std::string Formatted(const char *format, const std::tm &local) {
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), format, &local);
    return text.data();
}

std::time_t Midnight(std::tm local, int days) {
    local.tm_mday += days;
    local.tm_hour = local.tm_min = local.tm_sec = 0;
    local.tm_isdst = -1;
    return std::mktime(&local);
}

bool IsSameDay(const std::tm &a, const std::tm &b) {
    return a.tm_year == b.tm_year && a.tm_yday == b.tm_yday;
}

// A number and a unit, in seconds.
std::optional<std::time_t> ReadSpan(const std::string &text) {
    struct Unit {
        const char *name;
        std::time_t seconds;
    };
    constexpr std::array<Unit, 6> units{
        {{"s", 1}, {"min", 60}, {"m", 60}, {"h", 3600}, {"d", 86400}, {"w", 604800}}};
    constexpr std::time_t most = 100'000'000; // even as weeks without overflow
    std::time_t number = 0;
    const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
    if (read.ec != std::errc() || number < 0 || number > most)
        return std::nullopt;
    const std::string name(read.ptr, text.data() + text.size());
    for (const Unit &unit : units)
        if (name == unit.name)
            return number * unit.seconds;
    return std::nullopt;
}

// Applies what follows the time of day: nothing, "Z", or an offset from UTC.
std::optional<std::time_t> WithZone(std::tm local, const char *rest) {
    if (rest == nullptr)
        return std::nullopt;
    if (*rest == '\0') {
        const int day = local.tm_mday;
        local.tm_isdst = -1;
        const std::time_t time = std::mktime(&local);
        return local.tm_mday == day ? std::optional<std::time_t>(time) : std::nullopt;
    }
    std::tm zone{};
    const char *end = strptime(rest, "%z", &zone);
    if (end == nullptr || *end != '\0')
        return std::nullopt;
    return timegm(&local) - zone.tm_gmtoff;
}

std::optional<std::time_t> ReadCalendar(const std::string &text, std::time_t now) {
    const std::tm today = Local(now);
    for (const char *format : {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M",
                               "%Y-%m-%d %H:%M", "%Y-%m-%d", "%H:%M:%S", "%H:%M"}) {
        std::tm local = today;
        local.tm_hour = local.tm_min = local.tm_sec = 0;
        const char *rest = strptime(text.c_str(), format, &local);
        if (const auto time = WithZone(local, rest))
            return time;
    }
    return std::nullopt;
}

std::string ZoneUnlessOf(const std::tm &local, std::time_t now) {
    return local.tm_gmtoff == Local(now).tm_gmtoff ? "" : Formatted(" %Z", local);
}

} // namespace

std::string DayInWords(std::time_t time, std::time_t now) {
    const std::tm local = Local(time);
    const std::tm today = Local(now);
    if (IsSameDay(local, today))
        return "today";
    if (IsSameDay(local, Local(Midnight(today, 1))))
        return "tomorrow";
    if (IsSameDay(local, Local(Midnight(today, -1))))
        return "yesterday";
    const std::string day = std::to_string(local.tm_mday);
    if (local.tm_year == today.tm_year)
        return Formatted("%a ", local) + day + Formatted(" %b", local);
    return day + Formatted(" %b %Y", local);
}

std::string ClockInWords(std::time_t time, std::time_t now) {
    const std::tm local = Local(time);
    return Formatted("%H:%M", local) + ZoneUnlessOf(local, now);
}

std::string WhenInWords(std::time_t time, std::time_t now) {
    return DayInWords(time, now) + " " + ClockInWords(time, now);
}

std::string DayInShort(std::time_t time, std::time_t now) {
    const std::tm local = Local(time);
    const std::tm today = Local(now);
    if (IsSameDay(local, today))
        return "";
    if (Midnight(today, -6) <= time && time < Midnight(today, 7))
        return Formatted("%a", local);
    const std::string day = std::to_string(local.tm_mday);
    return day + Formatted(local.tm_year == today.tm_year ? " %b" : " %b %Y", local);
}

std::string WhenInShort(std::time_t time, std::time_t now) {
    const std::tm local = Local(time);
    std::string day = DayInShort(time, now);
    if (local.tm_year != Local(now).tm_year && day.size() > 3)
        return day;
    return day + (day.empty() ? "" : " ") + ClockInWords(time, now);
}

std::string MomentInShort(std::time_t time, std::time_t now) {
    const std::tm local = Local(time);
    const std::string day = DayInShort(time, now);
    return day + (day.empty() ? "" : " ") + Formatted("%H:%M:%S", local) + ZoneUnlessOf(local, now);
}

std::string SpanInWords(std::time_t seconds) {
    struct Unit {
        const char *name;
        std::time_t seconds;
    };
    constexpr std::array<Unit, 3> units{{{" d", 86400}, {" h", 3600}, {" min", 60}}};
    for (const Unit &unit : units)
        if (seconds >= unit.seconds)
            return std::to_string(seconds / unit.seconds) + unit.name;
    return std::to_string(seconds) + " s";
}

std::string Iso(std::time_t time) {
    std::string text = FormatTimestamp(Local(time));
    text.pop_back();
    return text;
}

std::optional<std::time_t> ReadTime(const std::string &text, std::time_t now) {
    const std::tm today = Local(now);
    if (text == "now")
        return now;
    if (text == "today")
        return Midnight(today, 0);
    if (text == "tomorrow")
        return Midnight(today, 1);
    if (text == "yesterday")
        return Midnight(today, -1);
    if (!text.empty() && text.front() == '@') {
        std::int64_t seconds = 0;
        const char *end = text.data() + text.size();
        const auto read = std::from_chars(text.data() + 1, end, seconds);
        return read.ec == std::errc() && read.ptr == end ? std::optional<std::time_t>(seconds)
                                                         : std::nullopt;
    }
    if (!text.empty() && text.front() == '+') {
        const auto span = ReadSpan(text.substr(1));
        return span ? std::optional<std::time_t>(now + *span) : std::nullopt;
    }
    if (const auto span = ReadSpan(text))
        return now - *span;
    return ReadCalendar(text, now);
}

} // namespace kest::ctl
