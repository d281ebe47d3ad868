#include "base/json_members.h"
#include "base/paths.h"
#include "ctl/commands/commands.h"
#include "ctl/display/phrases.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"
#include "job/runtime_directory.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <iostream>
#include <map>
#include <sys/stat.h>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace kest::ctl {

// JSON output: "came", "went" and "changed", arrays of job names, and "jobs", the number of jobs.

namespace {

using Definitions = std::map<std::string, Json::Value>;

Definitions DefinitionsIn(const Runtime &runtime) {
    Definitions definitions;
    for (const LiveJob &job : runtime.jobs)
        definitions[job.name] = job.job.Config();
    return definitions;
}

// Identifies one version of a file or directory.
using Stamp = std::tuple<ino_t, std::time_t, long>;

Stamp StampOf(const char *path) {
    struct stat status {};
    if (stat(path, &status) == -1)
        return {};
    return {status.st_ino, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

// Waits until the daemon has staged programs and then written its runtime document. The document
// alone is not enough, because the daemon writes it at each redraw too.
void WaitForReload(const Daemon &daemon, Stamp document, Stamp staging, bool hadJobs,
                   std::chrono::seconds timeout) {
    constexpr std::chrono::milliseconds pause(20);
    const auto end = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (StampOf(kRuntimeFile) != document) {
            if (!hadJobs || StampOf(kRuntimeDirectory) != staging)
                return;
            document = StampOf(kRuntimeFile);
        }
        if (kill(daemon.pid, 0) == -1 && errno == ESRCH)
            throw Failure("kestcrond has stopped");
        if (std::chrono::steady_clock::now() > end)
            throw Failure("kestcrond did not reload within " + std::to_string(timeout.count()) +
                          " s");
        std::this_thread::sleep_for(pause);
    }
}

struct Difference {
    std::vector<std::string> added;
    std::vector<std::string> removed;
    std::vector<std::string> changed;
};

Difference Compare(const Definitions &before, const Definitions &after) {
    Difference difference;
    for (const auto &[name, definition] : after) {
        const auto found = before.find(name);
        if (found == before.end())
            difference.added.push_back(name);
        else if (found->second != definition)
            difference.changed.push_back(name);
    }
    for (const auto &[name, definition] : before)
        if (after.count(name) == 0)
            difference.removed.push_back(name);
    return difference;
}

Json::Value NamesToJson(const std::vector<std::string> &names) {
    Json::Value json(Json::arrayValue);
    for (const std::string &name : names)
        json.append(name);
    return json;
}

void Write(const Context &context, const Difference &difference, std::size_t jobs,
           const std::vector<Diagnostic> &errors) {
    if (context.json) {
        Json::Value json;
        json["came"] = NamesToJson(difference.added);
        json["went"] = NamesToJson(difference.removed);
        json["changed"] = NamesToJson(difference.changed);
        json["jobs"] = Json::UInt64{jobs};
        json["problems"] = Json::Value(Json::arrayValue);
        for (const Diagnostic &error : errors)
            json["problems"].append(DiagnosticToJson(error));
        WriteJson(json);
        return;
    }
    const auto write = [&](Colour colour, const char *change,
                           const std::vector<std::string> &names) {
        for (const std::string &name : names)
            std::cout << Coloured(context.screen, colour, change) << " "
                      << Wrapped(context.screen, Shown(name), std::strlen(change) + 1) << "\n";
    };
    write(Colour::Green, "added  ", difference.added);
    write(Colour::Red, "removed", difference.removed);
    write(Colour::Yellow, "changed", difference.changed);
    const bool same =
        difference.added.empty() && difference.removed.empty() && difference.changed.empty();
    std::cout << Wrapped(context.screen,
                         (same ? "no jobs added, removed or changed; " : "") +
                             std::to_string(jobs) + (jobs == 1 ? " job" : " jobs"),
                         0)
              << "\n";
    for (const Diagnostic &error : errors)
        WriteDiagnostic(error, context.screen, std::cout);
}

} // namespace

int Reload(const Context &context, const ReloadOptions &options) {
    if (!context.appliance.IsLocal())
        throw Failure("reload works only on this system, without --root");
    const Daemon daemon = FindDaemon(context.appliance);
    if (!daemon.IsRunning())
        throw Failure(std::string("kestcrond is not running: ") + kPidFile +
                      " does not name a kestcrond process");
    const Runtime before = LoadRuntime(context.appliance);
    const Stamp document = StampOf(kRuntimeFile);
    const Stamp staging = StampOf(kRuntimeDirectory);
    if (kill(daemon.pid, SIGHUP) == -1)
        throw Failure(std::string("cannot send a signal to kestcrond: ") + std::strerror(errno));
    WaitForReload(daemon, document, staging, !before.jobs.empty(),
                  std::chrono::seconds(options.timeout));
    const Runtime after = LoadRuntime(context.appliance);
    const std::vector<Diagnostic> errors = SourceErrors(context);
    Write(context, Compare(DefinitionsIn(before), DefinitionsIn(after)), after.jobs.size(), errors);
    return errors.empty() ? 0 : 1;
}

} // namespace kest::ctl
