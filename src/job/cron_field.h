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
// The first character of a key identifies its field, so the capital M matters.
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

// Whether `value` is valid for the field `key`: minute 0 to 59, hour 0 to 23, day 1 to 31, month 1
// to 12, week (0 is Sunday) 0 to 6. Every number is valid for any other key.
bool IsValidFieldValue(const std::string &key, std::int32_t value);

// Makes `range` a random item over all values that can be drawn for the field `key`: all valid
// values, but only 1 to 28 for the day, because every month has them. Any other key gets no bounds.
void GetRandomFieldRange(const std::string &key, CronRange &range);

// Parses all of `text` as a signed decimal number, with optional white space around it. Returns
// false and leaves `number` unchanged when `text` is not a number or out of range.
bool ReadNumber(const std::string &text, std::int32_t &number);

// Why an item cannot be used.
enum class CronItemFault {
    None,
    NotANumber, // `offender` is the text that is not a number
    Reversed,   // the upper bound of the range is below the lower one
    OutOfRange, // a number that is not valid for the field
    NotTwoEnds  // a range with more than one "~"
};

struct CronItem {
    CronRange range; // contains the numbers that could be parsed even when there is a fault
    CronItemFault fault = CronItemFault::None;
    std::string offender;
};

// Parses one item of the field `key`. Text after a leading "~" or "*" is ignored.
CronItem ParseCronItem(const std::string &key, const std::string &text);

} // namespace kest

#endif
