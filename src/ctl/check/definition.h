// What is wrong or hardly meant in the members of a job definition.

#ifndef CTL_CHECK_DEFINITION_H
#define CTL_CHECK_DEFINITION_H

#include "core/job_files.h"
#include "ctl/check/diagnostic.h"
#include "job/cronjob.h"
#include "job/definition.h"

#include <vector>

namespace kest::ctl {

// Adds each of `faults`, those for which the daemon refuses the definition.
void AddErrors(CheckedDefinition &checked, const std::vector<DefinitionFault> &faults);

// Members that nobody reads and words that are read as others, in a definition of `directory`.
// `alone`: it is the one object of its file.
void FindMisreadings(CheckedDefinition &checked, const JobDirectory &directory, bool alone);

// Settings that are hardly meant in a definition that the daemon takes. `job` is what it becomes.
void FindOddSettings(CheckedDefinition &checked, const CronJob &job);

} // namespace kest::ctl

#endif
