#include "ctl/display/job_status.h"

#include "core/job_state.h"
#include "ctl/display/phrases.h"
#include "ctl/display/times.h"

#include <algorithm>
#include <array>

namespace kest::ctl {

namespace {

constexpr std::array<JobStatusText, 10> kWords{{
    {"waiting", "waiting", Colour::None},
    {"not run while passive", "passive", Colour::Dim},
    {"waiting, machine held", "held", Colour::Dim},
    {"due", "due", Colour::Green},
    {"launched", "launched", Colour::Green},
    {"running now", "running", Colour::Green},
    {"due, kept", "kept", Colour::Yellow},
    {"overdue", "overdue", Colour::Yellow},
    {"overdue, machine held", "held", Colour::Yellow},
    {"failed to start", "failed", Colour::Red},
}};

} // namespace

std::vector<std::string> StatesInJson() {
    std::vector<std::string> states;
    for (const JobStatusText &words : kWords)
        if (std::find(states.begin(), states.end(), words.json) == states.end())
            states.emplace_back(words.json);
    return states;
}

JobStatus JobStatusOf(const LiveJob &job, const Daemon &daemon) {
    if (!job.processes.empty())
        return JobStatus::Running;
    if (job.launched != 0)
        return JobStatus::Launched;
    if (job.kept)
        return JobStatus::Kept;
    switch (StateOf(StateInputOf(job.job, daemon.passive, daemon.held))) {
    case JobState::NotRunOnPassive:
        return JobStatus::HeldBack;
    case JobState::AssureExecuteWait:
        return JobStatus::Held;
    case JobState::Ready:
        return JobStatus::Due;
    case JobState::AssureExecute:
    case JobState::AssureExecuteRun:
        return JobStatus::Overdue;
    case JobState::NotReady:
        break;
    }
    if (job.failed != 0)
        return JobStatus::Failed;
    return daemon.held ? JobStatus::Suspended : JobStatus::Waiting;
}

const JobStatusText &InWords(JobStatus jobStatus) {
    return kWords.at(static_cast<std::size_t>(jobStatus));
}

std::string StatusInWords(const LiveJob &job, const Daemon &daemon, std::time_t now) {
    const JobStatus status = JobStatusOf(job, daemon);
    std::string text = InWords(status).text;
    if (status == JobStatus::Launched)
        text += ", starts in " + SpanInWords(std::max(std::time_t{0}, job.starts - now));
    if (job.processes.size() > 1)
        text += ", " + std::to_string(job.processes.size()) + " processes";
    return text;
}

Json::Value JobToJson(const LiveJob &job, const Daemon &daemon,
                      const std::optional<JobStart> &next) {
    Json::Value json;
    json["name"] = job.name;
    json["account"] = job.account;
    json["schedule"] = job.job.RenderSchedule();
    json["schedule_text"] = ScheduleInWords(job.job.ScheduleDocument(), job.job.cronFields());
    json["state"] = InWords(JobStatusOf(job, daemon)).json;
    json["last_run"] = TimeToJson(job.lastRun);
    json["last_run_is_launch"] = job.lastRun != 0 && !job.isLogged;
    json["delayed_start"] = TimeToJson(job.starts);
    json["failure"] = job.failed != 0 ? Json::Value(job.failure) : Json::Value();
    json["failure_time"] = TimeToJson(job.failed);
    json["next"] = next ? StartToJson(*next) : Json::Value();
    json["pid"] = job.processes.empty() ? Json::Value() : Json::Value(job.processes.front().pid);
    json["processes"] = Json::Value(Json::arrayValue);
    for (const Candidate &process : job.processes) {
        Json::Value entry;
        entry["pid"] = process.pid;
        entry["uid"] = process.uid;
        entry["seconds"] = Json::Int64{process.age};
        json["processes"].append(std::move(entry));
    }
    return json;
}

Json::Value TimeToJson(std::time_t time) {
    return time != 0 ? Json::Value(Iso(time)) : Json::Value();
}

} // namespace kest::ctl
