// The jobs of an appliance and what its daemon has drawn.

#ifndef CTL_SYSTEM_RUNTIME_H
#define CTL_SYSTEM_RUNTIME_H

#include "ctl/system/appliance.h"
#include "job/cronjob.h"

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kest::ctl {

// One job as the daemon knows it.
struct LiveJob {
    std::string name;
    CronJob job;             // with what the execution log knows of its last run
    std::string account;     // empty when the definition names none
    std::time_t lastRun = 0; // by whomever; 0: none is known
    std::string staged;      // path of its staged program
    pid_t process = 0;       // one that runs it now; 0: none is seen
};

// The jobs and where they are known from.
struct Runtime {
    std::string path; // of the document
    std::time_t saved = 0;
    std::vector<LiveJob> jobs;        // by name
    std::vector<std::string> corrupt; // entries that hold no job
};

// Reads the runtime document, or what was kept of it when there is none, the execution log as far
// as it may be read, and the process table. Throws Failure when no document can be had.
Runtime LoadRuntime(const Appliance &appliance);

// The size of the largest document of the appliance that may be read, in bytes.
std::size_t LargestDocument(const Appliance &appliance);

// The schedule template; nothing when there is none.
std::optional<ScheduleTemplate> FindTemplate(const Appliance &appliance);

// The job of that name, or the only one whose name ends with "-" and it. Throws Failure, with the
// nearest names, when there is none or more than one.
const LiveJob &FindJob(const Runtime &runtime, const std::string &name);

} // namespace kest::ctl

#endif
