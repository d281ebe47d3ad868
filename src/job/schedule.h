// A job's schedule: the items of each field of its crontab expression, and the value drawn for each
// item. In the job's document it is an object with an array of numbers for each field.

#ifndef JOB_SCHEDULE_H
#define JOB_SCHEDULE_H

#include "job/cron_field.h"
#include "platform/kestrandom.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <json/value.h>
#include <string>
#include <vector>

namespace kest {

// Stands for every value of a field, and for "no value" in arguments and results.
constexpr std::int32_t kAnyValue = -1;

// Draws one field: one number per item, in order. An exact item gives its value, a "*" item
// kAnyValue. A random item takes `templateValue` when it is valid for the field `key` and lies
// within the item; otherwise a value is drawn.
std::vector<std::int32_t> DrawField(const std::string &key, const std::vector<CronRange> &items,
                                    std::int32_t templateValue, KEST::RANDOM::KESTRandom &random);

// The numbers of a field's array; empty when it is not an array or any element is not an integer.
std::vector<std::int32_t> FieldValues(const Json::Value &array);

// The values of the five fields in the local minute `local`, in order.
std::array<std::int32_t, 5> FieldsOf(const std::tm &local);

// The values that the numbers of a field admit, one bit for each.
std::uint64_t AdmittedBits(const std::vector<std::int32_t> &values);

// Whether the bit of `value` is set.
inline bool Admits(std::uint64_t bits, std::int32_t value) {
    return value >= 0 && value < 64 && (bits >> static_cast<unsigned>(value) & 1U) != 0;
}

// The five fields as text: values joined by ",", "X" for a field without values, fields joined by a
// blank.
std::string ScheduleAsText(const std::array<std::vector<std::int32_t>, 5> &values);

// The schedule of one job. Fields are numbered in the order of FieldKeys().
class Schedule {
public:
    Schedule() = default;

    // No field is drawn yet. The items must be valid for their fields.
    explicit Schedule(const std::array<std::vector<CronRange>, 5> &items);

    std::vector<CronRange> Items(std::size_t field) const;
    std::size_t ItemCount() const { return ends_.back(); }

    // Draws a field as DrawField() does.
    void Draw(std::size_t field, std::int32_t templateValue, KEST::RANDOM::KESTRandom &random);

    // Takes the drawn values of the field from `array`. Returns false when it does not have one
    // integer of one byte for each item: the field then counts as not drawn, but admits what the
    // array admits.
    bool Take(std::size_t field, const Json::Value &array);

    bool IsDrawn(std::size_t field) const { return (drawn_ >> field & 1U) != 0; }
    bool IsAnyDrawn() const { return drawn_ != 0; }
    // The drawn values of the field, one for each item.
    std::vector<std::int32_t> Drawn(std::size_t field) const;
    void GetDrawn(std::size_t field, std::vector<std::int32_t> &values) const;

    // Whether the field admits `value`.
    bool Admits(std::size_t field, std::int32_t value) const {
        return kest::Admits(bits_[field], value);
    }

private:
    // All valid values fit into a byte.
    struct Item {
        std::int8_t type;
        std::int8_t from;
        std::int8_t to;
        std::int8_t drawn;
    };
    void Put(std::size_t field, const std::vector<std::int32_t> &values);
    Item *ItemsBegin() { return many_.empty() ? few_.data() : many_.data(); }
    const Item *ItemsBegin() const { return many_.empty() ? few_.data() : many_.data(); }
    std::size_t Begin(std::size_t field) const { return field == 0 ? 0 : ends_[field - 1]; }

    std::array<std::uint64_t, 5> bits_{}; // what each field admits
    std::array<Item, 8> few_{};           // the items of all fields, when they fit
    std::vector<Item> many_;              // else
    std::array<std::uint32_t, 5> ends_{}; // of each field's items
    unsigned drawn_ = 0;                  // a bit for each field
};

// Whether more than `hours` hours lie between `last` and `now`, any two times in seconds since the
// epoch. Always false for 0 hours: the job is not assured.
bool IsOverdue(std::int32_t hours, std::int64_t last, std::int64_t now);

// The keys of the fields that are redrawn in the local minute `local`, in the order of their
// redraws: the minute in minute 0 of every hour; at 00:00 also the hour, on the 1st the day, on 1
// January the month, on Mondays the week. Empty in any other minute.
std::vector<std::string> FieldsToRedraw(const std::tm &local);

} // namespace kest

#endif
