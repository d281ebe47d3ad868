// The last starts of jobs according to the execution log.

#ifndef CTL_SYSTEM_LAST_STARTS_H
#define CTL_SYSTEM_LAST_STARTS_H

#include <ctime>
#include <string>
#include <unordered_map>

namespace kest::ctl {

// The last starts of a job; 0 if unknown.
struct LastStarts {
    std::time_t launched = 0; // by the daemon
    std::time_t ran = 0;      // by the daemon or by hand
};

// The starts since `since`, by the job names as printed in the log. The runtime document contains
// older starts. Only the last 64 MiB of the log are read.
std::unordered_map<std::string, LastStarts> ReadLastStarts(const std::string &log,
                                                           std::time_t since);

} // namespace kest::ctl

#endif
