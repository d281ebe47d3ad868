// Checks the members of a job definition.

#ifndef CTL_CHECK_DEFINITION_H
#define CTL_CHECK_DEFINITION_H

#include "core/job_files.h"
#include "ctl/check/diagnostic.h"

#include "job/cronjob.h"
#include "job/definition.h"
#include <string>

#include <vector>

namespace kest::ctl {

// Adds an error for each fault, for which the daemon refuses the definition.
void AddErrors(CheckedDefinition &checked, const std::vector<DefinitionFault> &faults);

// Adds warnings about members and values that the daemon ignores or replaces. `directory` is that
// of the file. `alone` means that the definition is the only object of its file, without an array.
void CheckMembers(CheckedDefinition &checked, const JobDirectory &directory, bool alone);

// Adds warnings about the settings of a valid definition. `job` is the job that the daemon makes of
// it.
void CheckSettings(CheckedDefinition &checked, const CronJob &job);

// How the daemon reads a period that is not one of the words for it; empty for these words and for
// what is not a period.
std::string MisreadPeriod(const std::string &written);

} // namespace kest::ctl

#endif
