// The jobs of an appliance with their state and schedules.

#ifndef CTL_SYSTEM_RUNTIME_H
#define CTL_SYSTEM_RUNTIME_H

#include "ctl/system/appliance.h"
#include "ctl/system/last_starts.h"
#include "ctl/system/processes.h"
#include "job/cronjob.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kest::ctl {

// A job with its present state.
struct LiveJob {
    std::string name;
    CronJob job;             // updated with the last run in the execution log
    std::string account;     // empty if the definition does not name one
    std::time_t lastRun = 0; // by the daemon or by hand; 0 if unknown
    bool isLogged = false;   // the execution log has that run; otherwise it is the time of a launch
    std::time_t started = 0; // the last start in the part of the log that is read; 0 for none
    std::time_t failed = 0;  // when the program of that run could not be run; 0 if it could
    std::string failure;     // the reason
    std::time_t launched = 0; // while a launch waits out its delay: when that was; otherwise 0
    std::time_t starts = 0;   // and when its process will start
    bool kept = false;        // due, but not launched while the machine is held or passive
    std::string staged;       // path of its staged program
    std::vector<Candidate> processes; // that run it now
};

// The jobs and the document that they come from.
struct Runtime {
    std::string path;                                           // of the document
    std::time_t saved = 0;                                      // modification time of the document
    std::vector<LiveJob> jobs;                                  // by name
    std::vector<std::string> corrupt;                           // names of invalid entries
    std::int32_t maxDelay = ScheduleTemplate::kDefaultMaxDelay; // of the schedule template
    std::map<std::string, LaunchCycle> cycles; // recent ones, as RecentStarts has them
};

// Reads the runtime document, or the saved document if it does not exist, the process table and, if
// the caller may read it, the execution log. Throws Failure if there is no valid document.
Runtime LoadRuntime(const Appliance &appliance);

// The size of the largest document of the appliance in bytes, up to the read limit.
std::size_t LargestDocument(const Appliance &appliance);

// The schedule template; nothing if there is no valid one.
std::optional<ScheduleTemplate> FindTemplate(const Appliance &appliance);

// Whether `name` ends with "-" and `end`, and has something before.
bool EndsWithName(const std::string &name, const std::string &end);

// The job with the name, or the only job whose name ends with "-" and `name`. Throws Failure, with
// similar names, if there is no such job or more than one.
const LiveJob &FindJob(const Runtime &runtime, const std::string &name);

} // namespace kest::ctl

#endif
