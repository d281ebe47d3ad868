#include "base/descriptor.h"
#include "base/json_members.h"
#include "base/json_text.h"
#include "base/paths.h"
#include "base/printable.h"
#include "ctl/check/source.h"
#include "ctl/commands/commands.h"
#include "ctl/display/job_status.h"
#include "ctl/display/launch_forecast.h"
#include "ctl/display/phrases.h"
#include "ctl/display/starts.h"
#include "ctl/display/times.h"
#include "ctl/display/utf8.h"
#include "ctl/system/log_file.h"
#include "ctl/system/log_line.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <iostream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace kest::ctl {

// JSON output: the members of a job in `list`, and "definition", "command" (an array),
// "assure_execute" (hours), "assure_run", "run_on_passive", "program" and "staged" (paths),
// "staged_state" ("same", "differs", "missing", "unknown"), "source" (null if no file defines the
// job; otherwise its "file", "line" and "column", "valid", and the members that were "changed" or
// "added" since it was loaded), "starts" (the next starts) and "log"
// (the last lines).

namespace {

constexpr std::size_t kStartsShown = 3;
constexpr std::size_t kLogLines = 5;
constexpr std::size_t kLogBytes = std::size_t{1} << 26; // searched at the end of the log

// The content of a program; nothing, with errno set, if it cannot be read.
std::optional<std::string> ContentOf(const std::string &path) {
    constexpr std::size_t most = std::size_t{1} << 28;
    std::string content;
    const Descriptor file = OpenRegularFile(path);
    if (!file || !ReadAll(file.Get(), most, content))
        return std::nullopt;
    return content;
}

struct StagedState {
    const char *word; // in JSON
    std::string text;
};

// Compares the staged program with its source.
StagedState CompareStaged(const Context &context, const LiveJob &job, const std::string &program) {
    const std::string staged = context.appliance.Locate(job.staged);
    if (access(staged.c_str(), F_OK) == -1)
        return {"missing", "not staged (not loaded since /tmp was cleared)"};
    const auto copy = ContentOf(staged);
    if (!copy)
        return {"unknown", "staged (only root can compare it with its source)"};
    const auto source = ContentOf(context.appliance.Locate(program));
    if (!source)
        return {"differs", std::string("staged; cannot read its source: ") + std::strerror(errno)};
    if (*copy == *source)
        return {"same", "staged, identical to its source"};
    return {"differs", "staged; the source has changed since (a reload stages it again)"};
}

std::deque<LogLine> LastLogLines(const Context &context, const LiveJob &job) {
    std::deque<LogLine> lines;
    const std::string name = Printable(job.name);
    LogFile log(context.appliance.Locate(kExecutionLogFile));
    if (log.Open())
        log.SkipToLast(kLogBytes);
    for (std::string text; log.IsOpen() && log.ReadLine(text);) {
        LogLine line = ParseLogLine(text);
        if (line.job != name)
            continue;
        lines.push_back(std::move(line));
        if (lines.size() > kLogLines)
            lines.pop_front();
    }
    return lines;
}

std::string ReasonForNoLines(const Context &context) {
    const std::string path = context.appliance.Locate(kExecutionLogFile);
    if (access(path.c_str(), R_OK) == 0 || errno == ENOENT)
        return "no lines";
    return path + ": " + std::strerror(errno);
}

struct JobDetails {
    const LiveJob &job;
    Daemon daemon;
    std::string program;
    StagedState staged;
    std::vector<JobStart> starts;
    std::deque<LogLine> lines;
    std::optional<JobSource> source;
};

Json::Value SourceToJson(const std::optional<JobSource> &source) {
    if (!source)
        return {};
    Json::Value json;
    json["file"] = source->file;
    json["line"] = Json::UInt64{source->position.line};
    json["column"] = Json::UInt64{source->position.column};
    json["valid"] = source->accepted;
    json["changed"] = json["added"] = Json::Value(Json::arrayValue);
    for (const std::string &member : source->changed)
        json["changed"].append(member);
    for (const std::string &member : source->added)
        json["added"].append(member);
    return json;
}

std::string MembersInWords(const std::vector<std::string> &members) {
    return (members.size() == 1 ? "member " : "members ") + Enumerated(members);
}

// How the definition of the file differs from the daemon's, and the command that applies it.
std::string DifferenceInWords(const JobSource &source) {
    if (!source.accepted)
        return "changed; the definition is not valid now: see kestcronctl check";
    std::string text;
    if (!source.changed.empty())
        text = "changed: " + MembersInWords(source.changed) + "; kestcronctl reload applies it";
    if (!source.added.empty())
        text += (text.empty() ? "" : "; ") + std::string("added: ") + MembersInWords(source.added) +
                (source.changed.empty()
                     ? ", which a reload does not apply: reload without the job, then with it"
                     : "");
    return text.empty() ? "unchanged since the job was loaded" : text;
}

Json::Value ToJson(const JobDetails &details) {
    const Json::Value document = details.job.job.Document();
    Json::Value json = JobToJson(
        details.job, details.daemon,
        details.starts.empty() ? std::nullopt : std::optional<JobStart>(details.starts.front()));
    json["definition"] = Member(document, "config");
    json["command"] = Member(document, "cmd_list");
    json["assure_execute"] = details.job.job.assureExecute;
    json["assure_run"] = details.job.job.assureRun == 1;
    json["run_on_passive"] = details.job.job.runOnPassive;
    json["program"] = details.program;
    json["staged"] = details.job.staged;
    json["staged_state"] = details.staged.word;
    json["source"] = SourceToJson(details.source);
    json["starts"] = Json::Value(Json::arrayValue);
    for (const JobStart &start : details.starts)
        json["starts"].append(StartToJson(start));
    json["log"] = Json::Value(Json::arrayValue);
    for (const LogLine &line : details.lines)
        json["log"].append(line.stamp + line.text);
    return json;
}

void Line(const Screen &screen, const std::string &name, const std::string &text) {
    constexpr std::size_t names = 12; // columns
    std::cout << Padded(name.empty() ? "" : name + ":", names)
              << Wrapped(screen, Shown(text), names) << "\n";
}

std::string AssuranceInWords(const CronJob &job) {
    if (job.assureExecute == 0)
        return "no (missed runs are not repeated)";
    return "run after " + std::to_string(job.assureExecute) + " h without a run" +
           (job.assureRun == 1 ? ", even while the machine is held" : "");
}

std::string LastRunInWords(const LiveJob &job, std::time_t now) {
    if (job.lastRun == 0)
        return "unknown";
    const std::string when = WhenInWords(job.lastRun, now);
    return job.isLogged ? when : "launched " + when + "; the execution log does not show its start";
}

void WriteLogLine(const Screen &screen, const LogLine &line) {
    constexpr std::size_t indent = 4; // of the part that does not fit into the first line
    const std::string text = Hanging(screen, line.stamp + Shown(line.text), indent);
    std::cout << text.substr(0, line.stamp.size())
              << Coloured(screen, line.failed ? Colour::Red : Colour::None,
                          text.substr(line.stamp.size()))
              << "\n";
}

void Write(const JobDetails &details, const Context &context) {
    const Screen &screen = context.screen;
    const LiveJob &job = details.job;
    const Json::Value document = job.job.Document();
    std::cout << Coloured(screen, Colour::Bold, Wrapped(screen, Shown(job.name), 0)) << "\n";
    Line(screen, "state", StatusInWords(job, details.daemon, context.now));
    for (const Candidate &process : job.processes)
        Line(screen, "",
             "process " + std::to_string(process.pid) + " of " +
                 context.appliance.AccountName(process.uid).value_or(std::to_string(process.uid)) +
                 " for " + SpanInWords(process.age));
    Line(screen, "account", job.account);
    Line(screen, "command", TextMember(document, "cmd_str"));
    if (details.source) {
        Line(screen, "source",
             details.source->file + ":" + std::to_string(details.source->position.line));
        Line(screen, "", DifferenceInWords(*details.source));
        Line(screen, "", "to disable the job, remove it from this file and reload");
    } else {
        Line(screen, "source", "not found; if no file defines the job, the next reload removes it");
    }
    Line(screen, "program", job.staged);
    Line(screen, "", details.staged.text);
    Line(screen, "schedule", ScheduleInWords(Member(document, "schedule"), job.job.cronFields()));
    Line(screen, "", "drawn values " + job.job.RenderSchedule());
    Line(screen, "assured", AssuranceInWords(job.job));
    Line(screen, "passive",
         job.job.runOnPassive ? "runs on passive machines too"
                              : "does not run on passive machines");
    Line(screen, "last run", LastRunInWords(job, context.now));
    if (job.failed != 0)
        Line(screen, "", "its program could not be run: " + job.failure);
    std::string name = "next runs";
    for (const JobStart &start : details.starts)
        Line(screen, std::exchange(name, ""),
             LaunchInWords(start, context.now) + (start.overdue ? ", overdue" : "") +
                 (start.waits ? ", waits for " + WaitInWords(details.daemon) : ""));
    if (details.starts.empty())
        Line(screen, name, "never");
    std::cout << "\ndefinition:\n";
    std::istringstream definition(JsonToString(Member(document, "config")));
    for (std::string line; std::getline(definition, line);) {
        const std::size_t depth = std::min(line.find_first_not_of('\t'), line.size());
        std::cout << std::string(4 * depth, ' ')
                  << Wrapped(screen, Shown(line.substr(depth)), 4 * depth) << "\n";
    }
    std::cout << "\nlog:\n";
    for (const LogLine &line : details.lines)
        WriteLogLine(screen, line);
    if (details.lines.empty())
        std::cout << Wrapped(screen, ReasonForNoLines(context), 0) << "\n";
}

} // namespace

int Show(const Context &context, const ShowOptions &options) {
    const Snapshot snapshot = TakeSnapshot(context);
    const Runtime &runtime = snapshot.runtime;
    const Daemon &daemon = snapshot.daemon;
    const LiveJob &job = JobArgument(context, runtime, options.job);
    const std::string program = job.job.Program();
    std::vector<JobStart> starts = StartsOf(
        job, daemon, {context.now, context.now, context.now + kCalendarRepeats}, kStartsShown);
    LaunchForecast(runtime.jobs, daemon, runtime.maxDelay, context.now).SetDelays(starts);
    const JobDetails details{job,
                             daemon,
                             program,
                             CompareStaged(context, job, program),
                             std::move(starts),
                             LastLogLines(context, job),
                             FindSource(context.appliance, job.job)};
    if (context.json)
        WriteJson(ToJson(details));
    else
        Write(details, context);
    return 0;
}

} // namespace kest::ctl
