// What a load would change: the jobs of the daemon compared with those of the job files.

#ifndef CTL_CHECK_PLAN_H
#define CTL_CHECK_PLAN_H

#include "ctl/check/checker.h"
#include "ctl/check/source.h"
#include "ctl/system/runtime.h"
#include "job/schedule.h"

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace kest::ctl {

enum class Change {
    Comes,
    Changes, // it loses its history and its schedule is drawn again
    Stays,
    Goes
};

struct PlannedJob {
    std::string name;
    Change change = Change::Stays;
    JobSource source;    // of the definition; not set if it goes
    LiveJob live;        // as it will be, or, if it goes, as it is
    bool isDrawn = true; // false if the load draws values that are not known before, so that its
                         // schedule is an example
};

// The jobs before and after a load at `now`, by name. `shared` has the drawn values that the load
// uses where they fit. A job whose definition is refused is not loaded, so it goes if the daemon
// has it.
std::vector<PlannedJob> PlanLoad(std::vector<LiveJob> before, const CheckResult &files,
                                 const std::optional<ScheduleTemplate> &shared, std::time_t now);

} // namespace kest::ctl

#endif
