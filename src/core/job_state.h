// What becomes of a job in one evaluation cycle.

#ifndef CORE_JOB_STATE_H
#define CORE_JOB_STATE_H

#include "job/cronjob.h"

#include <cstdint>

namespace kest {

// Computed for every job in every cycle and never stored. The order is part of the meaning.
enum class JobState : std::int32_t {
    NotReady = 0,
    NotRunOnPassive = 1,   // the machine is passive and the job is not for passive machines
    AssureExecuteWait = 2, // overdue, but the machine is held and the job waits for its release
    Ready = 3,             // its schedule has come
    AssureExecute = 4,     // overdue
    AssureExecuteRun = 5   // overdue, and run although the machine is held
};

// What a job's state follows from.
struct StateInput {
    bool passiveMode = false;
    bool runOnPassive = false;
    bool held = false;
    std::int64_t expireTime = 0; // not 0: the schedule has come
    bool overdue = false;
    std::int32_t assureRun = 0;
};

// The input about a job, now, on a machine that is passive or held, or not.
StateInput StateInputOf(const CronJob &job, bool passiveMode, bool held);

JobState StateOf(const StateInput &input);

// What is known of a state: its name, and whether a job in it is launched. Null for a number that
// is no state.
struct JobStateTraits {
    const char *name;
    bool launched;
};
const JobStateTraits *TraitsOf(JobState state);

} // namespace kest

#endif
