// Predicts how long after its launch the process of a job starts.
//
// The jobs of one cycle are launched in the order of their names, and their processes start one
// after the other: the first at once, each further one LaunchSpacing() later (core/launch.h). The
// delay of a job therefore depends on the jobs that are launched with it. Where a future draw
// decides whether another job is, only the bounds of the delay are known.

#ifndef CTL_DISPLAY_LAUNCH_FORECAST_H
#define CTL_DISPLAY_LAUNCH_FORECAST_H

#include "ctl/display/starts.h"
#include "ctl/system/processes.h"
#include "ctl/system/runtime.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <vector>

namespace kest::ctl {

class LaunchForecast {
public:
    // `jobs` are all jobs of the daemon, sorted by name, and must outlive the object. `maxDelay` is
    // that of the schedule template, in seconds. The schedules are those drawn for `now`.
    LaunchForecast(const std::vector<LiveJob> &jobs, const Daemon &daemon, std::int32_t maxDelay,
                   std::time_t now);

    // Sets the delays of starts of these jobs.
    void SetDelays(std::vector<JobStart> &starts);

private:
    // What decides whether a job is launched in a given minute.
    struct Profile {
        std::array<std::uint64_t, 5> drawn{};   // values until the next redraw of the field
        std::array<std::uint64_t, 5> lasting{}; // those of them that redraws do not change
        std::array<std::uint64_t, 5> random{};  // values that a redraw may choose
        bool isScheduled = false;               // launched by its schedule at present
        bool isOverdueRun = false;              // launched when it is overdue
        std::time_t overdueFrom = 0;            // when it may be overdue,
        std::time_t overdueUntil = 0;           // both included
        std::time_t lastLaunch = 0;
    };

    // A number that is known within bounds.
    struct Count {
        std::size_t least = 0;
        std::size_t most = 0;
    };

    // Of each job, the number of the jobs before it that are launched in one minute; behind the
    // last, that of all jobs.
    using Ranks = std::vector<Count>;

    Profile ProfileOf(const LiveJob &job, const Daemon &daemon) const;
    Count LaunchesOf(const Profile &profile, std::time_t minute) const;
    const Ranks &RanksAt(std::time_t minute);
    StartDelay DelayOfDrawn(const JobStart &start, std::size_t job);
    StartDelay DelayIn(const Ranks &ranks, std::size_t job) const;
    StartDelay DelayOfUndrawn(std::size_t job) const;

    const std::vector<LiveJob> &jobs_;
    std::int32_t maxDelay_;
    std::array<std::time_t, 5> redraws_{};    // the next one of each field
    std::vector<Profile> profiles_;           // of each job
    std::vector<std::size_t> launchedBefore_; // jobs before it that are ever launched
    std::map<std::time_t, Ranks> ranks_;      // by minute
};

// The next start of each job with its delay, as by LaunchForecast; nothing for a job that never
// starts.
std::vector<std::optional<JobStart>> NextStarts(const std::vector<LiveJob> &jobs,
                                                const Daemon &daemon, std::int32_t maxDelay,
                                                std::time_t now);

} // namespace kest::ctl

#endif
