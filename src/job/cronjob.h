// One job: its document, its schedule, its account, its program and its start.
//
// A job document is a JSON object. Its "config" is the definition as the author wrote it, with the
// defaults filled in; beside it stand what the system derives and remembers: "startup", "cmd_list",
// "cmd_str", "schedule", "lastExecution", "expireTime". Documents come from job files and from our
// own files, and neither is trusted: bad content leaves an invalid job, never an exception.

#ifndef JOB_CRONJOB_H
#define JOB_CRONJOB_H

#include "base/shared_text.h"
#include "job/account.h"
#include "job/cron_field.h"
#include "job/definition.h"
#include "job/job_document.h"
#include "job/schedule.h"
#include "job/staging.h"
#include "platform/json_file.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <json/value.h>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace kest {

class CronJob {
public:
    // An invalid job without a document.
    CronJob() = default;

    // Takes the document over, checks it, writes the defaults and parses it. `valid` tells whether
    // all went well; what did not is in the system log.
    explicit CronJob(Json::Value document);

    // The same, but says nothing: what is wrong is added to `faults`, as many of them as
    // `mostFaults`.
    CronJob(Json::Value document, std::vector<DefinitionFault> &faults,
            std::size_t mostFaults = std::numeric_limits<std::size_t>::max());

    // The document as it is now. Put together for the caller.
    Json::Value Document() const;

    // Its member "config".
    Json::Value Config() const { return _jsJob.Config(); }

    // Its member "schedule".
    Json::Value ScheduleDocument() const;

    // Appends the document to `text`, where it is the value of a member of "jobs".
    void AppendTo(JsonText &text) const;
    // The same as if the job were staged, nothing drawn, and it had never run.
    void AppendNewTo(JsonText &text) const { _jsJob.AppendTo(text); }

    // Whether `other` is defined by the same text. When not, it may still be by the same values.
    bool HasConfigOf(const CronJob &other) const { return _jsJob.HasConfigOf(other._jsJob); }

    // The full job name. Valid until the job is changed or its texts are moved.
    std::string_view Name() const { return name_.View(); }

    // The account that it runs as; none when its definition names none.
    const std::optional<std::string> &Account() const { return account_; }

    // The parsed crontab: the items of each field by its key.
    CronFields cronFields() const;
    std::size_t ItemCount() const { return schedule_.ItemCount(); }

    // Draws "schedule"[key] anew from the field's items. Random items take `templateValue` where it
    // fits them; -1 fits none.
    void GenerateFieldSchedule(const std::string &key, std::int32_t templateValue);
    void GenerateSchedule(const std::string &key);

    // The values of "schedule"[key]; none when it is missing or holds anything but integers.
    std::vector<std::int32_t> GetScheduleValues(const std::string &key) const;

    // The only value of "schedule"[key]; -1 when there is none or more than one.
    std::int32_t GetSingleScheduleValue(const std::string &key) const;

    // Whether "schedule"[key] admits `value`.
    bool MatchField(const std::string &key, std::int32_t value) const;

    // Whether the present local minute matches all five fields: day and weekday must both match.
    bool IsDueNow() const;

    // When the job is due now, stamps "expireTime", fills `scheduleText` and returns true;
    // otherwise changes nothing.
    bool CheckTrigger();

    // "lastExecution", or "startup" without one, or 0.
    std::int64_t LastRun() const { return lastRun_; }

    // When the job was found due and not launched yet, in seconds since the epoch; 0: it was not.
    std::int64_t ExpireTime() const { return expireTime_; }

    // The schedule as text, such as "17 3 -1 -1 -1".
    std::string RenderSchedule() const;

    // Whether the job is assured and has not run, or been known, for more than its hours.
    bool IsAssureOverdue() const;

    // Remembers a launch at `when`, in seconds since the epoch: nothing is due any more.
    void NoteLaunch(std::int64_t when);

    // The path that the definition's command begins with.
    std::string Program() const { return std::string(program_.View()); }

    // Whether a copy of the program is what is run: the one of the job's name in the runtime
    // directory. Only jobs that are staged run.
    bool IsStaged() const { return isStaged_; }
    void SetStaged(bool isStaged) { isStaged_ = isStaged; }

    // Starts the job: stamps "lastExecution", clears "expireTime" and `scheduleText`, and forks a
    // process that waits `delay` seconds and then runs the command. Does not wait for it. When the
    // fork fails, says so and keeps `scheduleText`. `note` goes into the execution log's line.
    void Launch(std::int32_t delay, const std::string &note);

    // In a child of its own: writes the execution log's line with `note`, takes on the account and
    // becomes the command. Ends the process with status 0 when the command cannot be run, which
    // the execution log then says; returns only when the job cannot be prepared.
    void RunJobChild(const std::string &note) const;

    // The same, but returns true when the command cannot be run, and false when the job cannot be
    // prepared.
    bool BecomeCommand(const std::string &note) const;

    // Stands for a Launch that was refused for want of resources: it is reported and remembered as
    // one whose fork failed.
    void RefuseLaunch();

    bool valid = false;
    bool runOnPassive = false;
    // Its program could not be copied at the latest load. It does not run, but what is known of it
    // is saved, and the next load tries again.
    bool waitsForProgram = false;

private:
    bool isStaged_ = false;
    bool hasExpireTime_ = false;    // whether the document has the member as a number of ours
    bool hasLastExecution_ = false; // the same

public:
    std::int32_t assureExecute = 0; // hours; 0: not assured
    std::int32_t assureRun = 0;     // 1: an overdue run is not held back while the machine is held

private:
    // What each cycle asks for stands together, because after a minute of other programs each line
    // of the cache has to be fetched.
    std::int64_t expireTime_ = 0;
    std::int64_t lastRun_ = 0; // "lastExecution", or "startup" without one
    Schedule schedule_;

public:
    std::string scheduleText; // the schedule at the latest due match, empty once launched

    friend void ShareTexts(std::vector<CronJob> &jobs);

private:
    std::array<SharedText *, 3> Texts() { return {&name_, &program_, &_jsJob.Text()}; }
    std::size_t TextSize();
    void MoveTexts(const std::shared_ptr<std::string> &block);
    void TakeDefinition(Json::Value &document, Definition definition);
    void TakeRuntimeMembers(Json::Value &document);
    void AddDrawn(Json::Value &schedule) const;
    void AppendSchedule(JsonText &text) const;

    SharedText name_;
    SharedText program_;
    std::optional<std::string> account_;
    JobDocument _jsJob; // but for what is kept in other members
};

// A load moves jobs when nothing may go wrong any more.
static_assert(std::is_nothrow_move_constructible_v<CronJob> &&
              std::is_nothrow_move_assignable_v<CronJob>);

// Puts the jobs into the order of their names. Of two of a name the later one stays.
void SortByName(std::vector<CronJob> &jobs);

// Moves the texts of all `jobs` into one block of memory. Left among the JSON of a load, they would
// keep its pages from being given back. Changes nothing when there is no memory for the block.
void ShareTexts(std::vector<CronJob> &jobs);

// Reports the first fault of a definition that is refused.
void LogFault(const DefinitionFault &fault);

// The accounts found so far, by name. A load asks for a few of them very often, and each question
// reads the account database.
using KnownAccounts = std::map<std::string, JobUser>;

// The account that the definition `config` asks for; invalid, with a message, when there is none.
JobUser ResolveJobUser(const Json::Value &config);

// That of `job`. What is among `accounts` is not looked up again, and every look-up is added to
// them, failed ones too.
JobUser ResolveJobUser(const CronJob &job, KnownAccounts &accounts);

// Whether the job's program could be staged.
enum class StagingResult : unsigned char {
    Staged,
    Refused, // it has none that can be staged
    Failed,  // it could not be copied this time
    Stopped  // it was given up for a stop
};

// Copies the job's program into the runtime directory under the full job name, gives the copy to
// the job's account with mode 0700, and points the job at it. Nothing outside that directory
// changes: a program that is a link stays one, and what it links to keeps owner and mode. The
// program of a job from an account's own directory is copied with the account's rights. What fails
// is reported, and the job may then not be admitted.
StagingResult MoveBinaryToTmp(CronJob &job, KnownAccounts &accounts, Staging &staging);

// The job that is never run: each field of its schedule is the draw that all jobs share.
class ScheduleTemplate : public CronJob {
public:
    static constexpr std::int32_t kDefaultMaxDelay = 300;

    // The built-in template, drawn.
    ScheduleTemplate();

    // The most seconds between the starts of two jobs launched in one cycle; never negative.
    std::int32_t maxDelay = kDefaultMaxDelay;
};

// Makes `scheduleTemplate` the built-in one, drawn afresh.
void MakeDefaultScheduleTemplate(ScheduleTemplate &scheduleTemplate);

// Replaces `scheduleTemplate` by the one in `document`, its stored draw included. Returns false and
// changes nothing when it holds no valid job; the first reason is added to `faults`. A "maxDelay"
// that is not an integer of at least 0 leaves `maxDelay` as it was.
bool TakeScheduleTemplate(ScheduleTemplate &scheduleTemplate, Json::Value document,
                          std::vector<DefinitionFault> &faults);

// The same with what is in the file `path`. A file that cannot be read changes nothing either; what
// keeps its job from being valid is reported.
bool LoadScheduleTemplate(ScheduleTemplate &scheduleTemplate, const std::string &path);

// Writes the template to the file `path`, "maxDelay" only when it is not the default. Returns
// whether that succeeded.
bool SaveScheduleTemplate(const ScheduleTemplate &scheduleTemplate, const std::string &path,
                          Durability durability);

} // namespace kest

#endif
