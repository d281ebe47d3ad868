// The present state of a job as the daemon sees it, and the job in JSON.

#ifndef CTL_DISPLAY_JOB_STATUS_H
#define CTL_DISPLAY_JOB_STATUS_H

#include "ctl/display/screen.h"
#include "ctl/system/processes.h"
#include "ctl/system/runtime.h"

#include <ctime>
#include <json/value.h>

namespace kest::ctl {

enum class JobStatus {
    Waiting,   // not due
    Due,       // launched at the next cycle
    Running,   // a process runs the staged program
    Overdue,   // assured, and has not run for more than its hours
    Held,      // overdue, but waits because the machine is held
    Suspended, // not overdue, and cannot start because the machine is held
    HeldBack,  // not run on a passive machine
};

JobStatus JobStatusOf(const LiveJob &job, const Daemon &daemon);

struct JobStatusText {
    const char *text;
    const char *json; // one word
    Colour colour;
};
const JobStatusText &InWords(JobStatus jobStatus);

// Members "name", "account", "schedule" (its drawn values as text), "schedule_text" (in words),
// "state" ("waiting", "due", "running", "overdue", "held", "passive"), "last_run" (null if
// unknown), "next" (as StartToJson; null for never) and "pid" (null unless it runs).
Json::Value JobToJson(const LiveJob &job, const Daemon &daemon, std::time_t now);

// An ISO 8601 timestamp; null for 0.
Json::Value TimeToJson(std::time_t time);

} // namespace kest::ctl

#endif
