// Translates a classic crontab into definitions of jobs.

#ifndef CTL_IMPORT_IMPORT_H
#define CTL_IMPORT_IMPORT_H

#include "ctl/check/diagnostic.h"

#include <cstddef>
#include <functional>
#include <json/value.h>
#include <optional>
#include <string>
#include <vector>

namespace kest::ctl {

struct ImportSettings {
    std::string file;        // as printed
    bool userColumn = false; // the account stands before the command
    std::string account;     // of all jobs, without a user column
    std::string env;         // path of the program "env"
    // The home directory of an account; nothing if the account does not exist.
    std::function<std::optional<std::string>(const std::string &account)> home;
};

// What a line of the crontab becomes. Lines that have no effect are left out.
struct ImportedLine {
    std::size_t number = 1;
    std::string text;                 // as written; may contain any bytes
    std::vector<Diagnostic> warnings; // about what differs, or why there is no job
    std::vector<Json::Value> jobs;    // definitions; their starts differ
};

// Translates the text of a crontab. A job runs its command with the shell, the working directory,
// the environment and the input of the classic line. The names of the jobs are unique. Throws
// Failure if a job file cannot contain all jobs.
std::vector<ImportedLine> ImportCrontab(const std::string &text, const ImportSettings &settings);

// A name for a job with this command: the name of its program as far as it can be recognized.
// Consists of letters, digits, ".", "_" and "-", at most 64 of them.
std::string JobNameFor(const std::string &command);

// The job file, ending with a newline. Warnings and original lines are comments.
std::string JobFileText(const std::vector<ImportedLine> &lines, const ImportSettings &settings);

} // namespace kest::ctl

#endif
