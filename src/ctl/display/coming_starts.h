// Predicts the scheduled starts of a job.
//
// A random value is valid until the next redraw of its field, at a known time (job/schedule.h).
// Starts before that time are known to the minute. For later starts only the bounds are known, and
// the fields that are drawn before. Such a start may also not happen: when both day and weekday
// must match, and when a random minute with a fixed hour is drawn as 0.
//
// Each item of a field has starts of its own, so "0~29,30~59" has two in an hour. Two items may
// draw the same value, and a draw may be the minute in which the next one is made, which adds a
// start to its span: the number of starts in a span has an upper bound only.

#ifndef CTL_DISPLAY_COMING_STARTS_H
#define CTL_DISPLAY_COMING_STARTS_H

#include "job/cron_field.h"

#include <cstddef>
#include <ctime>
#include <json/value.h>
#include <string>
#include <vector>

namespace kest::ctl {

struct ComingStart {
    std::time_t earliest = 0;         // both are the beginning of a local minute,
    std::time_t latest = 0;           // and equal if the minute is known
    std::vector<std::string> undrawn; // keys of the fields to be drawn before; empty if it is known
    std::size_t usual = 1; // the number of starts between the two, as far as drawn values differ,
    std::size_t most = 1;  // and the largest number
};

// The fields in the order of FieldKeys().
enum FieldIndex : std::size_t {
    kMinuteField,
    kHourField,
    kDayField,
    kMonthField,
    kWeekField,
    kFields
};

// In seconds.
constexpr std::time_t kMinute = 60;
constexpr std::time_t kHour = 60 * kMinute;

// The calendar repeats after this time: a schedule without a start until then never starts.
constexpr std::time_t kCalendarRepeats = std::time_t{400} * 366 * 24 * kHour;

// The period to predict.
struct Outlook {
    std::time_t now = 0;   // the schedule is the one drawn for this time
    std::time_t from = 0;  // not before `now`; starts in its minute are included
    std::time_t until = 0; // starts after this time are not included
};

// The first `count` starts, in chronological order, of the job with these items and this drawn
// schedule. None for a time outside the range of the calendar.
std::vector<ComingStart> ComingStarts(const CronFields &items, const Json::Value &schedule,
                                      const Outlook &outlook, std::size_t count);

// The next redraw of the field `key` after `after`.
std::time_t NextRedraw(const std::string &key, std::time_t after);

} // namespace kest::ctl

#endif
