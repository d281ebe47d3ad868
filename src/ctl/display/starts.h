// The next starts of jobs, by schedule and for being overdue.

#ifndef CTL_DISPLAY_STARTS_H
#define CTL_DISPLAY_STARTS_H

#include "ctl/display/coming_starts.h"
#include "ctl/system/processes.h"
#include "ctl/system/runtime.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <json/value.h>
#include <optional>
#include <string>
#include <vector>

namespace kest::ctl {

// The seconds between the launch of a job and the start of its process.
struct StartDelay {
    std::int32_t least = 0;
    std::int32_t most = 0;
};

// A launch of a job, which is what the times of ComingStart refer to, and the delay of its process.
struct JobStart : ComingStart {
    const LiveJob *job = nullptr;
    bool overdue = false; // launched for being overdue, not by its schedule
    StartDelay delay;
    bool waits = false; // the launch waits for the release of the machine, or until it is active
    bool kept = false;  // it was due before and waits; the times have no meaning

    // The bounds of the start of its process. A cycle may begin in any second of its minute, so
    // that the process may start up to a minute after the second bound.
    std::time_t FirstStart() const { return earliest + delay.least; }
    std::time_t LastStart() const { return latest + delay.most; }
    // Whether they are less than a minute apart.
    bool IsExact() const { return LastStart() - FirstStart() < kMinute; }
};

// When the job ran last, by its document, limited to the range of the calendar.
std::time_t LastRunOf(const LiveJob &job);

// The first `count` starts of a job in chronological order, without delays. A run that is kept
// comes first. On a passive machine a job that does not run there has no other. An overdue job is
// launched in the first cycle after it becomes overdue, which may fall in the next minute. If an
// overdue start has undrawn fields, the job may start by its schedule first.
std::vector<JobStart> StartsOf(const LiveJob &job, const Daemon &daemon, const Outlook &outlook,
                               std::size_t count);

// The first `count` starts of several jobs in chronological order.
std::vector<JobStart> StartsOf(const std::vector<const LiveJob *> &jobs, const Daemon &daemon,
                               const Outlook &outlook, std::size_t count);

// The next start of a job; nothing if it never starts.
std::optional<JobStart> NextStart(const LiveJob &job, const Daemon &daemon, std::time_t now);

// When a job is launched and when its process starts: "today 03:15", "today 03:15, starts 03:30" or
// "starts 03:20-03:40", and "today 03:15 +20 min" or "tomorrow between 00:00 and 23:59 +20 min" if
// the process may start up to 20 minutes later, or at once. "as soon as it may" for a run that is
// kept.
std::string LaunchInWords(const JobStart &start, std::time_t now);

// The same for a table column: "03:15, starts 03:30", "Wed 00:00-23:59 +20 min", "kept".
std::string LaunchInShort(const JobStart &start, std::time_t now);

// What the launch waits for: "the release of the machine", or on a passive machine "kestcrond
// without --passive-mode".
std::string WaitInWords(const Daemon &daemon);

// Members "earliest" and "latest", the bounds of the launch, which are equal if the minute is
// known; "undrawn", the keys of the fields that are drawn before; "at_most", the largest number of
// starts between the two; "overdue".
Json::Value StartToJson(const ComingStart &start, bool overdue);

// The same, and "start_earliest" and "start_latest", the bounds of the start of the process, and
// "waits", whether it waits for the release of the machine or until that is active. All times are
// null for a run that is kept.
Json::Value StartToJson(const JobStart &start);

} // namespace kest::ctl

#endif
