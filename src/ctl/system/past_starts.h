// The starts of a period according to the execution log.

#ifndef CTL_SYSTEM_PAST_STARTS_H
#define CTL_SYSTEM_PAST_STARTS_H

#include "ctl/system/appliance.h"

#include <ctime>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace kest::ctl {

// A start as it took place.
struct PastStart {
    std::time_t time = 0;
    bool manual = false; // by hand, not by the daemon
    bool failed = false; // the program could not be run
    std::string reason;  // of the failure
};

struct PastFailure {
    std::time_t time = 0;
    std::string job; // as printed in the log
    std::string reason;
};

struct PastStarts {
    // In chronological order, by the names as printed in the log; no entry is empty.
    std::map<std::string, std::vector<PastStart>> jobs;
    std::deque<PastFailure> failures; // the last ones of the log, also from before the period
    std::time_t begins = 0;           // the first time that was read; 0 if there is none
    std::vector<std::string> errors;  // why lines of rotated logs may be missing
};

// The starts from `from` to `until`. Reads the log, and its rotated files as far back as necessary.
// A log that does not exist has no starts. Throws Failure if it cannot be read.
PastStarts ReadPastStarts(const Appliance &appliance, std::time_t from, std::time_t until);

} // namespace kest::ctl

#endif
