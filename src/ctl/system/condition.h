// What a job is doing at the moment, as the daemon sees it.

#ifndef CTL_SYSTEM_CONDITION_H
#define CTL_SYSTEM_CONDITION_H

#include "ctl/display/screen.h"
#include "ctl/system/processes.h"
#include "ctl/system/runtime.h"

#include <string>

enum class Condition {
    Waiting,   // for its time
    Due,       // its time has come
    Running,   // a process runs its program
    Overdue,   // assured, and has not run for too long
    Held,      // overdue, and waits because the machine is held
    Suspended, // waits, and would not start in its time either while the machine is held
    HeldBack,  // not run on a passive machine
};

Condition ConditionOf(const LiveJob &job, const Daemon &daemon);

// The word for it; the one of JSON is one word too.
struct ConditionWords {
    const char *text;
    const char *json;
    Colour colour;
};
const ConditionWords &InWords(Condition condition);

#endif
