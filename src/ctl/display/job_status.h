// The present state of a job as the daemon sees it, and the job in JSON.

#ifndef CTL_DISPLAY_JOB_STATUS_H
#define CTL_DISPLAY_JOB_STATUS_H

#include "ctl/display/screen.h"
#include "ctl/display/starts.h"
#include "ctl/system/processes.h"
#include "ctl/system/runtime.h"

#include <ctime>
#include <json/value.h>
#include <optional>
#include <string>
#include <vector>

namespace kest::ctl {

// In ascending order of the attention that they need.
enum class JobStatus {
    Waiting,   // not due
    HeldBack,  // not run on a passive machine
    Suspended, // neither due nor overdue; the machine is held
    Due,       // launched at the next cycle
    Launched,  // a process waits out the delay of its start
    Running,   // a process runs the staged program
    Kept,      // due, but waits because the machine is held or passive
    Overdue,   // assured, and has not run for more than its hours
    Held,      // overdue, but waits because the machine is held
    Failed,    // not due, and its program could not be run the last time
};

// The words for states in JSON.
std::vector<std::string> StatesInJson();

JobStatus JobStatusOf(const LiveJob &job, const Daemon &daemon);

struct JobStatusText {
    const char *text;
    const char *json; // one word
    Colour colour;
};
const JobStatusText &InWords(JobStatus jobStatus);

// The text of the job's state, with the time of a delayed start: "launched, starts in 12 min".
std::string StatusInWords(const LiveJob &job, const Daemon &daemon, std::time_t now);

// Members "name", "account", "schedule" (its drawn values as text), "schedule_text" (in words),
// "state" ("waiting", "due", "launched", "running", "failed", "overdue", "held", "kept",
// "passive"), "last_run" (null if unknown), "last_run_is_launch" (whether it is the time of a
// launch, because the execution log does not have the start), "delayed_start" (when a launched job
// will start; otherwise null), "failure" (why its program could not be run; otherwise null) and
// "failure_time" (when), "next" (as StartToJson; null for never), "pid" (null unless it runs) and
// "processes", all that run it, each with "pid", "uid" and "seconds", its age.
Json::Value JobToJson(const LiveJob &job, const Daemon &daemon,
                      const std::optional<JobStart> &next);

// An ISO 8601 timestamp; null for 0.
Json::Value TimeToJson(std::time_t time);

} // namespace kest::ctl

#endif
