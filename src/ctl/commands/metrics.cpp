#include "ctl/commands/metrics.h"

#include "base/paths.h"
#include "core/job_state.h"
#include "ctl/commands/commands.h"
#include "ctl/display/job_json.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"

#include <array>
#include <iostream>
#include <set>
#include <unistd.h>

namespace kest::ctl {

namespace {

using Value = std::optional<std::int64_t>;

// What is told of one job.
struct JobFigures {
    std::string labels;
    Value lastRun;
    Value next;
    Value nextLatest;
    bool overdue = false;
    bool pending = false;
    bool running = false;
};

struct JobFamily {
    const char *name;
    const char *help;
    Value (*value)(const JobFigures &job);
};
constexpr std::array<JobFamily, 6> kJobFamilies{{
    {"kestcron_job_last_run_timestamp_seconds", "When the job was last started.",
     [](const JobFigures &job) { return job.lastRun; }},
    {"kestcron_job_next_run_timestamp_seconds", "When the job will start next, at the earliest.",
     [](const JobFigures &job) { return job.next; }},
    {"kestcron_job_next_run_latest_timestamp_seconds",
     "When the job will start next, at the latest.",
     [](const JobFigures &job) { return job.nextLatest; }},
    {"kestcron_job_overdue", "Whether the job is assured and has not run for too long.",
     [](const JobFigures &job) { return Value(job.overdue); }},
    {"kestcron_job_pending", "Whether the job's time has come and it waits for its start.",
     [](const JobFigures &job) { return Value(job.pending); }},
    {"kestcron_job_running", "Whether a process runs the job now.",
     [](const JobFigures &job) { return Value(job.running); }},
}};

std::string Heading(const std::string &name, const char *help) {
    return "# HELP " + name + " " + help + "\n# TYPE " + name + " gauge\n";
}

std::string Sample(const std::string &name, const std::string &labels, std::int64_t value) {
    return name + labels + " " + std::to_string(value) + "\n";
}

// A family without labels; nothing when there is no value.
std::string Single(const char *name, const char *help, Value value) {
    return value ? Heading(name, help) + Sample(name, "", *value) : "";
}

std::string Quoted(const std::string &text) {
    std::string quoted = "\"";
    for (const char character : ValidUtf8(text))
        if (character == '\n')
            quoted += "\\n";
        else {
            if (character == '\\' || character == '"')
                quoted += '\\';
            quoted += character;
        }
    return quoted + "\"";
}

// Names that differ only in bytes that are no characters would become the same, and a reader takes
// no document that holds a sample twice.
std::string LabelsOf(const LiveJob &job, std::set<std::string> &used) {
    std::string name = job.name;
    while (!used.insert(ValidUtf8(name)).second)
        name += "'";
    return "{job=" + Quoted(name) + ",user=" + Quoted(job.account) + "}";
}

JobFigures FiguresOf(const LiveJob &job, const Daemon &daemon, std::time_t now) {
    const StateInput facts = StateInputOf(job.job, daemon.passive, daemon.held);
    const bool heldBack = StateOf(facts) == JobState::NotRunOnPassive;
    JobFigures figures;
    if (job.lastRun != 0)
        figures.lastRun = job.lastRun;
    if (const std::optional<JobStart> next = NextStart(job, daemon, now)) {
        figures.next = next->earliest;
        figures.nextLatest = next->latest;
    }
    figures.overdue = facts.overdue && !heldBack;
    figures.pending = facts.expireTime != 0 && !heldBack;
    figures.running = job.process != 0;
    return figures;
}

std::string FamilyInText(const JobFamily &family, const std::vector<JobFigures> &jobs) {
    std::string samples;
    for (const JobFigures &job : jobs)
        if (const Value value = family.value(job))
            samples += Sample(family.name, job.labels, *value);
    return samples.empty() ? "" : Heading(family.name, family.help) + samples;
}

} // namespace

std::string MetricsInText(const std::vector<LiveJob> &jobs, const Daemon &daemon,
                          std::optional<std::int32_t> maxDelay, std::time_t now) {
    std::set<std::string> used;
    std::vector<JobFigures> figures;
    for (const LiveJob &job : jobs) {
        figures.push_back(FiguresOf(job, daemon, now));
        figures.back().labels = LabelsOf(job, used);
    }
    std::string text =
        Single("kestcron_up", "Whether kestcrond runs.", daemon.Runs()) +
        Single("kestcron_passive", "Whether kestcrond runs in passive mode.", daemon.passive) +
        Single("kestcron_held", "Whether the machine is held.", daemon.held) +
        Single("kestcron_jobs", "How many jobs there are.",
               static_cast<std::int64_t>(jobs.size())) +
        Single("kestcron_start_time_seconds", "When kestcrond was started.",
               daemon.Runs() ? Value(daemon.since) : std::nullopt) +
        Single("kestcron_delayed_starts", "How many jobs are launched and wait for their turn.",
               daemon.delayed) +
        Single("kestcron_max_delay_seconds", "The most seconds between two starts of one minute.",
               maxDelay);
    for (const JobFamily &family : kJobFamilies)
        text += FamilyInText(family, figures);
    return text;
}

namespace {

bool HasDocument(const Appliance &appliance) {
    return access(appliance.Locate(kRuntimeFile).c_str(), F_OK) == 0 ||
           access(appliance.Locate(kPersistentFile).c_str(), F_OK) == 0;
}

// A machine without any document has no jobs; what cannot be read is another matter.
Runtime JobsOrNone(const Context &context, const Daemon &daemon) {
    try {
        Runtime runtime = LoadRuntime(context.appliance);
        PrintCaveats(runtime, daemon, context);
        return runtime;
    } catch (const Failure &failure) {
        if (HasDocument(context.appliance))
            throw;
        std::cerr << "kestcronctl: " << Shown(failure.what()) << "\n";
        return {};
    }
}

} // namespace

int Metrics(const Context &context) {
    if (context.json)
        throw Failure("metrics has a format of its own; use list --json");
    const Daemon daemon = FindDaemon(context.appliance);
    const Runtime runtime = JobsOrNone(context, daemon);
    const std::optional<ScheduleTemplate> shared = FindTemplate(context.appliance);
    std::cout << MetricsInText(
        runtime.jobs, daemon, shared ? std::optional<std::int32_t>(shared->maxDelay) : std::nullopt,
        context.now);
    return 0;
}

} // namespace kest::ctl
