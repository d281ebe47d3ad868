// The lines of the execution log, read back.

#ifndef CTL_SYSTEM_LOG_LINE_H
#define CTL_SYSTEM_LOG_LINE_H

#include <ctime>
#include <string>
#include <string_view>

namespace kest::ctl {

// What the execution log calls the state of a job that somebody ran by hand.
constexpr const char *kManualState = "Manual";

struct LogLine {
    std::time_t time = -1; // seconds since the epoch; -1 when the line begins with none
    std::string stamp;     // that time as it is written, with the blank behind it
    std::string text;      // the line without it
    std::string job;       // full name as it is printed; empty when the line tells of none
    bool started = false;  // the start of a run
    bool manual = false;   // which somebody asked for, not the daemon
    bool failed = false;   // something that went wrong
    int delay = 0;         // seconds from the job's launch to this line
};

LogLine ParseLogLine(std::string_view line);

} // namespace kest::ctl

#endif
