#include "ctl/commands/commands.h"
#include "ctl/display/phrases.h"
#include "ctl/display/starts.h"
#include "ctl/display/times.h"

#include <algorithm>
#include <iostream>

namespace kest::ctl {

namespace {

// The column "REMARK".
std::string RemarkOf(const JobStart &start) {
    if (start.overdue)
        return start.undrawn.empty() ? "overdue" : "overdue, unless it starts earlier";
    return start.undrawn.empty() ? "" : FieldsInWords(start.undrawn) + " not yet drawn";
}

void WriteAsJson(const std::vector<JobStart> &starts) {
    Json::Value json(Json::arrayValue);
    for (const JobStart &start : starts) {
        Json::Value entry = StartToJson(start, start.overdue);
        entry["job"] = start.job->name;
        json.append(std::move(entry));
    }
    WriteJson(json);
}

} // namespace

int Next(const Context &context, const NextOptions &options) {
    const std::time_t from = std::max(context.now, TimeArgument(context, options.at));
    const Runtime runtime = LoadRuntime(context.appliance);
    const Daemon daemon = FindDaemon(context.appliance);
    WarnOfStaleData(runtime, daemon, context);
    WarnOfWaitingStarts(daemon);
    std::vector<const LiveJob *> jobs;
    if (!options.job.empty())
        jobs.push_back(&JobArgument(context, runtime, options.job));
    else
        for (const LiveJob &job : runtime.jobs)
            jobs.push_back(&job);
    const std::vector<JobStart> starts =
        StartsOf(jobs, daemon, {context.now, from, from + kCalendarRepeats}, options.count);
    if (context.json) {
        WriteAsJson(starts);
        return 0;
    }
    if (starts.empty()) {
        std::cout << "never\n";
        return 0;
    }
    Table table({"TIME", "JOB", "REMARK"}, {2});
    for (const JobStart &start : starts)
        table.Add({StartInWords(start, context.now), start.job->name, RemarkOf(start)});
    std::cout << table.Show(context.screen);
    return 0;
}

} // namespace kest::ctl
