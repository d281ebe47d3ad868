#include "ctl/display/launch_forecast.h"

#include "core/launch.h"
#include "ctl/display/times.h"
#include "job/schedule.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>

namespace kest::ctl {

namespace {

bool IsAny(std::uint64_t bits) {
    return bits == AdmittedBits({kAnyValue});
}

// The longest time between two launches of a job by its schedule, whatever is drawn; nothing if a
// draw can skip one. A minute that is drawn as 0 matches only in the next hour.
std::optional<std::time_t> LongestGap(const std::array<std::uint64_t, 5> &lasting,
                                      const std::array<std::uint64_t, 5> &random) {
    const bool everyDay =
        IsAny(lasting[kDayField]) && IsAny(lasting[kMonthField]) && IsAny(lasting[kWeekField]);
    if (!everyDay || (lasting[kMinuteField] | random[kMinuteField]) == 0)
        return std::nullopt;
    if (IsAny(lasting[kHourField]))
        return 2 * kHour + kMinute;
    if (lasting[kMinuteField] == 0 || (lasting[kHourField] | random[kHourField]) == 0)
        return std::nullopt;
    constexpr std::time_t day = 24 * kHour;
    return (lasting[kHourField] != 0 ? day : 2 * day) + 2 * kHour; // the clock may be set back
}

} // namespace

LaunchForecast::LaunchForecast(const std::vector<LiveJob> &jobs, const Daemon &daemon,
                               std::int32_t maxDelay, std::time_t now)
    : jobs_(jobs), maxDelay_(maxDelay) {
    const std::time_t minute = now - Local(now).tm_sec;
    for (std::size_t i = 0; i < redraws_.size(); ++i)
        redraws_[i] = NextRedraw(FieldKeys()[i], minute);
    profiles_.reserve(jobs.size());
    launchedBefore_.reserve(jobs.size());
    std::size_t launched = 0;
    for (const LiveJob &job : jobs) {
        profiles_.push_back(ProfileOf(job, daemon));
        Profile &profile = profiles_.back();
        launchedBefore_.push_back(launched);
        launched += profile.isScheduled || profile.isOverdueRun ? 1 : 0;
        const auto gap = LongestGap(profile.lasting, profile.random);
        const bool isAlways = !profile.isScheduled || !gap || *gap > kHour * job.job.assureExecute;
        profile.overdueUntil = isAlways ? std::numeric_limits<std::time_t>::max() : now + *gap;
    }
}

LaunchForecast::Profile LaunchForecast::ProfileOf(const LiveJob &job, const Daemon &daemon) const {
    Profile profile;
    const CronFields items = job.job.cronFields();
    for (std::size_t i = 0; i < redraws_.size(); ++i) {
        const std::string &key = FieldKeys()[i];
        profile.drawn[i] = AdmittedBits(job.job.GetScheduleValues(key));
        const auto found = items.find(key);
        if (found == items.end())
            continue;
        for (const CronRange &item : found->second)
            if (item.type == CronRange::Random)
                for (std::int32_t value = item.from; value <= item.to; ++value)
                    profile.random[i] |= AdmittedBits({value});
            else
                profile.lasting[i] |=
                    AdmittedBits({item.type == CronRange::Any ? kAnyValue : item.from});
    }
    const bool runs = !daemon.passive || job.job.runOnPassive;
    profile.isScheduled = runs && !daemon.held;
    profile.isOverdueRun =
        runs && job.job.assureExecute != 0 && (!daemon.held || job.job.assureRun == 1);
    profile.lastLaunch = LastRunOf(job);
    profile.overdueFrom = profile.lastLaunch + kHour * job.job.assureExecute;
    return profile;
}

// Whether the job is launched in the minute: never, possibly or certainly.
LaunchForecast::Count LaunchForecast::LaunchesOf(const Profile &profile, std::time_t minute) const {
    if (profile.lastLaunch / kMinute == minute / kMinute)
        return {0, 0};
    // A job that becomes overdue may be launched in the next minute.
    const bool overdue = profile.isOverdueRun && profile.overdueFrom < minute + kMinute &&
                         profile.overdueUntil >= minute;
    bool certain = profile.isScheduled;
    bool possible = profile.isScheduled;
    const std::array<std::int32_t, 5> parts = FieldsOf(Local(minute));
    for (std::size_t i = 0; i < parts.size() && possible; ++i) {
        const bool isRedrawn = minute > redraws_[i];
        const bool holds = Admits(isRedrawn ? profile.lasting[i] : profile.drawn[i], parts[i]);
        certain = certain && holds;
        possible = holds || (isRedrawn && Admits(profile.random[i], parts[i]));
    }
    return {certain && possible ? std::size_t{1} : 0, possible || overdue ? std::size_t{1} : 0};
}

const LaunchForecast::Ranks &LaunchForecast::RanksAt(std::time_t minute) {
    constexpr std::size_t mostKept = 64;
    if (ranks_.size() > mostKept)
        ranks_.clear();
    Ranks &ranks = ranks_[minute];
    if (!ranks.empty())
        return ranks;
    ranks.resize(1);
    ranks.reserve(profiles_.size() + 1);
    for (const Profile &profile : profiles_) {
        const Count launches = LaunchesOf(profile, minute);
        ranks.push_back({ranks.back().least + launches.least, ranks.back().most + launches.most});
    }
    return ranks;
}

StartDelay LaunchForecast::DelayIn(const Ranks &ranks, std::size_t job) const {
    const Count before = ranks[job];
    const Count after{ranks.back().least - ranks[job + 1].least,
                      ranks.back().most - ranks[job + 1].most};
    StartDelay delay{std::numeric_limits<std::int32_t>::max(), 0};
    for (std::size_t rank = before.least; rank <= before.most; ++rank) {
        const auto delayOf = [&](std::size_t behind) {
            return static_cast<std::int32_t>(rank) * LaunchSpacing(maxDelay_, rank + 1 + behind);
        };
        delay.least = std::min(delay.least, delayOf(after.most));
        delay.most = std::max(delay.most, delayOf(after.least));
    }
    return delay;
}

// Any of the jobs before it may be launched with it.
StartDelay LaunchForecast::DelayOfUndrawn(std::size_t job) const {
    const std::int64_t delay = static_cast<std::int64_t>(launchedBefore_[job]) * maxDelay_;
    return {0, static_cast<std::int32_t>(std::min<std::int64_t>(delay, kHour))};
}

// An overdue job is launched in this minute or in the next one.
StartDelay LaunchForecast::DelayOfDrawn(const JobStart &start, std::size_t job) {
    StartDelay delay = DelayIn(RanksAt(start.earliest), job);
    if (start.overdue) {
        const StartDelay next = DelayIn(RanksAt(start.earliest + kMinute), job);
        delay = {std::min(delay.least, next.least), std::max(delay.most, next.most)};
    }
    return delay;
}

void LaunchForecast::SetDelays(std::vector<JobStart> &starts) {
    std::vector<JobStart *> ordered; // so that a minute is counted once
    ordered.reserve(starts.size());
    for (JobStart &start : starts)
        if (!start.kept)
            ordered.push_back(&start);
    std::stable_sort(ordered.begin(), ordered.end(), [](const JobStart *a, const JobStart *b) {
        return a->earliest < b->earliest;
    });
    for (JobStart *start : ordered) {
        const auto job = static_cast<std::size_t>(start->job - jobs_.data());
        start->delay =
            start->earliest == start->latest ? DelayOfDrawn(*start, job) : DelayOfUndrawn(job);
    }
}

std::vector<std::optional<JobStart>> NextStarts(const std::vector<LiveJob> &jobs,
                                                const Daemon &daemon, std::int32_t maxDelay,
                                                std::time_t now) {
    std::vector<JobStart> starts;
    for (const LiveJob &job : jobs)
        if (auto next = NextStart(job, daemon, now))
            starts.push_back(std::move(*next));
    LaunchForecast(jobs, daemon, maxDelay, now).SetDelays(starts);
    std::vector<std::optional<JobStart>> nexts(jobs.size());
    for (JobStart &start : starts)
        nexts[static_cast<std::size_t>(start.job - jobs.data())] = std::move(start);
    return nexts;
}

} // namespace kest::ctl
