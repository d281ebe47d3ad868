// The last starts of jobs according to the execution log.

#ifndef CTL_SYSTEM_LAST_STARTS_H
#define CTL_SYSTEM_LAST_STARTS_H

#include "ctl/system/appliance.h"

#include <cstddef>
#include <ctime>
#include <map>
#include <string>
#include <unordered_map>

namespace kest::ctl {

// The last starts of a job; 0 if unknown.
struct LastStarts {
    std::time_t launched = 0; // its last launch by the daemon that led to a start
    std::time_t ran = 0;      // its last launch by the daemon or run by hand
    std::time_t started = 0;  // when that process started
    std::time_t failed = 0;   // when its program could not be run after that start; 0 if it could
    std::string reason;       // of the failure
};

// The launches of one cycle that have led to a start.
struct LaunchCycle {
    std::time_t launched = 0;                 // when the cycle launched its jobs
    std::size_t launches = 0;                 // the number of jobs that it launched
    std::map<std::size_t, std::string> ranks; // the jobs that have started, by rank from 1
};

struct RecentStarts {
    std::unordered_map<std::string, LastStarts> jobs; // by the names as printed in the log
    std::map<std::string, LaunchCycle> cycles;        // by trigger; those with several jobs
};

// The starts since `since`, and those in the last MiB of the log. Older starts are in the runtime
// document only. Reads at most the last 64 MiB, and goes on in rotated files that are not
// compressed.
RecentStarts ReadRecentStarts(const Appliance &appliance, std::time_t since);

} // namespace kest::ctl

#endif
