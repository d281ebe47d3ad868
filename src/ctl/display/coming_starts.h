// When a job will start, as far as anybody can know.
//
// What a random field has drawn holds until the field is drawn anew, at moments that are known
// (job/schedule.h). A start that takes no value from beyond such a moment is known to the minute.
// Of any other it is known between which minutes it lies, and which fields are yet to be drawn. It
// may also fail to come: where day and weekday both have a say, and where the minute of a given
// hour is drawn as 0.

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
    std::time_t earliest = 0;         // both are beginnings of local minutes,
    std::time_t latest = 0;           // the same one when it is known
    std::vector<std::string> undrawn; // keys of the fields to be drawn first; none when it is known
};

// In seconds.
constexpr std::time_t kMinute = 60;
constexpr std::time_t kHour = 60 * kMinute;

// The calendar repeats itself after this time: what has not come until then never comes.
constexpr std::time_t kCalendarRepeats = std::time_t{400} * 366 * 24 * kHour;

// What is looked at, and when.
struct Outlook {
    std::time_t now = 0;   // as of which the schedule is drawn
    std::time_t from = 0;  // not before now; its own minute is the first that counts
    std::time_t until = 0; // nothing that begins later counts
};

// The first `count` starts, in their order, of the job with these items and this drawn schedule.
// Fewer when no more begin in time; none for a time that has no calendar.
std::vector<ComingStart> ComingStarts(const CronFields &items, const Json::Value &schedule,
                                      const Outlook &outlook, std::size_t count);

// The first moment after `after` at which the field `key` is drawn anew.
std::time_t NextRedraw(const std::string &key, std::time_t after);

} // namespace kest::ctl

#endif
