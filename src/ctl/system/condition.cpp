#include "ctl/system/condition.h"

#include "core/job_state.h"

#include <array>

namespace {

constexpr std::array<ConditionWords, 7> kWords{{
    {"waiting", "waiting", Colour::None},
    {"due", "due", Colour::Green},
    {"running now", "running", Colour::Green},
    {"overdue", "overdue", Colour::Yellow},
    {"overdue, machine held", "held", Colour::Yellow},
    {"held back, machine held", "held", Colour::Dim},
    {"held back, passive", "passive", Colour::Dim},
}};

} // namespace

Condition ConditionOf(const LiveJob &job, const Daemon &daemon) {
    if (job.process != 0)
        return Condition::Running;
    switch (StateOf(FactsOf(job.job, daemon.passive, daemon.held))) {
    case JobState::NotRunOnPassive:
        return Condition::HeldBack;
    case JobState::AssureExecuteWait:
        return Condition::Held;
    case JobState::Ready:
        return Condition::Due;
    case JobState::AssureExecute:
    case JobState::AssureExecuteRun:
        return Condition::Overdue;
    case JobState::NotReady:
        break;
    }
    return daemon.held ? Condition::Suspended : Condition::Waiting;
}

const ConditionWords &InWords(Condition condition) {
    return kWords.at(static_cast<std::size_t>(condition));
}
