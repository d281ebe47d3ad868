#include "ctl/system/runtime.h"

#include "base/descriptor.h"
#include "base/json_members.h"
#include "base/paths.h"
#include "base/printable.h"
#include "ctl/check/nearest.h"
#include "ctl/display/phrases.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"
#include "ctl/system/last_starts.h"
#include "ctl/system/processes.h"
#include "job/account.h"
#include "job/runtime_directory.h"
#include "platform/kestsdk.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <json/value.h>
#include <sys/stat.h>
#include <utility>

namespace kest::ctl {

namespace {

std::time_t SavedAt(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
}

LiveJob MakeLiveJob(CronJob parsed, std::time_t lastRun) {
    LiveJob live;
    live.job = std::move(parsed);
    live.name = live.job.Name();
    live.account = live.job.Account().value_or("");
    live.staged = StagedPath(live.name);
    live.lastRun = lastRun;
    return live;
}

// Applies the starts in the log. A launch after the document was written also resets what was due.
void ApplyLastStarts(LiveJob &live, const LastStarts &lastStarts) {
    constexpr std::time_t tolerance = 2; // the two programs read the clock one after the other
    const std::time_t known = live.lastRun;
    live.started = lastStarts.started;
    live.isLogged = lastStarts.started != 0 && lastStarts.ran + tolerance >= known;
    if (live.isLogged) {
        live.lastRun = lastStarts.started;
        live.failed = lastStarts.failed;
        live.failure = lastStarts.reason;
    }
    if (lastStarts.launched > known)
        live.job.NoteLaunch(lastStarts.launched);
}

// Documents are limited in size, more strictly for another appliance, whose files may be crafted.
JsonLimits ReadLimits(const Appliance &appliance) {
    return {std::size_t{appliance.IsLocal() ? 256U : 32U} << 20, 128};
}

std::string ReasonOf(int error, const JsonLimits &limits) {
    if (error == EBADMSG)
        return "is not a complete JSON document";
    if (error == EFBIG)
        return "is larger than " + std::to_string(limits.bytes >> 20) + " MiB";
    return std::strerror(error);
}

// Reads the document at `path`. Returns false if it does not exist.
bool ReadDocument(const std::string &path, const JsonLimits &limits, Json::Value &document) {
    JsonOrigin origin;
    if (JsonFromFile(path, document, limits, &origin))
        return true;
    if (errno == ENOENT || errno == ENOTDIR)
        return false;
    throw Failure(path + ": " + ReasonOf(errno, limits));
}

} // namespace

Runtime LoadRuntime(const Appliance &appliance) {
    Runtime runtime;
    Json::Value document;
    for (const char *path : {kRuntimeFile, kPersistentFile}) {
        runtime.path = appliance.Locate(path);
        if (!document.isNull() || ReadDocument(runtime.path, ReadLimits(appliance), document))
            break;
    }
    if (document.isNull())
        throw Failure(std::string("neither ") + kRuntimeFile + " nor " + kPersistentFile +
                      " exists: kestcrond has not run on this system");
    runtime.saved = SavedAt(runtime.path);
    if (const auto shared = FindTemplate(appliance))
        runtime.maxDelay = shared->maxDelay;
    RecentStarts recent = ReadRecentStarts(appliance, runtime.saved);
    runtime.cycles = std::move(recent.cycles);
    const std::vector<Candidate> candidates = Candidates(appliance);
    Json::Value entries = document.isObject() ? std::move(document["jobs"]) : Json::Value();
    document = Json::Value();
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
        std::vector<DefinitionFault> faults;
        const std::time_t lastRun = IntegerMember(std::as_const(*entry), "lastExecution", 0);
        CronJob parsed(std::move(*entry), faults, 1);
        if (!parsed.valid) {
            runtime.corrupt.push_back(entries.isObject() ? entry.name() : "");
            continue;
        }
        LiveJob live = MakeLiveJob(std::move(parsed), lastRun);
        if (const auto found = recent.jobs.find(Printable(live.name)); found != recent.jobs.end())
            ApplyLastStarts(live, found->second);
        live.processes = ProcessesOf(live.staged, live.account, candidates);
        runtime.jobs.push_back(std::move(live));
    }
    std::sort(runtime.jobs.begin(), runtime.jobs.end(),
              [](const LiveJob &a, const LiveJob &b) { return a.name < b.name; });
    return runtime;
}

std::size_t LargestDocument(const Appliance &appliance) {
    std::uintmax_t largest = 0;
    for (const char *path :
         {kRuntimeFile, kPersistentFile, kRuntimeTemplateFile, kPersistentTemplateFile}) {
        struct stat status {};
        if (stat(appliance.Locate(path).c_str(), &status) == 0 && S_ISREG(status.st_mode))
            largest = std::max(largest, static_cast<std::uintmax_t>(status.st_size));
    }
    return static_cast<std::size_t>(std::min<std::uintmax_t>(largest, ReadLimits(appliance).bytes));
}

std::optional<ScheduleTemplate> FindTemplate(const Appliance &appliance) {
    ScheduleTemplate found;
    for (const char *path : {kRuntimeTemplateFile, kPersistentTemplateFile}) {
        Json::Value document;
        std::vector<DefinitionFault> faults;
        if (JsonFromFile(appliance.Locate(path), document, ReadLimits(appliance)) &&
            TakeScheduleTemplate(found, std::move(document), faults))
            return found;
    }
    return std::nullopt;
}

namespace {

// Jobs whose name, or the last part of it, is similar to `name`.
std::vector<std::string> NearestJobs(const std::string &name,
                                     const std::vector<std::string> &names) {
    constexpr std::size_t most = 3;
    std::vector<std::string> near = NearestOf(name, names, most);
    std::vector<std::string> lastParts;
    lastParts.reserve(names.size());
    for (const std::string &full : names)
        lastParts.push_back(full.substr(full.rfind('-') + 1));
    if (near.empty())
        for (const std::string &part : NearestOf(name, lastParts, most))
            for (std::size_t i = 0; i < names.size() && near.size() < most; ++i)
                if (lastParts[i] == part)
                    near.push_back(names[i]);
    std::sort(near.begin(), near.end());
    near.erase(std::unique(near.begin(), near.end()), near.end());
    return near;
}

} // namespace

bool EndsWithName(const std::string &name, const std::string &end) {
    const std::string ending = "-" + end;
    return name.size() > ending.size() &&
           name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
}

const LiveJob &FindJob(const Runtime &runtime, const std::string &name) {
    std::vector<const LiveJob *> matches;
    std::vector<std::string> names;
    for (const LiveJob &live : runtime.jobs) {
        if (live.name == name)
            return live;
        if (EndsWithName(live.name, name))
            matches.push_back(&live);
        names.push_back(live.name);
    }
    if (matches.size() == 1)
        return *matches.front();
    if (!matches.empty()) {
        names.clear();
        for (const LiveJob *match : matches)
            names.push_back(Shown(match->name));
        throw Failure("ambiguous job name \"" + Shown(name) + "\": it matches " +
                      Enumerated(names));
    }
    const std::vector<std::string> near = NearestJobs(name, names);
    std::string message = "unknown job \"" + Shown(name) + "\"";
    if (!near.empty())
        message += (near.size() == 1 ? "; did you mean " : "; did you mean one of ") +
                   Shown(Enumerated(near)) + "?";
    throw Failure(message);
}

} // namespace kest::ctl
