#include "ctl/display/metrics.h"

#include "base/paths.h"
#include "ctl/commands/commands.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"
#include "ctl/system/live_state.h"

#include <iostream>
#include <unistd.h>

namespace kest::ctl {

namespace {

bool HasDocument(const Appliance &appliance) {
    return access(appliance.Locate(kRuntimeFile).c_str(), F_OK) == 0 ||
           access(appliance.Locate(kPersistentFile).c_str(), F_OK) == 0;
}

// Without a document there are no jobs; a document that cannot be read is an error.
Runtime JobsOrNone(const Context &context, const Daemon &daemon) {
    try {
        Runtime runtime = LoadRuntime(context.appliance);
        CompleteState(runtime, daemon, context.now);
        WarnOfStaleData(runtime, daemon, context);
        return runtime;
    } catch (const Failure &failure) {
        if (HasDocument(context.appliance))
            throw;
        std::cerr << "kestcronctl: " << Shown(failure.what()) << "\n";
        return {};
    }
}

} // namespace

int Metrics(const Context &context) {
    if (context.json)
        throw Failure("metrics does not support --json; use list --json");
    const Daemon daemon = FindDaemon(context.appliance);
    const Runtime runtime = JobsOrNone(context, daemon);
    const std::optional<ScheduleTemplate> shared = FindTemplate(context.appliance);
    std::cout << MetricsInText(
        runtime.jobs, daemon, shared ? std::optional<std::int32_t>(shared->maxDelay) : std::nullopt,
        context.now);
    return 0;
}

} // namespace kest::ctl
