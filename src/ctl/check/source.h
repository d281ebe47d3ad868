// Where a job of the daemon is defined, and whether its definition has changed since.

#ifndef CTL_CHECK_SOURCE_H
#define CTL_CHECK_SOURCE_H

#include "ctl/check/check.h"
#include "ctl/system/appliance.h"
#include "job/cronjob.h"

#include <json/value.h>
#include <optional>
#include <string>
#include <vector>

namespace kest::ctl {

struct JobSource {
    std::string file;
    Position position;
    bool accepted = false;            // the definition is valid
    std::vector<std::string> changed; // members that are different or missing
    std::vector<std::string> added;   // members that are new. A job that only gains members counts
                                      // as unchanged, so a reload does not apply them alone.
};

// Compares the definition of a job in the daemon with the one of a file, both with their defaults.
void CompareDefinitions(const Json::Value &before, const Json::Value &after, JobSource &source);

// The last of the definitions with the full name of the job in the four sources, which is the one
// that the daemon takes; nothing if there is none that the caller can read.
std::optional<JobSource> FindSource(const Appliance &appliance, const CronJob &job);

} // namespace kest::ctl

#endif
