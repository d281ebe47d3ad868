// The next starts of jobs, by schedule and for being overdue.

#ifndef CTL_DISPLAY_STARTS_H
#define CTL_DISPLAY_STARTS_H

#include "ctl/display/coming_starts.h"
#include "ctl/system/processes.h"
#include "ctl/system/runtime.h"

#include <cstddef>
#include <ctime>
#include <json/value.h>
#include <optional>
#include <vector>

namespace kest::ctl {

struct JobStart : ComingStart {
    const LiveJob *job = nullptr;
    bool overdue = false; // launched for being overdue, not by its schedule
};

// The first `count` starts of a job in chronological order; none if the machine is passive and the
// job does not run on passive machines. A start is the minute in which the daemon launches the job.
// The process may start later, by the delay between jobs of the same minute. An overdue job is
// launched in the first cycle after it becomes overdue, which may fall in the next minute. If an
// overdue start has undrawn fields, the job may start by its schedule first.
std::vector<JobStart> StartsOf(const LiveJob &job, const Daemon &daemon, const Outlook &outlook,
                               std::size_t count);

// The first `count` starts of several jobs in chronological order.
std::vector<JobStart> StartsOf(const std::vector<const LiveJob *> &jobs, const Daemon &daemon,
                               const Outlook &outlook, std::size_t count);

// The next start of a job; nothing if it never starts.
std::optional<JobStart> NextStart(const LiveJob &job, const Daemon &daemon, std::time_t now);

// Members "earliest" and "latest", which are equal if the minute is known; "undrawn", the keys of
// the fields that are drawn before the start; and "overdue".
Json::Value StartToJson(const ComingStart &start, bool overdue);

} // namespace kest::ctl

#endif
