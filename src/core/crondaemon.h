// The scheduler.
//
// One object, one thread, one cycle every 60 seconds, not aligned to the minute:
//
//   - A reload cycle, when one was requested: all job files are read again and applied to the jobs
//     as they are. Nothing is started.
//   - An evaluation cycle otherwise. Each job whose schedule matches the local minute gets its
//     "expireTime". Each job is then in one of six states (core/job_state.h), and those that are to
//     be launched are, in name order, with growing delays. In minute 0 the random fields are drawn
//     anew. Last, the watched directories are asked for changes, which request a reload.
//
// Who writes what: the signal handler sets `stopRequested` or `reloadRequested`, and `sleepSeconds`
// to 0; so does PollChanges for a reload. ReloadJobs clears `reloadRequested`. Each cycle sets
// `sleepSeconds` to 60. No signal slips past the wait at the end of a cycle. A job's "expireTime"
// is set by its due check and cleared by its launch.
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

// What the sources define: the accepted jobs, in the order in which they were read.
using JobSet = std::vector<CronJob>;

// A job of which something is known: it lives, or was saved, or is new and in a job set.
struct JobEntry {
    std::string name;
    CronJob *job = nullptr;       // it, or what is to become it
    Json::Value *saved = nullptr; // its document, when it was saved
};

// The accounts of a load, by number.
using AccountLoads = std::map<uid_t, AccountLoad>;

class CronDaemon {
public:
    // Prepares the object and loads everything. Returns false when there is no runtime directory;
    // all else that fails is reported and left out. A signal that came before is not forgotten.
    bool Init(bool passive);

    // Runs cycles until a stop is requested, then shuts down.
    void Run();

    // What the signal handler writes. Single stores, so that a handler may interrupt anything.
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> reloadRequested{false};
    std::atomic<std::int32_t> sleepSeconds{0};

private:
    void RunCycle();
    void WaitForNextCycle() const;
    void Evaluate();
    void ReloadInCycle();
    void LaunchJobs(const std::vector<JobState> &states);
    void LaunchJob(CronJob &job, const LaunchDetails &facts);
    void RegenerateOnTimeChange();
    void RegenerateField(const std::string &key);
    void Shutdown();

    // Watches `path` for changes of itself and of what lies in it. Returns false, with a message,
    // when that cannot be done; true without a watch when the system has none to give at all.
    // `opened`, when given, is a descriptor of what is to be watched, wherever `path` leads by now.
    bool AddWatch(const std::string &path, int opened = -1);
    void RemoveAllWatches();
    // Looks, without waiting, whether anything watched has changed, and requests a reload if so.
    // Takes at most 1024 bytes of what the kernel has to say; the rest is left for the next look.
    void PollChanges();
    // Drops all changes that were seen so far, for a load is about to find them by itself. Nothing
    // is watched meanwhile, so there is an end to them.
    void ForgetChanges() const;

    void ReloadJobs();
    // The job definitions of all sources. A source that fails is reported and left out.
    JobSet LoadSources();
    // Adds the accepted definitions of all package accounts to `jobSet` and watches their
    // directories. Returns whether the directory as a whole could be read; what is wrong with
    // single accounts, files and jobs is reported and left out.
    bool LoadNonRootJobDirectories(JobSet &jobSet, const std::string &directory,
                                   const std::string &label);
    void LoadAccount(JobSet &jobSet, const std::string &path, const std::string &label,
                     AccountLoads &loads);

    // The runtime document that the last shutdown saved; null when there is none.
    static Json::Value PersistedDocument();
    // Brings what was saved, or the jobs as they are, in line with `jobSet`: jobs that are gone or
    // changed are left out, new ones are added with fresh schedules. What is the same stays as it
    // is. `jobs` is replaced when all have been staged, and not at all when that throws.
    void ApplyToSaved(Json::Value document, JobSet jobSet);
    void ApplyToLive(JobSet jobSet);
    // `document`: what `previous` comes from.
    void ApplyJobSet(std::vector<JobEntry> previous, const Json::Value &document, JobSet jobSet);
    // Adds what only `jobSet` has. `previous` has nothing else. Gives an entry for each of
    // `jobSet`.
    std::vector<JobEntry> MergeNewJobs(std::vector<JobEntry> previous, JobSet &jobSet) const;
    // Gives the memory of a load back and saves the documents. Called when the load has been
    // applied and nothing of it is left but the jobs.
    void FinishLoad();
    void RebuildJobList(const std::vector<JobEntry> &entries, JobSet jobSet);
    // Makes jobs of those that were saved, stages all, and makes those that stay the list of jobs.
    // Entry i belongs to job i of `jobSet`.
    void StageJobs(const std::vector<JobEntry> &entries, JobSet jobSet);
    // Returns whether the job stays.
    bool Stage(CronJob &job, Staging &staging, KnownAccounts &accounts) const;
    void RemoveUnusedPrograms(Staging &staging) const;

    void SaveRuntimeConfig(const std::string &path, Durability durability);
    void LoadTemplate(const std::string &path);
    void SaveTemplate(const std::string &path, Durability durability) const;
    void SaveRuntimeFiles();
    void PersistState();
    // Holds memory in reserve that is enough to save jobs of `partSize` bytes each, if there is
    // any.
    void KeepReserve(std::size_t partSize);

    static constexpr std::uint32_t kWatchLimit = 1024;
    bool passiveMode = false;
    std::int32_t inotifyFd = -1; // closed by Shutdown, never by a destructor
    std::uint32_t watchCount = 0;
    std::array<std::int32_t, kWatchLimit> watches{};
    RuntimeDirectoryState runtimeDirectory; // after the latest load
    WaitingStarts waitingStarts;
    bool hasLoaded = false;    // until then, what was saved is not replaced
    bool gaveUpLoad = false;   // for a stop, so that the jobs that were read are not all
    std::vector<CronJob> jobs; // in the order of their names
    ScheduleTemplate scheduleTemplate;
    std::unique_ptr<char[]> reserve;
    std::size_t reserveSize = 0;
};

static_assert(std::atomic<bool>::is_always_lock_free &&
                  std::atomic<std::int32_t>::is_always_lock_free,
              "the signal handler may not wait for a lock");

// Whether a job in this state is launched, and what the state is called. A number that is no state
// is reported, not launched, and called "Unknown".
bool IsLaunchState(JobState state);
const char *JobStateName(JobState state);

} // namespace kest

#endif
