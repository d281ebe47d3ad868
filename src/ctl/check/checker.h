// Checks sets of job files on an appliance.

#ifndef CTL_CHECK_CHECKER_H
#define CTL_CHECK_CHECKER_H

#include "ctl/check/check.h"
#include "ctl/check/diagnostic.h"
#include "ctl/system/appliance.h"

#include <cstddef>
#include <string>
#include <vector>

namespace kest::ctl {

struct CheckResult {
    std::size_t files = 0;
    std::size_t jobs = 0;
    std::vector<Diagnostic> diagnostics; // by file, line and column
    std::vector<std::string> unreadable; // files that the caller may not read, with the error
    std::vector<CheckedJob> sourceJobs;  // the jobs of the four sources
};

enum class CheckScope {
    System,  // whether the daemon loads the jobs on this appliance
    Portable // apart from its accounts, its programs, and the rights of the directories
};

// Checks the job files at `paths`, or those of the four sources if there are none. With an account,
// checks those at `paths` as all job files of that account. Throws Failure when a path does not
// exist.
CheckResult CheckPathsOn(const Appliance &appliance, const std::vector<std::string> &paths,
                         CheckScope scope = CheckScope::System, const std::string &account = {});

// Checks the job files of the four sources, with those at `paths` as if they were installed in the
// source with that label, or in the directory of the account if there is one. Throws Failure when
// a path does not exist.
CheckResult CheckPlannedOn(const Appliance &appliance, const std::vector<std::string> &paths,
                           const std::string &label, const std::string &account);

} // namespace kest::ctl

#endif
