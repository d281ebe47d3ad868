#include "ctl/display/timeline.h"

#include "ctl/check/checker.h"
#include "ctl/commands/commands.h"
#include "ctl/display/html_page.h"
#include "ctl/display/launch_forecast.h"
#include "ctl/display/timeline_svg.h"
#include "ctl/display/timeline_text.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"
#include "ctl/system/files.h"
#include "ctl/system/past_starts.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <iterator>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace kest::ctl {

namespace {

// What only root can read in the log does not become readable by others.
constexpr mode_t kModeWithLog = 0600;
constexpr mode_t kModeWithoutLog = 0644;

void WriteFile(const std::string &path, const std::string &text, mode_t mode) {
    if (path == "-")
        std::cout << text;
    else if (!ReplaceFile(path, text, mode))
        throw Failure(path + ": " + std::strerror(errno));
}

PastStarts ReadPast(const Context &context, std::size_t hours) {
    const std::time_t from = context.now - static_cast<std::time_t>(hours) * kHour;
    PastStarts log = ReadPastStarts(context.appliance, from, context.now);
    for (const std::string &error : log.errors)
        std::cerr << "kestcronctl: " << Shown(error) << "\n";
    return log;
}

TimelineData Collect(const Context &context, const Snapshot &snapshot,
                     const TimelineOptions &options, const JobFilter &shown) {
    const Runtime &runtime = snapshot.runtime;
    if (options.past)
        return CollectPastStarts(runtime.jobs, ReadPast(context, options.hours), context.now,
                                 options.hours, shown);
    return CollectStarts(runtime.jobs, snapshot.daemon, runtime.maxDelay, context.now,
                         options.hours, shown);
}

std::string HostName(const Appliance &appliance) {
    std::array<char, 256> name{};
    if (!appliance.IsLocal() || gethostname(name.data(), name.size() - 1) == -1)
        return {};
    return name.data();
}

void AddProblems(const Context &context, const JobFilter &shown, PageData &page) {
    CheckResult result = CheckPathsOn(context.appliance, {});
    for (Diagnostic &diagnostic : result.diagnostics)
        if (diagnostic.job.empty() || shown(diagnostic.job))
            page.problems.push_back(std::move(diagnostic));
    for (std::string &error : result.unreadable)
        page.warnings.push_back(std::move(error));
}

// Without the execution log the page has the rest.
void AddPast(const Context &context, const Runtime &runtime, std::size_t hours,
             const JobFilter &shown, PageData &page) {
    PastStarts log;
    try {
        log = ReadPast(context, hours);
    } catch (const Failure &failure) {
        page.isLogRead = false;
        page.warnings.emplace_back(failure.what());
    }
    page.warnings.insert(page.warnings.end(), log.errors.begin(), log.errors.end());
    page.past = CollectPastStarts(runtime.jobs, log, context.now, hours, shown);
    std::copy_if(log.failures.rbegin(), log.failures.rend(), std::back_inserter(page.failures),
                 [&](const PastFailure &failure) { return shown(failure.job); });
}

PageData CollectPage(const Context &context, const Snapshot &snapshot,
                     const TimelineOptions &options, const JobFilter &shown) {
    const Runtime &runtime = snapshot.runtime;
    PageData page;
    page.host = HostName(context.appliance);
    page.local = context.appliance.IsLocal();
    page.now = context.now;
    page.document = runtime.path;
    page.saved = runtime.saved;
    page.daemon = snapshot.daemon;
    AddProblems(context, shown, page);
    for (const std::string &name : runtime.corrupt)
        page.warnings.push_back(runtime.path + ": \"" + name + "\" is not a valid job");
    auto nexts = NextStarts(runtime.jobs, snapshot.daemon, runtime.maxDelay, context.now);
    for (std::size_t i = 0; i < nexts.size(); ++i)
        if (shown(runtime.jobs[i].name))
            page.jobs.push_back({&runtime.jobs[i], std::move(nexts[i])});
    page.coming = CollectStarts(runtime.jobs, snapshot.daemon, runtime.maxDelay, context.now,
                                options.hours, shown);
    AddPast(context, runtime, options.hours, shown, page);
    return page;
}

void RefuseCombinations(const Context &context, const TimelineOptions &options) {
    if (context.json && !options.svg.empty())
        throw Failure("--json and --svg cannot be combined");
    if (context.json && !options.html.empty())
        throw Failure("--json and --html cannot be combined");
    if (options.past && !options.html.empty())
        throw Failure("--past and --html cannot be combined: the page has both days");
}

} // namespace

int Timeline(const Context &context, const TimelineOptions &options) {
    constexpr int noMatch = 1;
    RefuseCombinations(context, options);
    const JobFilter shown = [&](const std::string &name) {
        return MatchesAny(options.patterns, name);
    };
    const Snapshot snapshot = TakeSnapshot(context);
    const TimelineData data = Collect(context, snapshot, options, shown);
    const bool isEmpty = !options.patterns.empty() && data.rows.empty() && data.idle == 0;
    if (isEmpty)
        std::cerr << "kestcronctl: no job matches\n";
    if (isEmpty && !context.json)
        return noMatch;
    if (!options.html.empty())
        WriteFile(options.html, PageInHtml(CollectPage(context, snapshot, options, shown)),
                  kModeWithLog);
    else if (!options.svg.empty())
        WriteFile(options.svg, TimelineInSvg(data), options.past ? kModeWithLog : kModeWithoutLog);
    else if (context.json)
        WriteJson(TimelineToJson(data));
    else
        std::cout << TimelineInText(data, context.screen);
    return isEmpty ? noMatch : 0;
}

} // namespace kest::ctl
