#include "ctl/commands/commands.h"

#include "base/json_text.h"
#include "base/paths.h"
#include "ctl/display/times.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"
#include "ctl/system/live_state.h"

#include <algorithm>
#include <cerrno>
#include <fnmatch.h>
#include <iostream>
#include <json/writer.h>
#include <unistd.h>

namespace kest::ctl {

bool MatchesPattern(const std::string &pattern, const std::string &name) {
    if (pattern.find_first_of("*?[") == std::string::npos)
        return name.find(pattern) != std::string::npos;
    return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

bool MatchesAny(const std::vector<std::string> &patterns, const std::string &name) {
    return patterns.empty() ||
           std::any_of(patterns.begin(), patterns.end(),
                       [&](const std::string &pattern) { return MatchesPattern(pattern, name); });
}

bool MatchesJob(const std::string &pattern, const std::string &name) {
    if (pattern.find_first_of("*?[") != std::string::npos)
        return MatchesPattern(pattern, name);
    return name == pattern || EndsWithName(name, pattern);
}

bool IsLogDenied(const Context &context) {
    const std::string log = context.appliance.Locate(kExecutionLogFile);
    return access(log.c_str(), R_OK) == -1 && errno == EACCES;
}

namespace {

// Without the log, what happened since the document was written is unknown.
void WarnOfUnreadableLog(const Runtime &runtime, const Context &context) {
    if (IsLogDenied(context))
        std::cerr << "kestcronctl: " << context.appliance.Locate(kExecutionLogFile)
                  << " is not readable for you, so runs since "
                  << WhenInWords(runtime.saved, context.now) << " are not shown\n";
}

} // namespace

Snapshot TakeSnapshot(const Context &context) {
    Snapshot snapshot{LoadRuntime(context.appliance), FindDaemon(context.appliance)};
    CompleteState(snapshot.runtime, snapshot.daemon, context.now);
    WarnOfStaleData(snapshot.runtime, snapshot.daemon, context);
    WarnOfWaitingStarts(snapshot.daemon);
    WarnOfUnreadableLog(snapshot.runtime, context);
    return snapshot;
}

namespace {

bool HasDocument(const Appliance &appliance) {
    return access(appliance.Locate(kRuntimeFile).c_str(), F_OK) == 0 ||
           access(appliance.Locate(kPersistentFile).c_str(), F_OK) == 0;
}

} // namespace

Runtime RuntimeOrNone(const Context &context, const Daemon &daemon) {
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

const LiveJob &JobArgument(const Context &context, const Runtime &runtime,
                           const std::string &name) {
    try {
        return FindJob(runtime, name);
    } catch (const Failure &) {
        try {
            PrintWhyNotLoaded(context, name);
        } catch (const Failure &) { // report the missing job instead
        }
        throw;
    }
}

std::time_t TimeArgument(const Context &context, const std::string &text) {
    constexpr std::time_t yearTenThousand = 253402300800;
    const std::optional<std::time_t> time =
        text.empty() ? context.now : ReadTime(text, context.now);
    if (!time || *time < -yearTenThousand || *time >= yearTenThousand)
        throw Failure("\"" + text +
                      "\" is not a valid time; expected: a time such as \"2026-11-15 03:00\", "
                      "03:00, yesterday, 2h (ago) or +2h");
    return *time;
}

void WarnOfStaleData(const Runtime &runtime, const Daemon &daemon, const Context &context) {
    if (context.appliance.IsLocal() && !daemon.IsRunning())
        std::cerr
            << "kestcronctl: kestcrond is not running, so nothing will start; showing the state of "
            << WhenInWords(runtime.saved, context.now) << " from " << runtime.path << "\n";
    for (const std::string &name : runtime.corrupt)
        std::cerr << "kestcronctl: " << runtime.path << ": \"" << Shown(name)
                  << "\" is not a valid job\n";
}

void WarnOfWaitingStarts(const Daemon &daemon) {
    if (daemon.held)
        std::cerr
            << "kestcronctl: the machine is held: until it is released, only overdue jobs with "
               "\"assure_execute_action\" \"run\" start\n";
    if (daemon.delayed != 0)
        std::cerr << "kestcronctl: " << daemon.delayed
                  << (daemon.delayed == 1 ? " job is launched and waits out its delay"
                                          : " jobs are launched and wait out their delays")
                  << "; the log does not show it yet\n";
}

void WriteJson(const Json::Value &document) {
    std::cout << ValidUtf8(JsonToString(document)) << "\n";
}

void WriteJsonLine(const Json::Value &document) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    std::cout << ValidUtf8(Json::writeString(builder, document)) << "\n";
}

} // namespace kest::ctl
