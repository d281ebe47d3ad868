// What keeps a job from being admitted, or harms it, when its program is staged.

#ifndef CTL_CHECK_ADMISSION_H
#define CTL_CHECK_ADMISSION_H

#include "ctl/check/diagnostic.h"
#include "job/cronjob.h"

#include <functional>
#include <string>

namespace kest::ctl {

// The account that a definition asks for.
struct Account {
    std::string name; // empty: it names none
    bool exists = false;
};

// The file that a command begins with.
struct Program {
    bool exists = false; // links followed, like the next two
    bool regular = false;
    bool empty = false;
    std::string link;          // what it leads to, when the program itself is a link
    std::string openDirectory; // one on its path that others than root and the account may write
};

// The system that the jobs are for.
struct Environment {
    std::function<Account(const Json::Value &config)> account;
    // Of an absolute path, as it concerns a job of `account`.
    std::function<Program(const std::string &path, const std::string &account)> program;
};

// Warnings of a definition that the daemon takes; `job` is what it becomes.
void FindObstacles(CheckedDefinition &checked, const CronJob &job, const Environment &environment);

} // namespace kest::ctl

#endif
