#include "ctl/display/coming_starts.h"

#include "base/json_members.h"
#include "job/schedule.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <cstdint>
#include <optional>
#include <tuple>
#include <utility>

namespace kest::ctl {

namespace {

enum FieldIndex : std::size_t {
    kMinuteField,
    kHourField,
    kDayField,
    kMonthField,
    kWeekField,
    kFields
};

// Fields whose value comes out of a draw that is yet to be made.
using FieldSet = std::bitset<kFields>;

std::optional<std::tm> LocalTime(std::time_t moment) {
    std::tm local{};
    if (localtime_r(&moment, &local) == nullptr)
        return std::nullopt;
    return local;
}

// Midnight `months` and `days` after the day of `local`, or what takes its place where the clock is
// set forward at midnight.
std::time_t Midnight(std::tm local, int months, int days) {
    local.tm_mon += months;
    local.tm_mday = months == 0 ? local.tm_mday + days : 1;
    local.tm_hour = local.tm_min = local.tm_sec = 0;
    local.tm_isdst = -1;
    return std::mktime(&local);
}

bool IsRedrawn(const std::string &key, std::time_t moment) {
    const std::optional<std::tm> local = LocalTime(moment);
    const std::vector<std::string> keys =
        local ? FieldsToRedraw(*local) : std::vector<std::string>();
    return std::find(keys.begin(), keys.end(), key) != keys.end();
}

// The `number`th day, from that of `local` or before it on, at the beginning of which the field may
// be drawn.
std::tm RedrawDay(const std::string &key, std::tm local, int number) {
    if (key == FieldKeys().at(kHourField))
        local.tm_mday += number;
    else if (key == FieldKeys().at(kWeekField))
        local.tm_mday += (8 - local.tm_wday) % 7 + 7 * number;
    else
        local.tm_mday = 1;
    if (key == FieldKeys().at(kDayField))
        local.tm_mon += number;
    if (key == FieldKeys().at(kMonthField)) {
        local.tm_mon = 0;
        local.tm_year += number;
    }
    return local;
}

} // namespace

// The minute may be drawn in any hour, the others at some midnight, which comes twice where the
// clock is set back over it.
std::time_t NextRedraw(const std::string &key, std::time_t after) {
    constexpr int mostDays = 12; // more than any zone leaves midnights out
    const std::tm start = LocalTime(after).value_or(std::tm{});
    if (key == FieldKeys().at(kMinuteField)) {
        std::time_t hour = after - start.tm_min * kMinute - start.tm_sec;
        do
            hour += kHour / 2; // as finely as zones are shifted
        while (hour <= after || !IsRedrawn(key, hour));
        return hour;
    }
    for (int number = 0; number <= mostDays; ++number)
        for (const std::time_t shift : {-kHour, std::time_t{0}, kHour}) {
            const std::time_t midnight = Midnight(RedrawDay(key, start, number), 0, 0) + shift;
            if (midnight > after && IsRedrawn(key, midnight))
                return midnight;
        }
    return after + kCalendarRepeats; // a zone that jumps over the midnight in question
}

namespace {

struct Field {
    std::vector<std::int32_t> drawn;   // its values until its next redraw, that minute included,
    std::vector<std::int32_t> lasting; // those of them that no draw changes,
    std::vector<CronRange> random;     // and where the others will lie
    std::time_t redraw = 0;
};
using Fields = std::array<Field, kFields>;

Fields FieldsOfJob(const CronFields &items, const Json::Value &schedule, std::time_t from) {
    Fields fields;
    for (std::size_t i = 0; i < kFields; ++i) {
        const std::string &key = FieldKeys().at(i);
        Field &field = fields.at(i);
        field.drawn = FieldValues(Member(schedule, key));
        field.redraw = NextRedraw(key, from);
        const auto found = items.find(key);
        if (found == items.end())
            continue;
        for (const CronRange &item : found->second)
            if (item.type == CronRange::Random)
                field.random.push_back(item);
            else
                field.lasting.push_back(item.type == CronRange::Any ? kAnyValue : item.from);
    }
    return fields;
}

bool Holds(const std::vector<std::int32_t> &values, std::int32_t value) {
    return std::any_of(values.begin(), values.end(),
                       [value](std::int32_t held) { return held == value || held == kAnyValue; });
}

bool Holds(const std::vector<CronRange> &ranges, std::int32_t value) {
    return std::any_of(ranges.begin(), ranges.end(), [value](const CronRange &range) {
        return range.from <= value && value <= range.to;
    });
}

// Looks for minutes in which a job may start that takes the values of the fields `undrawn` from
// draws to come, and all others as they are known.
class Search {
public:
    Search(const Fields &fields, FieldSet undrawn) : fields_(fields), undrawn_(undrawn) {}

    std::optional<std::time_t> First(std::time_t moment, std::time_t end) const {
        if (!EverAdmitsAnyDate())
            return std::nullopt;
        while (moment <= end) {
            const std::optional<std::tm> local = LocalTime(moment);
            if (!local)
                break;
            const auto parts = FieldsOf(*local);
            const std::time_t next = moment + kMinute;
            if (!EverAdmits(kMonthField, parts))
                moment = std::max(next, Midnight(*local, 1, 0));
            else if (!EverAdmitsDate(parts))
                moment = std::max(next, Midnight(*local, 0, 1));
            else if (!EverAdmits(kHourField, parts))
                moment += kHour - local->tm_min * kMinute;
            else if (Admits(parts, moment))
                return moment;
            else
                moment = next;
        }
        return std::nullopt;
    }

    // `begin` admits a start itself.
    std::time_t Last(std::time_t begin, std::time_t moment) const {
        while (moment > begin) {
            const std::tm local = LocalTime(moment).value_or(std::tm{});
            const auto parts = FieldsOf(local);
            if (!EverAdmitsDate(parts))
                moment = std::min(moment, Midnight(local, 0, 0)) - kMinute;
            else if (!EverAdmits(kHourField, parts))
                moment -= (local.tm_min + 1) * kMinute;
            else if (Admits(parts, moment))
                return moment;
            else
                moment -= kMinute;
        }
        return begin;
    }

private:
    using Parts = std::array<std::int32_t, kFields>;

    bool Admits(const Parts &parts, std::time_t moment) const {
        for (std::size_t i = 0; i < kFields; ++i) {
            const Field &field = fields_.at(i);
            const bool redrawn = moment > field.redraw;
            if (undrawn_[i] ? !redrawn || !Holds(field.random, parts.at(i))
                            : !Holds(redrawn ? field.lasting : field.drawn, parts.at(i)))
                return false;
        }
        return true;
    }

    // What no moment admits can be passed over at once.
    bool EverAdmits(FieldIndex index, const Parts &parts) const {
        const Field &field = fields_.at(index);
        const std::int32_t value = parts.at(index);
        return undrawn_[index] ? Holds(field.random, value)
                               : Holds(field.drawn, value) || Holds(field.lasting, value);
    }
    bool EverAdmitsDate(const Parts &parts) const {
        return EverAdmits(kDayField, parts) && EverAdmits(kMonthField, parts) &&
               EverAdmits(kWeekField, parts);
    }

    // Whether there is a day of some month at all, such as none is the 31st of February.
    bool EverAdmitsAnyDate() const {
        constexpr std::array<std::int32_t, 12> lengths{31, 29, 31, 30, 31, 30,
                                                       31, 31, 30, 31, 30, 31};
        Parts parts{};
        for (std::int32_t month = 1; month <= 12; ++month)
            for (std::int32_t day = 1; day <= lengths.at(static_cast<std::size_t>(month) - 1);
                 ++day) {
                parts[kMonthField] = month;
                parts[kDayField] = day;
                if (EverAdmits(kMonthField, parts) && EverAdmits(kDayField, parts))
                    return true;
            }
        return false;
    }

    const Fields &fields_;
    FieldSet undrawn_;
};

// Of the undrawn fields the one that is drawn least often: its draw decides when a start comes.
FieldIndex RarestOf(FieldSet undrawn) {
    for (const FieldIndex field : {kMonthField, kDayField, kWeekField, kHourField})
        if (undrawn[field])
            return field;
    return kMinuteField;
}

// The end of the draw that a start in the minute `first` belongs to. A draw holds up to the minute
// of the next one, which looks at the old value first; a start that has only that minute left is
// taken together with the draw that follows.
std::time_t EndOfDraw(const Search &search, FieldIndex rarest, std::time_t first) {
    const std::time_t end = NextRedraw(FieldKeys().at(rarest), first - kMinute);
    const bool goesOn = end == first && search.First(end + kMinute, end + kMinute);
    return goesOn ? NextRedraw(FieldKeys().at(rarest), end) : end;
}

// Adds up to `count` starts that take their values as `undrawn` says.
void AddStarts(const Fields &fields, FieldSet undrawn, std::time_t from, std::time_t until,
               std::size_t count, std::vector<ComingStart> &starts) {
    const Search search(fields, undrawn);
    ComingStart start;
    for (std::size_t i = 0; i < kFields; ++i) {
        if (undrawn[i]) {
            start.undrawn.push_back(FieldKeys().at(i));
            from = std::max(from, fields.at(i).redraw + kMinute);
        } else if (fields.at(i).lasting.empty())
            until = std::min(until, fields.at(i).redraw); // there is no other value after it
    }
    for (std::size_t i = 0; i < count; ++i) {
        const std::optional<std::time_t> first = search.First(from, until);
        if (!first)
            return;
        const std::time_t end =
            undrawn.none() ? *first : EndOfDraw(search, RarestOf(undrawn), *first);
        start.earliest = *first;
        start.latest = search.Last(*first, end);
        starts.push_back(start);
        from = end + kMinute;
    }
}

// Where fields are drawn at the same moment, that one minute still belongs to the draw before of
// the one and to the draw after of the other: hardly anything starts in it, so it is told together
// with what follows. `starts` are in order.
void JoinLastMinutes(std::vector<ComingStart> &starts) {
    for (std::size_t i = 0; i + 1 < starts.size();) {
        const ComingStart &last = starts[i];
        const auto next =
            std::find_if(starts.begin() + static_cast<std::ptrdiff_t>(i) + 1, starts.end(),
                         [&](const ComingStart &start) { return start.earliest > last.latest; });
        const bool joins = !last.undrawn.empty() && last.earliest == last.latest &&
                           next != starts.end() && next->earliest == last.latest + kMinute &&
                           next->undrawn.size() > last.undrawn.size();
        if (!joins) {
            ++i;
            continue;
        }
        next->earliest = last.earliest;
        starts.erase(starts.begin() + static_cast<std::ptrdiff_t>(i));
    }
}

} // namespace

std::vector<ComingStart> ComingStarts(const CronFields &items, const Json::Value &schedule,
                                      const Outlook &outlook, std::size_t count) {
    std::vector<ComingStart> starts;
    const std::optional<std::tm> local = LocalTime(outlook.now);
    const std::optional<std::tm> first = LocalTime(outlook.from);
    if (!local || !first)
        return starts;
    const std::time_t from = outlook.from - first->tm_sec;
    const Fields fields = FieldsOfJob(items, schedule, outlook.now - local->tm_sec);
    const std::size_t spare = std::max(count, 2 * count); // each may be joined with one before
    for (unsigned long set = 0; set < 1UL << kFields; ++set) {
        const FieldSet undrawn(set);
        bool possible = true;
        for (std::size_t i = 0; i < kFields; ++i)
            possible = possible && (!undrawn[i] || !fields.at(i).random.empty());
        if (possible)
            AddStarts(fields, undrawn, from, outlook.until, spare, starts);
    }
    std::stable_sort(starts.begin(), starts.end(), [](const ComingStart &a, const ComingStart &b) {
        return std::tie(a.earliest, a.latest) < std::tie(b.earliest, b.latest);
    });
    JoinLastMinutes(starts);
    starts.resize(std::min(starts.size(), count));
    return starts;
}

} // namespace kest::ctl
