#include "ctl/display/timeline.h"

#include "ctl/commands/commands.h"
#include "ctl/display/timeline_svg.h"
#include "ctl/display/timeline_text.h"
#include "ctl/system/failure.h"
#include "ctl/system/files.h"

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

} // namespace

int Timeline(const Context &context, const TimelineOptions &options) {
    if (context.json && !options.svg.empty())
        throw Failure("--json and --svg cannot be combined");
    const Snapshot snapshot = TakeSnapshot(context);
    const Runtime &runtime = snapshot.runtime;
    const Daemon &daemon = snapshot.daemon;
    const TimelineData data =
        CollectStarts(runtime.jobs, daemon, runtime.maxDelay, context.now, options.hours);
    if (!options.svg.empty())
        WriteSvg(options.svg, TimelineInSvg(data));
    else if (context.json)
        WriteJson(TimelineToJson(data));
    else
        std::cout << TimelineInText(data, context.screen);
    return 0;
}

} // namespace kest::ctl
