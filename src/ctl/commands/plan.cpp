#include "ctl/check/plan.h"

#include "ctl/commands/commands.h"
#include "ctl/display/launch_forecast.h"
#include "ctl/display/phrases.h"
#include "ctl/display/starts.h"
#include "ctl/display/timeline.h"
#include "ctl/display/times.h"
#include "ctl/display/utf8.h"
#include "ctl/system/live_state.h"

#include <algorithm>
#include <iostream>
#include <set>
#include <tuple>
#include <utility>

namespace kest::ctl {

// JSON output: "jobs", those that do not stay as they are, each with "name", "change" ("comes",
// "changes" or "goes"), "file", "line", "changed" (members), "next" (as StartToJson; null for
// never) and "is_drawn"; "unchanged", the number of the others; "before" and "after", the load of
// the next day, each with "jobs", "starts", "possible", "peak" and "peak_from"; and "problems".

namespace {

constexpr std::size_t kHours = 24;

// The load of the next day.
struct DayLoad {
    std::size_t jobs = 0;
    std::size_t starts = 0;   // that are certain
    std::size_t possible = 0; // at most
    QuarterHour peak;
};

DayLoad LoadOfDay(const Context &context, const std::vector<LiveJob> &jobs, const Daemon &daemon,
                  std::int32_t maxDelay) {
    const TimelineData data = CollectStarts(jobs, daemon, maxDelay, context.now, kHours);
    DayLoad load;
    load.jobs = jobs.size();
    for (const JobRow &row : data.rows)
        for (const JobStart &start : row.starts) {
            load.starts += start.undrawn.empty() ? 1 : 0;
            load.possible += start.most;
        }
    const auto startsIn = [](const QuarterHour &quarter) {
        return quarter.starts + quarter.possible;
    };
    for (const QuarterHour &quarter : LoadOf(data))
        if (startsIn(quarter) > startsIn(load.peak))
            load.peak = quarter;
    return load;
}

struct PlannedLoad {
    std::vector<PlannedJob> jobs;
    std::vector<LiveJob> after;                // the jobs after the load
    std::vector<std::optional<JobStart>> next; // their next starts
    DayLoad before;
    DayLoad load;
    std::vector<Diagnostic> problems;
};

// Whether `file` is one of the paths, or in a directory that is.
bool IsIn(const std::vector<std::string> &paths, const std::string &file) {
    return std::any_of(paths.begin(), paths.end(), [&](std::string path) {
        while (path.size() > 1 && path.back() == '/')
            path.pop_back();
        return file == path || file.compare(0, path.size() + 1, path + "/") == 0;
    });
}

// The errors of the planned files, and those that they cause elsewhere, such as by using up the
// quota of their account. Without planned files, all errors.
std::vector<Diagnostic> NewErrors(const Context &context, const CheckResult &result,
                                  const std::vector<std::string> &planned) {
    const auto identify = [](const Diagnostic &error) {
        return std::make_tuple(error.file, error.position.line, error.position.column,
                               error.message);
    };
    std::set<decltype(identify(Diagnostic()))> known;
    if (!planned.empty())
        for (const Diagnostic &error : SourceErrors(context))
            known.insert(identify(error));
    std::vector<Diagnostic> errors;
    for (const Diagnostic &diagnostic : result.diagnostics)
        if (diagnostic.severity == Severity::Error &&
            (IsIn(planned, diagnostic.file) || known.count(identify(diagnostic)) == 0))
            errors.push_back(diagnostic);
    return errors;
}

PlannedLoad MakePlan(const Context &context, const PlanOptions &options) {
    const Daemon daemon = FindDaemon(context.appliance);
    Runtime runtime = RuntimeOrNone(context, daemon);
    const CheckResult files =
        CheckPlannedOn(context.appliance, options.paths, options.source, options.account);
    for (const std::string &error : files.unreadable)
        throw Failure(error);
    PlannedLoad plan;
    plan.problems = NewErrors(context, files, options.paths);
    plan.before = LoadOfDay(context, runtime.jobs, daemon, runtime.maxDelay);
    plan.jobs =
        PlanLoad(std::move(runtime.jobs), files, FindTemplate(context.appliance), context.now);
    for (PlannedJob &job : plan.jobs)
        if (job.change != Change::Goes)
            plan.after.push_back(std::move(job.live));
    plan.next = NextStarts(plan.after, daemon, runtime.maxDelay, context.now);
    plan.load = LoadOfDay(context, plan.after, daemon, runtime.maxDelay);
    return plan;
}

// Calls `take` with each job and its next start.
template <typename Take>
void ForEachJob(const PlannedLoad &plan, const Take &take) {
    std::size_t i = 0;
    for (const PlannedJob &job : plan.jobs)
        take(job, job.change == Change::Goes ? std::optional<JobStart>() : plan.next[i++]);
}

const char *InWords(Change change) {
    switch (change) {
    case Change::Comes:
        return "comes";
    case Change::Changes:
        return "changes";
    case Change::Goes:
        return "goes";
    case Change::Stays:
        break;
    }
    return "stays";
}

Colour ColourOf(Change change) {
    switch (change) {
    case Change::Comes:
        return Colour::Green;
    case Change::Changes:
        return Colour::Yellow;
    case Change::Goes:
        return Colour::Red;
    case Change::Stays:
        break;
    }
    return Colour::None;
}

// --- JSON ---------------------------------------------------------------------------------------

Json::Value LoadToJson(const DayLoad &load) {
    Json::Value json;
    json["jobs"] = Json::UInt64{load.jobs};
    json["starts"] = Json::UInt64{load.starts};
    json["possible"] = Json::UInt64{load.possible};
    json["peak"] = Json::UInt64{load.peak.starts + load.peak.possible};
    json["peak_from"] = load.peak.from != 0 ? Json::Value(Iso(load.peak.from)) : Json::Value();
    return json;
}

Json::Value JobToJson(const PlannedJob &job, const std::optional<JobStart> &next) {
    Json::Value json;
    json["name"] = job.name;
    json["change"] = InWords(job.change);
    const bool goes = job.change == Change::Goes;
    json["file"] = goes ? Json::Value() : Json::Value(job.source.file);
    json["line"] = goes ? Json::Value() : Json::Value(Json::UInt64{job.source.position.line});
    json["changed"] = Json::Value(Json::arrayValue);
    for (const std::string &member : job.source.changed)
        json["changed"].append(member);
    json["next"] = next ? StartToJson(*next) : Json::Value();
    json["is_drawn"] = job.isDrawn;
    return json;
}

Json::Value PlanToJson(const PlannedLoad &plan) {
    Json::Value json;
    json["jobs"] = Json::Value(Json::arrayValue);
    Json::UInt64 unchanged = 0;
    ForEachJob(plan, [&](const PlannedJob &job, const std::optional<JobStart> &next) {
        if (job.change == Change::Stays)
            ++unchanged;
        else
            json["jobs"].append(JobToJson(job, next));
    });
    json["unchanged"] = unchanged;
    json["before"] = LoadToJson(plan.before);
    json["after"] = LoadToJson(plan.load);
    json["problems"] = Json::Value(Json::arrayValue);
    for (const Diagnostic &problem : plan.problems)
        json["problems"].append(DiagnosticToJson(problem));
    return json;
}

// --- Text ---------------------------------------------------------------------------------------

std::string NextInWords(const PlannedJob &job, const std::optional<JobStart> &next,
                        std::time_t now) {
    if (job.change == Change::Goes)
        return "-";
    if (!next)
        return "never";
    return (job.isDrawn ? "" : "drawn at the load, such as ") + LaunchInShort(*next, now);
}

void WriteChanges(const Context &context, const PlannedLoad &plan) {
    Table table({"JOB", "CHANGE", "MEMBERS", "NEXT RUN"}, {2});
    std::size_t changes = 0;
    ForEachJob(plan, [&](const PlannedJob &job, const std::optional<JobStart> &next) {
        if (job.change == Change::Stays)
            return;
        ++changes;
        table.Add({job.name, InWords(job.change), Enumerated(job.source.changed),
                   NextInWords(job, next, context.now)},
                  ColourOf(job.change));
    });
    const std::size_t same = plan.jobs.size() - changes;
    if (changes != 0)
        std::cout << table.Show(context.screen);
    std::cout << Wrapped(context.screen,
                         (changes == 0 ? "no job comes, changes or goes; " : "") +
                             std::to_string(same) + (same == 1 ? " job stays" : " jobs stay"),
                         0)
              << "\n";
}

// Members that are new do not change a job, and a load does not apply them.
void WriteIgnoredMembers(const Context &context, const PlannedLoad &plan) {
    for (const PlannedJob &job : plan.jobs)
        if (job.change == Change::Stays && !job.source.added.empty())
            std::cout << Wrapped(context.screen,
                                 Shown(job.name) + " stays without " +
                                     Shown(Enumerated(job.source.added)) +
                                     ": a reload does not apply members that are only added",
                                 2)
                      << "\n";
}

std::string LoadInWords(const DayLoad &load, std::time_t now) {
    if (load.possible == 0)
        return "no starts";
    std::string text = load.starts == load.possible
                           ? std::to_string(load.starts)
                           : std::to_string(load.starts) + " to " + std::to_string(load.possible);
    text += load.possible == 1 ? " start" : " starts";
    return text + ", at most " + std::to_string(load.peak.starts + load.peak.possible) +
           " in a quarter of an hour (" + WhenInShort(load.peak.from, now) + ")";
}

void WriteLoad(const Context &context, const PlannedLoad &plan) {
    std::cout << "\nIn the next 24 hours:\n";
    for (const auto &[when, load] :
         {std::make_pair("before: ", &plan.before), std::make_pair("after:  ", &plan.load)})
        std::cout << "  " << when << Wrapped(context.screen, LoadInWords(*load, context.now), 10)
                  << "\n";
}

} // namespace

int Plan(const Context &context, const PlanOptions &options) {
    const auto plan = MakePlan(context, options);
    if (context.json) {
        WriteJson(PlanToJson(plan));
    } else {
        WriteChanges(context, plan);
        WriteIgnoredMembers(context, plan);
        WriteLoad(context, plan);
        std::cout << (plan.problems.empty() ? "" : "\nNot loaded:\n");
        for (const Diagnostic &problem : plan.problems)
            WriteDiagnostic(problem, context.screen, std::cout);
    }
    return plan.problems.empty() ? 0 : 1;
}

} // namespace kest::ctl
