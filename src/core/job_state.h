// The state of a job in one evaluation cycle.

#ifndef CORE_JOB_STATE_H
#define CORE_JOB_STATE_H

#include "job/cronjob.h"

#include <cstdint>

namespace kest {

// Computed for every job in every cycle and never stored. The numbers are significant.
enum class JobState : std::int32_t {
    NotReady = 0,
    NotRunOnPassive = 1,   // the machine is passive, and the job does not have "run_on_passive"
    AssureExecuteWait = 2, // overdue, but the machine is held and the job waits for its release
    Ready = 3,             // due
    AssureExecute = 4,     // overdue
    AssureExecuteRun = 5   // overdue, and run although the machine is held
};

// The input of StateOf().
struct StateInput {
    bool passiveMode = false;
    bool runOnPassive = false;
    bool held = false;
    std::int64_t expireTime = 0; // not 0: the job is due
    bool overdue = false;
    std::int32_t assureRun = 0;
};

// The input about a job, now, on a machine that is passive or held, or not.
StateInput StateInputOf(const CronJob &job, bool passiveMode, bool held);

JobState StateOf(const StateInput &input);

// The name of a state, and whether jobs in this state are launched. TraitsOf() returns null for a
// number that is not a state.
struct JobStateTraits {
    const char *name;
    bool launched;
};
const JobStateTraits *TraitsOf(JobState state);

} // namespace kest

#endif
