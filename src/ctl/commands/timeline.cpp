#include "ctl/display/timeline.h"

#include "ctl/commands/commands.h"
#include "ctl/display/timeline_svg.h"
#include "ctl/display/timeline_text.h"
#include "ctl/system/failure.h"
#include "ctl/system/files.h"
#include "ctl/system/past_starts.h"

#include <cerrno>
#include <cstring>
#include <iostream>

namespace kest::ctl {

namespace {

void WriteSvg(const std::string &path, const std::string &svg) {
    if (path == "-")
        std::cout << svg;
    else if (!ReplaceFile(path, svg, 0644))
        throw Failure(path + ": " + std::strerror(errno));
}

TimelineData Collect(const Context &context, const Snapshot &snapshot,
                     const TimelineOptions &options) {
    const Runtime &runtime = snapshot.runtime;
    const auto shown = [&](const std::string &name) { return MatchesAny(options.patterns, name); };
    if (!options.past)
        return CollectStarts(runtime.jobs, snapshot.daemon, runtime.maxDelay, context.now,
                             options.hours, shown);
    const std::time_t from = context.now - static_cast<std::time_t>(options.hours) * kHour;
    const PastStarts log = ReadPastStarts(context.appliance, from, context.now);
    for (const std::string &error : log.errors)
        std::cerr << "kestcronctl: " << error << "\n";
    return CollectPastStarts(runtime.jobs, log, context.now, options.hours, shown);
}

} // namespace

int Timeline(const Context &context, const TimelineOptions &options) {
    if (context.json && !options.svg.empty())
        throw Failure("--json and --svg cannot be combined");
    constexpr int noMatch = 1;
    const Snapshot snapshot = TakeSnapshot(context);
    const TimelineData data = Collect(context, snapshot, options);
    const bool isEmpty = !options.patterns.empty() && data.rows.empty() && data.idle == 0;
    if (isEmpty)
        std::cerr << "kestcronctl: no job matches\n";
    if (isEmpty && !context.json)
        return noMatch;
    if (!options.svg.empty())
        WriteSvg(options.svg, TimelineInSvg(data));
    else if (context.json)
        WriteJson(TimelineToJson(data));
    else
        std::cout << TimelineInText(data, context.screen);
    return isEmpty ? noMatch : 0;
}

} // namespace kest::ctl
