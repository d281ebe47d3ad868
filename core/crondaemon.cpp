#include "core/crondaemon.h"

#include "core/account_files.h"
#include "core/inotify_records.h"
#include "core/job_files.h"
#include "core/job_name.h"
#include "core/json_contains.h"
#include "core/launch_note.h"
#include "core/launch_spacing.h"
#include "core/paths.h"
#include "core/redraw.h"
#include "core/runtime_document.h"
#include "core/unreadable.h"
#include "core/utils.h"
#include "job/account.h"
#include "job/json_members.h"
#include "job/schedule.h"
#include "job/staging.h"
#include "log/error_log.h"
#include "log/memorylogger.h"
#include "log/system_log.h"
#include "platform/descriptor.h"
#include "platform/errno_kept.h"
#include "platform/json_text.h"
#include "platform/kestcore.h"
#include "platform/kestsdk.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <dirent.h>
#include <functional>
#include <malloc.h>
#include <memory>
#include <new>
#include <pwd.h>
#include <set>
#include <sys/inotify.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::int32_t kCycleSeconds = 60;

} // namespace

// --- Start and cycle ----------------------------------------------------------------------------

namespace {

bool PrepareRuntimeDirectory() {
    const Descriptor directory = MakeRuntimeDirectory();
    if (!directory) {
        LOG_ERROR("runtime dir (%s) create failed", kRuntimeDirectory);
        return false;
    }
    if (fchmod(directory.Get(), 0755) == -1) {
        LOG_ERROR("Failed to chmod [%s][%m]", kRuntimeDirectory);
        return false;
    }
    return true;
}

// The stop would overwrite what could not be read now.
void KeepForLater(const std::string &path) {
    const ErrnoKept kept;
    if (!KeepUnreadable(path))
        LOG_ERROR("unreadable document cannot be kept (%s)", path.c_str());
}

// The runtime document that the last shutdown saved; null when there is none.
Json::Value PersistedDocument() {
    const ErrnoKept kept; // a machine that starts for the first time has none
    Json::Value document;
    if (!JsonFromFile(kPersistentFile, document, kOwnFileLimits) || !document.isObject())
        KeepForLater(kPersistentFile);
    return document;
}

} // namespace

bool CronDaemon::Init(bool passive) {
    passiveMode = passive;
    watchCount = 0;
    inotifyFd = inotify_init1(IN_CLOEXEC);
    if (inotifyFd == -1)
        LOG_ERROR("inotify init failed");
    if (!PrepareRuntimeDirectory())
        return false;
    JobSet jobSet = LoadSources();
    LoadTemplate(kPersistentTemplateFile);
    if (!gaveUpLoad)
        ApplyJobSet(PersistedDocument(), std::move(jobSet), {});
    return true;
}

void CronDaemon::Run() {
    // A signal between setting the time to sleep and looking at what it asks for still cuts the
    // sleep short.
    for (sleepSeconds = kCycleSeconds; !stopRequested; sleepSeconds = kCycleSeconds) {
        RunCycle();
        WaitForNextCycle();
    }
    Shutdown();
}

namespace {

// While an object of this class lives, the daemon's signals wait, but for a call that is given
// Before().
class SignalsHeldBack {
public:
    SignalsHeldBack() {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int number : {SIGHUP, SIGINT, SIGTERM})
            sigaddset(&signals, number);
        sigprocmask(SIG_BLOCK, &signals, &before_);
    }
    SignalsHeldBack(const SignalsHeldBack &) = delete;
    SignalsHeldBack &operator=(const SignalsHeldBack &) = delete;
    ~SignalsHeldBack() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

    const sigset_t &Before() const { return before_; }

private:
    sigset_t before_{};
};

// The set of one descriptor; an empty one for -1.
fd_set SetOf(int descriptor) {
    fd_set set;
    FD_ZERO(&set);
    if (descriptor != -1)
        FD_SET(descriptor, &set);
    return set;
}

timespec MonotonicTime() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

// From now until `seconds` after `start`; nothing when that is over.
timespec LeftOf(std::int32_t seconds, const timespec &start) {
    constexpr long second = 1000000000;
    const timespec now = MonotonicTime();
    timespec left{start.tv_sec + seconds - now.tv_sec, start.tv_nsec - now.tv_nsec};
    if (left.tv_nsec < 0) {
        left.tv_nsec += second;
        --left.tv_sec;
    }
    return left.tv_sec < 0 ? timespec{} : left;
}

} // namespace

// Cut short by a signal, and not made up for: the signal wants the next cycle. One that came since
// the cycle looked has set the time to sleep to 0, and one that comes later interrupts the wait.
void CronDaemon::WaitForNextCycle() const {
    const ErrnoKept kept;
    const SignalsHeldBack signals;
    const timespec start = MonotonicTime();
    for (int ready = 1; ready > 0 && sleepSeconds != 0;) {
        // What the system log could not take is sent as soon as it can.
        const Descriptor log = CatchUpWithSystemLog();
        // A set has no place for a larger number. What is kept is then sent in the next cycle.
        const int watched = log.Get() < FD_SETSIZE ? log.Get() : -1;
        fd_set writable = SetOf(watched);
        const timespec left = LeftOf(sleepSeconds, start);
        // Not ppoll(): with _FORTIFY_SOURCE, glibc 2.36 calls the variant of it with a 32-bit time,
        // which loses the fraction of a second on 32-bit machines.
        ready = pselect(watched + 1, nullptr, &writable, nullptr, &left, &signals.Before());
    }
}

void CronDaemon::RunCycle() {
    try {
        if (reloadRequested) {
            ReloadJobs();
            executionLog.Flush();
        } else {
            Evaluate();
        }
    } catch (const std::bad_alloc &) {
        PersistInNeed();
        throw;
    }
}

void CronDaemon::Evaluate() {
    for (CronJob &job : jobs)
        job.CheckTrigger();
    // A cleaner of "/tmp" may have taken the directory or the programs in it, and its name is then
    // free for anybody. What is due is due after the load too.
    if (!runtimeDirectory.IsSafe() || RuntimeDirectoryState::Now() != runtimeDirectory) {
        ReloadInCycle();
        if (stopRequested) // the load may have been given up
            return;
    }
    const bool held = IsVorldHeld();
    std::vector<JobState> states;
    states.reserve(jobs.size());
    for (const CronJob &job : jobs)
        states.push_back(ComputeState(job, held));
    LaunchJobs(states);
    RegenerateOnTimeChange();
    PollChanges();
}

// A load that is not a cycle of its own. What was found due stays due, and so does its text.
void CronDaemon::ReloadInCycle() {
    std::map<std::string, std::string> texts;
    for (const CronJob &job : jobs)
        if (!job.scheduleText.empty())
            texts.emplace(job.Name(), job.scheduleText);
    sleepSeconds = kCycleSeconds; // a reload that was requested is this one
    ReloadJobs();
    for (CronJob &job : jobs)
        if (const auto text = texts.find(job.Name()); text != texts.end())
            job.scheduleText = text->second;
}

JobState CronDaemon::ComputeState(const CronJob &job, bool held) const {
    return StateOf(FactsOf(job, passiveMode, held));
}

namespace {

std::string TriggerTime() {
    const std::tm *local = LocalTimeOf(std::time(nullptr));
    if (local != nullptr)
        return FormatTriggerTime(*local);
    LOG_ERROR("Failed to get localtime. Not able to format date.");
    return {};
}

} // namespace

void CronDaemon::LaunchJobs(const std::vector<JobState> &states) {
    LaunchFacts facts;
    facts.launches =
        static_cast<std::size_t>(std::count_if(states.begin(), states.end(), IsLaunchState));
    if (facts.launches == 0)
        return;
    const std::int32_t spacing = LaunchSpacing(scheduleTemplate.maxDelay, facts.launches);
    facts.triggerTime = TriggerTime();
    std::int32_t launched = 0;
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        if (!IsLaunchState(states[i]))
            continue;
        facts.state = JobStateName(states[i]);
        facts.scheduleText = jobs[i].scheduleText;
        facts.delay = launched * spacing;
        facts.rank = static_cast<std::size_t>(++launched);
        LaunchJob(jobs[i], facts);
    }
}

namespace {

// Seconds of a clock that nobody sets.
std::int64_t SteadyNow() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(now).count();
}

} // namespace

void CronDaemon::LaunchJob(CronJob &job, const LaunchFacts &facts) {
    const std::string name = job.Name();
    if (IsOfAccountDirectory(name)) {
        const std::string account =
            TextMember(Member(job.Document(), "config"), "package_username");
        const std::int64_t now = SteadyNow();
        if (facts.delay > 0 && !waitingStarts.HasPlace(account, now)) {
            job.RefuseLaunch();
            return;
        }
        // Its program is needed for a moment longer, and so is that of a start without a delay.
        waitingStarts.Add(account, name, now + facts.delay + 2);
    }
    job.Launch(facts.delay, LaunchNote(facts));
}

bool IsLaunchState(JobState state) {
    const JobStateTraits *traits = TraitsOf(state);
    if (traits == nullptr)
        LOG_ERROR("Unreachable switch case value");
    return traits != nullptr && traits->launched;
}

const char *JobStateName(JobState state) {
    const JobStateTraits *traits = TraitsOf(state);
    if (traits == nullptr)
        LOG_ERROR("Unreachable switch case value");
    return traits != nullptr ? traits->name : "Unknown";
}

void CronDaemon::RegenerateOnTimeChange() {
    const std::tm *local = LocalTimeOf(std::time(nullptr));
    if (local == nullptr) {
        LOG_ERROR("Failed to get localtime. Not regenerating.");
        return;
    }
    const std::vector<std::string> keys = FieldsToRedraw(*local);
    if (keys.empty())
        return;
    for (const std::string &key : keys)
        RegenerateField(key);
    SaveRuntimeFiles();
    // What kept their programs from being copied may be over.
    if (!unstaged.empty()) {
        reloadRequested = true;
        sleepSeconds = 0;
    }
}

void CronDaemon::RegenerateField(const std::string &key) {
    scheduleTemplate.GenerateSchedule(key);
    const std::int32_t shared = scheduleTemplate.GetSingleScheduleValue(key);
    for (CronJob &job : jobs)
        job.GenerateFieldSchedule(key, shared);
}

void CronDaemon::Shutdown() {
    PersistState();
}

// --- Watching -----------------------------------------------------------------------------------

namespace {

// By its descriptor where there is one. Without "/proc" that cannot be said; then the path must do.
int AddInotifyWatch(int inotify, const std::string &path, int opened, std::uint32_t mask) {
    if (opened != -1) {
        const int error = errno;
        const std::string link = "/proc/self/fd/" + std::to_string(opened);
        const int watch = inotify_add_watch(inotify, link.c_str(), mask);
        if (watch != -1 || errno != ENOENT)
            return watch;
        errno = error;
    }
    return inotify_add_watch(inotify, path.c_str(), mask);
}

} // namespace

bool CronDaemon::AddWatch(const std::string &path, int opened) {
    constexpr std::uint32_t watchMask = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_FROM |
                                        IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_DELETE_SELF |
                                        IN_MOVE_SELF;
    if (inotifyFd == -1)
        return true; // no changes are seen, but jobs are loaded
    std::int32_t watch = -1;
    if (watchCount < watches.size())
        watch = AddInotifyWatch(inotifyFd, path, opened, watchMask);
    else
        errno = ENOSPC;
    if (watch < 0) {
        LOG_ERROR("Failed to listen %s", path.c_str());
        return false;
    }
    watches[watchCount++] = watch;
    return true;
}

void CronDaemon::RemoveAllWatches() {
    const ErrnoKept kept; // a directory that is gone took its watch with it
    for (std::uint32_t i = 0; i < watchCount; ++i) {
        if (watches[i] > 0) {
            inotify_rm_watch(inotifyFd, watches[i]);
            watches[i] = -1;
        }
    }
    watchCount = 0;
}

namespace {

// Whether there is something to read at once. A signal that interrupts the call is not a failure.
bool HasNews(int inotify) {
    const int error = errno;
    int ready = -1;
    do {
        fd_set readable = SetOf(inotify);
        timeval noWait{0, 0};
        ready = select(inotify + 1, &readable, nullptr, nullptr, &noWait);
    } while (ready == -1 && errno == EINTR);
    if (ready == -1) {
        LOG_ERROR("Failed to select inotify");
        return false;
    }
    errno = error;
    return ready > 0;
}

} // namespace

void CronDaemon::ForgetChanges() const {
    const ErrnoKept kept;
    alignas(inotify_event) std::array<char, 16384> records{};
    while (inotifyFd != -1 && HasNews(inotifyFd))
        if (read(inotifyFd, records.data(), records.size()) <= 0 && errno != EINTR)
            break;
}

void CronDaemon::PollChanges() {
    if (inotifyFd == -1 || !HasNews(inotifyFd))
        return;
    alignas(inotify_event) std::array<char, 1024> records{};
    ssize_t size = 0;
    do
        size = read(inotifyFd, records.data(), records.size());
    while (size == -1 && errno == EINTR);
    if (size > 0 && ReportsChange(records.data(), static_cast<std::size_t>(size))) {
        reloadRequested = true;
        sleepSeconds = 0;
    }
}

// --- Job sources --------------------------------------------------------------------------------

namespace {

std::string PathIn(const std::string &directory, const std::string &name) {
    return directory + "/" + name;
}

using Directory = std::unique_ptr<DIR, int (*)(DIR *)>;

// Null, with a message, when the directory cannot be opened.
Directory OpenDirectory(const std::string &path) {
    Directory directory(opendir(path.c_str()), closedir);
    if (!directory)
        LOG_ERROR("open directory failed.");
    return directory;
}

// The names of the entries that do not begin with ".", in byte order.
std::vector<std::string> NamesIn(const Directory &directory) {
    std::vector<std::string> names;
    while (const dirent *entry = readdir(directory.get()))
        if (IsJobFileName(entry->d_name))
            names.emplace_back(entry->d_name);
    std::sort(names.begin(), names.end());
    return names;
}

// Runs each definition through the job parser and adds the accepted ones to the job set. Returns
// false when any was rejected.
bool AddJobDefinitions(JobSet &jobSet, Json::Value definitions) {
    bool allAccepted = true;
    for (Json::Value &definition : definitions) {
        Json::Value document;
        document["config"] = std::move(definition);
        CronJob job(std::move(document));
        if (job.valid)
            jobSet.insert_or_assign(job.Name(), std::move(job));
        else
            allAccepted = false;
    }
    return allAccepted;
}

// The definitions in the document of a job file, by their full names as far as they have one.
Json::Value NamedDefinitions(Json::Value document, const JobDirectory &directory,
                             const std::string &fileName) {
    const std::string base = FileBaseName(fileName);
    Json::Value definitions = DefinitionsOf(std::move(document));
    for (Json::Value &definition : definitions)
        if (!NameDefinition(definition, directory, base))
            LOG_ERROR("Job (%s) must have a name!", base.c_str());
    return definitions;
}

void LoadJobFile(JobSet &jobSet, const JobDirectory &directory, const std::string &fileName) {
    const std::string path = PathIn(directory.path, fileName);
    Json::Value document;
    if (!JsonFromFile(path, document, kJobFileLimits))
        LOG_ERROR("JSON file read error: %s", path.c_str());
    else if (!AddJobDefinitions(jobSet, NamedDefinitions(std::move(document), directory, fileName)))
        LOG_ERROR("Job JSON format error: %s", path.c_str());
}

// Returns false, and adds nothing, when the quota of the account does not admit the file.
bool LoadAccountFile(JobSet &jobSet, const JobDirectory &directory, AccountFile file,
                     AccountQuota &quota) {
    const std::string path = PathIn(directory.path, file.name);
    JsonOrigin origin;
    Json::Value document;
    if (const int error = ParseAccountFile(file, quota, origin, document)) {
        errno = error;
        if (error != EDQUOT)
            LOG_ERROR("JSON file read error: %s", path.c_str());
        return error != EDQUOT;
    }
    JobSet jobs;
    const bool allAccepted =
        AddJobDefinitions(jobs, NamedDefinitions(std::move(document), directory, file.name));
    if (!ChargeDocument(quota, DocumentSize(jobs, quota.documentBytes)))
        return false;
    for (auto &[name, job] : jobs)
        jobSet.insert_or_assign(name, std::move(job));
    if (!allAccepted)
        LOG_ERROR("Job JSON format error: %s", path.c_str());
    return true;
}

// Each of these loads one directory and returns whether it could be read; what is wrong with single
// files and jobs is reported and left out.
bool LoadJobDirectory(JobSet &jobSet, const std::string &directory, const std::string &label) {
    KESTFSMkdirP(directory.c_str(), nullptr, 1, 0, 0, 0750);
    const Directory opened = OpenDirectory(directory);
    if (!opened)
        return false;
    for (const std::string &name : NamesIn(opened))
        LoadJobFile(jobSet, {directory, label, {}}, name);
    return true;
}

// `opened` is the directory, and is what is read, wherever its path leads by now.
bool LoadUserJobDirectory(JobSet &jobSet, AccountLoad &load, int opened,
                          const JobDirectory &directory) {
    AccountFiles files;
    const AccountReading reading = ReadAsAccount(opened, load.account, load.quota, files);
    load.failed = reading == AccountReading::Failed;
    if (reading == AccountReading::NotOpened)
        LOG_ERROR("open directory failed.");
    if (reading != AccountReading::Done)
        return false;
    const std::string inSource = directory.path.substr(directory.path.rfind('/') + 1);
    for (AccountFile &file : files.files) {
        const std::string name = PathIn(inSource, file.name);
        if (!LoadAccountFile(jobSet, directory, std::move(file), load.quota))
            load.leftOut.Add(name);
    }
    load.leftOut.AddUnnamed(files.unread, files.more);
    return true;
}

} // namespace

void CronDaemon::ReloadJobs() {
    reloadRequested = false;
    PrepareRuntimeDirectory();
    RemoveAllWatches();
    ForgetChanges();
    JobSet jobSet = LoadSources();
    if (gaveUpLoad)
        return;
    documentInLoad = RuntimeDocument(jobs, unstaged);
    JobSet parsed;
    Json::Value previous = JobsToJson(parsed);
    ApplyJobSet(std::move(previous), std::move(jobSet), std::move(parsed));
    documentInLoad = std::string();
}

JobSet CronDaemon::LoadSources() {
    JobSet jobSet;
    for (const JobSource &source : kJobSources) {
        const bool loaded = source.perAccount
                                ? LoadNonRootJobDirectories(jobSet, source.directory, source.label)
                                : LoadJobDirectory(jobSet, source.directory, source.label);
        if (!loaded)
            LOG_ERROR("%s", source.failure);
    }
    return jobSet;
}

bool CronDaemon::LoadNonRootJobDirectories(JobSet &jobSet, const std::string &directory,
                                           const std::string &label) {
    if (KESTFSMkdirP(directory.c_str(), nullptr, 1, 0, 0, 0755) != 0) {
        LOG_ERROR("create directory failed.");
        return false;
    }
    const Directory opened = OpenDirectory(directory);
    if (!opened)
        return false;
    // Watched before it is read: an account that comes meanwhile is in the list or in an event.
    if (!AddWatch(directory)) {
        LOG_ERROR("Failed to register %s", directory.c_str());
        return false;
    }
    AccountLoads loads;
    for (const std::string &name : NamesIn(opened)) {
        // Each may take ten seconds.
        if (stopRequested) {
            gaveUpLoad = true;
            break;
        }
        LoadAccount(jobSet, PathIn(directory, name), label, loads);
    }
    for (const auto &[uid, load] : loads)
        if (!load.leftOut.Empty())
            LOG_ERROR("Quota of %s exceeded, left out: %s", load.account.name.c_str(),
                      load.leftOut.Text().c_str());
    return true;
}

namespace {

// The account that owns `directory`, opened at `path`; invalid, with a message, when there is none.
JobUser OwnerOf(const Descriptor &directory, const std::string &path) {
    JobUser account;
    struct stat status {};
    if (!directory || fstat(directory.Get(), &status) == -1) {
        LOG_ERROR("stat error: %s", path.c_str());
        return account;
    }
    if (!MayBeAccountDirectory(status, IsLink(path))) {
        errno = EPERM;
        return account;
    }
    const passwd *owner = getpwuid(status.st_uid);
    if (owner == nullptr) {
        LOG_ERROR("get uid error: %d", static_cast<int>(status.st_uid));
        return account;
    }
    account = {true, owner->pw_name, owner->pw_uid, owner->pw_gid};
    return account;
}

} // namespace

void CronDaemon::LoadAccount(JobSet &jobSet, const std::string &path, const std::string &label,
                             AccountLoads &loads) {
    const Descriptor directory = OpenForNaming(path);
    const JobUser account = OwnerOf(directory, path);
    if (!account.valid) {
        LOG_ERROR("Failed to dir user: %s", path.c_str());
        return;
    }
    if (!AddWatch(path, directory.Get())) {
        LOG_ERROR("Failed to register %s", path.c_str());
        return;
    }
    AccountLoad &load = loads[account.uid];
    load.account = account;
    if (load.failed ||
        !LoadUserJobDirectory(jobSet, load, directory.Get(), {path, label, account.name}))
        LOG_ERROR("Failed to load %s config", path.c_str());
}

// --- Runtime state ------------------------------------------------------------------------------

namespace {

// Takes the entries of jobs that are no longer defined, or defined otherwise, out of `previous`.
void RemoveChangedJobs(Json::Value &previous, const JobSet &jobSet) {
    Json::Value &entries = ObjectMember(previous, "jobs");
    for (const std::string &name : entries.getMemberNames()) {
        const auto job = jobSet.find(name);
        if (job == jobSet.end())
            LOG_ERROR("removed cleared jobs: %s", name.c_str());
        else if (!JsonContains(Member(Member(entries, name), "config"),
                               Member(job->second.Document(), "config")))
            LOG_ERROR("removed modified jobs: %s", name.c_str());
        else
            continue;
        // By its ends: as a string the library would take it for ended at a zero byte.
        entries.removeMember(name.data(), name.data() + name.size(), nullptr);
    }
}

// A load takes about as much memory again as the jobs, for a moment that is over now.
void GiveMemoryBack() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

} // namespace

void CronDaemon::ApplyJobSet(Json::Value previous, JobSet jobSet, JobSet parsed) {
    RemoveChangedJobs(previous, jobSet);
    MergeNewJobs(previous, std::move(jobSet), parsed);
    RebuildJobList(std::move(previous), std::move(parsed));
    hasLoaded = true;
    SaveRuntimeFiles();
    GiveMemoryBack();
}

void CronDaemon::MergeNewJobs(Json::Value &previous, JobSet jobSet, JobSet &parsed) const {
    std::array<std::int32_t, 5> shared{};
    for (std::size_t i = 0; i < shared.size(); ++i)
        shared[i] = scheduleTemplate.GetSingleScheduleValue(FieldKeys()[i]);
    Json::Value &entries = ObjectMember(previous, "jobs");
    for (auto member = jobSet.begin(); member != jobSet.end();) {
        const auto current = member++;
        auto &[name, job] = *current;
        if (entries.isMember(name))
            continue;
        for (std::size_t i = 0; i < shared.size(); ++i)
            job.GenerateFieldSchedule(FieldKeys()[i], shared[i]);
        entries[name] = job.TakeDocument();
        parsed.erase(name);
        parsed.insert(jobSet.extract(current));
    }
}

namespace {

// Says what the jobs are rebuilt from, as far as the system log takes it.
void LogRuntime(const Json::Value &document) {
    const ErrnoKept kept;
    const SourceTag tag = TagOf(__FILE__);
    std::string text(tag.text, static_cast<std::size_t>(tag.length));
    text += ":" + std::to_string(__LINE__) + " current runtime: ";
    text += JsonToString(document, LongestSystemLogText());
    WriteSystemLog(LOG_INFO, text.c_str());
}

} // namespace

void CronDaemon::RebuildJobList(Json::Value document, JobSet parsed) {
    LogRuntime(document);
    Json::Value &entries = document["jobs"];
    jobs.clear();
    jobs.reserve(entries.size());
    unstaged.clear();
    {
        KnownAccounts accounts;
        Staging staging(stopRequested);
        for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
            const auto known = parsed.find(entry.name());
            CronJob job = known == parsed.end()
                              ? CronJob(std::move(*entry))
                              : CronJob(std::move(known->second), std::move(*entry));
            if (job.valid)
                StageAndAdd(std::move(job), staging, accounts);
            else
                LOG_ERROR("job corrupt.");
        }
        RemoveUnusedPrograms(staging);
    }
    runtimeDirectory = RuntimeDirectoryState::Now();
}

void CronDaemon::StageAndAdd(CronJob job, Staging &staging, KnownAccounts &accounts) {
    // A stop does not wait for more copies. No job starts any more, and all are to be saved.
    const StagingResult result =
        stopRequested ? StagingResult::Stopped : MoveBinaryToTmp(job, accounts, staging);
    if (result == StagingResult::Staged || result == StagingResult::Stopped) {
        jobs.push_back(std::move(job));
        return;
    }
    LOG_ERROR("MoveBinaryToTmp failed.");
    if (result == StagingResult::Failed)
        unstaged.push_back(std::move(job));
}

// Accounts could otherwise fill the directory with the programs of jobs that they rename.
void CronDaemon::RemoveUnusedPrograms(Staging &staging) const {
    std::set<std::string> used = waitingStarts.Jobs(SteadyNow());
    for (const auto &list : {std::cref(jobs), std::cref(unstaged)})
        for (const CronJob &job : list.get())
            used.insert(job.Name());
    staging.Remove([&used](const std::string &name) {
        return IsOfAccountDirectory(name) && used.count(name) == 0;
    });
}

Json::Value CronDaemon::JobsToJson(JobSet &parsed) {
    Json::Value document(Json::objectValue);
    for (std::vector<CronJob> *list : {&jobs, &unstaged}) {
        for (CronJob &job : *list) {
            const std::string name = job.Name();
            document["jobs"][name] = job.TakeDocument();
            parsed.emplace(name, std::move(job));
        }
        list->clear();
    }
    return document;
}

void CronDaemon::SaveRuntimeConfig(const std::string &path, Durability durability) {
    // What others read shows the jobs that run, what the next start reads shows all.
    const bool isForOthers = durability == Durability::Process;
    std::string document = isForOthers ? RuntimeDocument(jobs) : RuntimeDocument(jobs, unstaged);
    KeepReserve(document.size());
    if (!JsonToFile(std::move(document), path, durability))
        LOG_ERROR("runtime config save failed (%s)", path.c_str());
}

namespace {

bool IsThere(const std::string &path) {
    const ErrnoKept kept;
    return XLIBCFileExist(path.c_str());
}

} // namespace

void CronDaemon::LoadTemplate(const std::string &path) {
    if (!IsThere(path) || LoadScheduleTemplate(scheduleTemplate, path))
        return;
    LOG_ERROR("schedule template config load failed (%s)", path.c_str());
    KeepForLater(path);
}

void CronDaemon::SaveTemplate(const std::string &path, Durability durability) const {
    if (!SaveScheduleTemplate(scheduleTemplate, path, durability))
        LOG_ERROR("schedule template config save failed (%s)", path.c_str());
}

void CronDaemon::SaveRuntimeFiles() {
    SaveRuntimeConfig(kRuntimeFile, Durability::Process);
    SaveTemplate(kRuntimeTemplateFile, Durability::Process);
}

void CronDaemon::PersistState() {
    reserve.reset();
    if (hasLoaded) {
        SaveRuntimeConfig(kPersistentFile, Durability::Reboot);
        SaveTemplate(kPersistentTemplateFile, Durability::Reboot);
    }
    RemoveAllWatches();
    if (inotifyFd != -1)
        close(inotifyFd);
    inotifyFd = -1;
    executionLog.Flush();
}

void CronDaemon::PersistInNeed() {
    reserve.reset();
    if (documentInLoad.empty()) {
        PersistState();
        return;
    }
    // Until a load is applied, the jobs are those before it, and no longer whole in `jobs`.
    if (!JsonToFile(std::move(documentInLoad), kPersistentFile, Durability::Reboot))
        LOG_ERROR("runtime config save failed (%s)", kPersistentFile);
    SaveTemplate(kPersistentTemplateFile, Durability::Reboot);
    executionLog.Flush();
}

void CronDaemon::KeepReserve(std::size_t documentSize) {
    // The text that is saved grows by doubling, and is copied each time.
    const std::size_t wanted = 4 * documentSize + (std::size_t{256} << 10);
    if (wanted <= reserveSize)
        return;
    // Never written to, so that it takes addresses, but no memory before it is needed.
    std::unique_ptr<char[]> larger(new (std::nothrow) char[wanted]);
    if (!larger)
        return;
    reserve = std::move(larger);
    reserveSize = wanted;
}
