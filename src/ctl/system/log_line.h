// Parses lines of the execution log.

#ifndef CTL_SYSTEM_LOG_LINE_H
#define CTL_SYSTEM_LOG_LINE_H

#include <ctime>
#include <string>
#include <string_view>

namespace kest::ctl {

// The state in the execution log for a start by hand.
constexpr const char *kManualState = "Manual";

struct LogLine {
    std::time_t time = -1; // seconds since the epoch; -1 without a timestamp
    std::string stamp;     // the timestamp with the following blank
    std::string text;      // the line without the timestamp
    std::string job;       // full name as printed; empty if the line names none
    std::string account;   // as printed; empty if the line names none
    std::string state;     // of the job at its launch, as the daemon names it; empty if unknown
    bool started = false;  // a start
    bool manual = false;   // a start by hand, not by the daemon
    bool failed = false;   // a failure
    std::string reason;    // of the failure
    int delay = 0;         // seconds from the job's launch to this line
    int rank = 1;          // of the launch in its cycle
    int launches = 1;      // in the cycle
    std::string trigger;   // identifies the cycle within a month; empty if unknown
};

LogLine ParseLogLine(std::string_view line);

} // namespace kest::ctl

#endif
