// The local time, for many questions about one moment.

#ifndef BASE_LOCAL_TIME_H
#define BASE_LOCAL_TIME_H

#include <ctime>

namespace kest {

// The local time of `now`, null when it cannot be had. A cycle asks for that of one second for each
// job and then some, and each conversion looks at the time zone's file again, which costs more than
// the rest of a due check. Holds until the next call.
const std::tm *LocalTimeOf(std::time_t now);

} // namespace kest

#endif
