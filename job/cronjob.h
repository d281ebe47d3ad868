// One job: its document, its schedule, its account, its program and its start.
//
// A job document is a JSON object. Its "config" is the definition as the author wrote it, with the
// defaults filled in; beside it stand what the system derives and remembers: "startup", "cmd_list",
// "cmd_str", "schedule", "lastExecution", "expireTime". Documents come from job files and from our
// own files, and neither is trusted: bad content leaves an invalid job, never an exception.

#ifndef JOB_CRONJOB_H
#define JOB_CRONJOB_H

#include "job/account.h"
#include "job/cron_field.h"
#include "job/staging.h"
#include "platform/json_file.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <json/value.h>
#include <map>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

// The local time of `now`, null when it cannot be had. A cycle asks for that of one second for each
// job and then some, and each conversion looks at the time zone's file again, which costs more than
// the rest of a due check. Holds until the next call.
const std::tm *LocalTimeOf(std::time_t now);

class CronJob {
public:
    // An invalid job without a document.
    CronJob() = default;

    // Takes the document over, checks it, writes the defaults and parses it. `valid` tells whether
    // all went well; what did not is in the system log.
    explicit CronJob(Json::Value document);

    // The same for the document that `parsed`, a valid job, has handed over: its definition is not
    // checked and parsed again.
    CronJob(CronJob parsed, Json::Value document);

    // The document as it is now.
    const Json::Value &Document() const { return _jsJob; }

    // Hands the document over. What is left is of use to the next constructor only.
    Json::Value TakeDocument() { return std::move(_jsJob); }

    // The full job name.
    std::string Name() const;

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

    // When the job was found due and not launched yet, in seconds since the epoch; 0: it was not.
    std::int64_t ExpireTime() const { return expireTime_; }

    // The schedule as text, such as "17 3 -1 -1 -1".
    std::string RenderSchedule() const;

    // Whether the job is assured and has not run, or been known, for more than its hours.
    bool IsAssureOverdue() const;

    // Remembers a launch at `when`, in seconds since the epoch: nothing is due any more.
    void NoteLaunch(std::int64_t when);

    // Makes `program` the one that is run, with the arguments as they are.
    void SetProgram(const std::string &program);

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
    std::int32_t assureExecute = 0; // hours; 0: not assured
    std::int32_t assureRun = 0;     // 1: an overdue run is not held back while the machine is held
    bool runOnPassive = false;

private:
    // Members of the document that each cycle asks for. To look them up in it would take a hundred
    // times as long, so whatever writes those writes these. They stand beside what else a cycle
    // reads, because after a minute of other programs each line of the cache has to be fetched.
    std::array<std::uint64_t, 5> dueBits_{}; // AdmittedBits of each field
    std::int64_t expireTime_ = 0;
    std::int64_t lastRun_ = 0; // "lastExecution", or "startup" without one

public:
    std::string scheduleText; // the schedule at the latest due match, empty once launched
    CronFields cronFields;

private:
    bool CheckJobConfig();
    bool ParseJobConfig();
    bool ParseCrontab();
    bool ParseCronField(const std::string &key, const std::string &text);
    bool ParseSettings();
    bool ParseCommand();
    void ReadRuntimeMembers();

    Json::Value _jsJob;
};

// The accounts found so far, by name. A load asks for a few of them very often, and each question
// reads the account database.
using KnownAccounts = std::map<std::string, JobUser>;

// The account that the definition `config` asks for; invalid, with a message, when there is none.
// What is among `accounts` is not looked up again, and every look-up is added to them, failed ones
// too.
JobUser ResolveJobUser(const Json::Value &config, KnownAccounts &accounts);
JobUser ResolveJobUser(const Json::Value &config);

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

// Replaces `scheduleTemplate` by the one in the file `path`, its stored draw included. Returns
// false and changes nothing when the file cannot be read or holds no valid job. A "maxDelay" that
// is no integer of at least 0 leaves `maxDelay` as it was.
bool LoadScheduleTemplate(ScheduleTemplate &scheduleTemplate, const std::string &path);

// Writes the template to the file `path`, "maxDelay" only when it is not the default. Returns
// whether that succeeded.
bool SaveScheduleTemplate(const ScheduleTemplate &scheduleTemplate, const std::string &path,
                          Durability durability);

#endif
