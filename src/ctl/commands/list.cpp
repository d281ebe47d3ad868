#include "base/json_members.h"
#include "ctl/commands/commands.h"
#include "ctl/display/job_status.h"
#include "ctl/display/phrases.h"
#include "ctl/display/starts.h"
#include "ctl/display/times.h"

#include <iostream>

namespace kest::ctl {

int List(const Context &context, const ListOptions &options) {
    const Runtime runtime = LoadRuntime(context.appliance);
    const Daemon daemon = FindDaemon(context.appliance);
    WarnOfStaleData(runtime, daemon, context);
    WarnOfWaitingStarts(daemon);
    Json::Value json(Json::arrayValue);
    Table table({"JOB", "ACCOUNT", "SCHEDULE", "LAST RUN", "NEXT RUN", "STATE"}, {1, 2});
    for (const LiveJob &job : runtime.jobs) {
        if (!MatchesPattern(options.pattern, job.name))
            continue;
        if (context.json) {
            json.append(JobToJson(job, daemon, context.now));
            continue;
        }
        const JobStatusText &state = InWords(JobStatusOf(job, daemon));
        const std::optional<JobStart> next = NextStart(job, daemon, context.now);
        table.Add({job.name, job.account, ScheduleInWords(job.job.ScheduleDocument()),
                   job.lastRun != 0 ? WhenInShort(job.lastRun, context.now) : "-",
                   next ? StartInShort(*next, context.now) : "never", state.text},
                  state.colour);
    }
    if (context.json)
        WriteJson(json);
    else
        std::cout << table.Show(context.screen);
    return 0;
}

} // namespace kest::ctl
