#include "ctl/display/job_status.h"

#include "core/job_state.h"

#include <array>

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

} // namespace kest::ctl
