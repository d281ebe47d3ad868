// The appliance that is looked at: this one, or another one whose files lie below a directory.

#ifndef CTL_APPLIANCE_H
#define CTL_APPLIANCE_H

#include "job/cronjob.h"

#include <ctime>
#include <json/value.h>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

class Appliance {
public:
    // `root` is empty for this appliance. Its time zone becomes the program's. Throws Failure for
    // anything but a directory.
    explicit Appliance(const std::string &root);

    bool IsThisOne() const { return root_.empty(); }

    // Where the appliance's file `path` is found here; its links are followed as they lead there,
    // the last one too. The file need not exist. Empty, which names
    // nothing, for links that lead in a circle.
    std::string Locate(const std::string &path) const;

    bool HasAccount(const std::string &name) const;
    // The name of the account; nothing when there is none of that number.
    std::optional<std::string> AccountName(uid_t uid) const;

private:
    std::string root_;
    std::map<uid_t, std::string> accounts_; // of another appliance
};

// The names in a directory that are job files or account directories, in the order in which they
// are read. Throws Failure when it cannot be read.
std::vector<std::string> NamesIn(const std::string &directory);

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

// One job as the daemon knows it.
struct LiveJob {
    std::string name;
    CronJob job;             // with what the execution log knows of its last run
    std::string account;     // empty when the definition names none
    std::time_t lastRun = 0; // by whomever; 0: none is known
    std::string staged;      // path of its staged program
    pid_t process = 0;       // one that runs it now; 0: none is seen
};

// The jobs and where they are known from.
struct Runtime {
    std::string path; // of the document
    std::time_t saved = 0;
    std::vector<LiveJob> jobs;        // by name
    std::vector<std::string> corrupt; // entries that hold no job
};

// Reads the runtime document, or what was kept of it when there is none, the execution log as far
// as it may be read, and the process table. Throws Failure when no document can be had.
Runtime LoadRuntime(const Appliance &appliance);

// The schedule template; nothing when there is none.
std::optional<ScheduleTemplate> FindTemplate(const Appliance &appliance);

// The job of that name, or the only one whose name ends with "-" and it. Throws Failure, with the
// nearest names, when there is none or more than one.
const LiveJob &FindJob(const Runtime &runtime, const std::string &name);

#endif
