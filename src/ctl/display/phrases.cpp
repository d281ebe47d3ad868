#include "ctl/display/phrases.h"

#include "base/json_members.h"
#include "ctl/display/times.h"
#include "job/schedule.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <set>

namespace kest::ctl {

namespace {

constexpr std::array<const char *, 7> kDays{"Sunday",   "Monday", "Tuesday", "Wednesday",
                                            "Thursday", "Friday", "Saturday"};
constexpr std::array<const char *, 12> kMonths{"January",   "February", "March",    "April",
                                               "May",       "June",     "July",     "August",
                                               "September", "October",  "November", "December"};

// The values of one field, sorted and unique.
struct Values {
    std::string key;
    std::vector<std::int32_t> values;
    std::set<std::int32_t> drawn; // those that only random items have
    bool any = false;             // matches all values

    // What stands before a value.
    const char *Mark(std::int32_t value) const { return drawn.count(value) != 0 ? "~" : ""; }
};

Values ValuesOf(const Json::Value &schedule, const std::string &key, const CronFields &items) {
    Values field{key, FieldValues(Member(schedule, key)), {}, false};
    const auto found = items.find(key);
    if (found != items.end() && found->second.size() == field.values.size()) {
        const std::vector<CronRange> &ranges = found->second;
        for (std::size_t i = 0; i < ranges.size(); ++i)
            if (ranges[i].type == CronRange::Random)
                field.drawn.insert(field.values[i]);
        for (std::size_t i = 0; i < ranges.size(); ++i)
            if (ranges[i].type != CronRange::Random)
                field.drawn.erase(field.values[i]);
    }
    std::sort(field.values.begin(), field.values.end());
    field.values.erase(std::unique(field.values.begin(), field.values.end()), field.values.end());
    field.any =
        std::find(field.values.begin(), field.values.end(), kAnyValue) != field.values.end();
    return field;
}

std::string Ordinal(std::int32_t number) {
    const std::int32_t last = number % 10;
    const bool teen = number / 10 == 1;
    const char *ending = teen || last == 0 || last > 3 ? "th"
                         : last == 1                   ? "st"
                         : last == 2                   ? "nd"
                                                       : "rd";
    return std::to_string(number) + ending;
}

using InWords = std::string (*)(const std::string &, std::int32_t);

// The values as a list; three or more consecutive values become "8 to 10".
std::string List(const Values &field, InWords inWords) {
    const std::vector<std::int32_t> &values = field.values;
    std::vector<std::string> texts;
    for (std::size_t first = 0, last = 0; first < values.size(); first = last + 1) {
        last = first;
        while (last + 1 < values.size() && values[last + 1] == values[last] + 1 &&
               field.drawn.count(values[last]) + field.drawn.count(values[last + 1]) == 0)
            ++last;
        if (last == first + 1)
            last = first;
        const std::string text = field.Mark(values[first]) + inWords(field.key, values[first]);
        texts.push_back(last == first ? text : text + " to " + inWords(field.key, values[last]));
    }
    return Enumerated(texts);
}

std::string Numbers(const Values &field) {
    return List(field,
                [](const std::string &, std::int32_t value) { return std::to_string(value); });
}

std::string TwoDigits(std::int32_t number) {
    return (number < 10 ? "0" : "") + std::to_string(number);
}

// "03:17 and 03:47", or minutes and hours separately if there are more than four times.
std::string Clocks(const Values &minutes, const Values &hours) {
    constexpr std::size_t few = 4;
    if (minutes.values.size() * hours.values.size() > few)
        return std::string(minutes.values.size() == 1 ? "minute " : "minutes ") + Numbers(minutes) +
               " of hours " + Numbers(hours);
    std::vector<std::string> clocks;
    for (const std::int32_t hour : hours.values)
        for (const std::int32_t minute : minutes.values)
            clocks.push_back(hours.Mark(hour) + TwoDigits(hour) + ":" + minutes.Mark(minute) +
                             TwoDigits(minute));
    return Enumerated(clocks);
}

std::string DaysInWords(const Values &day, const Values &month, const Values &week) {
    const std::string months = month.any ? "" : " of " + List(month, ValueInWords);
    const std::string weekdays = List(week, [](const std::string &key, std::int32_t value) {
        return ValueInWords(key, value) + "s";
    });
    const std::string ordinals =
        List(day, [](const std::string &, std::int32_t value) { return Ordinal(value); });
    if (day.any && week.any)
        return month.any ? "daily" : "daily in " + List(month, ValueInWords);
    if (day.any)
        return "on " + weekdays + (month.any ? "" : " in " + List(month, ValueInWords));
    const std::string dates = "the " + ordinals + months;
    if (!week.any)
        return "on " + weekdays + " that are " + dates;
    return (month.any ? "monthly on " : "yearly on ") + dates;
}

// The step if the minutes are evenly spaced from 0, with at least three in an hour; 0 otherwise.
std::int32_t EvenStep(const Values &minutes) {
    constexpr std::int32_t hour = 60;
    const std::vector<std::int32_t> &values = minutes.values;
    const auto count = static_cast<std::int32_t>(values.size());
    if (count < 3 || hour % count != 0)
        return 0;
    for (std::int32_t i = 0; i < count; ++i)
        if (values[static_cast<std::size_t>(i)] != i * (hour / count))
            return 0;
    return hour / count;
}

std::string TimesInWords(const Values &minute, const Values &hour, const std::string &days) {
    const bool daily = days == "daily";
    if (!hour.any)
        return minute.any ? (daily ? "" : days + ", ") + "every minute of " +
                                (hour.values.size() == 1 ? "hour " : "hours ") + Numbers(hour)
                          : days + " at " + Clocks(minute, hour);
    const std::int32_t step = EvenStep(minute);
    const std::string often =
        minute.any  ? "every minute"
        : step != 0 ? "every " + std::to_string(step) + " minutes"
                    : std::string("hourly at ") +
                          (minute.values.size() == 1 ? "minute " : "minutes ") + Numbers(minute);
    return daily ? often : often + ", " + days;
}

} // namespace

std::string ScheduleInWords(const Json::Value &schedule, const CronFields &items) {
    std::array<Values, 5> fields;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        fields.at(i) = ValuesOf(schedule, FieldKeys().at(i), items);
        if (fields.at(i).values.empty())
            return "never";
    }
    const auto &[minute, hour, day, month, week] = fields;
    return TimesInWords(minute, hour, DaysInWords(day, month, week));
}

std::int32_t ShortestMonth(std::int32_t month) {
    constexpr std::array<std::int32_t, 12> days{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return days.at(static_cast<std::size_t>(month - 1));
}

std::string FieldsInWords(const std::vector<std::string> &keys) {
    std::vector<std::string> names;
    names.reserve(keys.size());
    for (const std::string &key : keys)
        names.emplace_back(key == "Minute" ? "minute" : key == "week" ? "weekday" : key);
    return Enumerated(names);
}

std::string ValueInWords(const std::string &key, std::int32_t value) {
    const auto index = static_cast<std::size_t>(value);
    if (key == "week" && index < kDays.size())
        return kDays.at(index);
    if (key == "month" && index - 1 < kMonths.size())
        return kMonths.at(index - 1);
    return std::to_string(value);
}

std::string Enumerated(const std::vector<std::string> &texts) {
    std::string list;
    for (std::size_t i = 0; i < texts.size(); ++i)
        list += (i == 0 ? "" : i + 1 == texts.size() ? " and " : ", ") + texts[i];
    return list;
}

namespace {

// Whether both bounds are on one day. The following midnight counts as the end of the day, because
// a draw ends with that minute.
bool IsOnOneDay(const ComingStart &start, std::time_t now) {
    return DayInWords(start.earliest, now) == DayInWords(start.latest - 1, now);
}

std::string LastClock(const ComingStart &start, std::time_t now) {
    const std::string clock = ClockInWords(start.latest, now);
    return clock == "00:00" ? "24:00" : clock;
}

} // namespace

std::string StartInShort(const ComingStart &start, std::time_t now) {
    if (start.earliest == start.latest)
        return WhenInShort(start.earliest, now);
    if (IsOnOneDay(start, now))
        return WhenInShort(start.earliest, now) + "-" + LastClock(start, now);
    const std::string first = DayInShort(start.earliest, now);
    return (first.empty() ? "today" : first) + " - " + DayInShort(start.latest - 1, now);
}

namespace {

bool Contains(const std::vector<std::string> &keys, const std::string &key) {
    return std::find(keys.begin(), keys.end(), key) != keys.end();
}

// The values that the field may have in the month of a start: those that can be drawn, or those
// that are always there.
std::set<std::int32_t> PossibleValues(const CronFields &items, const std::string &key,
                                      bool undrawn) {
    std::set<std::int32_t> values;
    const auto found = items.find(key);
    if (found == items.end())
        return values;
    for (const CronRange &item : found->second)
        if (undrawn && item.type == CronRange::Random)
            for (std::int32_t value = item.from; value <= item.to; ++value)
                values.insert(value);
        else if (!undrawn && item.type == CronRange::Exact)
            values.insert(item.from);
    return values;
}

// Whether a draw may lead to a day that its month does not have, so that the job does not start.
bool MayLackItsDay(const ComingStart &start, const CronFields &items) {
    const bool drawsDay = Contains(start.undrawn, "day");
    const bool drawsMonth = Contains(start.undrawn, "month");
    if (!drawsDay && !drawsMonth)
        return false;
    const std::set<std::int32_t> days = PossibleValues(items, "day", drawsDay);
    std::set<std::int32_t> months = PossibleValues(items, "month", drawsMonth);
    if (!drawsMonth)
        months = {Local(start.earliest).tm_mon + 1};
    // Of several fixed days one is enough.
    const std::int32_t day = days.empty() ? 0 : drawsDay ? *days.rbegin() : *days.begin();
    return std::any_of(months.begin(), months.end(),
                       [day](std::int32_t month) { return day > ShortestMonth(month); });
}

} // namespace

std::string UndrawnInWords(const ComingStart &start, const CronFields &items) {
    return FieldsInWords(start.undrawn) + " not yet drawn" +
           (MayLackItsDay(start, items) ? ", no start if the month has no such day" : "");
}

std::string StartInWords(const ComingStart &start, std::time_t now) {
    if (start.earliest == start.latest)
        return WhenInWords(start.earliest, now);
    if (IsOnOneDay(start, now))
        return DayInWords(start.earliest, now) + " between " + ClockInWords(start.earliest, now) +
               " and " + LastClock(start, now);
    return "between " + WhenInWords(start.earliest, now) + " and " + WhenInWords(start.latest, now);
}

} // namespace kest::ctl
