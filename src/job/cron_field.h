// One field of a crontab expression: its items, their bounds, and how they are read.

#ifndef JOB_CRON_FIELD_H
#define JOB_CRON_FIELD_H

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kest {

// The field keys in the order of an expression's fields: "Minute", "hour", "day", "month", "week".
// Fields are told apart by the key's first character, so the capital M matters.
const std::array<std::string, 5> &FieldKeys();

// One item of a field, such as the "5" and the "10~20" of "5,10~20".
struct CronRange {
    enum Type : std::int32_t {
        Exact = 0,  // the value `from`
        Random = 1, // one value, drawn from `from` to `to`, both included
        Any = 2     // every value
    };
    Type type = Exact;
    std::int32_t from = -1;
    std::int32_t to = -1;
};

// Field key to the field's items, in the order they were written.
using CronFields = std::map<std::string, std::vector<CronRange>>;

// Whether a number may stand in the field `key`: minute 0 to 59, hour 0 to 23, day 1 to 31, month 1
// to 12, week (0 is Sunday) 0 to 6. A key of no field takes every number.
bool IsValidFieldValue(const std::string &key, std::int32_t value);

// Makes `range` a random item over everything that may be drawn for the field `key`: all its
// values, but for the day only 1 to 28, which every month has. A key of no field gets no bounds.
void GetRandomFieldRange(const std::string &key, CronRange &range);

// Reads the whole of `text` as a signed decimal number, white space around it allowed. Returns
// false and leaves `number` alone when it is none or does not fit.
bool ReadNumber(const std::string &text, std::int32_t &number);

// Why an item cannot be used.
enum class CronItemFault {
    None,
    NotANumber, // `offender` is the text that should have been one
    Reversed,   // the range's upper bound is below its lower one
    OutOfRange, // a number the field does not have
    NotTwoEnds  // a range with more than one "~"
};

struct CronItem {
    CronRange range; // where numbers could be read, they are here even with a fault
    CronItemFault fault = CronItemFault::None;
    std::string offender;
};

// Reads one item of the field `key`. "~" or "*" at its start decide alone; what follows them is
// ignored.
CronItem ParseCronItem(const std::string &key, const std::string &text);

} // namespace kest

#endif
