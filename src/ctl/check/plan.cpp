#include "ctl/check/plan.h"

#include "job/runtime_directory.h"

#include <map>
#include <set>
#include <utility>

namespace kest::ctl {

namespace {

// The definitions that the daemon loads, by full name: of several, the last.
std::map<std::string, const CheckedJob *> LoadedJobs(const CheckResult &files) {
    std::set<std::pair<std::string, std::string>> refused; // file and name
    for (const Diagnostic &diagnostic : files.diagnostics)
        if (diagnostic.severity == Severity::Error)
            refused.insert({diagnostic.file, diagnostic.job});
    std::map<std::string, const CheckedJob *> loaded;
    for (const CheckedJob &job : files.sourceJobs)
        if (job.accepted && refused.count({job.file, job.name}) == 0)
            loaded[job.name] = &job;
    return loaded;
}

// Whether the first draw of a field is known: each random item contains the drawn value.
bool IsDrawKnown(const std::vector<CronRange> &items, std::int32_t value) {
    for (const CronRange &item : items)
        if (item.type == CronRange::Random && (value < item.from || value > item.to))
            return false;
    return true;
}

// The job as the load makes it.
PlannedJob NewJob(const CheckedJob &checked, const std::optional<ScheduleTemplate> &shared,
                  std::time_t now) {
    PlannedJob planned;
    planned.name = checked.name;
    planned.change = Change::Comes;
    planned.source = {checked.file, checked.position, true, {}, {}};
    Json::Value document;
    document["config"] = checked.config;
    document["startup"] = Json::Int64{now};
    std::vector<DefinitionFault> faults;
    planned.live.job = CronJob(std::move(document), faults);
    const CronFields fields = planned.live.job.cronFields();
    for (const std::string &key : FieldKeys()) {
        const std::int32_t value = shared ? shared->GetSingleScheduleValue(key) : -1;
        planned.isDrawn = planned.isDrawn && IsDrawKnown(fields.at(key), value);
        planned.live.job.GenerateFieldSchedule(key, value);
    }
    planned.live.name = checked.name;
    planned.live.account = planned.live.job.Account().value_or("");
    planned.live.staged = StagedPath(checked.name);
    return planned;
}

} // namespace

std::vector<PlannedJob> PlanLoad(std::vector<LiveJob> before, const CheckResult &files,
                                 const std::optional<ScheduleTemplate> &shared, std::time_t now) {
    const auto loaded = LoadedJobs(files);
    std::map<std::string, PlannedJob> plan;
    for (const auto &[name, checked] : loaded)
        plan.emplace(name, NewJob(*checked, shared, now));
    for (LiveJob &live : before) {
        const auto found = plan.find(live.name);
        if (found == plan.end()) {
            PlannedJob &gone = plan[live.name];
            gone.name = live.name;
            gone.change = Change::Goes;
            gone.live = std::move(live);
            continue;
        }
        PlannedJob &planned = found->second;
        CompareDefinitions(live.job.Config(), loaded.at(live.name)->config, planned.source);
        planned.change = planned.source.changed.empty() ? Change::Stays : Change::Changes;
        if (planned.change == Change::Stays) {
            planned.live = std::move(live);
            planned.isDrawn = true;
        }
    }
    std::vector<PlannedJob> jobs;
    jobs.reserve(plan.size());
    for (auto &[name, job] : plan)
        jobs.push_back(std::move(job));
    return jobs;
}

} // namespace kest::ctl
