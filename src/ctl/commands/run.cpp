#include "base/errno_guard.h"
#include "base/json_members.h"
#include "base/json_text.h"
#include "base/paths.h"
#include "ctl/commands/commands.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"
#include "ctl/system/log_line.h"
#include "job/account.h"
#include "job/runtime_directory.h"
#include "log/memorylogger.h"
#include "platform/kestcore.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <optional>
#include <pwd.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace kest::ctl {

namespace {

constexpr int kNotPrepared = 126; // as shells have it
constexpr int kNotRun = 127;

// Who asked for it, before he became root.
std::string Asker() {
    const char *sudo = std::getenv("SUDO_USER");
    const passwd *account = getpwuid(getuid());
    return sudo != nullptr ? sudo : account != nullptr ? account->pw_name : "root";
}

std::string NoteOf(const LiveJob &job, std::time_t now) {
    std::tm local{};
    localtime_r(&now, &local);
    std::ostringstream time;
    char text[32] = "";
    std::strftime(text, sizeof text, "%d %H:%M:%S", &local);
    return std::string("state[") + kManualState + "], trig[" + text + "], tab[" +
           job.job.RenderSchedule() + "], by[" + Asker() + "]";
}

// Whether the staged program is one that the daemon has staged: nobody else may write where it
// lies.
bool IsStagedByDaemon(const std::string &staged) {
    return OpenRuntimeDirectory() && XLIBCFileExist(staged.c_str());
}

// A job has the daemon's environment, directory and file mode mask, not those of somebody's shell:
// what goes wrong at night shall go wrong here. Nor has it the shell's terminal, into which it
// could type; the session of its own keeps only what it writes there.
void TakeOnSurroundings(const Daemon &daemon) {
    setsid();
    if (chdir("/") == -1)
        std::cerr << "kestcronctl: /: " << std::strerror(errno) << "\n";
    if (const int null = open("/dev/null", O_RDONLY); null != -1) {
        dup2(null, STDIN_FILENO);
        if (null != STDIN_FILENO)
            close(null);
    }
    clearenv();
    if (!daemon.Runs()) {
        setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
        return;
    }
    const std::string directory = "/proc/" + std::to_string(daemon.pid) + "/";
    std::ifstream environment(directory + "environ");
    for (std::string variable; std::getline(environment, variable, '\0');)
        if (const auto equals = variable.find('='); equals != std::string::npos)
            setenv(variable.substr(0, equals).c_str(), variable.c_str() + equals + 1, 1);
    std::ifstream status(directory + "status");
    for (std::string word; status >> word;)
        if (word == "Umask:" && status >> word)
            umask(static_cast<mode_t>(std::strtoul(word.c_str(), nullptr, 8)));
}

// Why the job cannot be prepared, in the words of the daemon's messages; nothing when it can.
std::vector<std::string> WhyNotPrepared(const CronJob &job, const Appliance &appliance) {
    const Json::Value config = job.Config();
    const std::optional<std::string> account = AccountOf(config);
    if (account && appliance.HasAccount(*account))
        return {};
    const std::string group =
        "Failed to get user group info for job [" + std::string(job.Name()) + "]";
    if (account)
        return {"user " + *account + " not exist", group};
    const std::string user = IsOfPackage(config)
                                 ? "you are not package! error user in config"
                                 : "wrong user " + TextMember(config, "user") +
                                       "! you can only specify root/system/package in config [" +
                                       JsonToString(Member(config, "name")) + "]";
    return {user, "Unable to determine user", group};
}

[[noreturn]] void BecomeJob(const CronJob &job, const Daemon &daemon, const std::string &note) {
    int status = kNotPrepared;
    try {
        TakeOnSurroundings(daemon);
        executionLog.BeSilent();
        if (job.BecomeCommand(note)) {
            status = kNotRun;
            std::cerr << "kestcronctl: its command cannot be run; the execution log shows why\n";
        } else {
            std::cerr << "kestcronctl: the job cannot be prepared; the system log shows why\n";
        }
    } catch (const std::exception &error) {
        std::cerr << "kestcronctl: " << error.what() << "\n";
    }
    if (executionLog.LogError() != 0)
        std::cerr << "kestcronctl: " << kExecutionLogFile << ": "
                  << std::strerror(executionLog.LogError()) << "\n";
    std::cerr.flush();
    _exit(status);
}

volatile std::sig_atomic_t runningJob = 0; // its session, for the signal handler

void PassOn(int number) {
    const ErrnoGuard errnoGuard;
    const auto job = static_cast<pid_t>(runningJob);
    if (kill(-job, number) == -1) // it has no session of its own yet
        kill(job, number);
}

// Signals to this program are for the job, which ends or does not.
int WaitFor(pid_t pid) {
    constexpr int signalled = 128;
    runningJob = pid;
    for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP})
        std::signal(number, PassOn);
    int status = 0;
    while (waitpid(pid, &status, 0) == -1)
        if (errno != EINTR)
            throw Failure(std::string("cannot wait for the job: ") + std::strerror(errno));
    if (WIFSIGNALED(status)) {
        std::cerr << "kestcronctl: ended by signal " << WTERMSIG(status) << " ("
                  << strsignal(WTERMSIG(status)) << ")\n";
        return signalled + WTERMSIG(status);
    }
    return WEXITSTATUS(status);
}

} // namespace

int Run(const Context &context, const RunOptions &options) {
    if (!context.appliance.IsThisOne())
        throw Failure("a job of another system cannot be run here");
    if (geteuid() != 0)
        throw Failure("only root can run a job as its account");
    const Runtime runtime = LoadRuntime(context.appliance);
    const Daemon daemon = FindDaemon(context.appliance);
    PrintCaveats(runtime, daemon, context);
    const LiveJob &job = JobArgument(context, runtime, options.job);
    if (!IsStagedByDaemon(job.staged))
        throw Failure(job.staged + " is not there, or not the daemon's: it stages programs when it "
                                   "loads jobs");
    CronJob prepared = job.job;
    prepared.SetStaged(true);
    const std::vector<std::string> reasons = WhyNotPrepared(prepared, context.appliance);
    for (const std::string &reason : reasons)
        std::cerr << "kestcronctl: " << Shown(reason) << "\n";
    if (!reasons.empty())
        return kNotPrepared;
    std::cout.flush();
    const pid_t pid = XLIBCProcForkEx(71);
    if (pid == -1)
        throw Failure(std::string("cannot fork: ") + std::strerror(errno));
    if (pid == 0)
        BecomeJob(prepared, daemon, NoteOf(job, context.now));
    return WaitFor(pid);
}

} // namespace kest::ctl
