#include "ctl/commands/commands.h"
#include "ctl/display/launch_forecast.h"
#include "ctl/display/phrases.h"
#include "ctl/display/starts.h"
#include "ctl/display/times.h"
#include "ctl/system/failure.h"

#include <algorithm>
#include <iostream>

namespace kest::ctl {

namespace {

// The column "REMARK".
std::string RemarkOf(const JobStart &start, const Daemon &daemon) {
    if (start.waits)
        return "waits for " + WaitInWords(daemon);
    if (start.overdue)
        return start.undrawn.empty() ? "overdue" : "overdue, unless it starts earlier";
    if (start.undrawn.empty())
        return "";
    return UndrawnInWords(start, start.job->job.cronFields()) +
           (start.usual > 1 ? ", " + std::to_string(start.usual) + " starts" : "");
}

void WriteAsJson(const std::vector<JobStart> &starts) {
    Json::Value json(Json::arrayValue);
    for (const JobStart &start : starts) {
        Json::Value entry = StartToJson(start);
        entry["job"] = start.job->name;
        json.append(std::move(entry));
    }
    WriteJson(json);
}

void WriteTable(const Context &context, const std::vector<JobStart> &starts, const Daemon &daemon) {
    constexpr std::size_t narrow = 60; // columns; on fewer, times in words are cut
    const bool isNarrow = context.screen.width != 0 && context.screen.width < narrow;
    Table table({"TIME", "JOB", "REMARK"}, {2});
    for (const JobStart &start : starts)
        table.Add({isNarrow ? LaunchInShort(start, context.now) : LaunchInWords(start, context.now),
                   start.job->name, RemarkOf(start, daemon)});
    std::cout << table.Show(context.screen);
}

} // namespace

int Next(const Context &context, const NextOptions &options) {
    const std::time_t from = TimeArgument(context, options.at);
    if (from < context.now)
        throw Failure("\"" + options.at +
                      "\" is in the past; expected: a time to come, such as +2h");
    const Snapshot snapshot = TakeSnapshot(context);
    const Runtime &runtime = snapshot.runtime;
    const Daemon &daemon = snapshot.daemon;
    std::vector<const LiveJob *> jobs;
    if (!options.job.empty())
        jobs.push_back(&JobArgument(context, runtime, options.job));
    else
        for (const LiveJob &job : runtime.jobs)
            jobs.push_back(&job);
    std::vector<JobStart> starts =
        StartsOf(jobs, daemon, {context.now, from, from + kCalendarRepeats}, options.count);
    LaunchForecast(runtime.jobs, daemon, runtime.maxDelay, context.now).SetDelays(starts);
    if (context.json) {
        WriteAsJson(starts);
        return 0;
    }
    if (starts.empty()) {
        std::cout << "never\n";
        return 0;
    }
    WriteTable(context, starts, daemon);
    return 0;
}

} // namespace kest::ctl
