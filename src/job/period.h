// What a period word stands for.

#ifndef JOB_PERIOD_H
#define JOB_PERIOD_H

#include <optional>
#include <string>

namespace kest {

// The crontab expression of a period. Only the first letter counts, in either case: h, d, w and m
// run once an hour, a day, a week, a month at random times, c is `ownCrontab`. Nothing for any
// other period.
std::optional<std::string> PeriodCrontab(const std::string &period, const std::string &ownCrontab);

} // namespace kest

#endif
