#include "core/job_state.h"

#include <array>
#include <cstddef>

namespace kest {

namespace {

constexpr std::array<JobStateTraits, 6> kTraits{{
    {"NotReady", false},
    {"NotRunOnPassive", false},
    {"AssureExecuteWait", false},
    {"Ready", true},
    {"AssureExecute", true},
    {"AssureExecuteRun", true},
}};

} // namespace

StateInput StateInputOf(const CronJob &job, bool passiveMode, bool held) {
    StateInput input;
    input.passiveMode = passiveMode;
    input.runOnPassive = job.runOnPassive;
    input.held = held;
    input.expireTime = job.ExpireTime();
    input.overdue = job.IsAssureOverdue();
    input.assureRun = job.assureRun;
    return input;
}

JobState StateOf(const StateInput &input) {
    if (input.passiveMode && !input.runOnPassive)
        return JobState::NotRunOnPassive;
    if (!input.held) {
        if (input.expireTime != 0)
            return JobState::Ready;
        return input.overdue ? JobState::AssureExecute : JobState::NotReady;
    }
    if (!input.overdue)
        return JobState::NotReady;
    return input.assureRun == 1 ? JobState::AssureExecuteRun : JobState::AssureExecuteWait;
}

const JobStateTraits *TraitsOf(JobState state) {
    const auto index = static_cast<std::size_t>(state);
    return index < kTraits.size() ? &kTraits[index] : nullptr;
}

} // namespace kest
