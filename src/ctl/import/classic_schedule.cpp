#include "ctl/import/classic_schedule.h"

#include "ctl/check/diagnostic.h"
#include "ctl/display/phrases.h"
#include "job/cron_field.h"
#include "platform/kestutils.h"

#include <cctype>
#include <charconv>

namespace kest::ctl {

namespace {

constexpr std::size_t kDay = 2;
constexpr std::size_t kMonth = 3;
constexpr std::size_t kWeekday = 4;

struct ClassicBounds {
    unsigned lowest;
    unsigned highest;        // of this system
    unsigned highestClassic; // 7 is a second Sunday
};
constexpr std::array<ClassicBounds, 5> kClassicBounds{
    {{0, 59, 59}, {0, 23, 23}, {1, 31, 31}, {1, 12, 12}, {0, 6, 7}}};

constexpr std::array<const char *, 12> kMonthNames{"jan", "feb", "mar", "apr", "may", "jun",
                                                   "jul", "aug", "sep", "oct", "nov", "dec"};
constexpr std::array<const char *, 7> kWeekdayNames{"sun", "mon", "tue", "wed",
                                                    "thu", "fri", "sat"};

ClassicField Bit(unsigned value) {
    return ClassicField{1} << value;
}

ClassicField BitsFrom(unsigned lowest, unsigned highest, unsigned step = 1) {
    ClassicField bits = 0;
    // Counts in 64 bits: a step may be as large as an unsigned number can be.
    for (std::uint64_t value = lowest; value <= highest; value += step)
        bits |= Bit(static_cast<unsigned>(value));
    return bits;
}

ClassicField AllOf(std::size_t index) {
    return BitsFrom(kClassicBounds.at(index).lowest, kClassicBounds.at(index).highest);
}

// --- Parsing ------------------------------------------------------------------------------------

std::optional<unsigned> ReadDigits(std::string_view text) {
    unsigned number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || result.ec != std::errc() || result.ptr != text.data() + text.size())
        return std::nullopt;
    return number;
}

template <typename Names>
std::optional<unsigned> IndexOfName(const Names &names, const std::string &name) {
    for (std::size_t i = 0; i < names.size(); ++i)
        if (name == names.at(i))
            return static_cast<unsigned>(i);
    return std::nullopt;
}

// A number or the name of a month or weekday.
std::optional<unsigned> ReadValue(std::size_t index, std::string_view text) {
    if (const std::optional<unsigned> number = ReadDigits(text))
        return number;
    std::string name(text);
    for (char &letter : name)
        letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    if (index == kWeekday)
        return IndexOfName(kWeekdayNames, name);
    const std::optional<unsigned> month =
        index == kMonth ? IndexOfName(kMonthNames, name) : std::nullopt;
    return month ? std::optional<unsigned>(*month + 1) : std::nullopt;
}

// One item of a field. Returns why it is not valid; empty if it is.
std::string ParseItem(std::size_t index, const std::string &text, ClassicField &bits) {
    const ClassicBounds &bounds = kClassicBounds.at(index);
    const auto slash = text.find('/');
    const std::string values = text.substr(0, slash);
    const auto dash = values.find('-');
    unsigned lowest = bounds.lowest;
    // "*" does not contain the second Sunday, but steps count up to it.
    unsigned highest = bounds.highestClassic;
    if (values != "*") {
        const std::optional<unsigned> from = ReadValue(index, values.substr(0, dash));
        const std::optional<unsigned> to =
            dash == std::string::npos ? from : ReadValue(index, values.substr(dash + 1));
        if (!from || !to)
            return "is not a number";
        if (*from < bounds.lowest || *from > bounds.highestClassic || *to < bounds.lowest ||
            *to > bounds.highestClassic)
            return "is out of range";
        if (*from > *to)
            return "is reversed";
        if (dash == std::string::npos && slash != std::string::npos)
            return "has a step without a range";
        lowest = *from;
        highest = *to;
    }
    unsigned step = 1;
    if (slash != std::string::npos) {
        step = ReadDigits(text.substr(slash + 1)).value_or(0);
        if (step == 0)
            return "has an invalid step";
    }
    bits |= BitsFrom(lowest, highest, step);
    return {};
}

std::string ExpectedOf(std::size_t index) {
    const ClassicBounds &bounds = kClassicBounds.at(index);
    const std::string ends =
        std::to_string(bounds.lowest) + "-" + std::to_string(bounds.highestClassic);
    return "\"*\" or numbers and ranges from " + ends + ", with a step after \"*\" or a range";
}

// --- Expressions --------------------------------------------------------------------------------

unsigned CountOf(ClassicField field) {
    return static_cast<unsigned>(__builtin_popcountll(field));
}

std::string TextOf(std::size_t index, ClassicField field) {
    const ClassicBounds &bounds = kClassicBounds.at(index);
    if (field == AllOf(index))
        return "*";
    std::string text;
    for (unsigned value = bounds.lowest; value <= bounds.highest; ++value)
        if ((field & Bit(value)) != 0)
            text += (text.empty() ? "" : ",") + std::to_string(value);
    return text;
}

struct Dates {
    ClassicField days;
    ClassicField months;
    ClassicField weekdays;
};

// The day or the weekday, as parts without a common date. The part with both fields has at least
// half of the days: such a list is understood as an exclusion.
std::vector<Dates> PartsOfEither(const Dates &dates) {
    const ClassicField allDays = AllOf(kDay);
    const ClassicField allWeekdays = AllOf(kWeekday);
    if (dates.days == allDays || dates.weekdays == allWeekdays)
        return {{allDays, dates.months, allWeekdays}};
    if (CountOf(dates.days) * 2 < CountOf(allDays))
        return {{dates.days, dates.months, allWeekdays},
                {allDays & ~dates.days, dates.months, dates.weekdays}};
    return {{allDays, dates.months, dates.weekdays},
            {dates.days, dates.months, allWeekdays & ~dates.weekdays}};
}

// Parts whose months all have all of their days.
std::vector<Dates> PartsOfExistingDays(const Dates &dates) {
    struct Length {
        unsigned days;
        ClassicField months;
    };
    const std::array<Length, 3> lengths{
        {{31, Bit(1) | Bit(3) | Bit(5) | Bit(7) | Bit(8) | Bit(10) | Bit(12)},
         {30, Bit(4) | Bit(6) | Bit(9) | Bit(11)},
         {29, Bit(2)}}};
    if (dates.days == AllOf(kDay) || dates.months == AllOf(kMonth))
        return {dates};
    std::vector<Dates> parts;
    for (const Length &length : lengths) {
        const ClassicField existing = BitsFrom(1, length.days);
        ClassicField days = dates.days & existing;
        const ClassicField months = dates.months & length.months;
        if (days == 0 || months == 0)
            continue;
        if (days == existing)
            days = AllOf(kDay);
        bool isMerged = false;
        for (Dates &part : parts)
            if (part.days == days) {
                part.months |= months;
                isMerged = true;
            }
        if (!isMerged)
            parts.push_back({days, months, dates.weekdays});
    }
    return parts;
}

} // namespace

std::optional<ClassicFault> ParseClassicField(std::size_t index, const std::string &text,
                                              ClassicField &field) {
    ClassicField bits = 0;
    std::size_t offset = 0;
    for (const std::string &item : KESTUtils::StringExplode(text, ",")) {
        const std::string reason = ParseItem(index, item, bits);
        if (!reason.empty())
            return ClassicFault{
                offset, FieldsInWords({FieldKeys().at(index)}) + " " + Quoted(item) + " " + reason,
                ExpectedOf(index)};
        offset += item.size() + 1;
    }
    if (index == kWeekday && (bits & Bit(7)) != 0)
        bits |= Bit(0);
    field = bits & AllOf(index);
    return std::nullopt;
}

std::optional<std::string> FieldsOfWord(std::string_view word) {
    struct Word {
        const char *word;
        const char *fields;
    };
    constexpr std::array<Word, 7> words{{{"@yearly", "0 0 1 1 *"},
                                         {"@annually", "0 0 1 1 *"},
                                         {"@monthly", "0 0 1 * *"},
                                         {"@weekly", "0 0 * * 0"},
                                         {"@daily", "0 0 * * *"},
                                         {"@midnight", "0 0 * * *"},
                                         {"@hourly", "0 * * * *"}}};
    for (const Word &known : words)
        if (word == known.word)
            return known.fields;
    return std::nullopt;
}

bool IsDayWithWeekday(const ClassicSchedule &schedule) {
    return !schedule.dayOrWeekday && schedule.fields[kDay] != AllOf(kDay) &&
           schedule.fields[kWeekday] != AllOf(kWeekday);
}

std::vector<std::string> ExpressionsOf(const ClassicSchedule &schedule) {
    const std::array<ClassicField, 5> &fields = schedule.fields;
    const Dates dates{fields[kDay], fields[kMonth], fields[kWeekday]};
    std::vector<std::string> expressions;
    for (const Dates &part :
         schedule.dayOrWeekday ? PartsOfEither(dates) : std::vector<Dates>{dates})
        for (const Dates &existing : PartsOfExistingDays(part))
            expressions.push_back(TextOf(0, fields[0]) + " " + TextOf(1, fields[1]) + " " +
                                  TextOf(kDay, existing.days) + " " +
                                  TextOf(kMonth, existing.months) + " " +
                                  TextOf(kWeekday, existing.weekdays));
    return expressions;
}

} // namespace kest::ctl
