// What the end of the execution log knows of jobs.

#ifndef CTL_SYSTEM_LAST_STARTS_H
#define CTL_SYSTEM_LAST_STARTS_H

#include <ctime>
#include <string>
#include <unordered_map>

namespace kest::ctl {

// The last starts of a job; 0: none is known.
struct LastStarts {
    std::time_t launched = 0; // by the daemon
    std::time_t ran = 0;      // whoever started it
};

// What happened since `since`, by the printed names of jobs. What is older stands in the runtime
// document; of a log without end only the last part is read.
std::unordered_map<std::string, LastStarts> ReadLastStarts(const std::string &log,
                                                           std::time_t since);

} // namespace kest::ctl

#endif
