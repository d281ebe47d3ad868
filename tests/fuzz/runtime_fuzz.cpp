// Feeds the daemon the job file of an account and, after a line "---", the runtime document that an
// earlier run left, and has it apply one to the other as at a start and at two reloads. Beyond that
// nothing is thrown: a job whose definition is what it was keeps its history, any other starts
// afresh, what is no longer defined is gone, and whatever the runtime document holds, one reload
// later every job is there.
//
// The saved documents are kept in memory, and no program is staged.

#include "core/crondaemon.h"
#include "core/json_contains.h"
#include "core/launch_note.h"
#include "job/json_members.h"
#include "job/schedule.h"
#include "tests/fuzz/support/checks.h"
#include "tests/fuzz/support/machine.h"

#include <algorithm>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

// The steps of the daemon that are tried. They are private, but the arguments of an explicit
// instantiation may name what is.
void LoadAccount(CronDaemon &daemon, Json::Value &jobSet, const std::string &path);
void ApplyJobSet(CronDaemon &daemon, Json::Value previous, const Json::Value &jobSet);
void RegenerateField(CronDaemon &daemon, const std::string &key);
JobState StateOf(const CronDaemon &daemon, const CronJob &job, bool held);
std::vector<CronJob> &JobsOf(CronDaemon &daemon);

template <auto kLoad, auto kApply, auto kRegenerate, auto kState, auto kJobs>
struct Opened {
    friend void LoadAccount(CronDaemon &daemon, Json::Value &jobSet, const std::string &path) {
        (daemon.*kLoad)(jobSet, path, "pkg_nonroot");
    }
    friend void ApplyJobSet(CronDaemon &daemon, Json::Value previous, const Json::Value &jobSet) {
        (daemon.*kApply)(std::move(previous), jobSet);
    }
    friend void RegenerateField(CronDaemon &daemon, const std::string &key) {
        (daemon.*kRegenerate)(key);
    }
    friend JobState StateOf(const CronDaemon &daemon, const CronJob &job, bool held) {
        return (daemon.*kState)(job, held);
    }
    friend std::vector<CronJob> &JobsOf(CronDaemon &daemon) { return daemon.*kJobs; }
};
template struct Opened<&CronDaemon::LoadAccount, &CronDaemon::ApplyJobSet,
                       &CronDaemon::RegenerateField, &CronDaemon::ComputeState, &CronDaemon::jobs>;

Json::Value &SavedRuntime() {
    static Json::Value document;
    return document;
}

} // namespace

// What the linker puts in the place of the two functions that would touch the disk. The real ones
// are named too: when one is declared otherwise some day, this no longer links.
bool RealMoveBinaryToTmp(CronJob &job) __asm__("__real__Z15MoveBinaryToTmpR7CronJob");
bool RealJsonToFile(const Json::Value &value, const std::string &path,
                    Durability durability) __asm__("__real__Z10JsonToFileRKN4Json5ValueERKNSt7__"
                                                   "cxx1112basic_stringIcSt11char_traitsIcESaIc"
                                                   "EEE10Durability");
bool StagedWithoutDisk(CronJob &job) __asm__("__wrap__Z15MoveBinaryToTmpR7CronJob");
bool SavedWithoutDisk(const Json::Value &value, const std::string &path,
                      Durability durability) __asm__("__wrap__Z10JsonToFileRKN4Json5ValueERKNSt7__"
                                                     "cxx1112basic_stringIcSt11char_traitsIcESaIc"
                                                     "EEE10Durability");

[[gnu::used]] static bool (*const kRealStaging)(CronJob &) = RealMoveBinaryToTmp;
[[gnu::used]] static bool (*const kRealSaving)(const Json::Value &, const std::string &,
                                               Durability) = RealJsonToFile;

bool StagedWithoutDisk(CronJob &job) {
    Json::Value &program = job._jsJob["cmd_list"][0U];
    Require(program.isConvertibleTo(Json::stringValue), "a program has a name");
    program = std::string(kRuntimeDirectory) + "/" + job.Name();
    return true;
}

bool SavedWithoutDisk(const Json::Value &value, const std::string &path,
                      Durability /*durability*/) {
    if (path != "/var/run/kestcrond.config")
        return true; // the template, which is not what is tried here
    Require(ReadDocument(JsonToString(value), kOwnFileLimits, SavedRuntime()) &&
                SavedRuntime() == value,
            "a saved document is read back the same");
    return true;
}

namespace {

// An account's directory with one job file, whose content is the latest input written.
const std::string &AccountDirectory() {
    static const bool linked =
        symlink(WriteInput({}).c_str(), (ScratchDirectory() + "/jobs.conf").c_str()) == 0;
    Require(linked, "there is a job file");
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
            Require(Member(after, "config") == jobSet[name], "a new definition is taken");
            Require(!HasMember(after, "lastExecution"), "a new job has never run");
            Require(ScheduleAsText(after["schedule"]).find('X') == std::string::npos,
                    "a new job has a schedule");
        } else if (after.isNull()) {
            Require(!CronJob(before).valid, "only what is no job is dropped");
        } else {
            Require(KeepsHistory(before, after), "an unchanged job keeps its history");
        }
    }
    const Json::Value &entries = Member(saved, "jobs");
    for (const std::string &name : entries.getMemberNames())
        Require(jobSet.isMember(name), "a job that is not defined is gone");
}

Json::Value Apply(CronDaemon &daemon, const Json::Value &previous, const Json::Value &jobSet) {
    SavedRuntime() = Json::Value();
    ApplyJobSet(daemon, previous, jobSet);
    RequireApplied(previous, jobSet, SavedRuntime());
    return SavedRuntime();
}

void TryLiveJobs(CronDaemon &daemon) {
    for (const std::string &key : FieldKeys())
        RegenerateField(daemon, key);
    for (CronJob &job : JobsOf(daemon)) {
        TryJob(job);
        LaunchFacts facts;
        facts.state = JobStateName(StateOf(daemon, job, true));
        facts.scheduleText = job.scheduleText;
        Require(LaunchNote(facts).find(facts.state) != std::string::npos, "a launch is explained");
    }
}

// Every entry by itself too, whether a job of its name is defined or not.
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
    Json::Value jobSet(Json::objectValue);
    const std::string &directory = AccountDirectory();
    WriteInput(text.substr(0, end));
    LoadAccount(daemon, jobSet, directory);

    Require(JsonContains(previous, previous) && JsonContains(jobSet, jobSet),
            "a document contains itself");
    Require(!JsonContains(previous, jobSet) || !JsonContains(jobSet, previous) ||
                previous.type() == jobSet.type(),
            "documents that contain each other are of one type");
    TryEntries(previous);
    const Json::Value started = Apply(daemon, previous, jobSet);
    const Json::Value reloaded = Apply(daemon, started, jobSet);
    Require(Member(reloaded, "jobs").size() == jobSet.size(), "every job is there after a reload");
    Require(Apply(daemon, reloaded, jobSet) == reloaded,
            "a reload without changes changes nothing");
    TryLiveJobs(daemon);
    return 0;
}
