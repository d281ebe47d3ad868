// The times of a classic crontab line, and the expressions of this system that have the same
// starts.

#ifndef CTL_IMPORT_CLASSIC_SCHEDULE_H
#define CTL_IMPORT_CLASSIC_SCHEDULE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kest::ctl {

// One bit for each value that a field admits. Sunday is bit 0 of the weekday.
using ClassicField = std::uint64_t;

// The five fields, in the order of FieldKeys(). A job starts in each minute that all fields admit,
// with one exception: if neither the day nor the weekday begins with "*", one of the two suffices.
struct ClassicSchedule {
    std::array<ClassicField, 5> fields{};
    bool dayOrWeekday = false; // neither of the two fields begins with "*"
};

// A part of a text that is not valid.
struct ClassicFault {
    std::size_t offset = 0; // of the part, in bytes
    std::string message;
    std::string expected; // what the part may be
};

// Parses one field of a crontab line: a list of values, ranges and "*", the latter two with an
// optional step. Months and weekdays have English names of three letters; weekday 7 is Sunday.
// Returns the fault if the text is not valid; `field` is unchanged then.
std::optional<ClassicFault> ParseClassicField(std::size_t index, const std::string &text,
                                              ClassicField &field);

// The five fields of a word such as "@daily"; nothing for other words.
std::optional<std::string> FieldsOfWord(std::string_view word);

// Whether both the day and the weekday exclude some values and must match on the same day. Programs
// other than those that follow the usual rule read such a line differently.
bool IsDayWithWeekday(const ClassicSchedule &schedule);

// Expressions that no two of which start in the same minute, and that together have the starts of
// the schedule. None if there is no start. `kestcronctl check` has no remarks on them, unless
// IsDayWithWeekday().
std::vector<std::string> ExpressionsOf(const ClassicSchedule &schedule);

} // namespace kest::ctl

#endif
