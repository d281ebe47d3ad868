// One job: its document, its schedule, its account, its program and its start.
//
// A job document is a JSON object. Its "config" is the definition as the author wrote it, with the
// defaults filled in. The daemon adds "startup", "cmd_list", "cmd_str", "schedule", "lastExecution"
// and "expireTime". Documents are read from job files and from the daemon's own files. Neither is
// trusted: invalid content gives an invalid job, never an exception.

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

    // Takes over the document, checks it, adds the defaults and parses it. Sets `valid` when it
    // succeeds; otherwise reports the first fault to the system log.
    explicit CronJob(Json::Value document);

    // The same without messages: adds up to `mostFaults` faults to `faults`.
    CronJob(Json::Value document, std::vector<DefinitionFault> &faults,
            std::size_t mostFaults = std::numeric_limits<std::size_t>::max());

    // The present document, as a new value.
    Json::Value Document() const;

    // Its member "config".
    Json::Value Config() const { return _jsJob.Config(); }

    // Its member "schedule".
    Json::Value ScheduleDocument() const;

    // Appends the document to `text`, where it is the value of a member of "jobs".
    void AppendTo(JsonText &text) const;
    // The same, as if the job were staged, not drawn and never run.
    void AppendNewTo(JsonText &text) const { _jsJob.AppendTo(text); }

    // Whether `other` has the same text of its definition. When false, the values may still be
    // equal.
    bool HasConfigOf(const CronJob &other) const { return _jsJob.HasConfigOf(other._jsJob); }

    // The full job name. Valid until the job is changed or its texts are moved.
    std::string_view Name() const { return name_.View(); }

    // The account that it runs as; none when its definition names none.
    const std::optional<std::string> &Account() const { return account_; }

    // The parsed crontab: the items of each field by its key.
    CronFields cronFields() const;
    std::size_t ItemCount() const { return schedule_.ItemCount(); }

    // Redraws "schedule"[key] from the field's items. Random items take `templateValue` where it
    // lies within them; -1 never does.
    void GenerateFieldSchedule(const std::string &key, std::int32_t templateValue);
    void GenerateSchedule(const std::string &key);

    // The values of "schedule"[key]; empty when it is missing or contains anything but integers.
    std::vector<std::int32_t> GetScheduleValues(const std::string &key) const;

    // The single value of "schedule"[key]; -1 when there is not exactly one.
    std::int32_t GetSingleScheduleValue(const std::string &key) const;

    // Whether "schedule"[key] admits `value`.
    bool MatchField(const std::string &key, std::int32_t value) const;

    // Whether the present local minute matches all five fields: day and weekday must both match.
    bool IsDueNow() const;

    // When the job is due now, sets "expireTime" and `scheduleText` and returns true. Otherwise
    // changes nothing.
    bool CheckTrigger();

    // "lastExecution", or "startup" without one, or 0.
    std::int64_t LastRun() const { return lastRun_; }

    // When the job was found due, in seconds since the epoch, if it has not been launched since;
    // otherwise 0.
    std::int64_t ExpireTime() const { return expireTime_; }

    // The schedule as text, such as "17 3 -1 -1 -1".
    std::string RenderSchedule() const;

    // Whether the job is assured and more than its hours have passed since LastRun().
    bool IsAssureOverdue() const;

    // Records a launch at `when`, in seconds since the epoch. The job is then no longer due.
    void NoteLaunch(std::int64_t when);

    // The path at the beginning of the command.
    std::string Program() const { return std::string(program_.View()); }

    // Whether the program is staged in the runtime directory. Only staged jobs run.
    bool IsStaged() const { return isStaged_; }
    void SetStaged(bool isStaged) { isStaged_ = isStaged; }

    // Launches the job: sets "lastExecution", clears "expireTime" and `scheduleText`, and forks a
    // process that waits `delay` seconds and then runs the command. Does not wait for this process.
    // When the fork fails, reports it and keeps `scheduleText`. `note` becomes part of the line in
    // the execution log.
    void Launch(std::int32_t delay, const std::string &note);

    // Runs in the forked process: writes the line with `note` to the execution log, takes on the
    // account and executes the command. When the command cannot be executed, reports it in the
    // execution log and ends the process with status 0. Returns only when the job cannot be
    // prepared.
    void RunJobChild(const std::string &note) const;

    // The same, but returns true when the command cannot be executed, and false when the job cannot
    // be prepared.
    bool BecomeCommand(const std::string &note) const;

    // Reports and records a launch like one whose fork failed, for lack of resources.
    void RefuseLaunch();

    std::string scheduleText; // the schedule at the latest due match, empty once launched

    std::int32_t assureExecute = 0; // hours; 0: not assured
    std::int32_t assureRun = 0;     // 1: an overdue run is not held back while the machine is held

    bool valid = false;
    bool runOnPassive = false;
    // The program could not be copied at the latest load. The job does not run, but its state is
    // saved, and the next load tries again.
    bool waitsForProgram = false;

private:
    friend void ShareTexts(std::vector<CronJob> &jobs);

    std::array<SharedText *, 3> Texts() { return {&name_, &program_, &_jsJob.Text()}; }
    std::size_t TextSize();
    void MoveTexts(const std::shared_ptr<std::string> &block);
    void TakeDefinition(Json::Value &document, Definition definition);
    void TakeRuntimeMembers(Json::Value &document);
    void AddDrawn(Json::Value &schedule) const;
    void AppendSchedule(JsonText &text) const;

    bool isStaged_ = false;
    bool hasExpireTime_ =
        false; // whether the document has the member as an integer that the daemon wrote
    bool hasLastExecution_ = false; // the same

    // The members that every cycle reads are adjacent: after a minute of other programs, each cache
    // line must be fetched again.
    std::int64_t expireTime_ = 0;
    std::int64_t lastRun_ = 0; // "lastExecution", or "startup" without one
    Schedule schedule_;

    SharedText name_;
    SharedText program_;
    std::optional<std::string> account_;
    JobDocument _jsJob; // but for what is kept in other members
};

// A load moves jobs at a point where it can no longer fail.
static_assert(std::is_nothrow_move_constructible_v<CronJob> &&
              std::is_nothrow_move_assignable_v<CronJob>);

// Sorts the jobs by name. Of two jobs with the same name, keeps the later one.
void SortByName(std::vector<CronJob> &jobs);

// Moves the texts of all `jobs` into one block of memory. Left among the JSON of a load, they would
// keep its pages from being given back. Changes nothing when there is no memory for the block.
void ShareTexts(std::vector<CronJob> &jobs);

// Reports the first fault of a definition that is refused.
void LogFault(const DefinitionFault &fault);

// The accounts found so far, by name. A load looks up a few of them very often, and each look-up
// reads the account database.
using KnownAccounts = std::map<std::string, JobUser>;

// The account of the definition `config`; invalid, with a message, when it does not exist.
JobUser ResolveJobUser(const Json::Value &config);

// The same for the definition of `job`. `accounts` caches the results of look-ups, failures
// included.
JobUser ResolveJobUser(const CronJob &job, KnownAccounts &accounts);

// Whether the job's program could be staged.
enum class StagingResult : unsigned char {
    Staged,
    Refused, // it has none that can be staged
    Failed,  // a temporary failure
    Stopped  // cancelled because of a stop
};

// Copies the job's program into the runtime directory under the full job name, gives the copy to
// the job's account with mode 0700, and marks the job as staged. Nothing outside that directory
// changes: a link is copied as a link, and its target keeps its owner and mode. The program of a
// job in an account directory is copied with the rights of the account. Reports failures; the
// result states whether the job has to be dropped.
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

// Replaces `scheduleTemplate` by the built-in template with a new draw.
void MakeDefaultScheduleTemplate(ScheduleTemplate &scheduleTemplate);

// Replaces `scheduleTemplate` by the one in `document`, its stored draw included. Returns false and
// changes nothing when it holds no valid job; the first reason is added to `faults`. A "maxDelay"
// that is not an integer of at least 0 leaves `maxDelay` as it was.
bool TakeScheduleTemplate(ScheduleTemplate &scheduleTemplate, Json::Value document,
                          std::vector<DefinitionFault> &faults);

// The same for the document in the file `path`. A file that cannot be read changes nothing either.
// Reports the first fault of an invalid definition.
bool LoadScheduleTemplate(ScheduleTemplate &scheduleTemplate, const std::string &path);

// Writes the template to the file `path`, "maxDelay" only when it is not the default. Returns
// whether that succeeded.
bool SaveScheduleTemplate(const ScheduleTemplate &scheduleTemplate, const std::string &path,
                          Durability durability);

} // namespace kest

#endif
