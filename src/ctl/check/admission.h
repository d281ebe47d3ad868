// Checks whether the daemon will load a valid definition: its name, account and program.

#ifndef CTL_CHECK_ADMISSION_H
#define CTL_CHECK_ADMISSION_H

#include "ctl/check/diagnostic.h"
#include "ctl/check/executable.h"
#include "job/cronjob.h"

#include <functional>
#include <optional>
#include <string>

namespace kest::ctl {

// The account that a definition names.
struct Account {
    std::string name; // empty if the definition names none
    bool exists = false;
};

// The program of a command.
struct Program {
    bool exists = false; // the first three follow links
    bool regular = false;
    bool empty = false;
    std::string link;                     // target, if the program is a symbolic link
    std::optional<StartFault> startFault; // why it cannot be started, if that is known
    std::string writableDirectory; // on its path, writable by users other than root and the account
};

// Lookups on the system that the job files are for.
struct Environment {
    std::function<Account(const Json::Value &config)> account;
    // `path` is absolute; `account` is the account of the job.
    std::function<Program(const std::string &path, const std::string &account)> program;
};

// Adds what is wrong with a valid definition: errors where the daemon leaves the job out, warnings
// elsewhere. `job` is the job that the daemon makes of it.
void CheckAdmission(CheckedDefinition &checked, const CronJob &job, const Environment &environment);

} // namespace kest::ctl

#endif
