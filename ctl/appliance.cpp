#include "ctl/appliance.h"

#include "core/job_files.h"
#include "core/paths.h"
#include "core/utils.h"
#include "ctl/failure.h"
#include "ctl/log_line.h"
#include "ctl/nearest.h"
#include "ctl/words.h"
#include "job/account.h"
#include "job/json_members.h"
#include "log/printable.h"
#include "platform/descriptor.h"
#include "platform/kestcore.h"
#include "platform/kestsdk.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <pwd.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <utility>

namespace {

std::string ErrorText() {
    return std::strerror(errno);
}

// A zone that is named is not looked up again at every conversion. A system without one has UTC.
void TakeOnZone(const std::string &file) {
    setenv("TZ", access(file.c_str(), R_OK) == 0 ? (":" + file).c_str() : "UTC0", 1);
    tzset();
}

std::map<uid_t, std::string> ReadAccounts(const std::string &path) {
    std::map<uid_t, std::string> accounts;
    const std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(path.c_str(), "re"), std::fclose);
    while (const passwd *entry = file ? fgetpwent(file.get()) : nullptr)
        accounts.emplace(entry->pw_uid, entry->pw_name);
    return accounts;
}

std::string ReadLink(const std::string &path) {
    std::string target(PATH_MAX, '\0');
    const ssize_t size = readlink(path.c_str(), target.data(), target.size());
    target.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return target;
}

} // namespace

// --- The appliance ------------------------------------------------------------------------------

Appliance::Appliance(const std::string &root) {
    if (root.empty()) {
        if (std::getenv("TZ") == nullptr)
            TakeOnZone("/etc/localtime");
        return;
    }
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(root.c_str(), nullptr),
                                                           std::free);
    struct stat status {};
    if (!real || stat(real.get(), &status) == -1)
        throw Failure(root + ": " + ErrorText());
    if (!S_ISDIR(status.st_mode))
        throw Failure(root + ": " + std::strerror(ENOTDIR));
    root_ = std::strcmp(real.get(), "/") == 0 ? "/." : real.get();
    accounts_ = ReadAccounts(Locate("/etc/passwd"));
    TakeOnZone(Locate("/etc/localtime"));
}

std::string Appliance::Locate(const std::string &path) const {
    if (IsThisOne())
        return path;
    constexpr int mostLinks = 40; // as many as the kernel follows
    int links = 0;
    std::deque<std::string> ahead;
    std::string found;
    const auto putAhead = [&](const std::string &further) {
        std::deque<std::string> parts;
        std::istringstream stream(further);
        for (std::string part; std::getline(stream, part, '/');)
            parts.push_back(part);
        ahead.insert(ahead.begin(), parts.begin(), parts.end());
    };
    putAhead(path);
    while (!ahead.empty()) {
        const std::string part = ahead.front();
        ahead.pop_front();
        if (part == "..")
            found.erase(std::min(found.rfind('/'), found.size()));
        if (part.empty() || part == "." || part == "..")
            continue;
        const std::string directory = found;
        found.append("/").append(part);
        const std::string target = ReadLink(root_ + found);
        if (target.empty())
            continue;
        if (++links > mostLinks)
            throw Failure(root_ + path + ": " + std::strerror(ELOOP));
        found = target.front() == '/' ? "" : directory;
        putAhead(target);
    }
    return root_ + found;
}

bool Appliance::HasAccount(const std::string &name) const {
    uid_t uid = 0;
    gid_t gid = 0;
    if (IsThisOne())
        return KESTUserGetUGID(name.c_str(), &uid, &gid) == 0;
    return std::any_of(accounts_.begin(), accounts_.end(),
                       [&](const auto &account) { return account.second == name; });
}

std::optional<std::string> Appliance::AccountName(uid_t uid) const {
    if (IsThisOne()) {
        const passwd *entry = getpwuid(uid);
        return entry != nullptr ? std::optional<std::string>(entry->pw_name) : std::nullopt;
    }
    const auto found = accounts_.find(uid);
    return found != accounts_.end() ? std::optional<std::string>(found->second) : std::nullopt;
}

// --- Processes ----------------------------------------------------------------------------------

namespace {

std::string ReadFile(const std::string &path) {
    std::string content;
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file || !ReadAll(file.Get(), std::size_t{1} << 20, content))
        content.clear();
    return content;
}

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

// The fields of "/proc/PID/stat" from the process's state on, which is the first; none when it is
// gone.
std::vector<std::string> StatOf(pid_t pid) {
    const std::string stat = ReadFile(ProcessFile(pid, "stat"));
    const auto name = stat.rfind(')'); // may hold blanks and brackets
    std::vector<std::string> fields;
    if (name == std::string::npos)
        return fields;
    std::istringstream stream(stat.substr(name + 1));
    for (std::string field; stream >> field;)
        fields.push_back(field);
    return fields;
}

std::time_t StartOf(pid_t pid) {
    constexpr std::size_t startField = 19;
    const std::vector<std::string> fields = StatOf(pid);
    const std::string boot = ReadFile("/proc/stat");
    const auto found = boot.find("\nbtime ");
    if (fields.size() <= startField || found == std::string::npos)
        return 0;
    const std::int64_t ticks = std::strtoll(fields[startField].c_str(), nullptr, 10);
    return std::strtoll(boot.c_str() + found + 7, nullptr, 10) + ticks / sysconf(_SC_CLK_TCK);
}

bool IsNamed(pid_t pid, const char *name) {
    XLIBCProc *process = nullptr;
    const bool named =
        XLIBCProcGetByPid(pid, &process) == 0 && std::strcmp(process->command, name) == 0;
    XLIBCProcFree(process);
    return named;
}

// What is launched with a delay is a child of the daemon that has become nothing else yet.
unsigned CountDelayed(pid_t daemon) {
    unsigned delayed = 0;
    for (const pid_t pid : AllProcesses()) {
        const std::vector<std::string> fields = StatOf(pid);
        if (fields.size() > 1 && fields[1] == std::to_string(daemon) && fields[0] != "Z" &&
            IsNamed(pid, kDaemonName))
            ++delayed;
    }
    return delayed;
}

// Path of a staged program to a process that runs it. The kernel puts the interpreter of a script,
// and what is written behind it, before the script's path.
std::unordered_map<std::string, pid_t> RunningPrograms() {
    constexpr std::size_t mostBefore = 2;
    std::unordered_map<std::string, pid_t> running;
    const std::string directory = std::string(kRuntimeDirectory) + "/";
    for (const pid_t pid : AllProcesses()) {
        std::vector<std::string> candidates = ArgumentsOf(pid);
        candidates.resize(std::min(candidates.size(), mostBefore + 1));
        candidates.push_back(ReadLink(ProcessFile(pid, "exe")));
        for (const std::string &path : candidates)
            if (path.compare(0, directory.size(), directory) == 0)
                running.emplace(path, pid);
    }
    return running;
}

} // namespace

std::vector<std::string> NamesIn(const std::string &directory) {
    const std::unique_ptr<DIR, int (*)(DIR *)> opened(opendir(directory.c_str()), closedir);
    if (!opened)
        throw Failure(directory + ": " + ErrorText());
    std::vector<std::string> names;
    while (const dirent *entry = readdir(opened.get()))
        if (IsJobFileName(entry->d_name))
            names.emplace_back(entry->d_name);
    std::sort(names.begin(), names.end());
    return names;
}

Daemon FindDaemon(const Appliance &appliance) {
    Daemon daemon;
    if (!appliance.IsThisOne())
        return daemon;
    daemon.held = IsVorldHeld();
    const pid_t pid = XLIBCReadPidFile(kPidFile);
    if (pid <= 0 || XLIBCProcAlive(pid) != 1 || !IsNamed(pid, kDaemonName))
        return daemon;
    const std::vector<std::string> arguments = ArgumentsOf(pid);
    daemon.pid = pid;
    daemon.since = StartOf(pid);
    daemon.passive =
        std::find(arguments.begin(), arguments.end(), kPassiveOption) != arguments.end();
    daemon.delayed = CountDelayed(pid);
    return daemon;
}

// --- Jobs ---------------------------------------------------------------------------------------

namespace {

// The time at which each job was last launched, by its printed name, as the end of the execution
// log tells it from `since` on. What is older stands in the runtime document.
std::unordered_map<std::string, std::time_t> LaunchesSince(const std::string &log,
                                                           std::time_t since) {
    std::unordered_map<std::string, std::time_t> launches;
    std::ifstream stream(log, std::ios::ate | std::ios::binary);
    constexpr std::streamoff step = std::streamoff{256} * 1024;
    std::streamoff begin = stream ? static_cast<std::streamoff>(stream.tellg()) : 0;
    std::string rest; // of the line that began in the part before
    while (begin > 0) {
        const std::streamoff size = std::min(begin, step);
        begin -= size;
        std::string part(static_cast<std::size_t>(size), '\0');
        stream.seekg(begin);
        if (!stream.read(part.data(), size))
            break;
        part += rest;
        const auto whole = begin == 0 ? 0 : part.find('\n') + 1;
        std::istringstream lines(part.substr(whole));
        rest = part.substr(0, whole);
        std::time_t earliest = since;
        for (std::string line; std::getline(lines, line);) {
            const LogLine parsed = ParseLogLine(line);
            if (parsed.time >= 0)
                earliest = std::min(earliest, parsed.time);
            std::time_t &last = launches[parsed.job];
            if (parsed.started)
                last = std::max(last, parsed.time - parsed.delay);
        }
        if (earliest < since)
            break;
    }
    return launches;
}

std::time_t SavedAt(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
}

LiveJob MakeLiveJob(CronJob parsed) {
    LiveJob live;
    live.job = std::move(parsed);
    live.name = live.job.Name();
    live.account = AccountOf(Member(live.job._jsJob, "config")).value_or("");
    live.staged = std::string(kRuntimeDirectory) + "/" + live.name;
    live.lastRun = IntegerMember(live.job._jsJob, "lastExecution", 0);
    return live;
}

// What happened after the document was written: launches end what was due.
void BringUpToDate(LiveJob &live, std::time_t launched) {
    if (launched <= live.lastRun)
        return;
    live.lastRun = launched;
    live.job._jsJob["lastExecution"] = Json::Int64{launched};
    live.job._jsJob["expireTime"] = 0;
}

// Reads the document at `path`; false when there is none.
bool ReadDocument(const std::string &path, Json::Value &document) {
    JsonOrigin origin;
    if (JsonFromFile(path, document, kOwnFileLimits, &origin))
        return true;
    if (errno == ENOENT || errno == ENOTDIR)
        return false;
    throw Failure(path + ": " + (errno == EBADMSG ? "is no whole JSON document" : ErrorText()));
}

} // namespace

Runtime LoadRuntime(const Appliance &appliance) {
    Runtime runtime;
    Json::Value document;
    for (const char *path : {kRuntimeFile, kPersistentFile}) {
        runtime.path = appliance.Locate(path);
        if (!document.isNull() || ReadDocument(runtime.path, document))
            break;
    }
    if (document.isNull())
        throw Failure(std::string("there is neither ") + appliance.Locate(kRuntimeFile) + " nor " +
                      runtime.path + ": kestcrond has not run here");
    runtime.saved = SavedAt(runtime.path);
    runtime.live = runtime.path == kRuntimeFile && FindDaemon(appliance).Runs();
    const auto launches = LaunchesSince(appliance.Locate(kExecutionLogFile), runtime.saved);
    const auto running = appliance.IsThisOne() ? RunningPrograms() : decltype(RunningPrograms())();
    const Json::Value &entries = Member(document, "jobs");
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
        CronJob parsed(*entry);
        if (!parsed.valid) {
            runtime.corrupt.push_back(entries.isObject() ? entry.name() : "");
            continue;
        }
        LiveJob live = MakeLiveJob(std::move(parsed));
        if (const auto found = launches.find(Printable(live.name)); found != launches.end())
            BringUpToDate(live, found->second);
        if (const auto found = running.find(live.staged); found != running.end())
            live.process = found->second;
        runtime.jobs.push_back(std::move(live));
    }
    std::sort(runtime.jobs.begin(), runtime.jobs.end(),
              [](const LiveJob &a, const LiveJob &b) { return a.name < b.name; });
    return runtime;
}

std::optional<ScheduleTemplate> FindTemplate(const Appliance &appliance) {
    ScheduleTemplate found;
    for (const char *path : {kRuntimeTemplateFile, kPersistentTemplateFile})
        if (LoadScheduleTemplate(found, appliance.Locate(path)))
            return found;
    return std::nullopt;
}

namespace {

// The jobs of which the name, or its last part, is like `name`.
std::vector<std::string> NearestJobs(const std::string &name,
                                     const std::vector<std::string> &names) {
    constexpr std::size_t most = 3;
    std::vector<std::string> near = NearestOf(name, names, most);
    std::vector<std::string> lastParts;
    lastParts.reserve(names.size());
    for (const std::string &full : names)
        lastParts.push_back(full.substr(full.rfind('-') + 1));
    if (near.empty())
        for (const std::string &part : NearestOf(name, lastParts, most))
            for (std::size_t i = 0; i < names.size() && near.size() < most; ++i)
                if (lastParts[i] == part)
                    near.push_back(names[i]);
    std::sort(near.begin(), near.end());
    near.erase(std::unique(near.begin(), near.end()), near.end());
    return near;
}

} // namespace

const LiveJob &FindJob(const Runtime &runtime, const std::string &name) {
    std::vector<const LiveJob *> matches;
    std::vector<std::string> names;
    const std::string ending = "-" + name;
    for (const LiveJob &live : runtime.jobs) {
        if (live.name == name)
            return live;
        if (live.name.size() > ending.size() &&
            live.name.compare(live.name.size() - ending.size(), ending.size(), ending) == 0)
            matches.push_back(&live);
        names.push_back(live.name);
    }
    if (matches.size() == 1)
        return *matches.front();
    if (!matches.empty()) {
        names.clear();
        for (const LiveJob *match : matches)
            names.push_back(Printable(match->name));
        throw Failure("more than one job is called \"" + Printable(name) +
                      "\": " + Enumerated(names));
    }
    const std::vector<std::string> near = NearestJobs(name, names);
    throw Failure("there is no job \"" + Printable(name) + "\"" +
                  (near.empty() ? "" : "; there is " + Printable(Enumerated(near))));
}
