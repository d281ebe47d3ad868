// How often jobs have started, counted in the execution log.

#ifndef CTL_SYSTEM_START_COUNTS_H
#define CTL_SYSTEM_START_COUNTS_H

#include "ctl/system/appliance.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

namespace kest::ctl {

// Holds the counts and the place up to which the log is counted. It is lost at a reboot; counting
// then begins again at 0.
constexpr const char *kCountsFile = "/var/run/kestcronctl.counts";

struct StartCount {
    std::uint64_t starts = 0;   // by the daemon and by hand
    std::uint64_t failures = 0; // steps of a start that failed
};

// The counts of the jobs `names`, as printed in the log. A count never decreases while its job
// exists: what was counted is kept in kCountsFile, so that a rotation removes nothing. The first
// call counts the lines since `since`. Lines that no call has seen before their file was compressed
// are counted if they are later than the last counted line. Only for the running system and for
// root. Throws Failure if the log cannot be read or the counts cannot be kept.
std::map<std::string, StartCount>
CountStarts(const Appliance &appliance, const std::vector<std::string> &names, std::time_t since);

} // namespace kest::ctl

#endif
