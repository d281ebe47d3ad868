// The time at the beginning of a line in the execution log.

#ifndef LOG_TIMESTAMP_H
#define LOG_TIMESTAMP_H

#include <ctime>
#include <string>

namespace kest {

// `local` in ISO 8601 with its offset from UTC, and a blank: "2026-11-15T03:00:00+01:00 ".
std::string FormatTimestamp(const std::tm &local);

} // namespace kest

#endif
