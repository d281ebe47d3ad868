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

constexpr int kNotPrepared = 126; // as in shells
constexpr int kNotRun = 127;

// The name of the user who called the tool, possibly through sudo.
std::string CallerName() {
    const char *sudo = std::getenv("SUDO_USER");
    const passwd *account = getpwuid(getuid());
    return sudo != nullptr ? sudo : account != nullptr ? account->pw_name : "root";
}

std::string LaunchNote(const LiveJob &job, std::time_t now) {
    std::tm local{};
    localtime_r(&now, &local);
    std::ostringstream time;
    char text[32] = "";
    std::strftime(text, sizeof text, "%d %H:%M:%S", &local);
    return std::string("state[") + kManualState + "], trig[" + text + "], tab[" +
           job.job.RenderSchedule() + "], by[" + CallerName() + "]";
}

// Whether the daemon staged the program: only root can write to a valid runtime directory.
bool IsStagedByDaemon(const std::string &staged) {
    return OpenRuntimeDirectory() && XLIBCFileExist(staged.c_str());
}

// Gives the job the environment, working directory and file mode mask of the daemon instead of the
// caller's, so that it fails or succeeds as it would when launched. The new session has no
// controlling terminal, so that the job cannot send input to it.
void TakeDaemonEnvironment(const Daemon &daemon) {
    setsid();
    if (chdir("/") == -1)
        std::cerr << "kestcronctl: /: " << std::strerror(errno) << "\n";
    if (const int null = open("/dev/null", O_RDONLY); null != -1) {
        dup2(null, STDIN_FILENO);
        if (null != STDIN_FILENO)
            close(null);
    }
    clearenv();
    if (!daemon.IsRunning()) {
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

// The reasons why the job cannot run as its account, with the texts of the daemon's messages; empty
// if it can.
std::vector<std::string> AccountErrors(const CronJob &job, const Appliance &appliance) {
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
        TakeDaemonEnvironment(daemon);
        executionLog.BeSilent();
        if (job.BecomeCommand(note)) {
            status = kNotRun;
            std::cerr << "kestcronctl: cannot run the command; see the execution log\n";
        } else {
            std::cerr << "kestcronctl: cannot prepare the job; see the system log\n";
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

volatile std::sig_atomic_t runningJob = 0; // for the signal handler; also the ID of its session

void ForwardSignal(int number) {
    const ErrnoGuard errnoGuard;
    const auto job = static_cast<pid_t>(runningJob);
    if (kill(-job, number) == -1) // it has not created its session yet
        kill(job, number);
}

// Waits for the job and forwards signals to it. Returns the exit status of the tool.
int WaitFor(pid_t pid) {
    constexpr int signalled = 128;
    runningJob = pid;
    for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP})
        std::signal(number, ForwardSignal);
    int status = 0;
    while (waitpid(pid, &status, 0) == -1)
        if (errno != EINTR)
            throw Failure(std::string("cannot wait for the job: ") + std::strerror(errno));
    if (WIFSIGNALED(status)) {
        std::cerr << "kestcronctl: killed by signal " << WTERMSIG(status) << " ("
                  << strsignal(WTERMSIG(status)) << ")\n";
        return signalled + WTERMSIG(status);
    }
    return WEXITSTATUS(status);
}

} // namespace

int Run(const Context &context, const RunOptions &options) {
    if (!context.appliance.IsLocal())
        throw Failure("run works only on this system, without --root");
    if (geteuid() != 0)
        throw Failure("run requires root");
    const Runtime runtime = LoadRuntime(context.appliance);
    const Daemon daemon = FindDaemon(context.appliance);
    WarnOfStaleData(runtime, daemon, context);
    const LiveJob &job = JobArgument(context, runtime, options.job);
    if (!IsStagedByDaemon(job.staged))
        throw Failure(job.staged + " does not exist or was not staged by kestcrond");
    CronJob prepared = job.job;
    prepared.SetStaged(true);
    const std::vector<std::string> reasons = AccountErrors(prepared, context.appliance);
    for (const std::string &reason : reasons)
        std::cerr << "kestcronctl: " << Shown(reason) << "\n";
    if (!reasons.empty())
        return kNotPrepared;
    std::cout.flush();
    const pid_t pid = XLIBCProcForkEx(71);
    if (pid == -1)
        throw Failure(std::string("cannot fork: ") + std::strerror(errno));
    if (pid == 0)
        BecomeJob(prepared, daemon, LaunchNote(job, context.now));
    return WaitFor(pid);
}

} // namespace kest::ctl
