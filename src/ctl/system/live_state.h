// The part of the daemon's state that its document does not have yet, inferred from schedules and
// the log.

#ifndef CTL_SYSTEM_LIVE_STATE_H
#define CTL_SYSTEM_LIVE_STATE_H

#include "ctl/system/processes.h"
#include "ctl/system/runtime.h"

#include <ctime>

namespace kest::ctl {

// Sets `launched` and `starts` of the jobs that are launched and wait out their delay. A waiting
// process does not show its job; the log has the jobs of the same cycle that have started, with
// their ranks, and the jobs between them follow from the schedules, or from the times of their
// launches once the document was written again. A cycle whose jobs cannot all be named, and what
// would be more jobs than processes that wait, is left out.
//
// Sets `kept` of the jobs that became due while the machine was held or passive.
void CompleteState(Runtime &runtime, const Daemon &daemon, std::time_t now);

} // namespace kest::ctl

#endif
