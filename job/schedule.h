// A job's schedule: for each field the values that a due minute may have, with every random item
// already drawn. Kept as JSON arrays, because it is part of the job's document.

#ifndef JOB_SCHEDULE_H
#define JOB_SCHEDULE_H

#include "job/cron_field.h"
#include "platform/kestrandom.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <json/value.h>
#include <string>
#include <vector>

// The value that stands for every value of its field, and for no value where one is asked for.
constexpr std::int32_t kAnyValue = -1;

// Draws one field: an array with one number per item, in their order. An exact item gives its
// value, an item for every value kAnyValue. A random item takes `templateValue` when that is a
// value of the field `key` and lies within the item; otherwise it is drawn.
Json::Value DrawField(const std::string &key, const std::vector<CronRange> &items,
                      std::int32_t templateValue, KEST::RANDOM::KESTRandom &random);

// The numbers of a field's array; none when it is not an array or any element is not an integer.
std::vector<std::int32_t> FieldValues(const Json::Value &array);

// What the five fields are compared with in the local minute `local`, in their order.
std::array<std::int32_t, 5> FieldsOf(const std::tm &local);

// The values that a field's array admits, of those that a minute may have: each as a bit. An array
// that holds anything but integers admits none.
std::uint64_t AdmittedBits(const Json::Value &array);

// Whether `value` is among them.
inline bool Admits(std::uint64_t bits, std::int32_t value) {
    return value >= 0 && value < 64 && (bits >> static_cast<unsigned>(value) & 1U) != 0;
}

// The five fields as text: values joined by ",", "X" for a field without values, fields joined by a
// blank.
std::string ScheduleAsText(const Json::Value &schedule);

#endif
