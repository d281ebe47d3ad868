#include "ctl/starts.h"

#include "ctl/times.h"
#include "job/json_members.h"
#include "job/overdue.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <tuple>
#include <utility>

namespace {

constexpr std::time_t kMinute = 60;

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
    const Json::Value &document = job.job._jsJob;
    return Sane(IntegerMember(document, "lastExecution", IntegerMember(document, "startup", 0)));
}

// Puts the starts of an assured job in order, those of its schedule and those for being overdue.
class Assured {
public:
    Assured(const LiveJob &job, std::time_t from)
        : job_(job), hours_(job.job.assureExecute), last_(LastKnown(job)), free_(from) {}

    void Add(const ComingStart &scheduled, std::size_t most) {
        AddOverdueBefore(scheduled.earliest, most);
        // The draw may be later than the moment at which the job is overdue.
        if (const auto overdue = OverdueBefore(scheduled.latest))
            starts_.push_back({{*overdue, *overdue, scheduled.undrawn}, &job_, true});
        starts_.push_back({scheduled, &job_, false});
        last_ = scheduled.latest;
        free_ = scheduled.latest + kMinute;
    }

    void AddOverdueBefore(std::time_t end, std::size_t most) {
        while (starts_.size() < most) {
            const auto overdue = OverdueBefore(end);
            if (!overdue)
                return;
            starts_.push_back({{*overdue, *overdue, {}}, &job_, true});
            last_ = *overdue;
            free_ = *overdue + kMinute;
        }
    }

    std::vector<JobStart> Take() { return std::move(starts_); }

private:
    // The first free minute in which the job is overdue; nothing when that is not before `end`.
    std::optional<std::time_t> OverdueBefore(std::time_t end) const {
        if (hours_ == 0)
            return std::nullopt;
        std::time_t moment = free_;
        if (!IsOverdue(hours_, last_, moment + kMinute - 1)) {
            moment = last_ + std::time_t{3600} * hours_ + 1;
            moment -= (moment - free_) % kMinute;
        }
        return moment < end ? std::optional<std::time_t>(moment) : std::nullopt;
    }

    const LiveJob &job_;
    std::int32_t hours_;
    std::time_t last_; // it ran, as far as can be told
    std::time_t free_; // no start before
    std::vector<JobStart> starts_;
};

} // namespace

std::vector<JobStart> StartsOf(const LiveJob &job, const Daemon &daemon, const Outlook &outlook,
                               std::size_t count) {
    if (daemon.passive && !job.job.runOnPassive)
        return {};
    const bool assured = job.job.assureExecute != 0;
    const Json::Value &schedule = Member(job.job._jsJob, "schedule");
    Outlook all = outlook;
    std::size_t most = count;
    all.from -= all.from % kMinute;
    const std::time_t wanted = all.from;
    // What has run in a minute does not run in it again.
    if (LastKnown(job) / kMinute == all.from / kMinute)
        all.from += kMinute;
    // When an assured job is overdue depends on its starts until then.
    if (assured && outlook.from > outlook.now) {
        constexpr std::size_t plenty = 100000;
        all.from = outlook.now;
        most +=
            ComingStarts(job.job.cronFields, schedule, {all.now, all.now, wanted}, plenty).size();
    }
    Assured starts(job, all.from - all.from % kMinute);
    for (const ComingStart &scheduled : ComingStarts(job.job.cronFields, schedule, all, most))
        starts.Add(scheduled, 2 * most);
    starts.AddOverdueBefore(all.until, 2 * most);
    std::vector<JobStart> found = starts.Take();
    found.erase(std::remove_if(found.begin(), found.end(),
                               [&](const JobStart &start) { return start.latest < wanted; }),
                found.end());
    std::stable_sort(found.begin(), found.end(), ComesBefore);
    found.resize(std::min(found.size(), count));
    return found;
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
