// Passes to the daemon the job file of an account and, after a line "---", the runtime document of
// an earlier run, and merges the two as at a start and at two reloads. No exception is thrown; a
// job with an unchanged definition keeps its history, and any other has none; jobs that are no
// longer defined are removed; and whatever the runtime document contains, all jobs exist after one
// reload.
//
// The saved documents are kept in memory, and no program is staged.

#include "base/json_members.h"
#include "base/json_text.h"
#include "core/crondaemon.h"
#include "core/job_state.h"
#include "core/launch.h"
#include "tests/fuzz/support/checks.h"
#include "tests/fuzz/support/machine.h"

#include <algorithm>
#include <functional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace kest {

namespace {

// The tested steps of the daemon. They are private, but an explicit template instantiation may name
// private members as arguments.
void LoadAccount(CronDaemon &daemon, JobSet &jobSet, const std::string &path, AccountLoads &loads);
void ApplyToSaved(CronDaemon &daemon, Json::Value document, JobSet jobSet);
void ApplyToLive(CronDaemon &daemon, JobSet jobSet);
void RegenerateField(CronDaemon &daemon, const std::string &key);
std::vector<CronJob> &JobsOf(CronDaemon &daemon);

template <auto kLoad, auto kSaved, auto kLive, auto kFinish, auto kRegenerate, auto kJobs>
struct Opened {
    friend void LoadAccount(CronDaemon &daemon, JobSet &jobSet, const std::string &path,
                            AccountLoads &loads) {
        (daemon.*kLoad)(jobSet, path, "pkg_nonroot", loads);
    }
    friend void ApplyToSaved(CronDaemon &daemon, Json::Value document, JobSet jobSet) {
        (daemon.*kSaved)(std::move(document), std::move(jobSet));
        (daemon.*kFinish)();
    }
    friend void ApplyToLive(CronDaemon &daemon, JobSet jobSet) {
        (daemon.*kLive)(std::move(jobSet));
        (daemon.*kFinish)();
    }
    friend void RegenerateField(CronDaemon &daemon, const std::string &key) {
        (daemon.*kRegenerate)(key);
    }
    friend std::vector<CronJob> &JobsOf(CronDaemon &daemon) { return daemon.*kJobs; }
};
template struct Opened<&CronDaemon::LoadAccount, &CronDaemon::ApplyToSaved,
                       &CronDaemon::ApplyToLive, &CronDaemon::FinishLoad,
                       &CronDaemon::RegenerateField, &CronDaemon::jobs>;

Json::Value &SavedRuntime() {
    static Json::Value document;
    return document;
}

} // namespace

// Replacements for the two functions that write to the disk. The real ones are referenced too, so
// that linking fails if a declaration changes.
StagingResult RealMoveBinaryToTmp(CronJob &job, KnownAccounts &accounts, Staging &staging) __asm__(
    "__real__ZN4kest15MoveBinaryToTmpERNS_7CronJobERSt3mapINSt7__cxx1112basic_strin"
    "gIcSt11char_traitsIcESaIcEEENS_7JobUserESt4lessIS8_ESaISt4pairIKS8_S9_EEERNS_7StagingE");
using Writer = std::function<void(const JsonSink &sink)>;
bool RealJsonToFile(const Writer &write, const std::string &path, Durability durability) __asm__(
    "__real__Z10JsonToFileRKSt8functionIFvRKS_IFvSt17basic_string_viewIcSt11char_t"
    "raitsIcEEEEEERKNSt7__cxx1112basic_stringIcS2_SaIcEEE10Durability");
StagingResult StagedWithoutDisk(CronJob &job, KnownAccounts &accounts, Staging &staging) __asm__(
    "__wrap__ZN4kest15MoveBinaryToTmpERNS_7CronJobERSt3mapINSt7__cxx1112basic_strin"
    "gIcSt11char_traitsIcESaIcEEENS_7JobUserESt4lessIS8_ESaISt4pairIKS8_S9_EEERNS_7StagingE");
bool SavedWithoutDisk(const Writer &write, const std::string &path, Durability durability) __asm__(
    "__wrap__Z10JsonToFileRKSt8functionIFvRKS_IFvSt17basic_string_viewIcSt11char_t"
    "raitsIcEEEEEERKNSt7__cxx1112basic_stringIcS2_SaIcEEE10Durability");

[[gnu::used]] static StagingResult (*const kRealStaging)(CronJob &, KnownAccounts &,
                                                         Staging &) = RealMoveBinaryToTmp;
[[gnu::used]] static bool (*const kRealSaving)(const Writer &, const std::string &,
                                               Durability) = RealJsonToFile;

StagingResult StagedWithoutDisk(CronJob &job, KnownAccounts & /*accounts*/, Staging & /*staging*/) {
    Require(Member(job.Document(), "cmd_list")[0U].isConvertibleTo(Json::stringValue),
            "a program has a name");
    job.SetStaged(true);
    return StagingResult::Staged;
}

bool SavedWithoutDisk(const Writer &write, const std::string &path, Durability /*durability*/) {
    if (path != "/var/run/kestcrond.config")
        return true; // the template, which is not tested here
    std::string text;
    write([&](std::string_view part) { text += part; });
    Require(ReadDocument(text, kOwnFileLimits, SavedRuntime()), "a saved document is read back");
    return true;
}

namespace {

// The directory of an account with one job file, whose content is the last text passed to
// WriteInput().
const std::string &AccountDirectory() {
    static const bool linked =
        symlink(WriteInput({}).c_str(), (ScratchDirectory() + "/jobs.conf").c_str()) == 0;
    Require(linked, "the job file can be created");
    return ScratchDirectory();
}

const Json::Value &EntryOf(const Json::Value &document, const std::string &name) {
    return Member(Member(document, "jobs"), name);
}

// Whether the entry `after` continues `before` as if nothing had happened.
bool KeepsHistory(const Json::Value &before, const Json::Value &after) {
    for (const char *name : {"schedule", "lastExecution", "expireTime"})
        if (Member(before, name) != Member(after, name))
            return false;
    return JsonContains(Member(before, "config"), Member(after, "config")) &&
           (!HasMember(before, "startup") || before["startup"] == Member(after, "startup"));
}

void RequireApplied(const Json::Value &previous, const Json::Value &jobSet,
                    const Json::Value &saved) {
    for (const std::string &name : jobSet.getMemberNames()) {
        const Json::Value &before = EntryOf(previous, name);
        const Json::Value &after = EntryOf(saved, name);
        if (!JsonContains(Member(before, "config"), jobSet[name])) {
            Require(Member(after, "config") == jobSet[name], "a new definition is used");
            Require(!HasMember(after, "lastExecution"), "a new job has never run");
            Require(CronJob(after).RenderSchedule().find('X') == std::string::npos,
                    "a new job has a schedule");
        } else if (after.isNull()) {
            Require(!CronJob(before).valid, "only invalid jobs are dropped");
        } else {
            Require(KeepsHistory(before, after), "an unchanged job keeps its history");
        }
    }
    const Json::Value &entries = Member(saved, "jobs");
    for (const std::string &name : entries.getMemberNames())
        Require(jobSet.isMember(name), "a job that is not defined is removed");
}

Json::Value DefinitionsOf(const JobSet &jobSet) {
    Json::Value definitions(Json::objectValue);
    for (const CronJob &job : jobSet)
        definitions[std::string(job.Name())] = job.Config();
    return definitions;
}

Json::Value Restart(CronDaemon &daemon, const Json::Value &previous, const JobSet &jobSet) {
    SavedRuntime() = Json::Value();
    ApplyToSaved(daemon, previous, jobSet);
    RequireApplied(previous, DefinitionsOf(jobSet), SavedRuntime());
    return SavedRuntime();
}

Json::Value Reload(CronDaemon &daemon, const JobSet &jobSet) {
    const Json::Value previous = SavedRuntime();
    ApplyToLive(daemon, jobSet);
    RequireApplied(previous, DefinitionsOf(jobSet), SavedRuntime());
    return SavedRuntime();
}

void TryLiveJobs(CronDaemon &daemon) {
    for (const std::string &key : FieldKeys())
        RegenerateField(daemon, key);
    for (CronJob &job : JobsOf(daemon)) {
        TryJob(job);
        LaunchDetails details;
        details.state = JobStateName(StateOf(StateInputOf(job, false, true)));
        details.scheduleText = job.scheduleText;
        Require(LaunchNote(details).find(details.state) != std::string::npos,
                "the note of a launch contains its state");
    }
}

// Tests each entry separately too, whether its job is defined or not.
void TryEntries(const Json::Value &document) {
    for (const Json::Value &entry : Member(document, "jobs")) {
        CronJob job(entry);
        TryJob(job);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    constexpr std::string_view separator = "\n---\n";
    const std::string_view text = StartInput(data, size);
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::size_t next = std::min(end + separator.size(), text.size());

    Json::Value previous;
    ReadDocument(text.substr(next), kOwnFileLimits, previous);
    CronDaemon daemon;
    JobSet jobSet;
    const std::string &directory = AccountDirectory();
    WriteInput(text.substr(0, end));
    AccountLoads loads;
    LoadAccount(daemon, jobSet, directory, loads);

    if (!IsPlain(text)) {
        // Names may become equal when they are saved, and such jobs lose their history.
        ApplyToSaved(daemon, previous, jobSet);
        ApplyToLive(daemon, jobSet);
        TryLiveJobs(daemon);
        return 0;
    }
    const Json::Value definitions = DefinitionsOf(jobSet);
    Require(JsonContains(previous, previous) && JsonContains(definitions, definitions),
            "a document contains itself");
    Require(!JsonContains(previous, definitions) || !JsonContains(definitions, previous) ||
                previous.type() == definitions.type(),
            "documents that contain each other are of one type");
    TryEntries(previous);
    const Json::Value started = Restart(daemon, previous, jobSet);
    const Json::Value restarted = Restart(daemon, started, jobSet);
    Require(Member(restarted, "jobs").size() == jobSet.size(), "all jobs exist after a restart");
    Require(Reload(daemon, jobSet) == restarted, "a reload without changes changes nothing");
    Require(Restart(daemon, restarted, jobSet) == restarted, "a restart changes nothing either");
    TryLiveJobs(daemon);
    return 0;
}

} // namespace kest
