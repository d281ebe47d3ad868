#include "job/cronjob.h"

#include "job/account.h"
#include "job/command.h"
#include "job/definition.h"
#include "job/json_members.h"
#include "job/overdue.h"
#include "job/period.h"
#include "job/runtime_directory.h"
#include "job/schedule.h"
#include "log/error_log.h"
#include "log/memorylogger.h"
#include "log/printable.h"
#include "platform/descriptor.h"
#include "platform/errno_kept.h"
#include "platform/json_text.h"
#include "platform/kestcore.h"
#include "platform/kestrandom.h"
#include "platform/kestsdk.h"
#include "platform/kestutils.h"
#include "platform/move_aside.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <memory>
#include <new>
#include <optional>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <utility>

static_assert(sizeof(std::time_t) >= 8, "schedules go on after 2038");

namespace {

KEST::RANDOM::KESTRandom &TheRandomSource() {
    static KEST::RANDOM::KESTRandom source;
    return source;
}

} // namespace

const std::tm *LocalTimeOf(std::time_t now) {
    static std::time_t converted = 0;
    static std::optional<std::tm> local;
    if (!local || now != converted) {
        const std::tm *fresh = std::localtime(&now);
        local = fresh == nullptr ? std::nullopt : std::optional<std::tm>(*fresh);
        converted = now;
    }
    return local ? &*local : nullptr;
}

// --- Definition ---------------------------------------------------------------------------------

CronJob::CronJob(Json::Value document) : _jsJob(std::move(document)) {
    if (!CheckJobConfig())
        LOG_ERROR("crontab format error");
    else if (!ParseJobConfig())
        LOG_ERROR("parse error");
    else
        valid = true;
    ReadRuntimeMembers();
}

CronJob::CronJob(CronJob parsed, Json::Value document) : CronJob(std::move(parsed)) {
    _jsJob = std::move(document);
    scheduleText.clear();
    ParseCommand(); // "cmd_list" names the staged copy, if there is one
    ReadRuntimeMembers();
}

std::string CronJob::Name() const {
    return TextMember(Member(_jsJob, "config"), "name");
}

bool CronJob::CheckJobConfig() {
    if (_jsJob.isObject() && !_jsJob.isMember("config"))
        _jsJob["config"] = Json::Value();
    if (const char *rule = FirstBrokenRule(_jsJob)) {
        LOG_ERROR("Failed [%s], err=%m", rule);
        return false;
    }
    WriteDefaults(_jsJob, std::time(nullptr));
    return true;
}

bool CronJob::ParseJobConfig() {
    return ParseCrontab() && ParseSettings() && ParseCommand();
}

bool CronJob::ParseCrontab() {
    const Json::Value &config = Member(_jsJob, "config");
    const std::optional<std::string> expression =
        PeriodCrontab(TextMember(config, "period"), TextMember(config, "crontab"));
    if (!expression) {
        LOG_ERROR("error period");
        return false;
    }
    const std::vector<std::string> fields = KESTUtils::StringExplode(*expression, " ");
    if (fields.size() != FieldKeys().size())
        return false;
    for (std::size_t i = 0; i < fields.size(); ++i)
        if (!ParseCronField(FieldKeys()[i], fields[i]))
            return false;
    return true;
}

bool CronJob::ParseCronField(const std::string &key, const std::string &text) {
    for (const std::string &piece : KESTUtils::StringExplode(text, ",")) {
        const CronItem item = ParseCronItem(key, piece);
        if (item.fault == CronItemFault::NotANumber)
            LOG_ERROR("%s is not a valid number", item.offender.c_str());
        if (item.fault == CronItemFault::Reversed)
            LOG_ERROR("range.from[%d] cannot greater than range.to[%d]", item.range.from,
                      item.range.to);
        if (item.fault != CronItemFault::None)
            return false;
        cronFields[key].push_back(item.range);
    }
    return true;
}

bool CronJob::ParseSettings() {
    const Json::Value &config = Member(_jsJob, "config");
    if (FirstUnusableSetting(config) != nullptr)
        return false;
    assureExecute = Member(config, "assure_execute").asInt();
    assureRun = TextMember(config, "assure_execute_action") == "run" ? 1 : 0;
    runOnPassive = Member(config, "run_on_passive").asBool();
    return true;
}

bool CronJob::ParseCommand() {
    std::optional<Command> command = NormalizeCommand(Member(_jsJob, "config"));
    if (!command)
        return false;
    Json::Value &list = _jsJob[Json::StaticString("cmd_list")];
    list = std::move(command->list);
    _jsJob[Json::StaticString("cmd_str")] = command->text;
    if (list.empty()) {
        LOG_ERROR("Failed [%s], err=%m", R"(0 == _jsJob["cmd_list"].size())");
        return false;
    }
    return true;
}

namespace {

// Whether a text is the same to the C library, for which a zero byte ends it.
bool IsCText(const std::string &text) {
    return text.find('\0') == std::string::npos;
}

void SayWhyNobody(const Json::Value &config) {
    if (IsOfPackage(config))
        LOG_ERROR("you are not package! error user in config");
    else
        LOG_ERROR("wrong user %s! you can only specify root/system/package in config [%s]",
                  TextMember(config, "user").c_str(), JsonToString(Member(config, "name")).c_str());
    LOG_ERROR("Unable to determine user");
}

} // namespace

JobUser ResolveJobUser(const Json::Value &config) {
    KnownAccounts none;
    return ResolveJobUser(config, none);
}

JobUser ResolveJobUser(const Json::Value &config, KnownAccounts &accounts) {
    JobUser user;
    const std::optional<std::string> account = AccountOf(config);
    if (!account) {
        SayWhyNobody(config);
        return user;
    }
    const auto known = accounts.find(*account);
    if (known != accounts.end()) {
        user = known->second;
    } else {
        user.name = *account;
        user.valid =
            IsCText(user.name) && KESTUserGetUGID(user.name.c_str(), &user.uid, &user.gid) != -1;
        accounts.emplace(user.name, user); // one that is not found may have cost a time-out
    }
    if (!user.valid)
        LOG_ERROR("user %s not exist", user.name.c_str());
    return user;
}

void CronJob::ReadRuntimeMembers() {
    const Json::Value &schedule = Member(_jsJob, "schedule");
    for (std::size_t i = 0; i < dueBits_.size(); ++i)
        dueBits_[i] = AdmittedBits(Member(schedule, FieldKeys()[i]));
    expireTime_ = IntegerMember(_jsJob, "expireTime", 0);
    lastRun_ = IntegerMember(_jsJob, "lastExecution", IntegerMember(_jsJob, "startup", 0));
}

// --- Schedule -----------------------------------------------------------------------------------

void CronJob::GenerateFieldSchedule(const std::string &key, std::int32_t templateValue) {
    Json::Value &schedule = ObjectMember(_jsJob, "schedule");
    Json::Value drawn = DrawField(key, cronFields[key], templateValue, TheRandomSource());
    const auto &keys = FieldKeys();
    const auto *const known = std::find(keys.begin(), keys.end(), key);
    if (known == keys.end()) {
        schedule[key] = std::move(drawn);
        return;
    }
    dueBits_[static_cast<std::size_t>(known - keys.begin())] = AdmittedBits(drawn);
    schedule[Json::StaticString(known->c_str())] = std::move(drawn);
}

void CronJob::GenerateSchedule(const std::string &key) {
    GenerateFieldSchedule(key, kAnyValue);
}

std::vector<std::int32_t> CronJob::GetScheduleValues(const std::string &key) const {
    return FieldValues(Member(Member(_jsJob, "schedule"), key));
}

std::int32_t CronJob::GetSingleScheduleValue(const std::string &key) const {
    const std::vector<std::int32_t> values = GetScheduleValues(key);
    return values.size() == 1 ? values.front() : kAnyValue;
}

bool CronJob::MatchField(const std::string &key, std::int32_t value) const {
    const auto &keys = FieldKeys();
    const auto *const known = std::find(keys.begin(), keys.end(), key);
    return known != keys.end() &&
           Admits(dueBits_[static_cast<std::size_t>(known - keys.begin())], value);
}

bool CronJob::IsDueNow() const {
    const std::tm *local = LocalTimeOf(std::time(nullptr));
    if (local == nullptr) {
        LOG_ERROR("Failed to get localtime");
        return false;
    }
    const std::array<std::int32_t, 5> values = FieldsOf(*local);
    for (std::size_t field = 0; field < values.size(); ++field)
        if (!Admits(dueBits_[field], values[field]))
            return false;
    return true;
}

bool CronJob::CheckTrigger() {
    if (!IsDueNow())
        return false;
    expireTime_ = std::time(nullptr);
    _jsJob[Json::StaticString("expireTime")] = Json::Int64{expireTime_};
    scheduleText = RenderSchedule();
    return true;
}

std::string CronJob::RenderSchedule() const {
    return ScheduleAsText(Member(_jsJob, "schedule"));
}

bool CronJob::IsAssureOverdue() const {
    // Most jobs are not assured, and each asks in each cycle: those need not read the clock.
    return assureExecute != 0 && IsOverdue(assureExecute, lastRun_, std::time(nullptr));
}

// --- Template -----------------------------------------------------------------------------------

ScheduleTemplate::ScheduleTemplate() {
    MakeDefaultScheduleTemplate(*this);
}

void MakeDefaultScheduleTemplate(ScheduleTemplate &scheduleTemplate) {
    Json::Value document;
    Json::Value &config = document["config"];
    config["name"] = "scheduleTemplate";
    config["user"] = "root";
    config["cmd"] = "true";
    config["period"] = "crontab";
    config["crontab"] = "~ ~ ~ ~ ~";
    static_cast<CronJob &>(scheduleTemplate) = CronJob(std::move(document));
    scheduleTemplate.maxDelay = ScheduleTemplate::kDefaultMaxDelay;
    if (!scheduleTemplate.valid) {
        LOG_ERROR("Default scheduled template config format invalid");
        return;
    }
    for (const std::string &key : FieldKeys())
        scheduleTemplate.GenerateSchedule(key);
}

bool LoadScheduleTemplate(ScheduleTemplate &scheduleTemplate, const std::string &path) {
    Json::Value document;
    if (!JsonFromFile(path, document, kOwnFileLimits))
        return false;
    CronJob loaded(std::move(document));
    if (!loaded.valid) {
        LOG_ERROR("Failed to parse schedule template from [%s]", path.c_str());
        return false;
    }
    static_cast<CronJob &>(scheduleTemplate) = std::move(loaded);
    const Json::Value &maxDelay = Member(scheduleTemplate.Document(), "maxDelay");
    if (maxDelay.isInt() && maxDelay.asInt() >= 0)
        scheduleTemplate.maxDelay = maxDelay.asInt();
    return true;
}

bool SaveScheduleTemplate(const ScheduleTemplate &scheduleTemplate, const std::string &path,
                          Durability durability) {
    Json::Value document = scheduleTemplate.Document();
    if (scheduleTemplate.maxDelay == ScheduleTemplate::kDefaultMaxDelay)
        document.removeMember("maxDelay");
    else
        document["maxDelay"] = scheduleTemplate.maxDelay;
    return JsonToFile(JsonToString(document), path, durability);
}

// --- Staging ------------------------------------------------------------------------------------

namespace {

// Whether the error says what stands at a path, and not that the machine could not find it out.
bool IsAboutPath(int error) {
    constexpr std::array<int, 7> errors{ENOENT, ENOTDIR, ELOOP, ENAMETOOLONG,
                                        EISDIR, EINVAL,  EACCES};
    return std::find(errors.begin(), errors.end(), error) != errors.end();
}

// errno is what the message says of it.
void ReportFailedCopy(const std::string &source, const std::string &staged,
                      const ProgramCopy &copy) {
    errno = copy.error;
    LOG_ERROR("Failed to cp [%s][%s][0x%04X %s:%d]", source.c_str(), staged.c_str(),
              static_cast<unsigned>(copy.platformError), copy.platformFile.data(),
              copy.platformLine);
}

// Reports the step that failed on the way of a copy into its place.
void ReportFailedStep(Staging::Step step, const std::string &staged, const JobUser &user) {
    if (step == Staging::Step::Chmod) {
        LOG_ERROR("Failed to chmod [%s][%m]", staged.c_str());
        return;
    }
    if (step == Staging::Step::Stat)
        LOG_ERROR("Failed to stat [%s][%m]", staged.c_str());
    if (step == Staging::Step::Chown)
        LOG_ERROR("Failed to chown [%s][%s][%m]", staged.c_str(), user.name.c_str());
    LOG_ERROR("Failed to chown if permissions are incorrect [%s]", staged.c_str());
}

// The look-up may have failed for a moment only, so that the job is not forgotten.
StagingResult FailWithoutAccount(const std::string &staged, const JobUser &user) {
    LOG_ERROR("Unable to get user group info");
    ReportFailedStep(Staging::Step::None, staged, user);
    return StagingResult::Failed;
}

} // namespace

StagingResult MoveBinaryToTmp(CronJob &job, KnownAccounts &accounts, Staging &staging) {
    const std::string name = job.Name();
    const std::string staged = std::string(kRuntimeDirectory) + "/" + name;
    const std::string source = Member(job.Document(), "cmd_list")[0U].asString();
    const bool isOfAccount = IsOfAccountDirectory(name);
    JobUser user;
    if (isOfAccount) {
        user = ResolveJobUser(Member(job.Document(), "config"), accounts);
        if (!user.valid)
            return FailWithoutAccount(staged, user);
    }
    const ProgramCopy copy = staging.Copy(name, source, isOfAccount ? &user : nullptr);
    if (copy.outcome == ProgramCopy::Outcome::NoProgram) {
        errno = copy.error;
        LOG_ERROR("missing binary %s", source.c_str());
        return IsAboutPath(copy.error) ? StagingResult::Refused : StagingResult::Failed;
    }
    if (copy.outcome == ProgramCopy::Outcome::Stopped)
        return StagingResult::Stopped;
    if (copy.outcome != ProgramCopy::Outcome::Made) {
        ReportFailedCopy(source, staged, copy);
        return copy.outcome == ProgramCopy::Outcome::Refused && IsAboutPath(copy.error)
                   ? StagingResult::Refused
                   : StagingResult::Failed;
    }
    job.SetProgram(staged);
    if (!isOfAccount)
        user = ResolveJobUser(Member(job.Document(), "config"), accounts);
    if (!user.valid)
        return FailWithoutAccount(staged, user);
    const Staging::Step step = staging.PutInPlace(name, user);
    if (step == Staging::Step::None)
        return StagingResult::Staged;
    if (step == Staging::Step::Rename)
        ReportFailedCopy(source, staged, ProgramCopy{ProgramCopy::Outcome::Failed, errno});
    else
        ReportFailedStep(step, staged, user);
    return StagingResult::Failed;
}

// --- Execution ----------------------------------------------------------------------------------

void CronJob::NoteLaunch(std::int64_t when) {
    lastRun_ = when;
    expireTime_ = 0;
    _jsJob[Json::StaticString("lastExecution")] = Json::Int64{when};
    _jsJob[Json::StaticString("expireTime")] = 0;
}

void CronJob::SetProgram(const std::string &program) {
    _jsJob[Json::StaticString("cmd_list")][0U] = program;
}

void CronJob::Launch(std::int32_t delay, const std::string &note) {
    NoteLaunch(std::time(nullptr));
    const pid_t pid = XLIBCProcForkEx(71);
    if (pid == -1) {
        LOG_ERROR("Failed to fork()");
        return;
    }
    if (pid == 0) {
        // Whatever happens in the child, it must not go on as a second scheduler, and no destructor
        // of the daemon may run in it.
        try {
            if (delay > 0)
                sleep(static_cast<unsigned>(delay));
            RunJobChild(note);
        } catch (const std::exception &error) {
            LOG_ERROR("caught a std::exception: %s", error.what());
        }
        _exit(EXIT_FAILURE);
    }
    scheduleText.clear();
}

void CronJob::RefuseLaunch() {
    NoteLaunch(std::time(nullptr));
    errno = EAGAIN;
    LOG_ERROR("Failed to fork()");
}

namespace {

// The NUL-terminated arguments of a command and the pointers to them that an exec wants.
class ArgumentVector {
public:
    explicit ArgumentVector(const Json::Value &list)
        : pointers_(new (std::nothrow) char *[list.size() + 1]) {
        if (!pointers_)
            return;
        for (const Json::Value &element : list)
            texts_.push_back(element.asString());
        std::size_t i = 0;
        for (std::string &text : texts_)
            pointers_[i++] = text.data();
        pointers_[i] = nullptr;
    }
    char *const *Get() const { return pointers_.get(); }

private:
    std::vector<std::string> texts_;
    std::unique_ptr<char *[]> pointers_;
};

// A line with its newline has 16 KiB at most: an author decides how long a command is.
void WriteExecutionLog(const std::string &text) {
    constexpr std::size_t most = std::size_t{16} << 10;
    executionLog.stream() << WithoutMiddle(KEST::MemoryLogger::Timestamp() + Printable(text),
                                           most - 1)
                          << "\n";
    executionLog.Flush();
}

// Takes on the account. A step that fails is reported and the next one is taken all the same.
void TakeOnAccount(const JobUser &user, const std::string &name) {
    const auto report = [&](const char *step) {
        WriteExecutionLog(std::string("Failed to ") + step + " for" + name + " for user " +
                          user.name + "[" + std::strerror(errno) + "]");
    };
    if (initgroups(user.name.c_str(), user.gid) == -1)
        report("initgroups");
    if (setgid(user.gid) == -1)
        report("setgid");
    if (setuid(user.uid) == -1)
        report("setuid");
}

// Runs the program once, if it is one that the daemon has staged.
int TryProgram(char *const *arguments, uid_t uid) {
    if (arguments[0] != nullptr && !IsFitToRun(arguments[0], uid))
        return -1;
    return XLIBCExecv(arguments[0], arguments, 1);
}

// Becomes the program. A load that closes the runtime directory to others is waited for, a minute
// at most, and so is one that replaces the program in this very moment.
int StartProgram(char *const *arguments, uid_t uid) {
    constexpr int mostTries = 600;
    constexpr useconds_t pause = 100000;
    for (int tries = 1;; ++tries) {
        const RuntimeDirectoryState before = RuntimeDirectoryState::Now();
        errno = EAGAIN;
        const int rc = before.IsClosed() ? -1 : TryProgram(arguments, uid);
        const bool mayBeReplaced = errno == ENOENT || errno == ETXTBSY || errno == EACCES;
        const bool isWaitedFor =
            before.IsClosed() || (mayBeReplaced && RuntimeDirectoryState::Now() != before);
        if (rc >= 0 || !isWaitedFor || tries == mostTries)
            return rc;
        usleep(pause);
    }
}

} // namespace

void CronJob::RunJobChild(const std::string &note) const {
    if (BecomeCommand(note))
        _exit(EXIT_SUCCESS); // as the command would have, had it been there
}

bool CronJob::BecomeCommand(const std::string &note) const {
    const ArgumentVector arguments(Member(_jsJob, "cmd_list"));
    if (arguments.Get() == nullptr) {
        LOG_ERROR("new pszCmd failed");
        return false;
    }
    signal(SIGCHLD, SIG_DFL);
    const std::string name = Name();
    const JobUser user = ResolveJobUser(Member(_jsJob, "config"));
    if (!user.valid) {
        LOG_ERROR("Failed to get user group info for job [%s]", name.c_str());
        return false;
    }
    const std::string running =
        "running job: " + name + " with command: " + TextMember(_jsJob, "cmd_str");
    WriteExecutionLog(running + " as user " + user.name + (note.empty() ? "" : " (" + note + ")"));
    // Another account cannot open the log, but what goes wrong from here on belongs into it.
    if (user.uid != 0)
        executionLog.KeepLogOpen();
    TakeOnAccount(user, name);
    const int rc = StartProgram(arguments.Get(), user.uid);
    if (rc < 0)
        WriteExecutionLog(running + " failed, return code: " + std::to_string(rc) +
                          ", error: " + std::strerror(errno));
    return true;
}
