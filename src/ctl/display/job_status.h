// What a job is doing at the moment, as the daemon sees it.

#ifndef CTL_DISPLAY_JOB_STATUS_H
#define CTL_DISPLAY_JOB_STATUS_H

#include "ctl/display/screen.h"
#include "ctl/system/processes.h"
#include "ctl/system/runtime.h"

#include <string>

namespace kest::ctl {

enum class JobStatus {
    Waiting,   // for its time
    Due,       // its time has come
    Running,   // a process runs its program
    Overdue,   // assured, and has not run for too long
    Held,      // overdue, and waits because the machine is held
    Suspended, // waits, and would not start in its time either while the machine is held
    HeldBack,  // not run on a passive machine
};

JobStatus JobStatusOf(const LiveJob &job, const Daemon &daemon);

// The word for it; the one of JSON is one word too.
struct JobStatusText {
    const char *text;
    const char *json;
    Colour colour;
};
const JobStatusText &InWords(JobStatus jobStatus);

} // namespace kest::ctl

#endif
