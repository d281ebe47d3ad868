#include "ctl/starts.h"

#include "ctl/times.h"
#include "job/json_members.h"
#include "job/overdue.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <tuple>

namespace {

constexpr std::time_t kMinute = 60;

bool ComesBefore(const JobStart &a, const JobStart &b) {
    return std::tie(a.earliest, a.latest, a.job->name) <
           std::tie(b.earliest, b.latest, b.job->name);
}

// The first minute from `from` on in which a job that last ran at `last` is overdue; nothing when
// that is not before `end`.
std::optional<std::time_t> OverdueBefore(std::int32_t hours, std::time_t last, std::time_t from,
                                         std::time_t end) {
    if (hours == 0)
        return std::nullopt;
    std::time_t moment = from;
    if (!IsOverdue(hours, last, moment + kMinute - 1)) {
        moment = last + std::time_t{3600} * hours + 1;
        moment -= (moment - from) % kMinute;
    }
    return moment < end ? std::optional<std::time_t>(moment) : std::nullopt;
}

std::time_t LastKnown(const LiveJob &job) {
    const Json::Value &document = job.job._jsJob;
    return IntegerMember(document, "lastExecution", IntegerMember(document, "startup", 0));
}

} // namespace

std::vector<JobStart> StartsOf(const LiveJob &job, const Daemon &daemon, std::time_t from,
                               std::time_t until, std::size_t count) {
    std::vector<JobStart> starts;
    if (daemon.passive && !job.job.runOnPassive)
        return starts;
    from -= from % kMinute;
    // What has run in a minute does not run in it again.
    if (job.lastRun / kMinute == from / kMinute)
        from += kMinute;
    const Json::Value &schedule = Member(job.job._jsJob, "schedule");
    const std::vector<ComingStart> scheduled =
        ComingStarts(job.job.cronFields, schedule, from, until, count);
    std::time_t last = LastKnown(job);
    std::time_t free = from;
    for (std::size_t i = 0; i <= scheduled.size() && starts.size() < count; ++i) {
        const std::time_t end = i < scheduled.size() ? scheduled[i].earliest : until;
        while (const auto overdue = OverdueBefore(job.job.assureExecute, last, free, end)) {
            starts.push_back({{*overdue, *overdue, {}}, &job, true});
            last = *overdue;
            free = *overdue + kMinute;
            if (starts.size() == count)
                return starts;
        }
        if (i < scheduled.size()) {
            starts.push_back({scheduled[i], &job, false});
            last = scheduled[i].latest;
            free = scheduled[i].latest + kMinute;
        }
    }
    return starts;
}

std::vector<JobStart> StartsOf(const std::vector<const LiveJob *> &jobs, const Daemon &daemon,
                               std::time_t from, std::time_t until, std::size_t count) {
    std::vector<JobStart> merged;
    for (const LiveJob *job : jobs)
        for (JobStart &start : StartsOf(*job, daemon, from, until, count))
            merged.push_back(std::move(start));
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
