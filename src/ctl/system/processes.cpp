#include "ctl/system/processes.h"

#include "base/descriptor.h"
#include "base/json_members.h"
#include "base/paths.h"
#include "base/process_owner.h"
#include "core/utils.h"
#include "ctl/system/files.h"
#include "job/cronjob.h"
#include "job/runtime_directory.h"
#include "platform/kestcore.h"
#include "platform/kestsdk.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace kest::ctl {

namespace {

std::string ProcessFile(pid_t pid, const char *name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

std::vector<std::string> ArgumentsOf(pid_t pid) {
    std::vector<std::string> arguments;
    std::istringstream stream(ReadFile(ProcessFile(pid, "cmdline")));
    for (std::string argument; std::getline(stream, argument, '\0');)
        arguments.push_back(argument);
    return arguments;
}

std::vector<pid_t> AllProcesses() {
    std::vector<pid_t> pids;
    const std::unique_ptr<DIR, int (*)(DIR *)> proc(opendir("/proc"), closedir);
    while (const dirent *entry = proc ? readdir(proc.get()) : nullptr) {
        std::int32_t pid = 0;
        if (ReadNumber(entry->d_name, pid))
            pids.push_back(pid);
    }
    std::sort(pids.begin(), pids.end());
    return pids;
}

// The fields of "/proc/PID/stat" from the process state on; empty if the process has ended.
std::vector<std::string> StatOf(pid_t pid) {
    const std::string stat = ReadFile(ProcessFile(pid, "stat"));
    const auto name = stat.rfind(')'); // the name may contain blanks and parentheses
    std::vector<std::string> fields;
    if (name == std::string::npos)
        return fields;
    std::istringstream stream(stat.substr(name + 1));
    for (std::string field; stream >> field;)
        fields.push_back(field);
    return fields;
}

constexpr std::size_t kParentField = 1;
constexpr std::size_t kSessionField = 3;
constexpr std::size_t kStartField = 19;

// One of these fields; 0 if there is none.
std::int64_t NumberIn(const std::vector<std::string> &fields, std::size_t index) {
    return index < fields.size() ? std::strtoll(fields[index].c_str(), nullptr, 10) : 0;
}

std::time_t StartAfterBoot(const std::vector<std::string> &fields) {
    return NumberIn(fields, kStartField) / sysconf(_SC_CLK_TCK);
}

std::time_t SecondsSinceBoot() {
    return std::strtoll(ReadFile("/proc/uptime").c_str(), nullptr, 10);
}

std::time_t StartOf(pid_t pid) {
    const std::vector<std::string> fields = StatOf(pid);
    const std::string boot = ReadFile("/proc/stat");
    const auto found = boot.find("\nbtime ");
    if (fields.empty() || found == std::string::npos)
        return 0;
    return std::strtoll(boot.c_str() + found + 7, nullptr, 10) + StartAfterBoot(fields);
}

bool IsNamed(pid_t pid, const char *name) {
    XLIBCProc *process = nullptr;
    const bool named =
        XLIBCProcGetByPid(pid, &process) == 0 && std::strcmp(process->command, name) == 0;
    XLIBCProcFree(process);
    return named;
}

// Whether root started the process and the process holds the lock of the pid file, as the daemon
// does for its lifetime. The PID in a stale file may belong to any process.
bool IsTheDaemon(pid_t pid) {
    if (!IsProcessOfRoot(pid) || !IsNamed(pid, kDaemonName))
        return false;
    const Descriptor file = OpenRegularFile(kPidFile);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return file && fcntl(file.Get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK &&
           lock.l_pid == pid;
}

// Launched jobs that wait out their delay are processes of root in sessions of their own that still
// have the daemon's name. They outlive the daemon that launched them.
unsigned CountDelayed(pid_t daemon) {
    unsigned delayed = 0;
    for (const pid_t pid : AllProcesses()) {
        if (pid == daemon || !IsNamed(pid, kDaemonName) || !IsProcessOfRoot(pid))
            continue;
        const std::vector<std::string> fields = StatOf(pid);
        if (!fields.empty() && fields[0] != "Z" && NumberIn(fields, kSessionField) == pid)
            ++delayed;
    }
    return delayed;
}

// The number of arguments that may precede the path of a script: its interpreter, and the words
// after the interpreter in the first line.
std::size_t MostBeforeScript(const std::string &staged) {
    constexpr std::size_t usual = 2; // if the first line cannot be read
    std::string line;
    const Descriptor file = OpenRegularFile(staged);
    std::array<char, 256> block{};
    const ssize_t size = file ? read(file.Get(), block.data(), block.size()) : -1;
    if (size <= 2 || block[0] != '#' || block[1] != '!')
        return size < 0 ? usual : 0;
    line.assign(block.data(), static_cast<std::size_t>(size));
    std::istringstream words(line.substr(0, line.find('\n')));
    return static_cast<std::size_t>(std::distance(std::istream_iterator<std::string>(words), {}));
}

} // namespace

pid_t FindDaemonProcess() {
    const pid_t pid = XLIBCReadPidFile(kPidFile);
    return pid > 0 && XLIBCProcAlive(pid) == 1 && IsTheDaemon(pid) ? pid : 0;
}

Daemon FindDaemon(const Appliance &appliance) {
    Daemon daemon;
    if (!appliance.IsLocal())
        return daemon;
    QueryHeld(daemon.held);
    const pid_t pid = FindDaemonProcess();
    daemon.delayed = CountDelayed(pid);
    if (pid == 0)
        return daemon;
    const std::vector<std::string> arguments = ArgumentsOf(pid);
    daemon.pid = pid;
    daemon.since = StartOf(pid);
    daemon.passive =
        std::find(arguments.begin(), arguments.end(), kPassiveOption) != arguments.end();
    return daemon;
}

std::vector<Candidate> Candidates(const Appliance &appliance) {
    const std::string directory = std::string(kRuntimeDirectory) + "/";
    const auto isStaged = [&](const std::string &path) {
        return path.compare(0, directory.size(), directory) == 0;
    };
    std::vector<Candidate> candidates;
    if (!appliance.IsLocal())
        return candidates;
    for (const pid_t pid : AllProcesses()) {
        struct stat status {};
        if (stat(ProcessFile(pid, "").c_str(), &status) == -1)
            continue;
        Candidate found{
            pid, 0, status.st_uid, 0, ReadLink(ProcessFile(pid, "exe")), ArgumentsOf(pid)};
        if (!isStaged(found.program) &&
            std::none_of(found.arguments.begin(), found.arguments.end(), isStaged))
            continue;
        const std::vector<std::string> fields = StatOf(pid);
        found.parent = static_cast<pid_t>(NumberIn(fields, kParentField));
        found.age = std::max(std::time_t{0}, SecondsSinceBoot() - StartAfterBoot(fields));
        candidates.push_back(std::move(found));
    }
    return candidates;
}

std::vector<Candidate> ProcessesOf(const std::string &staged, const std::string &account,
                                   const std::vector<Candidate> &candidates) {
    if (candidates.empty())
        return {}; // without a look-up of the account
    uid_t uid = 0;
    gid_t gid = 0;
    const bool known = KESTUserGetUGID(account.c_str(), &uid, &gid) == 0;
    std::vector<Candidate> running;
    for (const Candidate &candidate : candidates) {
        const auto &arguments = candidate.arguments;
        const auto found = std::find(arguments.begin(), arguments.end(), staged);
        if (candidate.program == staged ||
            (known && candidate.uid == uid && found != arguments.end() &&
             static_cast<std::size_t>(found - arguments.begin()) <= MostBeforeScript(staged)))
            running.push_back(candidate);
    }
    std::set<pid_t> pids;
    for (const Candidate &process : running)
        pids.insert(process.pid);
    running.erase(
        std::remove_if(running.begin(), running.end(),
                       [&](const Candidate &process) { return pids.count(process.parent) != 0; }),
        running.end());
    return running;
}

} // namespace kest::ctl
