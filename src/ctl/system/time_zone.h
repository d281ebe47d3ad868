// The time zone of schedules.

#ifndef CTL_SYSTEM_TIME_ZONE_H
#define CTL_SYSTEM_TIME_ZONE_H

#include "ctl/system/appliance.h"

#include <string>

namespace kest::ctl {

// Sets the time zone of the program to `chosen` or, if that is empty, to the one in which the
// daemon of the appliance reads its schedules: that of its environment or its root if it runs and
// the caller may read them, otherwise that of the system. The TZ of the caller is ignored, with a
// warning on standard error if it gives other times. Throws Failure if `chosen` is not a time zone.
void UseTimeZoneOf(const Appliance &appliance, const std::string &chosen);

} // namespace kest::ctl

#endif
