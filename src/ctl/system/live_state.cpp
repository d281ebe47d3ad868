#include "ctl/system/live_state.h"

#include "base/printable.h"
#include "core/launch.h"
#include "ctl/display/times.h"
#include "job/schedule.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

namespace kest::ctl {

namespace {

constexpr std::time_t kTolerance = 2; // seconds that the launches of a cycle may take

// By the drawn values, which do not change while the document is not written.
bool IsScheduledAt(const LiveJob &job, std::time_t moment) {
    const auto parts = FieldsOf(Local(moment));
    for (std::size_t i = 0; i < parts.size(); ++i)
        if (!job.job.MatchField(FieldKeys()[i], parts[i]))
            return false;
    return true;
}

bool IsLaunchedAt(const LiveJob &job, std::time_t launched) {
    return std::abs(job.job.LastRun() - launched) <= kTolerance;
}

bool IsDueAt(const LiveJob &job, std::time_t moment) {
    return IsScheduledAt(job, moment) ||
           IsOverdue(job.job.assureExecute, job.job.LastRun(), moment);
}

// The jobs that the cycle launched, as far as they can be named, in the order of their names. The
// document has the times of all its launches or, if it was written before, of none.
std::vector<LiveJob *> JobsOf(const LaunchCycle &cycle, Runtime &runtime, const Daemon &daemon) {
    std::set<std::string> started;
    for (const auto &[rank, name] : cycle.ranks)
        started.insert(name);
    const auto hasStarted = [&](const LiveJob &job) {
        return started.count(Printable(job.name)) != 0;
    };
    const bool hasTimes =
        std::any_of(runtime.jobs.begin(), runtime.jobs.end(), [&](const LiveJob &job) {
            return !hasStarted(job) && IsLaunchedAt(job, cycle.launched);
        });
    std::vector<LiveJob *> launched;
    for (LiveJob &job : runtime.jobs) {
        const bool runs = !daemon.passive || job.job.runOnPassive;
        if (hasStarted(job) ||
            (runs && (hasTimes ? IsLaunchedAt(job, cycle.launched) : IsDueAt(job, cycle.launched))))
            launched.push_back(&job);
    }
    return launched;
}

struct Delayed {
    LiveJob *job;
    std::time_t launched;
    std::time_t starts;
};

// Adds the jobs of the cycle that have not started; none if they cannot be named.
void AddDelayedOf(const LaunchCycle &cycle, Runtime &runtime, const Daemon &daemon, std::time_t now,
                  std::vector<Delayed> &delayed) {
    const std::vector<LiveJob *> launched = JobsOf(cycle, runtime, daemon);
    if (launched.size() != cycle.launches)
        return;
    const std::time_t spacing = LaunchSpacing(runtime.maxDelay, cycle.launches);
    for (std::size_t i = 0; i < launched.size(); ++i) {
        const std::time_t starts = cycle.launched + static_cast<std::time_t>(i) * spacing;
        if (cycle.ranks.count(i + 1) == 0 && starts + kTolerance > now)
            delayed.push_back({launched[i], cycle.launched, starts});
    }
}

void MarkDelayed(Runtime &runtime, const Daemon &daemon, std::time_t now) {
    constexpr std::time_t longest = 3600 + kTolerance;
    std::vector<Delayed> delayed;
    for (const auto &[trigger, cycle] : runtime.cycles)
        if (cycle.launched <= now && cycle.launched + longest > now)
            AddDelayedOf(cycle, runtime, daemon, now, delayed);
    if (delayed.size() > daemon.delayed)
        return;
    for (const Delayed &one : delayed) {
        one.job->launched = one.launched;
        one.job->starts = one.starts;
        one.job->job.NoteLaunch(one.launched);
        if (!one.job->isLogged && one.job->lastRun >= one.launched - kTolerance) {
            one.job->lastRun = one.job->started; // not that launch
            one.job->isLogged = one.job->started != 0;
        }
    }
}

// Whether a minute since the document was written made the job due.
bool BecameDue(const LiveJob &job, std::time_t saved, std::time_t now) {
    constexpr std::time_t longest = std::time_t{24} * 3600; // the document is written each hour
    constexpr std::time_t minute = 60;
    const std::time_t known = std::max(saved, static_cast<std::time_t>(job.job.LastRun()));
    for (std::time_t moment = std::max(known / minute * minute + minute, now - longest);
         moment <= now; moment += minute)
        if (IsScheduledAt(job, moment))
            return true;
    return false;
}

void MarkKept(Runtime &runtime, const Daemon &daemon, std::time_t now) {
    for (LiveJob &job : runtime.jobs)
        job.kept = (daemon.held || (daemon.passive && !job.job.runOnPassive)) &&
                   (job.job.ExpireTime() != 0 ||
                    (daemon.IsRunning() && BecameDue(job, runtime.saved, now)));
}

} // namespace

void CompleteState(Runtime &runtime, const Daemon &daemon, std::time_t now) {
    MarkDelayed(runtime, daemon, now);
    MarkKept(runtime, daemon, now);
}

} // namespace kest::ctl
