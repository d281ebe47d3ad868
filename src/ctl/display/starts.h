// When the jobs of an appliance will start.

#ifndef CTL_DISPLAY_STARTS_H
#define CTL_DISPLAY_STARTS_H

#include "ctl/display/coming_starts.h"
#include "ctl/system/processes.h"
#include "ctl/system/runtime.h"

#include <cstddef>
#include <ctime>
#include <json/value.h>
#include <vector>

namespace kest::ctl {

struct JobStart : ComingStart {
    const LiveJob *job = nullptr;
    bool overdue = false; // not by its schedule, but because it is assured and has waited too long
};

// The first `count` starts of a job, in their order; none of a job that a passive machine holds
// back. A start is the minute in which the daemon launches the job: it takes place within that
// minute, later by the delay that sets jobs of one minute apart. For being overdue a job is
// launched at the first look after, which may be in the next minute; where such a start has undrawn
// fields, the job may have started by its schedule before.
std::vector<JobStart> StartsOf(const LiveJob &job, const Daemon &daemon, const Outlook &outlook,
                               std::size_t count);

// The same of several jobs, merged.
std::vector<JobStart> StartsOf(const std::vector<const LiveJob *> &jobs, const Daemon &daemon,
                               const Outlook &outlook, std::size_t count);

// The members that tell of a start: "earliest" and "latest", equal when it is known to the minute,
// "undrawn", the keys of the fields that are to be drawn first, and "overdue".
Json::Value StartToJson(const ComingStart &start, bool overdue);

} // namespace kest::ctl

#endif
