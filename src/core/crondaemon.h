// The scheduler.
//
// One object, one thread, one cycle every 60 seconds, not aligned to the minute:
//
//   - A reload cycle, when one was requested: all job files are read again and applied to the
//     present jobs. Nothing is launched.
//   - An evaluation cycle otherwise. Each job whose schedule matches the local minute gets its
//     "expireTime". Each job is then in one of six states (core/job_state.h). Jobs in a launch
//     state are launched in name order, with growing delays. In minute 0 the random fields are
//     redrawn. Last, the watched directories are checked for changes, which request a reload.
//
// Who writes what: the signal handler sets `stopRequested` or `reloadRequested`, and `sleepSeconds`
// to 0; so do PollChanges and RegenerateOnTimeChange for a reload. ReloadJobs clears
// `reloadRequested`. Each cycle sets `sleepSeconds` to 60. No signal is missed by the wait at the
// end of a cycle. A job's "expireTime" is set by its due check and cleared by its launch.
//
// The jobs' documents, keyed by full job name, are the runtime document. It is rewritten whenever
// the jobs or their schedules change, and kept over a restart by the shutdown save alone.

#ifndef CORE_CRONDAEMON_H
#define CORE_CRONDAEMON_H

#include "core/account_files.h"
#include "core/job_state.h"
#include "core/launch.h"
#include "core/waiting_starts.h"
#include "job/cronjob.h"
#include "job/runtime_directory.h"
#include "platform/json_file.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <json/value.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kest {

// The accepted jobs of all sources, in the order in which they were read.
using JobSet = std::vector<CronJob>;

// A job of a load: a present one, a saved one, or a new one.
struct JobEntry {
    std::string name;
    CronJob *job = nullptr;       // the job, or the place where it will be
    Json::Value *saved = nullptr; // its document, when it was saved
};

// The accounts of a load by uid.
using AccountLoads = std::map<uid_t, AccountLoad>;

class CronDaemon {
public:
    // Prepares the object and loads all files. Returns false when the runtime directory cannot be
    // created; other failures are reported and skipped. Signals that arrived before take effect.
    bool Init(bool passive);

    // Runs cycles until a stop is requested, then shuts down.
    void Run();

    // Written by the signal handler, with single stores that may interrupt any code.
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> reloadRequested{false};
    std::atomic<std::int32_t> sleepSeconds{0};

private:
    void RunCycle();
    void WaitForNextCycle() const;
    void Evaluate();
    void ReloadInCycle();
    void LaunchJobs(const std::vector<JobState> &states);
    void LaunchJob(CronJob &job, const LaunchDetails &details);
    void RegenerateOnTimeChange();
    void RegenerateField(const std::string &key);
    void Shutdown();

    // Watches the directory `path` and its entries for changes. Returns false, with a message, on
    // failure; returns true without a watch when inotify is not available at all. `opened`, when
    // given, is a descriptor of the directory to watch, whatever `path` leads to by now.
    bool AddWatch(const std::string &path, int opened = -1);
    void RemoveAllWatches();
    // Checks, without blocking, whether a watched directory has changed, and requests a reload if
    // it has. Reads at most 1024 bytes of events; the rest waits for the next cycle.
    void PollChanges();
    // Drops all pending events, because a load is about to read the files. Nothing is watched
    // meanwhile, so the number of events is finite.
    void ForgetChanges() const;

    void ReloadJobs();
    // Reads the definitions of all sources. A source that cannot be read is reported and skipped.
    JobSet LoadSources();
    // Adds the accepted definitions of all package accounts to `jobSet` and watches their
    // directories. Returns whether the directory itself could be read. Faulty accounts, files and
    // jobs are reported and skipped.
    bool LoadNonRootJobDirectories(JobSet &jobSet, const std::string &directory,
                                   const std::string &label);
    void LoadAccount(JobSet &jobSet, const std::string &path, const std::string &label,
                     AccountLoads &loads);

    // The saved document; null when there is none.
    static Json::Value PersistedDocument();
    // Reconciles the saved document, or the present jobs, with `jobSet`: removes jobs that are gone
    // or changed, adds new ones with new schedules, and keeps unchanged ones as they are. `jobs` is
    // replaced after all programs are staged, and stays unchanged when an exception is thrown.
    void ApplyToSaved(Json::Value document, JobSet jobSet);
    void ApplyToLive(JobSet jobSet);
    // `document` contains the entries of `previous`.
    void ApplyJobSet(std::vector<JobEntry> previous, const Json::Value &document, JobSet jobSet);
    // Adds the jobs that only `jobSet` contains. All jobs of `previous` must be in `jobSet`.
    // Returns an entry for each job of `jobSet`, in order.
    std::vector<JobEntry> MergeNewJobs(std::vector<JobEntry> previous, JobSet &jobSet) const;
    // Releases the memory of a load and saves the documents. Called when the load has been applied
    // and only its jobs still exist.
    void FinishLoad();
    void RebuildJobList(const std::vector<JobEntry> &entries, JobSet jobSet);
    // Creates jobs from saved documents, stages the programs, and makes the jobs that stay the list
    // of jobs. Entry i belongs to job i of `jobSet`.
    void StageJobs(const std::vector<JobEntry> &entries, JobSet jobSet);
    // Returns whether the job stays.
    bool Stage(CronJob &job, Staging &staging, KnownAccounts &accounts) const;
    void RemoveUnusedPrograms(Staging &staging) const;

    void SaveRuntimeConfig(const std::string &path, Durability durability);
    void LoadTemplate(const std::string &path);
    void SaveTemplate(const std::string &path, Durability durability) const;
    void SaveRuntimeFiles();
    void PersistState();
    // Reserves enough memory to save jobs of `partSize` bytes each, if it is available.
    void KeepReserve(std::size_t partSize);

    static constexpr std::uint32_t kWatchLimit = 1024;
    bool passiveMode = false;
    std::int32_t inotifyFd = -1; // closed by Shutdown, never by a destructor
    std::uint32_t watchCount = 0;
    std::array<std::int32_t, kWatchLimit> watches{};
    RuntimeDirectoryState runtimeDirectory; // after the latest load
    WaitingStarts waitingStarts;
    bool hasLoaded = false;     // until then, the saved documents are not replaced
    bool loadCancelled = false; // because of a stop, so that the list of jobs is incomplete
    std::vector<CronJob> jobs;  // in the order of their names
    ScheduleTemplate scheduleTemplate;
    std::unique_ptr<char[]> reserve;
    std::size_t reserveSize = 0;
};

static_assert(std::atomic<bool>::is_always_lock_free &&
                  std::atomic<std::int32_t>::is_always_lock_free,
              "the signal handler may not wait for a lock");

// Whether a job in this state is launched, and the name of the state. A number that is not a state
// is reported; it is not launched, and its name is "Unknown".
bool IsLaunchState(JobState state);
const char *JobStateName(JobState state);

} // namespace kest

#endif
