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

JobFacts FactsOf(const CronJob &job, bool passiveMode, bool held) {
    JobFacts facts;
    facts.passiveMode = passiveMode;
    facts.runOnPassive = job.runOnPassive;
    facts.held = held;
    facts.expireTime = job.ExpireTime();
    facts.overdue = job.IsAssureOverdue();
    facts.assureRun = job.assureRun;
    return facts;
}

JobState StateOf(const JobFacts &facts) {
    if (facts.passiveMode && !facts.runOnPassive)
        return JobState::NotRunOnPassive;
    if (!facts.held) {
        if (facts.expireTime != 0)
            return JobState::Ready;
        return facts.overdue ? JobState::AssureExecute : JobState::NotReady;
    }
    if (!facts.overdue)
        return JobState::NotReady;
    return facts.assureRun == 1 ? JobState::AssureExecuteRun : JobState::AssureExecuteWait;
}

const JobStateTraits *TraitsOf(JobState state) {
    const auto index = static_cast<std::size_t>(state);
    return index < kTraits.size() ? &kTraits[index] : nullptr;
}

} // namespace kest
