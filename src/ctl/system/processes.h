// The processes of this appliance: the daemon, and the jobs that run now.

#ifndef CTL_SYSTEM_PROCESSES_H
#define CTL_SYSTEM_PROCESSES_H

#include "ctl/system/appliance.h"

#include <ctime>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kest::ctl {

// The daemon's process.
struct Daemon {
    pid_t pid = 0; // 0: it does not run
    std::time_t since = 0;
    bool passive = false;
    bool held = false;    // the machine is, whether the daemon runs or not
    unsigned delayed = 0; // jobs launched that wait for their turn to start
    bool Runs() const { return pid != 0; }
};

// Never runs on another appliance.
Daemon FindDaemon(const Appliance &appliance);

// A process that may run a staged program.
struct Candidate {
    pid_t pid;
    uid_t uid;
    std::string program; // what it executes; empty where only root may ask
    std::vector<std::string> arguments;
};

// Those that name something in the directory of the staged programs. None on another appliance.
std::vector<Candidate> Candidates(const Appliance &appliance);

// The one of them that runs the staged program as that account; 0 for none. Anybody may give a
// process such arguments, so that only the account's own count.
pid_t ProcessOf(const std::string &staged, const std::string &account,
                const std::vector<Candidate> &candidates);

} // namespace kest::ctl

#endif
