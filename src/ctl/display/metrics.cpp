#include "ctl/display/metrics.h"

#include "base/printable.h"
#include "core/job_state.h"
#include "ctl/display/launch_forecast.h"
#include "ctl/display/utf8.h"

#include <array>
#include <set>

namespace kest::ctl {

namespace {

using Value = std::optional<std::int64_t>;

struct JobFigures {
    std::string labels;
    Value lastRun;
    Value nextLaunch;
    Value next;
    Value nextLatest;
    Value starts;
    Value failures;
    bool failed = false;
    bool overdue = false;
    bool pending = false;
    bool running = false;
};

constexpr const char *kGauge = "gauge";
constexpr const char *kCounter = "counter";

struct JobFamily {
    const char *name;
    const char *help;
    Value (*value)(const JobFigures &job);
    const char *type = kGauge;
};
constexpr std::array<JobFamily, 10> kJobFamilies{{
    {"kestcron_job_last_run_timestamp_seconds", "Time of the last start of the job.",
     [](const JobFigures &job) { return job.lastRun; }},
    {"kestcron_job_next_launch_timestamp_seconds", "Earliest time of the next launch of the job.",
     [](const JobFigures &job) { return job.nextLaunch; }},
    {"kestcron_job_next_run_timestamp_seconds", "Earliest time of the next start of the job.",
     [](const JobFigures &job) { return job.next; }},
    {"kestcron_job_next_run_latest_timestamp_seconds", "Latest time of the next start of the job.",
     [](const JobFigures &job) { return job.nextLatest; }},
    {"kestcron_job_overdue", "Whether the job is assured and has not run for more than its hours.",
     [](const JobFigures &job) { return Value(job.overdue); }},
    {"kestcron_job_pending", "Whether the job is due and not launched yet.",
     [](const JobFigures &job) { return Value(job.pending); }},
    {"kestcron_job_running", "Whether a process of the job is running.",
     [](const JobFigures &job) { return Value(job.running); }},
    {"kestcron_job_failed", "Whether the program of the job could not be run the last time.",
     [](const JobFigures &job) { return Value(job.failed); }},
    {"kestcron_job_starts_total", "Starts of the job in the execution log.",
     [](const JobFigures &job) { return job.starts; }, kCounter},
    {"kestcron_job_start_failures_total", "Failures at starts of the job in the execution log.",
     [](const JobFigures &job) { return job.failures; }, kCounter},
}};

std::string Heading(const std::string &name, const char *help, const char *type = kGauge) {
    return "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

std::string Sample(const std::string &name, const std::string &labels, std::int64_t value) {
    return name + labels + " " + std::to_string(value) + "\n";
}

// A family with one sample without labels; empty without a value.
std::string Single(const char *name, const char *help, Value value) {
    return value ? Heading(name, help) + Sample(name, "", *value) : "";
}

std::string LabelValue(const std::string &text) {
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

// Names that differ only in invalid UTF-8 would become equal, and duplicate samples are not
// allowed.
std::string LabelsOf(const LiveJob &job, std::set<std::string> &used) {
    std::string name = job.name;
    while (!used.insert(ValidUtf8(name)).second)
        name += "'";
    return "{name=" + LabelValue(name) + ",user=" + LabelValue(job.account) + "}";
}

JobFigures FiguresOf(const LiveJob &job, const Daemon &daemon,
                     const std::optional<JobStart> &next) {
    const StateInput input = StateInputOf(job.job, daemon.passive, daemon.held);
    const bool heldBack = StateOf(input) == JobState::NotRunOnPassive;
    JobFigures figures;
    if (job.lastRun != 0)
        figures.lastRun = job.lastRun;
    if (next && !next->kept) {
        figures.nextLaunch = next->earliest;
        figures.next = next->FirstStart();
        figures.nextLatest = next->LastStart();
    }
    figures.overdue = input.overdue && !heldBack;
    figures.pending = input.expireTime != 0 || job.kept;
    figures.running = !job.processes.empty();
    figures.failed = job.failed != 0;
    return figures;
}

void AddCounts(const std::map<std::string, StartCount> &counts, const LiveJob &job,
               JobFigures &figures) {
    const auto count = counts.find(Printable(job.name));
    if (count == counts.end())
        return;
    figures.starts = static_cast<std::int64_t>(count->second.starts);
    figures.failures = static_cast<std::int64_t>(count->second.failures);
}

std::string FamilyInText(const JobFamily &family, const std::vector<JobFigures> &jobs) {
    std::string samples;
    for (const JobFigures &job : jobs)
        if (const Value value = family.value(job))
            samples += Sample(family.name, job.labels, *value);
    return samples.empty() ? "" : Heading(family.name, family.help, family.type) + samples;
}

std::string SystemInText(std::size_t jobs, const Daemon &daemon, const SystemFigures &system,
                         std::time_t now) {
    const auto number = [](std::size_t count) { return static_cast<std::int64_t>(count); };
    const char *const build = "kestcron_build_info";
    return Single("kestcron_up", "Whether kestcrond is running.", daemon.IsRunning()) +
           Single("kestcron_passive", "Whether kestcrond is running in passive mode.",
                  daemon.passive) +
           Single("kestcron_held", "Whether the machine is held.", daemon.held) +
           Single("kestcron_jobs", "Number of jobs.", number(jobs)) +
           Single("kestcron_refused_jobs",
                  "Number of definitions in job files that kestcrond does not load.",
                  system.refused ? Value(number(system.refused->jobs)) : std::nullopt) +
           Single("kestcron_refused_files", "Number of job files that kestcrond does not load.",
                  system.refused ? Value(number(system.refused->files)) : std::nullopt) +
           Single("kestcron_document_timestamp_seconds",
                  "Time of the runtime document that the jobs are read from.",
                  system.saved ? Value(*system.saved) : std::nullopt) +
           Single("kestcron_start_time_seconds", "Start time of kestcrond.",
                  daemon.IsRunning() ? Value(daemon.since) : std::nullopt) +
           Single("kestcron_delayed_starts", "Number of launched jobs that wait out their delay.",
                  daemon.delayed) +
           Single("kestcron_max_delay_seconds",
                  "Maximum delay between two starts of the same minute.", system.maxDelay) +
           Single("kestcron_metrics_timestamp_seconds", "Time at which these metrics were printed.",
                  now) +
           Heading(build, "Version of kestcronctl, which printed these metrics.") +
           Sample(build, "{version=" + LabelValue(KESTCROND_VERSION) + "}", 1);
}

} // namespace

std::string MetricsInText(const std::vector<LiveJob> &jobs, const Daemon &daemon,
                          const SystemFigures &system, std::time_t now) {
    std::set<std::string> used;
    std::vector<JobFigures> figures;
    const auto nexts =
        NextStarts(jobs, daemon, system.maxDelay.value_or(ScheduleTemplate::kDefaultMaxDelay), now);
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        figures.push_back(FiguresOf(jobs[i], daemon, nexts[i]));
        figures.back().labels = LabelsOf(jobs[i], used);
        if (system.counts)
            AddCounts(*system.counts, jobs[i], figures.back());
    }
    std::string text = SystemInText(jobs.size(), daemon, system, now);
    for (const JobFamily &family : kJobFamilies)
        text += FamilyInText(family, figures);
    return text;
}

} // namespace kest::ctl
