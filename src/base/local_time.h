// Local time, cached for repeated conversions of the same second.

#ifndef BASE_LOCAL_TIME_H
#define BASE_LOCAL_TIME_H

#include <ctime>

namespace kest {

// The local time of `now`; null when it cannot be converted. Valid until the next call. A cycle
// converts the same second for every job, and each conversion by the C library checks the time zone
// file again, which costs more than the rest of a due check.
const std::tm *LocalTimeOf(std::time_t now);

} // namespace kest

#endif
