#include "core/crondaemon.h"

#include "base/descriptor.h"
#include "base/errno_guard.h"
#include "base/local_time.h"
#include "base/paths.h"
#include "core/launch.h"
#include "core/utils.h"
#include "job/account.h"
#include "job/schedule.h"
#include "log/error_log.h"
#include "log/memorylogger.h"
#include "log/system_log.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <map>
#include <new>
#include <sys/inotify.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <utility>

namespace kest {

namespace {

constexpr std::int32_t kCycleSeconds = 60;

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
    if (loadCancelled)
        return true;
    ApplyToSaved(PersistedDocument(), std::move(jobSet));
    FinishLoad();
    return true;
}

void CronDaemon::Run() {
    // A signal after this store and before the checks below still shortens the sleep.
    for (sleepSeconds = kCycleSeconds; !stopRequested; sleepSeconds = kCycleSeconds) {
        RunCycle();
        WaitForNextCycle();
    }
    Shutdown();
}

namespace {

// Blocks the daemon's signals during the lifetime of an object. Pass Before() to a call that they
// may interrupt.
class SignalBlock {
public:
    SignalBlock() {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int number : {SIGHUP, SIGINT, SIGTERM})
            sigaddset(&signals, number);
        sigprocmask(SIG_BLOCK, &signals, &before_);
    }
    SignalBlock(const SignalBlock &) = delete;
    SignalBlock &operator=(const SignalBlock &) = delete;
    ~SignalBlock() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

    const sigset_t &Before() const { return before_; }

private:
    sigset_t before_{};
};

timespec MonotonicTime() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

// The time from now until `seconds` after `start`; nothing when it has passed.
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

// A signal ends the wait, and the next cycle begins at once. A signal that came after the checks of
// the cycle has set the time to sleep to 0; a later one interrupts the call.
void CronDaemon::WaitForNextCycle() const {
    const ErrnoGuard errnoGuard;
    const SignalBlock signals;
    const timespec start = MonotonicTime();
    for (int ready = 1; ready > 0 && sleepSeconds != 0;) {
        // Messages that the system log did not accept are sent as soon as it does.
        const Descriptor log = CatchUpWithSystemLog();
        // A larger descriptor does not fit into the set. Kept messages are then sent in the next
        // cycle.
        const int watched = log.Get() < FD_SETSIZE ? log.Get() : -1;
        fd_set writable = SelectSetOf(watched);
        const timespec left = LeftOf(sleepSeconds, start);
        // Not ppoll(): with _FORTIFY_SOURCE, glibc 2.36 calls its variant with 32-bit time, which
        // loses the fraction of a second on 32-bit machines.
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
        PersistState(); // with the memory that was reserved for it
        throw;
    }
}

void CronDaemon::Evaluate() {
    for (CronJob &job : jobs)
        if (!job.waitsForProgram)
            job.CheckTrigger();
    // A cleaner of "/tmp" may have removed the directory or its programs, and any account could
    // then create it. Due jobs stay due after the load.
    if (!runtimeDirectory.IsSafe() || RuntimeDirectoryState::Now() != runtimeDirectory) {
        ReloadInCycle();
        if (stopRequested) // the load may have been cancelled
            return;
    }
    const bool held = IsVorldHeld();
    std::vector<JobState> states;
    states.reserve(jobs.size());
    for (const CronJob &job : jobs)
        states.push_back(job.waitsForProgram ? JobState::NotReady
                                             : StateOf(StateInputOf(job, passiveMode, held)));
    LaunchJobs(states);
    RegenerateOnTimeChange();
    PollChanges();
}

// A load within an evaluation cycle. Due jobs stay due and keep their schedule texts.
void CronDaemon::ReloadInCycle() {
    std::map<std::string, std::string, std::less<>> texts;
    for (const CronJob &job : jobs)
        if (!job.scheduleText.empty())
            texts.emplace(job.Name(), job.scheduleText);
    sleepSeconds = kCycleSeconds; // this load also satisfies a requested reload
    ReloadJobs();
    for (CronJob &job : jobs)
        if (const auto text = texts.find(job.Name()); text != texts.end())
            job.scheduleText = text->second;
}

void CronDaemon::ReloadJobs() {
    reloadRequested = false;
    PrepareRuntimeDirectory();
    RemoveAllWatches();
    ForgetChanges();
    JobSet jobSet = LoadSources();
    if (loadCancelled)
        return;
    ApplyToLive(std::move(jobSet));
    FinishLoad();
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
    LaunchDetails details;
    details.launches =
        static_cast<std::size_t>(std::count_if(states.begin(), states.end(), IsLaunchState));
    if (details.launches == 0)
        return;
    const std::int32_t spacing = LaunchSpacing(scheduleTemplate.maxDelay, details.launches);
    details.triggerTime = TriggerTime();
    std::int32_t launched = 0;
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        if (!IsLaunchState(states[i]))
            continue;
        details.state = JobStateName(states[i]);
        details.scheduleText = jobs[i].scheduleText;
        details.delay = launched * spacing;
        details.rank = static_cast<std::size_t>(++launched);
        LaunchJob(jobs[i], details);
    }
}

void CronDaemon::LaunchJob(CronJob &job, const LaunchDetails &details) {
    const std::string name(job.Name());
    if (IsOfAccountDirectory(name)) {
        const std::string account = job.Account().value_or("");
        const std::int64_t now = WaitingStarts::Now();
        if (details.delay > 0 && !waitingStarts.MayWait(account, now)) {
            job.RefuseLaunch();
            return;
        }
        // The program is still needed for a moment after the delay, and also after a start without
        // a delay.
        waitingStarts.Add(account, name, now + details.delay + 2);
    }
    job.Launch(details.delay, LaunchNote(details));
}

namespace {

// Reports a number that is not a state.
JobStateTraits KnownTraits(JobState state) {
    const JobStateTraits *traits = TraitsOf(state);
    if (traits == nullptr)
        LOG_ERROR("Unreachable switch case value");
    return traits != nullptr ? *traits : JobStateTraits{"Unknown", false};
}

} // namespace

bool IsLaunchState(JobState state) {
    return KnownTraits(state).launched;
}

const char *JobStateName(JobState state) {
    return KnownTraits(state).name;
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
    // Their programs may be available by now.
    if (std::any_of(jobs.begin(), jobs.end(),
                    [](const CronJob &job) { return job.waitsForProgram; })) {
        reloadRequested = true;
        sleepSeconds = 0;
    }
}

void CronDaemon::RegenerateField(const std::string &key) {
    scheduleTemplate.GenerateSchedule(key);
    const std::int32_t shared = scheduleTemplate.GetSingleScheduleValue(key);
    for (CronJob &job : jobs)
        if (!job.waitsForProgram)
            job.GenerateFieldSchedule(key, shared);
}

void CronDaemon::Shutdown() {
    PersistState();
}

} // namespace kest
