// Schedules and starts as English phrases.

#ifndef CTL_DISPLAY_PHRASES_H
#define CTL_DISPLAY_PHRASES_H

#include "ctl/display/coming_starts.h"
#include "job/cron_field.h"

#include <cstdint>
#include <ctime>
#include <json/value.h>
#include <string>
#include <vector>

namespace kest::ctl {

// A drawn schedule: "daily at 03:17", "hourly at minute 5", "on Tuesdays at 00:30", "monthly on the
// 17th at 03:17", "every minute". Values that only random items of the fields have are marked with
// "~": "daily at 03:~17". "never" only if a field has no values, not for dates that do not
// exist.
std::string ScheduleInWords(const Json::Value &schedule, const CronFields &items = {});

// The names of fields: "minute and hour".
std::string FieldsInWords(const std::vector<std::string> &keys);

// The number of days that the month, from 1, has in every year.
std::int32_t ShortestMonth(std::int32_t month);

// One value of the field `key`: "7", but "March" and "Tuesday".
std::string ValueInWords(const std::string &key, std::int32_t value);

// "a", "a and b", "a, b and c"
std::string Enumerated(const std::vector<std::string> &texts);

// The time of a start relative to `now`: "today 03:17", "tomorrow between 00:00 and 23:59",
// "between Mon 8 Jun 00:00 and Sun 14 Jun 23:59".
std::string StartInWords(const ComingStart &start, std::time_t now);

// The same for a table column: "Wed 00:01-24:00", "8 Jun - 14 Jun".
std::string StartInShort(const ComingStart &start, std::time_t now);

// What a start still depends on: "minute and hour not yet drawn". Adds a remark if a draw may lead
// to a day that its month does not have. `items` are those of the job.
std::string UndrawnInWords(const ComingStart &start, const CronFields &items);

} // namespace kest::ctl

#endif
