#include "ctl/display/job_status.h"

#include "core/job_state.h"
#include "ctl/display/phrases.h"
#include "ctl/display/starts.h"
#include "ctl/display/times.h"

#include <array>
#include <optional>

namespace kest::ctl {

namespace {

constexpr std::array<JobStatusText, 7> kWords{{
    {"waiting", "waiting", Colour::None},
    {"due", "due", Colour::Green},
    {"running now", "running", Colour::Green},
    {"overdue", "overdue", Colour::Yellow},
    {"overdue, machine held", "held", Colour::Yellow},
    {"held back, machine held", "held", Colour::Dim},
    {"held back, passive", "passive", Colour::Dim},
}};

} // namespace

JobStatus JobStatusOf(const LiveJob &job, const Daemon &daemon) {
    if (job.process != 0)
        return JobStatus::Running;
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
    return daemon.held ? JobStatus::Suspended : JobStatus::Waiting;
}

const JobStatusText &InWords(JobStatus jobStatus) {
    return kWords.at(static_cast<std::size_t>(jobStatus));
}

Json::Value JobToJson(const LiveJob &job, const Daemon &daemon, std::time_t now) {
    const std::optional<JobStart> next = NextStart(job, daemon, now);
    Json::Value json;
    json["name"] = job.name;
    json["account"] = job.account;
    json["schedule"] = job.job.RenderSchedule();
    json["schedule_text"] = ScheduleInWords(job.job.ScheduleDocument());
    json["state"] = InWords(JobStatusOf(job, daemon)).json;
    json["last_run"] = TimeToJson(job.lastRun);
    json["next"] = next ? StartToJson(*next, next->overdue) : Json::Value();
    json["pid"] = job.process != 0 ? Json::Value(job.process) : Json::Value();
    return json;
}

Json::Value TimeToJson(std::time_t time) {
    return time != 0 ? Json::Value(Iso(time)) : Json::Value();
}

} // namespace kest::ctl
