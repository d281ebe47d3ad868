#include "base/json_members.h"
#include "ctl/commands/commands.h"
#include "ctl/display/job_status.h"
#include "ctl/display/launch_forecast.h"
#include "ctl/display/phrases.h"
#include "ctl/display/starts.h"
#include "ctl/display/times.h"
#include "ctl/display/utf8.h"

#include <iostream>

namespace kest::ctl {

namespace {

std::string LastRunInShort(const LiveJob &job, std::time_t now) {
    if (job.lastRun == 0)
        return "-";
    return (job.isLogged ? "" : "launched ") + WhenInShort(job.lastRun, now);
}

} // namespace

int List(const Context &context, const ListOptions &options) {
    const Snapshot snapshot = TakeSnapshot(context);
    const Runtime &runtime = snapshot.runtime;
    const Daemon &daemon = snapshot.daemon;
    constexpr int noMatch = 1;
    std::size_t listed = 0;
    Json::Value json(Json::arrayValue);
    Table table({"JOB", "ACCOUNT", "SCHEDULE", "LAST RUN", "NEXT RUN", "STATE"}, {1, 3, 2});
    const auto nexts = NextStarts(runtime.jobs, daemon, runtime.maxDelay, context.now);
    for (std::size_t i = 0; i < nexts.size(); ++i) {
        const LiveJob &job = runtime.jobs[i];
        const std::optional<JobStart> &next = nexts[i];
        if (!MatchesPattern(options.pattern, job.name))
            continue;
        ++listed;
        if (context.json) {
            json.append(JobToJson(job, daemon, next));
            continue;
        }
        const JobStatusText &state = InWords(JobStatusOf(job, daemon));
        table.Add({job.name, job.account,
                   ScheduleInWords(job.job.ScheduleDocument(), job.job.cronFields()),
                   LastRunInShort(job, context.now),
                   next ? LaunchInShort(*next, context.now) : "never",
                   StatusInWords(job, daemon, context.now)},
                  state.colour);
    }
    if (context.json)
        WriteJson(json);
    else if (listed != 0 || options.pattern.empty())
        std::cout << table.Show(context.screen);
    if (listed != 0 || options.pattern.empty())
        return 0;
    std::cerr << "kestcronctl: no job matches \"" << Shown(options.pattern) << "\"\n";
    return noMatch;
}

} // namespace kest::ctl
