// The daemon program: a single instance, one option, detached, runs until a signal ends it.

#include "base/descriptor.h"
#include "base/errno_guard.h"
#include "base/paths.h"
#include "base/process_owner.h"
#include "core/crondaemon.h"
#include "log/error_log.h"
#include "log/memorylogger.h"
#include "platform/kestcore.h"

#include <algorithm>
#include <csignal>
#include <exception>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace kest {

// Constructed before main and destroyed after it, the log first.
static CronDaemon cronDaemon;
KEST::MemoryLogger executionLog(kExecutionLogFile, kLogStagingFile, kLogStagingKiB, kLogLockFile);

namespace {

bool passiveMode = false;

void handle_signal(int number) {
    if (number == SIGINT || number == SIGTERM)
        cronDaemon.stopRequested = true;
    else if (number == SIGHUP)
        cronDaemon.reloadRequested = true;
    else
        return;
    cronDaemon.sleepSeconds = 0;
}

// The command name of the process `pid`. Returns an empty text, with a message, on failure.
std::string get_pid_cmd(pid_t pid) {
    std::string command;
    XLIBCProc *process = nullptr;
    if (XLIBCProcGetByPid(pid, &process) < 0)
        LOG_ERROR("Unable to XLIBCProcGetByPid [%d][0x%04X %s:%d]", pid,
                  static_cast<unsigned>(XLIBCErrGet()), XLIBCErrorGetFile(), XLIBCErrorGetLine());
    else if (process == nullptr || process->command[0] == '\0')
        LOG_ERROR("Unable to get cmd [%d][0x%04X %s:%d]", pid, static_cast<unsigned>(XLIBCErrGet()),
                  XLIBCErrorGetFile(), XLIBCErrorGetLine());
    else
        command = process->command;
    XLIBCProcFree(process);
    return command;
}

// A pid file with the pid of this process is left from an earlier start: containers reuse the same
// pids. A pid file with the pid of an account's process that has the daemon's name is stale too.
bool is_named_by_pid_file() {
    const pid_t pid = XLIBCReadPidFile(kPidFile);
    return pid > 0 && pid != getpid() && XLIBCProcAlive(pid) == 1 &&
           get_pid_cmd(pid) == kDaemonName && IsProcessOfRoot(pid);
}

// The pid file may be removed while its daemon runs; a service manager does so after a start has
// timed out. Therefore a lock on a file that is never removed decides. The lock ends with the
// process; closing any descriptor of the file would release it.
struct flock lock_of_instance() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

bool is_locked() {
    const ErrnoGuard errnoGuard;
    const Descriptor file = OpenOwnFile(kInstanceLockFile, O_RDWR);
    struct flock lock = lock_of_instance();
    return file && fcntl(file.Get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool lock_instance() {
    Descriptor file = OpenOwnFile(kInstanceLockFile, O_RDWR | O_CREAT);
    struct flock lock = lock_of_instance();
    if (!file || fcntl(file.Get(), F_SETLK, &lock) == -1)
        return false;
    static_cast<void>(file.Release()); // stays locked until the process ends
    return true;
}

bool is_running() {
    return is_named_by_pid_file() || is_locked();
}

bool close_stdio() {
    const int fd = open("/dev/null", O_RDWR);
    if (fd == -1)
        return false;
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        dup2(fd, stream);
    close(fd);
    return true;
}

bool parse_arguments(int argc, char *argv[]) {
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) != kPassiveOption)
            return false;
        passiveMode = true;
    }
    return true;
}

void raise_limit(decltype(RLIMIT_FSIZE) resource, rlim_t soft, rlim_t hard) {
    rlimit limit{};
    getrlimit(resource, &limit);
    const rlimit wanted{std::max(limit.rlim_cur, soft), std::max(limit.rlim_max, hard)};
    if (setrlimit(resource, &wanted) == 0)
        return;
    // Without the right to raise the hard limit, use the hard limit.
    limit.rlim_cur = std::min(wanted.rlim_cur, limit.rlim_max);
    setrlimit(resource, &limit);
}

// Resets the limits of the shell that started the daemon: the daemon and its jobs get at least the
// limits that the kernel gives the first process, and leave no core dump unless they request it.
void set_limits() {
    const ErrnoGuard errnoGuard; // limits that cannot be raised stay as they are
    signal(SIGXFSZ, SIG_IGN);
    raise_limit(RLIMIT_FSIZE, RLIM_INFINITY, RLIM_INFINITY);
    raise_limit(RLIMIT_NOFILE, 1024, 4096);
    rlimit core{};
    getrlimit(RLIMIT_CORE, &core);
    core.rlim_cur = 0;
    setrlimit(RLIMIT_CORE, &core);
}

bool become_daemon() {
    if (daemon(0, 0) == -1)
        return false;
    set_limits();
    // Drop inherited descriptors and signal masks.
    CloseInheritedDescriptors();
    sigset_t none;
    sigemptyset(&none);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        signal(number, handle_signal);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGCHLD, SIG_IGN); // the kernel reaps jobs that have ended
    sigprocmask(SIG_SETMASK, &none, nullptr);
    return lock_instance() && XLIBCProcPidFileCreate(kPidFile) >= 0;
}

// Initialises the daemon. An exception is reported here and counts as a failure of its own.
bool initialise() {
    try {
        if (cronDaemon.Init(passiveMode))
            return true;
        LOG_ERROR("init daemon failed");
    } catch (const std::exception &error) {
        LOG_ERROR("caught a std::exception: %s", error.what());
    }
    return false;
}

int RunDaemon(int argc, char *argv[]) {
    if (is_running()) {
        LOG_ERROR("Daemon is running");
        return -1;
    }
    if (!close_stdio()) {
        LOG_ERROR("Close stdio failed");
        return -1;
    }
    if (!parse_arguments(argc, argv)) {
        LOG_ERROR("parse_arguments failed");
        return -1;
    }
    if (!become_daemon()) {
        LOG_ERROR("become_daemon failed");
        return -1;
    }
    if (!initialise())
        return -1;
    try {
        cronDaemon.Run();
    } catch (const std::exception &error) {
        LOG_ERROR("caught a std::exception: %s", error.what());
    }
    if (unlink(kPidFile) == -1)
        LOG_ERROR("Unable to clean pid file %m");
    return 0;
}

} // namespace

} // namespace kest

int main(int argc, char *argv[]) {
    return kest::RunDaemon(argc, argv);
}
