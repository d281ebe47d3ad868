#include "base/paths.h"
#include "core/unreadable.h"
#include "ctl/commands/commands.h"
#include "ctl/display/coming_starts.h"
#include "ctl/display/job_status.h"
#include "ctl/display/phrases.h"
#include "ctl/display/times.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"
#include "job/schedule.h"
#include "platform/kestcore.h"

#include <algorithm>
#include <cstddef>
#include <iostream>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kest::ctl {

// JSON output: "running", "pid", "since", "passive", "held", "delayed" (number of launched jobs
// that wait out their delay), "failed_starts" (the jobs whose program could not be run the last
// time, each with "job", "time" and "reason"), "jobs" (number), "draw" (the values of the schedule
// template as text), "max_delay" (seconds), "redraw" (the next redraw of each field), "document"
// (the file that the jobs are read from) and "unreadable" (copies of saved documents that could not
// be read). Unknown values are null.

namespace {

struct StatusData {
    bool local = true;   // this appliance
    bool hasLog = false; // failed starts are known
    Daemon daemon;
    std::optional<Runtime> runtime;
    std::optional<ScheduleTemplate> schedule;
    std::map<std::string, std::time_t> redraws; // by field
    std::vector<std::string> unreadable;
};

std::vector<std::string> UnreadableCopies(const Appliance &appliance) {
    std::vector<std::string> copies;
    for (const char *path : {kPersistentFile, kPersistentTemplateFile})
        if (XLIBCFileExist(appliance.Locate(UnreadableName(path)).c_str()))
            copies.push_back(UnreadableName(path));
    return copies;
}

StatusData Gather(const Context &context) {
    StatusData data;
    data.local = context.appliance.IsLocal();
    data.hasLog = !IsLogDenied(context);
    data.daemon = FindDaemon(context.appliance);
    try {
        data.runtime = LoadRuntime(context.appliance);
    } catch (const Failure &failure) {
        std::cerr << "kestcronctl: " << failure.what() << "\n";
    }
    data.schedule = FindTemplate(context.appliance);
    for (const std::string &key : FieldKeys())
        data.redraws[key] = NextRedraw(key, context.now);
    data.unreadable = UnreadableCopies(context.appliance);
    return data;
}

std::vector<const LiveJob *> FailedStarts(const StatusData &data) {
    std::vector<const LiveJob *> failed;
    if (data.runtime)
        for (const LiveJob &job : data.runtime->jobs)
            if (job.failed != 0)
                failed.push_back(&job);
    return failed;
}

Json::Value FailedStartsToJson(const StatusData &data) {
    if (!data.runtime || !data.hasLog)
        return {};
    Json::Value json(Json::arrayValue);
    for (const LiveJob *job : FailedStarts(data)) {
        Json::Value failed;
        failed["job"] = job->name;
        failed["time"] = Iso(job->failed);
        failed["reason"] = job->failure;
        json.append(std::move(failed));
    }
    return json;
}

Json::Value ToJson(const StatusData &data) {
    const Daemon &daemon = data.daemon;
    const bool runs = daemon.IsRunning();
    Json::Value json;
    json["running"] = runs;
    json["pid"] = runs ? Json::Value(daemon.pid) : Json::Value();
    json["since"] = TimeToJson(daemon.since);
    json["passive"] = runs ? Json::Value(daemon.passive) : Json::Value();
    json["held"] = data.local ? Json::Value(daemon.held) : Json::Value();
    json["delayed"] = data.local ? Json::Value(daemon.delayed) : Json::Value();
    json["failed_starts"] = FailedStartsToJson(data);
    json["jobs"] =
        data.runtime ? Json::Value(Json::UInt64{data.runtime->jobs.size()}) : Json::Value();
    json["document"] = data.runtime ? Json::Value(data.runtime->path) : Json::Value();
    json["draw"] = data.schedule ? Json::Value(data.schedule->RenderSchedule()) : Json::Value();
    json["max_delay"] = data.schedule ? Json::Value(data.schedule->maxDelay) : Json::Value();
    for (const auto &[key, time] : data.redraws)
        json["redraw"][key] = Iso(time);
    json["unreadable"] = Json::arrayValue;
    for (const std::string &path : data.unreadable)
        json["unreadable"].append(path);
    return json;
}

void StatusLine(const Screen &screen, const std::string &name, const std::string &text) {
    constexpr std::size_t names = 15; // columns
    std::cout << Padded(name.empty() ? "" : name + ":", names) << Wrapped(screen, text, names)
              << "\n";
}

// Each job whose program could not be run the last time. Many often fail for one reason, such as a
// file system that is not mounted.
void ShowFailedStarts(const StatusData &data, const Context &context) {
    constexpr std::size_t most = 10;
    const std::vector<const LiveJob *> failed = FailedStarts(data);
    const std::size_t shown = std::min(failed.size(), most);
    const char *name = "failed starts";
    for (std::size_t i = 0; i < shown; ++i)
        StatusLine(context.screen, std::exchange(name, ""),
                   Shown(failed[i]->name) + ", " + WhenInWords(failed[i]->failed, context.now) +
                       ": " + Shown(failed[i]->failure));
    if (shown < failed.size())
        StatusLine(context.screen, "",
                   "and " + std::to_string(failed.size() - shown) +
                       " more; see kestcronctl list --state failed");
    if (!data.hasLog)
        StatusLine(context.screen, name, "unknown, because the execution log is not readable");
}

// One line for each field: its drawn value and its next redraw.
void ShowDraw(const StatusData &data, const Context &context) {
    constexpr std::size_t narrow = 60; // columns; on fewer the values are not aligned
    const bool isNarrow = context.screen.width != 0 && context.screen.width < narrow;
    const char *name = "draw";
    for (const std::string &key : FieldKeys()) {
        const std::int32_t drawn =
            data.schedule ? data.schedule->GetSingleScheduleValue(key) : kAnyValue;
        const std::string value = drawn == kAnyValue ? "-" : ValueInWords(key, drawn);
        StatusLine(context.screen, name,
                   Padded(FieldsInWords({key}), isNarrow ? 0 : 8) + " " +
                       Padded(value, isNarrow ? 0 : 10) + " until " +
                       WhenInWords(data.redraws.at(key), context.now));
        name = "";
    }
}

void Show(const StatusData &data, const Context &context) {
    const Daemon &daemon = data.daemon;
    const auto line = [&](const std::string &name, const std::string &text) {
        StatusLine(context.screen, name, text);
    };
    if (!context.appliance.IsLocal())
        line("kestcrond", "on another system");
    else if (daemon.IsRunning())
        line("kestcrond", Coloured(context.screen, Colour::Green, "running") + " as process " +
                              std::to_string(daemon.pid) + " since " +
                              WhenInWords(daemon.since, context.now));
    else
        line("kestcrond", Coloured(context.screen, Colour::Red, "not running"));
    if (daemon.IsRunning())
        line("mode", daemon.passive ? "passive: runs only jobs with \"run_on_passive\"" : "active");
    if (context.appliance.IsLocal())
        line("machine", daemon.held ? "held: runs only overdue jobs with "
                                      "\"assure_execute_action\" \"run\""
                                    : "not held");
    if (data.runtime)
        line("jobs", std::to_string(data.runtime->jobs.size()) +
                         (daemon.delayed != 0 ? ", " + std::to_string(daemon.delayed) +
                                                    " launched and waiting out their delay"
                                              : ""));
    if (data.schedule)
        line("max delay", std::to_string(data.schedule->maxDelay) + " s");
    ShowFailedStarts(data, context);
    ShowDraw(data, context);
    for (const std::string &path : data.unreadable)
        line("unreadable", path + " (copy of a saved document that could not be read)");
}

} // namespace

int Status(const Context &context) {
    constexpr int notRunning = 3; // as for the status action of init scripts
    const StatusData data = Gather(context);
    if (context.json)
        WriteJson(ToJson(data));
    else
        Show(data, context);
    return data.daemon.IsRunning() || !context.appliance.IsLocal() ? 0 : notRunning;
}

} // namespace kest::ctl
