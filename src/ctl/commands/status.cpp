#include "base/paths.h"
#include "core/unreadable.h"
#include "ctl/commands/commands.h"
#include "ctl/display/coming_starts.h"
#include "ctl/display/job_status.h"
#include "ctl/display/phrases.h"
#include "ctl/display/times.h"
#include "ctl/system/failure.h"
#include "job/schedule.h"
#include "platform/kestcore.h"

#include <iostream>
#include <map>
#include <string>
#include <vector>

namespace kest::ctl {

// JSON output: "running", "pid", "since", "passive", "held", "delayed" (number of launched jobs
// that wait out their delay), "jobs" (number), "draw" (the values of the schedule template as
// text), "max_delay" (seconds), "redraw" (the next redraw of each field), "document" (the file that
// the jobs are read from) and "unreadable" (copies of saved documents that could not be read).
// Unknown values are null.

namespace {

struct StatusData {
    bool local = true; // this appliance
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

void Line(const std::string &name, const std::string &text) {
    std::cout << Padded(name.empty() ? "" : name + ":", 13) << text << "\n";
}

// One line for each field: its drawn value and its next redraw.
void ShowDraw(const StatusData &data, std::time_t now) {
    const char *name = "draw";
    for (const std::string &key : FieldKeys()) {
        const std::int32_t drawn =
            data.schedule ? data.schedule->GetSingleScheduleValue(key) : kAnyValue;
        const std::string value = drawn == kAnyValue ? "-" : ValueInWords(key, drawn);
        Line(name, Padded(FieldsInWords({key}), 9) + Padded(value, 11) + "until " +
                       WhenInWords(data.redraws.at(key), now));
        name = "";
    }
}

void Show(const StatusData &data, const Context &context) {
    const Daemon &daemon = data.daemon;
    if (!context.appliance.IsLocal())
        Line("kestcrond", "on another system");
    else if (daemon.IsRunning())
        Line("kestcrond", Coloured(context.screen, Colour::Green, "running") + " as process " +
                              std::to_string(daemon.pid) + " since " +
                              WhenInWords(daemon.since, context.now));
    else
        Line("kestcrond", Coloured(context.screen, Colour::Red, "not running"));
    if (daemon.IsRunning())
        Line("mode", daemon.passive ? "passive: runs only jobs with \"run_on_passive\"" : "active");
    if (context.appliance.IsLocal())
        Line("machine", daemon.held ? "held: runs only overdue jobs with "
                                      "\"assure_execute_action\" \"run\""
                                    : "not held");
    if (data.runtime)
        Line("jobs", std::to_string(data.runtime->jobs.size()) +
                         (daemon.delayed != 0 ? ", " + std::to_string(daemon.delayed) +
                                                    " launched and waiting out their delay"
                                              : ""));
    if (data.schedule)
        Line("max delay", std::to_string(data.schedule->maxDelay) + " s");
    ShowDraw(data, context.now);
    for (const std::string &path : data.unreadable)
        Line("unreadable", path + " (copy of a saved document that could not be read)");
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
