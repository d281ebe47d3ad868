#include "ctl/display/starts.h"

#include "base/json_members.h"
#include "ctl/display/times.h"
#include "job/schedule.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <tuple>
#include <utility>

namespace kest::ctl {

namespace {

bool ComesBefore(const JobStart &a, const JobStart &b) {
    return std::tie(a.earliest, a.latest, a.job->name) <
           std::tie(b.earliest, b.latest, b.job->name);
}

// A time that others wrote, inside the calendar.
std::time_t Sane(std::int64_t time) {
    constexpr std::int64_t yearTenThousand = 253402300800;
    return std::clamp(time, -yearTenThousand, yearTenThousand);
}

std::time_t LastKnown(const LiveJob &job) {
    return Sane(job.job.LastRun());
}

// Puts the starts of a job in order, those of its schedule and, when it is assured, those for being
// overdue. What comes before `wanted` only counts for what follows.
class Life {
public:
    Life(const LiveJob &job, std::time_t from, std::time_t wanted, std::size_t most)
        : job_(job), hours_(job.job.assureExecute), wanted_(wanted), most_(most),
          last_(LastKnown(job)), free_(from) {}

    void Add(const ComingStart &scheduled) {
        AddOverdueBefore(scheduled.earliest);
        // The draw may be later than the moment at which the job is overdue.
        if (const auto overdue = OverdueBefore(scheduled.latest))
            Keep({*overdue, *overdue, scheduled.undrawn}, true);
        Keep(scheduled, false);
        last_ = scheduled.latest;
        free_ = scheduled.latest + kMinute;
    }

    void AddOverdueBefore(std::time_t end) {
        while (starts_.size() < most_) {
            const auto overdue = OverdueBefore(end);
            if (!overdue)
                return;
            // One is as long after the other as the job may wait; those before are passed over.
            const std::time_t wait = std::max(kMinute, kHour * hours_);
            const std::time_t ahead = std::min(wanted_, end - 1) - *overdue;
            last_ = *overdue + std::max(std::time_t{0}, ahead / wait * wait);
            free_ = last_ + kMinute;
            Keep({last_, last_, {}}, true);
        }
    }

    // In their order.
    std::vector<JobStart> Take() {
        std::stable_sort(starts_.begin(), starts_.end(), ComesBefore);
        starts_.resize(std::min(starts_.size(), most_));
        return std::move(starts_);
    }

private:
    void Keep(const ComingStart &start, bool overdue) {
        if (start.latest >= wanted_)
            starts_.push_back({start, &job_, overdue});
    }

    // The first free minute in which the job is overdue; nothing when that is not before `end`.
    std::optional<std::time_t> OverdueBefore(std::time_t end) const {
        if (hours_ == 0)
            return std::nullopt;
        std::time_t moment = free_;
        if (!IsOverdue(hours_, last_, moment + kMinute - 1)) {
            moment = last_ + kHour * hours_ + 1;
            moment -= (moment - free_) % kMinute;
        }
        return moment < end ? std::optional<std::time_t>(moment) : std::nullopt;
    }

    const LiveJob &job_;
    std::int32_t hours_;
    std::time_t wanted_;
    std::size_t most_;
    std::time_t last_; // it ran, as far as can be told
    std::time_t free_; // no start before
    std::vector<JobStart> starts_;
};

// When an assured job is overdue at a later time depends on its starts until then: on the last one,
// which lies as long before as it may wait, or there is none.
void LiveUntil(std::time_t wanted, const LiveJob &job, std::time_t now, Life &life) {
    constexpr std::time_t longest = 9600 * kHour; // as long as anybody waits
    const std::time_t waits =
        std::clamp(kHour * (job.job.assureExecute + std::time_t{24}), std::time_t{0}, longest);
    const Outlook before{now, std::max(now, wanted - waits), wanted - 1};
    for (const ComingStart &start :
         ComingStarts(job.job.cronFields(), job.job.ScheduleDocument(), before,
                      static_cast<std::size_t>(longest / kMinute)))
        if (start.latest < wanted)
            life.Add(start);
}

} // namespace

std::vector<JobStart> StartsOf(const LiveJob &job, const Daemon &daemon, const Outlook &outlook,
                               std::size_t count) {
    if (daemon.passive && !job.job.runOnPassive)
        return {};
    Outlook ahead = outlook;
    ahead.from -= ahead.from % kMinute;
    // What has run in a minute does not run in it again.
    if (LastKnown(job) / kMinute == ahead.from / kMinute)
        ahead.from += kMinute;
    const bool later = outlook.from > outlook.now;
    Life life(job, later ? outlook.now - outlook.now % kMinute : ahead.from, ahead.from, count);
    if (later && job.job.assureExecute != 0)
        LiveUntil(ahead.from, job, outlook.now, life);
    for (const ComingStart &scheduled :
         ComingStarts(job.job.cronFields(), job.job.ScheduleDocument(), ahead, count))
        life.Add(scheduled);
    life.AddOverdueBefore(ahead.until);
    return life.Take();
}

std::vector<JobStart> StartsOf(const std::vector<const LiveJob *> &jobs, const Daemon &daemon,
                               const Outlook &outlook, std::size_t count) {
    std::vector<JobStart> merged;
    for (const LiveJob *job : jobs) {
        for (JobStart &start : StartsOf(*job, daemon, outlook, count))
            merged.push_back(std::move(start));
        if (merged.size() < 2 * count + 10000)
            continue;
        // Many jobs with many starts each would take room that nobody needs.
        std::stable_sort(merged.begin(), merged.end(), ComesBefore);
        merged.resize(count);
    }
    std::stable_sort(merged.begin(), merged.end(), ComesBefore);
    merged.resize(std::min(merged.size(), count));
    return merged;
}

Json::Value StartToJson(const ComingStart &start, bool overdue) {
    Json::Value json;
    json["earliest"] = Iso(start.earliest);
    json["latest"] = Iso(start.latest);
    json["undrawn"] = Json::Value(Json::arrayValue);
    for (const std::string &key : start.undrawn)
        json["undrawn"].append(key);
    json["overdue"] = overdue;
    return json;
}

} // namespace kest::ctl
