// The processes of the daemon and of running jobs.

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
    pid_t pid = 0; // 0 if it is not running
    std::time_t since = 0;
    bool passive = false;
    bool held = false;    // the machine is held; known without the daemon too
    unsigned delayed = 0; // launched jobs that wait out their delay
    bool IsRunning() const { return pid != 0; }
};

// The process of the running daemon; 0 if it is not running.
pid_t FindDaemonProcess();

// The daemon of another appliance is never running.
Daemon FindDaemon(const Appliance &appliance);

// A process that may run a staged program.
struct Candidate {
    pid_t pid;
    pid_t parent;
    uid_t uid;
    std::time_t age;     // seconds since it was created
    std::string program; // its executable; empty if only root can see it
    std::vector<std::string> arguments;
};

// The processes whose executable or arguments are in the directory of staged programs. None on
// another appliance.
std::vector<Candidate> Candidates(const Appliance &appliance);

// The processes that run the staged program as the account, without those that these have forked.
// Arguments can be forged, so they count only in processes of the account.
std::vector<Candidate> ProcessesOf(const std::string &staged, const std::string &account,
                                   const std::vector<Candidate> &candidates);

} // namespace kest::ctl

#endif
