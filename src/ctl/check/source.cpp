#include "ctl/check/source.h"

#include "base/json_members.h"
#include "ctl/check/checker.h"

namespace kest::ctl {

void CompareDefinitions(const Json::Value &before, const Json::Value &after, JobSource &source) {
    if (!before.isObject() || !after.isObject())
        return;
    for (const std::string &name : before.getMemberNames())
        if (!after.isMember(name) || !JsonContains(before[name], after[name]))
            source.changed.push_back(name);
        else if (before[name] != after[name])
            source.added.push_back(name);
    for (const std::string &name : after.getMemberNames())
        if (!before.isMember(name))
            source.added.push_back(name);
}

std::optional<JobSource> FindSource(const Appliance &appliance, const CronJob &job) {
    const CheckResult result = CheckPathsOn(appliance, {});
    const CheckedJob *found = nullptr;
    for (const CheckedJob &checked : result.sourceJobs)
        if (checked.name == job.Name() && (found == nullptr || checked.accepted))
            found = &checked;
    if (found == nullptr)
        return std::nullopt;
    JobSource source{found->file, found->position, found->accepted, {}, {}};
    if (found->accepted)
        CompareDefinitions(job.Config(), found->config, source);
    return source;
}

} // namespace kest::ctl
