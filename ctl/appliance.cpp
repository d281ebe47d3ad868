#include "ctl/appliance.h"

#include "core/job_files.h"
#include "core/paths.h"
#include "core/utils.h"
#include "ctl/failure.h"
#include "ctl/log_line.h"
#include "ctl/nearest.h"
#include "ctl/utf8.h"
#include "ctl/words.h"
#include "job/account.h"
#include "job/json_members.h"
#include "log/printable.h"
#include "platform/descriptor.h"
#include "platform/kestcore.h"
#include "platform/kestsdk.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <iterator>
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

// The content of a small file; empty when there is none.
std::string ReadFile(const std::string &path) {
    constexpr std::size_t most = std::size_t{1} << 20;
    std::string content;
    const Descriptor file = OpenRegularFile(path);
    if (!file || !ReadAll(file.Get(), most, content))
        content.clear();
    return content;
}

// A zone that is named is not looked up again at every conversion. A system without one has UTC.
void TakeOnZone(const std::string &file) {
    setenv("TZ", ReadFile(file).empty() ? "UTC0" : (":" + file).c_str(), 1);
    tzset();
}

std::map<uid_t, std::string> ReadAccounts(const std::string &path) {
    std::map<uid_t, std::string> accounts;
    std::string content = ReadFile(path);
    if (content.empty())
        return accounts;
    const std::unique_ptr<FILE, int (*)(FILE *)> file(fmemopen(content.data(), content.size(), "r"),
                                                      std::fclose);
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
            return {};
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

// Whether root started the process, and whether it is the one that holds the pid file, as the
// daemon does for all its life: a pid that is left from before may be anybody's by now.
bool IsTheDaemon(pid_t pid) {
    struct stat status {};
    if (stat(ProcessFile(pid, "").c_str(), &status) == -1 || status.st_uid != 0 ||
        !IsNamed(pid, kDaemonName))
        return false;
    const Descriptor file = OpenRegularFile(kPidFile);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return file && fcntl(file.Get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK &&
           lock.l_pid == pid;
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

// A process that may run a staged program.
struct Candidate {
    pid_t pid;
    uid_t uid;
    std::string program; // what it executes; empty where only root may ask
    std::vector<std::string> arguments;
};

// Those that name something in the directory of the staged programs.
std::vector<Candidate> Candidates() {
    const std::string directory = std::string(kRuntimeDirectory) + "/";
    const auto isStaged = [&](const std::string &path) {
        return path.compare(0, directory.size(), directory) == 0;
    };
    std::vector<Candidate> candidates;
    for (const pid_t pid : AllProcesses()) {
        struct stat status {};
        if (stat(ProcessFile(pid, "").c_str(), &status) == -1)
            continue;
        Candidate found{pid, status.st_uid, ReadLink(ProcessFile(pid, "exe")), ArgumentsOf(pid)};
        if (isStaged(found.program) ||
            std::any_of(found.arguments.begin(), found.arguments.end(), isStaged))
            candidates.push_back(std::move(found));
    }
    return candidates;
}

// How many arguments may stand before the path of a script: its interpreter, what is written behind
// that in its first line, and what that makes of it.
std::size_t MostBeforeScript(const std::string &staged) {
    constexpr std::size_t kernel = 2; // where the first line cannot be read
    std::string line;
    const Descriptor file = OpenRegularFile(staged);
    std::array<char, 256> block{};
    const ssize_t size = file ? read(file.Get(), block.data(), block.size()) : -1;
    if (size <= 2 || block[0] != '#' || block[1] != '!')
        return size < 0 ? kernel : 0;
    line.assign(block.data(), static_cast<std::size_t>(size));
    std::istringstream words(line.substr(0, line.find('\n')));
    return static_cast<std::size_t>(std::distance(std::istream_iterator<std::string>(words), {}));
}

// A process that runs the job now; 0 for none. Anybody may give a process such arguments, so that
// only the account's own count.
pid_t ProcessOf(const LiveJob &job, const std::vector<Candidate> &candidates) {
    uid_t uid = 0;
    gid_t gid = 0;
    const bool known = KESTUserGetUGID(job.account.c_str(), &uid, &gid) == 0;
    for (const Candidate &candidate : candidates) {
        if (candidate.program == job.staged)
            return candidate.pid;
        const auto &arguments = candidate.arguments;
        const auto found = std::find(arguments.begin(), arguments.end(), job.staged);
        if (known && candidate.uid == uid && found != arguments.end() &&
            static_cast<std::size_t>(found - arguments.begin()) <= MostBeforeScript(job.staged))
            return candidate.pid;
    }
    return 0;
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
    if (pid <= 0 || XLIBCProcAlive(pid) != 1 || !IsTheDaemon(pid))
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

// What the end of the execution log knows of a job.
struct Recent {
    std::time_t launched = 0; // by the daemon
    std::time_t ran = 0;      // whoever started it
};

void TakeIn(const LogLine &line, std::unordered_map<std::string, Recent> &recent) {
    if (!line.started)
        return;
    Recent &job = recent[line.job];
    const std::time_t launched = line.time - line.delay;
    job.ran = std::max(job.ran, launched);
    if (!line.manual)
        job.launched = std::max(job.launched, launched);
}

// What happened since `since`, by the printed names of jobs. What is older stands in the runtime
// document; of a log without end only the last part is read.
std::unordered_map<std::string, Recent> ReadRecent(const std::string &log, std::time_t since) {
    constexpr std::size_t step = std::size_t{1} << 20;
    constexpr int mostSteps = 64;
    std::unordered_map<std::string, Recent> recent;
    struct stat status {};
    const Descriptor file = OpenRegularFile(log);
    if (!file || fstat(file.Get(), &status) == -1)
        return recent;
    auto begin = static_cast<std::uintmax_t>(status.st_size);
    std::string rest; // of the line that began in the part before
    bool reached = false;
    for (int i = 0; i < mostSteps && begin > 0 && !reached; ++i) {
        const auto size = static_cast<std::size_t>(std::min<std::uintmax_t>(begin, step));
        begin -= size;
        std::string part(size, '\0');
        if (pread(file.Get(), part.data(), size, static_cast<off_t>(begin)) !=
            static_cast<ssize_t>(size))
            break;
        const auto whole = begin == 0 ? 0 : part.find('\n') + 1;
        std::istringstream lines((whole == 0 && begin != 0 ? "" : part.substr(whole)) + rest);
        rest = part.substr(0, whole);
        for (std::string text; std::getline(lines, text);) {
            const LogLine line = ParseLogLine(text);
            reached = reached || (line.time >= 0 && line.time < since);
            TakeIn(line, recent);
        }
    }
    return recent;
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
void BringUpToDate(LiveJob &live, const Recent &recent) {
    const std::time_t known = live.lastRun;
    live.lastRun = std::max(known, std::max(recent.ran, recent.launched));
    if (recent.launched <= known)
        return;
    live.job._jsJob["lastExecution"] = Json::Int64{recent.launched};
    live.job._jsJob["expireTime"] = 0;
}

// What is read of an appliance is bounded: it may be an image that somebody else made.
constexpr JsonLimits kReadLimits{std::size_t{1} << 28, 128};

// Reads the document at `path`; false when there is none.
bool ReadDocument(const std::string &path, Json::Value &document) {
    JsonOrigin origin;
    if (JsonFromFile(path, document, kReadLimits, &origin))
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
        throw Failure(std::string("there is neither ") + kRuntimeFile + " nor " + kPersistentFile +
                      ": kestcrond has not run here");
    runtime.saved = SavedAt(runtime.path);
    const auto recent = ReadRecent(appliance.Locate(kExecutionLogFile), runtime.saved);
    const auto candidates = appliance.IsThisOne() ? Candidates() : std::vector<Candidate>();
    const Json::Value &entries = Member(document, "jobs");
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
        CronJob parsed(*entry);
        if (!parsed.valid) {
            runtime.corrupt.push_back(entries.isObject() ? entry.name() : "");
            continue;
        }
        LiveJob live = MakeLiveJob(std::move(parsed));
        if (const auto found = recent.find(Printable(live.name)); found != recent.end())
            BringUpToDate(live, found->second);
        live.process = ProcessOf(live, candidates);
        runtime.jobs.push_back(std::move(live));
    }
    std::sort(runtime.jobs.begin(), runtime.jobs.end(),
              [](const LiveJob &a, const LiveJob &b) { return a.name < b.name; });
    return runtime;
}

std::optional<ScheduleTemplate> FindTemplate(const Appliance &appliance) {
    ScheduleTemplate found;
    for (const char *path : {kRuntimeTemplateFile, kPersistentTemplateFile}) {
        const std::string file = appliance.Locate(path);
        if (OpenRegularFile(file, {1, kReadLimits.bytes}) && LoadScheduleTemplate(found, file))
            return found;
    }
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
            names.push_back(Shown(match->name));
        throw Failure("more than one job is called \"" + Shown(name) + "\": " + Enumerated(names));
    }
    const std::vector<std::string> near = NearestJobs(name, names);
    throw Failure("there is no job \"" + Shown(name) + "\"" +
                  (near.empty() ? "" : "; there is " + Shown(Enumerated(near))));
}
