// The time in front of an execution-log line.

#ifndef LOG_TIMESTAMP_H
#define LOG_TIMESTAMP_H

#include <ctime>
#include <string>

namespace kest {

// `local` as ISO 8601 with its offset from UTC and one blank: "2026-11-15T03:00:00+01:00 ".
std::string FormatTimestamp(const std::tm &local);

} // namespace kest

#endif
