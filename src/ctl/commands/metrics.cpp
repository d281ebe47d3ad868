#include "ctl/display/metrics.h"

#include "base/printable.h"
#include "ctl/commands/commands.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"

#include <iostream>
#include <map>
#include <set>
#include <unistd.h>
#include <utility>

namespace kest::ctl {

namespace {

Refused CountRefused(const std::vector<Diagnostic> &errors) {
    std::set<std::string> files;
    std::set<std::pair<std::string, std::string>> jobs;
    for (const Diagnostic &error : errors)
        if (error.job.empty())
            files.insert(error.file);
        else
            jobs.insert({error.file, error.job});
    return {jobs.size(), files.size()};
}

// The counts are kept in a file that only root can write.
std::optional<std::map<std::string, StartCount>>
CountsFor(const Context &context, const std::vector<LiveJob> &jobs, const Daemon &daemon) {
    if (!context.appliance.IsLocal() || geteuid() != 0)
        return std::nullopt;
    std::vector<std::string> names;
    names.reserve(jobs.size());
    for (const LiveJob &job : jobs)
        names.push_back(Printable(job.name));
    try {
        return CountStarts(context.appliance, names,
                           daemon.IsRunning() ? daemon.since : context.now);
    } catch (const Failure &failure) {
        std::cerr << "kestcronctl: " << Shown(failure.what()) << "\n";
        return std::nullopt;
    }
}

} // namespace

int Metrics(const Context &context) {
    if (context.json)
        throw Failure("metrics does not support --json; use list --json");
    const Daemon daemon = FindDaemon(context.appliance);
    const Runtime runtime = RuntimeOrNone(context, daemon);
    SystemFigures system;
    system.refused = CountRefused(SourceErrors(context));
    if (const std::optional<ScheduleTemplate> shared = FindTemplate(context.appliance))
        system.maxDelay = shared->maxDelay;
    if (runtime.saved != 0)
        system.saved = runtime.saved;
    system.counts = CountsFor(context, runtime.jobs, daemon);
    std::cout << MetricsInText(runtime.jobs, daemon, system, context.now);
    return 0;
}

} // namespace kest::ctl
