#include "job/cronjob.h"
#include "base/json_members.h"
#include "base/json_text.h"
#include "base/printable.h"
#include "job/account.h"
#include "job/runtime_directory.h"
#include "log/error_log.h"
#include "log/memorylogger.h"
#include "platform/kestcore.h"
#include "platform/kestsdk.h"
#include "platform/kestutils.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <grp.h>
#include <memory>
#include <new>
#include <optional>
#include <unistd.h>
#include <utility>

namespace kest {

// --- Account ------------------------------------------------------------------------------------

namespace {

// Whether a text contains no NUL, which would end it for the C library.
bool IsCString(const std::string &text) {
    return text.find('\0') == std::string::npos;
}

void LogUnknownUser(const Json::Value &config) {
    if (IsOfPackage(config))
        LOG_ERROR("you are not package! error user in config");
    else
        LOG_ERROR("wrong user %s! you can only specify root/system/package in config [%s]",
                  TextMember(config, "user").c_str(), JsonToString(Member(config, "name")).c_str());
    LOG_ERROR("Unable to determine user");
}

JobUser LookUp(const std::string &account, KnownAccounts &accounts) {
    JobUser user;
    const auto known = accounts.find(account);
    if (known != accounts.end()) {
        user = known->second;
    } else {
        user.name = account;
        user.valid =
            IsCString(user.name) && KESTUserGetUGID(user.name.c_str(), &user.uid, &user.gid) != -1;
        accounts.emplace(user.name, user); // caches failures too: they may take a time-out each
    }
    if (!user.valid)
        LOG_ERROR("user %s not exist", user.name.c_str());
    return user;
}

} // namespace

JobUser ResolveJobUser(const Json::Value &config) {
    KnownAccounts none;
    if (const std::optional<std::string> account = AccountOf(config))
        return LookUp(*account, none);
    LogUnknownUser(config);
    return {};
}

JobUser ResolveJobUser(const CronJob &job, KnownAccounts &accounts) {
    return job.Account() ? LookUp(*job.Account(), accounts) : ResolveJobUser(job.Config());
}

// --- Start --------------------------------------------------------------------------------------

void CronJob::NoteLaunch(std::int64_t when) {
    lastRun_ = when;
    hasLastExecution_ = true;
    expireTime_ = 0;
    hasExpireTime_ = true;
}

void CronJob::Launch(std::int32_t delay, const std::string &note) {
    NoteLaunch(std::time(nullptr));
    const pid_t pid = XLIBCProcForkEx(71);
    if (pid == -1) {
        LOG_ERROR("Failed to fork()");
        return;
    }
    if (pid == 0) {
        // The child must never continue as a second scheduler, and no destructor of the daemon may
        // run in it.
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

// The NUL-terminated arguments of a command and the array of pointers to them for exec.
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

// A line has at most 16 KiB, newline included: authors determine the length of a command.
void WriteExecutionLog(const std::string &text) {
    constexpr std::size_t most = std::size_t{16} << 10;
    executionLog.stream() << WithoutMiddle(KEST::MemoryLogger::Timestamp() + Printable(text),
                                           most - 1)
                          << "\n";
    executionLog.Flush();
}

// Takes on the account. Reports a step that fails and continues with the next one.
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

// Tries to execute the program once, if the daemon has staged it.
int TryProgram(char *const *arguments, uid_t uid) {
    if (arguments[0] != nullptr && !IsFitToRun(arguments[0], uid))
        return -1;
    return XLIBCExecv(arguments[0], arguments, 1);
}

// Executes the program. Waits up to a minute for a load that has closed the runtime directory or is
// just replacing the program.
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
        _exit(EXIT_SUCCESS); // the status that a missing command has
}

bool CronJob::BecomeCommand(const std::string &note) const {
    const Json::Value document = Document();
    const ArgumentVector arguments(Member(document, "cmd_list"));
    if (arguments.Get() == nullptr) {
        LOG_ERROR("new pszCmd failed");
        return false;
    }
    signal(SIGCHLD, SIG_DFL);
    const std::string name(Name());
    const JobUser user = ResolveJobUser(Member(document, "config"));
    if (!user.valid) {
        LOG_ERROR("Failed to get user group info for job [%s]", name.c_str());
        return false;
    }
    const std::string running =
        "running job: " + name + " with command: " + TextMember(document, "cmd_str");
    WriteExecutionLog(running + " as user " + user.name + (note.empty() ? "" : " (" + note + ")"));
    // The account cannot open the log, but later failures must be logged too.
    if (user.uid != 0)
        executionLog.KeepLogOpen();
    TakeOnAccount(user, name);
    const int rc = StartProgram(arguments.Get(), user.uid);
    if (rc < 0)
        WriteExecutionLog(running + " failed, return code: " + std::to_string(rc) +
                          ", error: " + std::strerror(errno));
    return true;
}

} // namespace kest
