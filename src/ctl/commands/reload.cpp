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

// The answer in JSON: "came", "went" and "changed", names of jobs, and "jobs", how many there are.

namespace {

using Definitions = std::map<std::string, Json::Value>;

Definitions DefinitionsIn(const Runtime &runtime) {
    Definitions definitions;
    for (const LiveJob &job : runtime.jobs)
        definitions[job.name] = job.job.Config();
    return definitions;
}

// What tells one state of a file or directory from the next.
using Stamp = std::tuple<ino_t, std::time_t, long>;

Stamp StampOf(const char *path) {
    struct stat status {};
    if (stat(path, &status) == -1)
        return {};
    return {status.st_ino, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

// Waits until the daemon has written its document after it staged programs anew: it writes the
// document at every redraw too.
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
            throw Failure("the daemon has ended");
        if (std::chrono::steady_clock::now() > end)
            throw Failure("the daemon has not reloaded within " + std::to_string(timeout.count()) +
                          " s");
        std::this_thread::sleep_for(pause);
    }
}

struct Difference {
    std::vector<std::string> came;
    std::vector<std::string> went;
    std::vector<std::string> changed;
};

Difference Compare(const Definitions &before, const Definitions &after) {
    Difference difference;
    for (const auto &[name, definition] : after) {
        const auto found = before.find(name);
        if (found == before.end())
            difference.came.push_back(name);
        else if (found->second != definition)
            difference.changed.push_back(name);
    }
    for (const auto &[name, definition] : before)
        if (after.count(name) == 0)
            difference.went.push_back(name);
    return difference;
}

Json::Value Names(const std::vector<std::string> &names) {
    Json::Value json(Json::arrayValue);
    for (const std::string &name : names)
        json.append(name);
    return json;
}

void Write(const Context &context, const Difference &difference, std::size_t jobs) {
    if (context.json) {
        Json::Value json;
        json["came"] = Names(difference.came);
        json["went"] = Names(difference.went);
        json["changed"] = Names(difference.changed);
        json["jobs"] = Json::UInt64{jobs};
        WriteJson(json);
        return;
    }
    const auto write = [&](Colour colour, const char *what, const std::vector<std::string> &names) {
        for (const std::string &name : names)
            std::cout << Coloured(context.screen, colour, what) << " " << Shown(name) << "\n";
    };
    write(Colour::Green, "came   ", difference.came);
    write(Colour::Red, "went   ", difference.went);
    write(Colour::Yellow, "changed", difference.changed);
    const bool same =
        difference.came.empty() && difference.went.empty() && difference.changed.empty();
    std::cout << (same ? "no job came, went or changed; " : "") << jobs
              << (jobs == 1 ? " job\n" : " jobs\n");
}

} // namespace

int Reload(const Context &context, const ReloadOptions &options) {
    if (!context.appliance.IsThisOne())
        throw Failure("the daemon of another system cannot be reached");
    const Daemon daemon = FindDaemon(context.appliance);
    if (!daemon.Runs())
        throw Failure(std::string("kestcrond does not run: ") + kPidFile +
                      " names no process of that name");
    const Runtime before = LoadRuntime(context.appliance);
    const Stamp document = StampOf(kRuntimeFile);
    const Stamp staging = StampOf(kRuntimeDirectory);
    if (kill(daemon.pid, SIGHUP) == -1)
        throw Failure(std::string("cannot signal the daemon: ") + std::strerror(errno));
    WaitForReload(daemon, document, staging, !before.jobs.empty(),
                  std::chrono::seconds(options.timeout));
    const Runtime after = LoadRuntime(context.appliance);
    Write(context, Compare(DefinitionsIn(before), DefinitionsIn(after)), after.jobs.size());
    return 0;
}

} // namespace kest::ctl
