#include "ctl/display/coming_starts.h"

#include "base/json_members.h"
#include "ctl/display/times.h"
#include "job/schedule.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <cstdint>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

namespace kest::ctl {

namespace {

// Fields whose value comes from a future draw.
using FieldSet = std::bitset<kFields>;

// Midnight of the first of the month `months` later, or if that is 0, of the day `days` later. If
// the clock is set forward over midnight, the first time after it.
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

// The `number`th day at whose beginning the field may be redrawn, counted from the day of `local`
// or from one before it.
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

// The minute is redrawn each hour, other fields at a midnight, of which there are two if the clock
// is set back over it.
std::time_t NextRedraw(const std::string &key, std::time_t after) {
    constexpr int mostDays = 12; // more than the consecutive days without a midnight in any zone
    const std::tm start = LocalTime(after).value_or(std::tm{});
    if (key == FieldKeys().at(kMinuteField)) {
        std::time_t hour = after - start.tm_min * kMinute - start.tm_sec;
        do
            hour += kHour / 2; // zones change by half an hour at least
        while (hour <= after || !IsRedrawn(key, hour));
        return hour;
    }
    for (int number = 0; number <= mostDays; ++number)
        for (const std::time_t shift : {-kHour, std::time_t{0}, kHour}) {
            const std::time_t midnight = Midnight(RedrawDay(key, start, number), 0, 0) + shift;
            if (midnight > after && IsRedrawn(key, midnight))
                return midnight;
        }
    return after + kCalendarRepeats; // the zone skips this midnight
}

namespace {

struct Field {
    std::vector<std::int32_t> drawn;   // values up to and including the minute of the next redraw
    std::vector<std::int32_t> lasting; // those of them that redraws do not change
    std::vector<CronRange> random;     // ranges of the others
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

// Starts that one draw decides together.
struct Group {
    FieldSet undrawn;
    std::array<std::vector<CronRange>, kFields> random;    // of the undrawn fields
    std::array<std::optional<std::int32_t>, kFields> only; // of the others: no other value
    std::size_t most = 1;                                  // starts in each draw
};

// Searches for minutes in which a job may start, with values from future draws for the undrawn
// fields of the group and known values for all others.
class Search {
public:
    Search(const Fields &fields, const Group &group) : fields_(fields), group_(group) {}

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

    // The last possible start up to `moment`. `begin` must be a possible start.
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
            const std::int32_t value = parts.at(i);
            if (group_.undrawn[i] ? !redrawn || !Holds(group_.random.at(i), value)
                                  : group_.only.at(i).value_or(value) != value ||
                                        !Holds(redrawn ? field.lasting : field.drawn, value))
                return false;
        }
        return true;
    }

    // Whether the field can match at some time, before or after its redraw. Months, days and hours
    // that cannot are skipped.
    bool EverAdmits(FieldIndex index, const Parts &parts) const {
        const Field &field = fields_.at(index);
        const std::int32_t value = parts.at(index);
        return group_.undrawn[index]
                   ? Holds(group_.random.at(index), value)
                   : group_.only.at(index).value_or(value) == value &&
                         (Holds(field.drawn, value) || Holds(field.lasting, value));
    }
    bool EverAdmitsDate(const Parts &parts) const {
        return EverAdmits(kDayField, parts) && EverAdmits(kMonthField, parts) &&
               EverAdmits(kWeekField, parts);
    }

    // Whether any date of the year matches, unlike 31 February.
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
    const Group &group_;
};

// The undrawn field that is redrawn least often. Its redraws separate the starts.
FieldIndex RarestOf(FieldSet undrawn) {
    for (const FieldIndex field : {kMonthField, kDayField, kWeekField, kHourField})
        if (undrawn[field])
            return field;
    return kMinuteField;
}

// The end of the draw that a start in the minute `first` belongs to. A draw is valid up to and
// including the minute of the next redraw, because that cycle evaluates the old values first. A
// start for which only this minute is left is merged into the following draw.
std::time_t EndOfDraw(const Search &search, FieldIndex rarest, std::time_t first) {
    const std::time_t end = NextRedraw(FieldKeys().at(rarest), first - kMinute);
    const bool continues = end == first && search.First(end + kMinute, end + kMinute);
    return continues ? NextRedraw(FieldKeys().at(rarest), end) : end;
}

// The largest number of groups that one set of undrawn fields is divided into. Beyond it, starts
// share a span.
constexpr std::size_t kMostGroups = 16;

// Divides the groups by the random items of the field.
void DivideByItem(const std::vector<CronRange> &items, FieldIndex index,
                  std::vector<Group> &groups) {
    std::vector<Group> divided;
    const bool fits = groups.size() * items.size() <= kMostGroups;
    for (Group &group : groups) {
        group.random.at(index) = items;
        group.most *= items.size();
        for (std::size_t i = 0; fits && i < items.size(); ++i) {
            divided.push_back(group);
            divided.back().random.at(index) = {items[i]};
            divided.back().most /= items.size();
        }
    }
    if (fits)
        groups = std::move(divided);
}

bool IsAny(const Field &field) {
    return Holds(field.drawn, kAnyValue) || Holds(field.lasting, kAnyValue);
}

// Divides the groups by the values of a field that is not drawn. The starts of "*" share a span.
void DivideByValue(const Field &field, FieldIndex index, std::vector<Group> &groups) {
    constexpr std::array<std::size_t, kFields> sizes{60, 24, 31, 12, 7};
    std::set<std::int32_t> values(field.drawn.begin(), field.drawn.end());
    values.insert(field.lasting.begin(), field.lasting.end());
    const bool any = IsAny(field);
    const bool fits = !any && groups.size() * values.size() <= kMostGroups;
    std::vector<Group> divided;
    for (Group &group : groups) {
        group.most *= any ? sizes.at(index) : values.size();
        for (const std::int32_t value : fits ? values : std::set<std::int32_t>()) {
            divided.push_back(group);
            divided.back().only.at(index) = value;
            divided.back().most /= values.size();
        }
    }
    if (fits)
        groups = std::move(divided);
}

// The groups with future draws for exactly the fields in `undrawn`, which have random items. Of a
// day, fields below the rarest draw have several values; of a month, a weekday has five.
std::vector<Group> GroupsOf(const Fields &fields, FieldSet undrawn) {
    std::vector<Group> groups(1);
    groups.front().undrawn = undrawn;
    for (const FieldIndex index : {kMinuteField, kHourField, kDayField, kMonthField, kWeekField})
        if (undrawn[index])
            DivideByItem(fields.at(index).random, index, groups);
    if (undrawn.none())
        return groups;
    const FieldIndex rarest = RarestOf(undrawn);
    const auto divide = [&](FieldIndex index) {
        if (!undrawn[index])
            DivideByValue(fields.at(index), index, groups);
    };
    if (rarest != kMinuteField)
        divide(kMinuteField);
    if (rarest != kMinuteField && rarest != kHourField)
        divide(kHourField);
    if (rarest != kMonthField)
        return groups;
    if (!IsAny(fields.at(kDayField)) || IsAny(fields.at(kWeekField))) {
        divide(kDayField);
        return groups;
    }
    divide(kWeekField);
    for (Group &group : groups)
        group.most *= 5;
    return groups;
}

// The largest number of starts of the group in the span. A draw is valid up to and including the
// minute of the next one, which may add a start for each field; the clock may repeat an hour.
std::size_t MostIn(const Group &group, const ComingStart &span) {
    const FieldIndex rarest = RarestOf(group.undrawn);
    const std::tm first = LocalTime(span.earliest).value_or(std::tm{});
    const std::tm last = LocalTime(span.latest).value_or(std::tm{});
    std::size_t most = group.most * group.undrawn.count();
    if (first.tm_gmtoff > last.tm_gmtoff)
        most *= 2;
    if (NextRedraw(FieldKeys().at(rarest), span.earliest - kMinute) == span.earliest)
        most += 1; // the last minute of the draw before
    return std::min(most, static_cast<std::size_t>((span.latest - span.earliest) / kMinute) + 1);
}

// Adds up to `count` starts of the group.
void AddStarts(const Fields &fields, const Group &group, std::time_t from, std::time_t until,
               std::size_t count, std::vector<ComingStart> &starts) {
    const Search search(fields, group);
    ComingStart start;
    for (std::size_t i = 0; i < kFields; ++i) {
        if (group.undrawn[i]) {
            start.undrawn.push_back(FieldKeys().at(i));
            from = std::max(from, fields.at(i).redraw + kMinute);
        } else if (fields.at(i).lasting.empty())
            until = std::min(until, fields.at(i).redraw); // no values after it
    }
    for (std::size_t i = 0; i < count; ++i) {
        const std::optional<std::time_t> first = search.First(from, until);
        if (!first)
            return;
        const std::time_t end =
            group.undrawn.none() ? *first : EndOfDraw(search, RarestOf(group.undrawn), *first);
        start.earliest = *first;
        start.latest = search.Last(*first, end);
        start.usual = group.most;
        start.most = group.undrawn.none() ? 1 : MostIn(group, start);
        starts.push_back(start);
        from = end + kMinute;
    }
}

// If several fields are redrawn at the same time, that minute still has the old value of one field
// and the new value of another. A start in this minute alone is unlikely, so it is merged into the
// next one. `starts` must be in chronological order.
void MergeLastMinutes(std::vector<ComingStart> &starts) {
    for (std::size_t i = 0; i + 1 < starts.size();) {
        const ComingStart &last = starts[i];
        const auto next =
            std::find_if(starts.begin() + static_cast<std::ptrdiff_t>(i) + 1, starts.end(),
                         [&](const ComingStart &start) { return start.earliest > last.latest; });
        const bool merges = !last.undrawn.empty() && last.earliest == last.latest &&
                            next != starts.end() && next->earliest == last.latest + kMinute &&
                            next->undrawn.size() > last.undrawn.size();
        if (!merges) {
            ++i;
            continue;
        }
        next->earliest = last.earliest;
        next->most += last.most;
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
    const std::size_t spare = std::max(count, 2 * count); // each may be merged with one before
    for (unsigned long set = 0; set < 1UL << kFields; ++set) {
        const FieldSet undrawn(set);
        bool possible = true;
        for (std::size_t i = 0; i < kFields; ++i)
            possible = possible && (!undrawn[i] || !fields.at(i).random.empty());
        if (!possible)
            continue;
        for (const Group &group : GroupsOf(fields, undrawn))
            AddStarts(fields, group, from, outlook.until, spare, starts);
    }
    std::stable_sort(starts.begin(), starts.end(), [](const ComingStart &a, const ComingStart &b) {
        return std::tie(a.earliest, a.latest) < std::tie(b.earliest, b.latest);
    });
    MergeLastMinutes(starts);
    starts.resize(std::min(starts.size(), count));
    return starts;
}

} // namespace kest::ctl
