#include "base/paths.h"
#include "core/unreadable.h"
#include "ctl/commands/commands.h"
#include "ctl/display/coming_starts.h"
#include "ctl/display/job_json.h"
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

// The answer in JSON: "running", "pid", "since", "passive", "held", "delayed" (launched jobs that
// wait for their turn), "jobs", "draw" (the template's values as text), "max_delay" (seconds),
// "redraw" (field to the time at which it is drawn anew), "document" (the file that jobs are known
// from) and "unreadable" (the files that keep saved documents which could not be read). What is not
// known is null.

namespace {

struct StatusFacts {
    bool here = true; // this very appliance
    Daemon daemon;
    std::optional<Runtime> runtime;
    std::optional<ScheduleTemplate> schedule;
    std::map<std::string, std::time_t> redraws; // by field
    std::vector<std::string> unreadable;
};

std::vector<std::string> KeptUnreadable(const Appliance &appliance) {
    std::vector<std::string> kept;
    for (const char *path : {kPersistentFile, kPersistentTemplateFile})
        if (XLIBCFileExist(appliance.Locate(UnreadableName(path)).c_str()))
            kept.push_back(UnreadableName(path));
    return kept;
}

StatusFacts Gather(const Context &context) {
    StatusFacts facts;
    facts.here = context.appliance.IsThisOne();
    facts.daemon = FindDaemon(context.appliance);
    try {
        facts.runtime = LoadRuntime(context.appliance);
    } catch (const Failure &failure) {
        std::cerr << "kestcronctl: " << failure.what() << "\n";
    }
    facts.schedule = FindTemplate(context.appliance);
    for (const std::string &key : FieldKeys())
        facts.redraws[key] = NextRedraw(key, context.now);
    facts.unreadable = KeptUnreadable(context.appliance);
    return facts;
}

Json::Value ToJson(const StatusFacts &facts) {
    const Daemon &daemon = facts.daemon;
    const bool runs = daemon.Runs();
    Json::Value json;
    json["running"] = runs;
    json["pid"] = runs ? Json::Value(daemon.pid) : Json::Value();
    json["since"] = TimeToJson(daemon.since);
    json["passive"] = runs ? Json::Value(daemon.passive) : Json::Value();
    json["held"] = facts.here ? Json::Value(daemon.held) : Json::Value();
    json["delayed"] = facts.here ? Json::Value(daemon.delayed) : Json::Value();
    json["jobs"] =
        facts.runtime ? Json::Value(Json::UInt64{facts.runtime->jobs.size()}) : Json::Value();
    json["document"] = facts.runtime ? Json::Value(facts.runtime->path) : Json::Value();
    json["draw"] = facts.schedule ? Json::Value(facts.schedule->RenderSchedule()) : Json::Value();
    json["max_delay"] = facts.schedule ? Json::Value(facts.schedule->maxDelay) : Json::Value();
    for (const auto &[key, time] : facts.redraws)
        json["redraw"][key] = Iso(time);
    json["unreadable"] = Json::arrayValue;
    for (const std::string &path : facts.unreadable)
        json["unreadable"].append(path);
    return json;
}

void Line(const std::string &name, const std::string &text) {
    std::cout << Padded(name.empty() ? "" : name + ":", 13) << text << "\n";
}

// One line a field: what is drawn, and how long it holds.
void ShowDraw(const StatusFacts &facts, std::time_t now) {
    const char *name = "draw";
    for (const std::string &key : FieldKeys()) {
        const std::int32_t drawn =
            facts.schedule ? facts.schedule->GetSingleScheduleValue(key) : kAnyValue;
        const std::string value = drawn == kAnyValue ? "-" : ValueInWords(key, drawn);
        Line(name, Padded(FieldsInWords({key}), 9) + Padded(value, 11) + "until " +
                       WhenInWords(facts.redraws.at(key), now));
        name = "";
    }
}

void Show(const StatusFacts &facts, const Context &context) {
    const Daemon &daemon = facts.daemon;
    if (!context.appliance.IsThisOne())
        Line("kestcrond", "on another system, which does not run here");
    else if (daemon.Runs())
        Line("kestcrond", Coloured(context.screen, Colour::Green, "running") + " as process " +
                              std::to_string(daemon.pid) + " since " +
                              WhenInWords(daemon.since, context.now));
    else
        Line("kestcrond", Coloured(context.screen, Colour::Red, "not running"));
    if (daemon.Runs())
        Line("mode", daemon.passive ? "passive: only jobs with \"run_on_passive\" run" : "active");
    if (context.appliance.IsThisOne())
        Line("machine", daemon.held ? "held: only overdue jobs with \"assure_execute_action\" "
                                      "\"run\" run"
                                    : "not held");
    if (facts.runtime)
        Line("jobs", std::to_string(facts.runtime->jobs.size()) +
                         (daemon.delayed != 0 ? ", " + std::to_string(daemon.delayed) +
                                                    " launched and waiting for their turn"
                                              : ""));
    if (facts.schedule)
        Line("max delay", std::to_string(facts.schedule->maxDelay) + " s");
    ShowDraw(facts, context.now);
    for (const std::string &path : facts.unreadable)
        Line("unreadable", path + " keeps a saved document that could not be read");
}

} // namespace

int Status(const Context &context) {
    constexpr int notRunning = 3; // as init scripts have it
    const StatusFacts facts = Gather(context);
    if (context.json)
        WriteJson(ToJson(facts));
    else
        Show(facts, context);
    return facts.daemon.Runs() || !context.appliance.IsThisOne() ? 0 : notRunning;
}

} // namespace kest::ctl
