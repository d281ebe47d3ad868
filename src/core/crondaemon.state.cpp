#include "core/crondaemon.h"
#include "base/errno_guard.h"
#include "base/json_members.h"
#include "base/json_text.h"
#include "base/paths.h"
#include "core/runtime_document.h"
#include "core/unreadable.h"
#include "job/account.h"
#include "job/staging.h"
#include "log/error_log.h"
#include "log/memorylogger.h"
#include "log/system_log.h"
#include "platform/kestcore.h"

#include <algorithm>
#include <array>
#include <malloc.h>
#include <new>
#include <set>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace kest {

// --- Apply --------------------------------------------------------------------------------------

namespace {

// The save at the stop would overwrite the document that could not be read.
void KeepForLater(const std::string &path) {
    const ErrnoGuard errnoGuard;
    if (!KeepUnreadable(path))
        LOG_ERROR("unreadable document cannot be kept (%s)", path.c_str());
}

// The jobs of a saved document.
std::vector<JobEntry> EntriesOf(Json::Value &document) {
    std::vector<JobEntry> entries;
    Json::Value &saved = ObjectMember(document, "jobs");
    entries.reserve(saved.size());
    for (auto entry = saved.begin(); entry != saved.end(); ++entry)
        entries.push_back({entry.name(), nullptr, &*entry});
    return entries;
}

std::vector<JobEntry> EntriesOf(std::vector<CronJob> &jobs) {
    std::vector<JobEntry> entries;
    entries.reserve(jobs.size());
    for (CronJob &job : jobs)
        entries.push_back({std::string(job.Name()), &job, nullptr});
    return entries;
}

// Whether `job` has everything of the definition of `entry` unchanged.
bool IsUnchanged(const JobEntry &entry, const CronJob &job) {
    if (entry.job == nullptr)
        return JsonContains(Member(std::as_const(*entry.saved), "config"), job.Config());
    return entry.job->HasConfigOf(job) || JsonContains(entry.job->Config(), job.Config());
}

// Returns null when `jobSet`, sorted by name, has no job with this name.
const CronJob *JobOf(const JobSet &jobSet, const std::string &name) {
    const auto job = std::lower_bound(
        jobSet.begin(), jobSet.end(), name,
        [](const CronJob &one, const std::string &wanted) { return one.Name() < wanted; });
    return job == jobSet.end() || job->Name() != name ? nullptr : &*job;
}

// Removes the jobs that are no longer defined, or defined differently, from `previous`.
void RemoveChangedJobs(std::vector<JobEntry> &previous, const JobSet &jobSet) {
    const auto isGone = [&](const JobEntry &entry) {
        const CronJob *const job = JobOf(jobSet, entry.name);
        if (job == nullptr)
            LOG_ERROR("removed cleared jobs: %s", entry.name.c_str());
        else if (!IsUnchanged(entry, *job))
            LOG_ERROR("removed modified jobs: %s", entry.name.c_str());
        else
            return false;
        return true;
    };
    previous.erase(std::remove_if(previous.begin(), previous.end(), isGone), previous.end());
}

void AppendEntries(const std::vector<JobEntry> &entries, std::size_t most, JsonText &text) {
    if (entries.empty()) {
        text.Append(Json::Value(Json::objectValue));
        return;
    }
    text.BeginObject();
    for (const JobEntry &entry : entries) {
        text.Name(entry.name);
        if (entry.saved != nullptr)
            text.Append(*entry.saved);
        else
            entry.job->AppendTo(text);
        if (text.Size() > most)
            break;
    }
    text.EndObject();
}

// Logs the documents from which the jobs are rebuilt, up to the longest message of the system log.
// This is the only place that shows the other members of a saved document.
void LogRuntime(const std::vector<JobEntry> &entries, const Json::Value &document) {
    const ErrnoGuard errnoGuard;
    const SourceTag tag = TagOf(__FILE__);
    std::string message(tag.text, static_cast<std::size_t>(tag.length));
    message += ":" + std::to_string(tag.firstLine + __LINE__) + " current runtime: ";
    const std::size_t most = LongestSystemLogText();
    JsonText text(most);
    text.BeginObject();
    for (const std::string &name : document.getMemberNames()) {
        text.Name(name);
        if (name == "jobs")
            AppendEntries(entries, most, text);
        else
            text.Append(Member(document, name));
    }
    text.EndObject();
    message += text.Take();
    WriteSystemLog(LOG_INFO, message.c_str());
}

// A load temporarily takes about as much memory again as the jobs.
void ReleaseMemory() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

} // namespace

Json::Value CronDaemon::PersistedDocument() {
    const ErrnoGuard errnoGuard; // the file is missing at the first start of a machine
    Json::Value document;
    if (!JsonFromFile(kPersistentFile, document, kOwnFileLimits) || !document.isObject())
        KeepForLater(kPersistentFile);
    return document;
}

void CronDaemon::ApplyToSaved(Json::Value document, JobSet jobSet) {
    std::vector<JobEntry> previous = EntriesOf(document);
    ApplyJobSet(std::move(previous), document, std::move(jobSet));
}

void CronDaemon::ApplyToLive(JobSet jobSet) {
    Json::Value document;
    document["jobs"] = Json::Value();
    ApplyJobSet(EntriesOf(jobs), document, std::move(jobSet));
}

void CronDaemon::ApplyJobSet(std::vector<JobEntry> previous, const Json::Value &document,
                             JobSet jobSet) {
    SortByName(jobSet);
    RemoveChangedJobs(previous, jobSet);
    previous = MergeNewJobs(std::move(previous), jobSet);
    LogRuntime(previous, document);
    RebuildJobList(previous, std::move(jobSet));
}

void CronDaemon::FinishLoad() {
    hasLoaded = true;
    ShareTexts(jobs);
    ReleaseMemory();
    SaveRuntimeFiles();
}

std::vector<JobEntry> CronDaemon::MergeNewJobs(std::vector<JobEntry> previous,
                                               JobSet &jobSet) const {
    std::array<std::int32_t, 5> shared{};
    for (std::size_t i = 0; i < shared.size(); ++i)
        shared[i] = scheduleTemplate.GetSingleScheduleValue(FieldKeys()[i]);
    std::vector<JobEntry> merged;
    merged.reserve(jobSet.size());
    auto known = previous.begin(); // both are sorted by name
    for (CronJob &job : jobSet) {
        if (known != previous.end() && known->name == job.Name()) {
            merged.push_back(std::move(*known++));
            if (merged.back().job == nullptr)
                merged.back().job = &job;
            continue;
        }
        for (std::size_t i = 0; i < shared.size(); ++i)
            job.GenerateFieldSchedule(FieldKeys()[i], shared[i]);
        merged.push_back({std::string(job.Name()), &job, nullptr});
    }
    return merged;
}

void CronDaemon::RebuildJobList(const std::vector<JobEntry> &entries, JobSet jobSet) {
    StageJobs(entries, std::move(jobSet));
    runtimeDirectory = RuntimeDirectoryState::Now();
}

void CronDaemon::StageJobs(const std::vector<JobEntry> &entries, JobSet jobSet) {
    KnownAccounts accounts;
    Staging staging(stopRequested);
    std::vector<CronJob *> kept;
    kept.reserve(entries.size());
    for (const JobEntry &entry : entries) {
        if (entry.saved != nullptr)
            *entry.job = CronJob(std::exchange(*entry.saved, {}));
        if (!entry.job->valid)
            LOG_ERROR("job corrupt.");
        else if (Stage(*entry.job, staging, accounts))
            kept.push_back(entry.job);
    }
    // Nothing below can fail. Jobs only move towards the front.
    auto place = jobSet.begin();
    for (CronJob *job : kept) {
        if (job != &*place)
            *place = std::move(*job);
        ++place;
    }
    jobSet.erase(place, jobSet.end());
    jobs = std::move(jobSet);
    RemoveUnusedPrograms(staging);
}

bool CronDaemon::Stage(CronJob &job, Staging &staging, KnownAccounts &accounts) const {
    job.scheduleText.clear();
    job.SetStaged(false);
    job.waitsForProgram = false;
    // A stop does not wait for further copies. No job is launched any more, and all jobs must be
    // saved.
    const StagingResult result =
        stopRequested ? StagingResult::Stopped : MoveBinaryToTmp(job, accounts, staging);
    if (result == StagingResult::Staged || result == StagingResult::Stopped)
        return true;
    LOG_ERROR("MoveBinaryToTmp failed.");
    job.waitsForProgram = result == StagingResult::Failed;
    return job.waitsForProgram;
}

// Otherwise accounts could fill the directory with programs by renaming their jobs.
void CronDaemon::RemoveUnusedPrograms(Staging &staging) const {
    std::set<std::string> used = waitingStarts.Jobs(WaitingStarts::Now());
    for (const CronJob &job : jobs)
        used.emplace(job.Name());
    staging.Remove([&used](const std::string &name) {
        return IsOfAccountDirectory(name) && used.count(name) == 0;
    });
}

// --- Documents ----------------------------------------------------------------------------------

void CronDaemon::SaveRuntimeConfig(const std::string &path, Durability durability) {
    // The runtime document shows the jobs that can run; the saved document contains all.
    const bool isForOthers = durability == Durability::Process;
    std::size_t largest = 0;
    const auto write = [&](const JsonSink &sink) {
        JobsToJson(jobs, isForOthers ? JobsShown::Running : JobsShown::All,
                   [&](std::string_view part) {
                       largest = std::max(largest, part.size());
                       sink(part);
                   });
    };
    if (!JsonToFile(write, path, durability))
        LOG_ERROR("runtime config save failed (%s)", path.c_str());
    KeepReserve(largest);
}

void CronDaemon::LoadTemplate(const std::string &path) {
    const int error = errno;
    const bool isThere = XLIBCFileExist(path.c_str());
    errno = error;
    if (!isThere || LoadScheduleTemplate(scheduleTemplate, path))
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

void CronDaemon::KeepReserve(std::size_t partSize) {
    // A text grows by doubling. A job that is not staged is converted to JSON, which takes ten
    // times the memory of its text.
    const std::size_t wanted = 16 * partSize + (std::size_t{256} << 10);
    if (wanted <= reserveSize)
        return;
    // Never written to, so that it uses address space but no memory.
    std::unique_ptr<char[]> larger(new (std::nothrow) char[wanted]);
    if (!larger)
        return;
    reserve = std::move(larger);
    reserveSize = wanted;
}

} // namespace kest
