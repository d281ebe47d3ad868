// The program: one instance, no arguments but one, detached, until a signal ends it.

#include "core/crondaemon.h"
#include "core/paths.h"
#include "log/error_log.h"
#include "log/memorylogger.h"
#include "platform/descriptor.h"
#include "platform/kestcore.h"

#include <csignal>
#include <exception>
#include <fcntl.h>
#include <string>
#include <unistd.h>

// Made before main and destroyed after it, the log first.
static CronDaemon cronDaemon;
KEST::MemoryLogger executionLog(kExecutionLogFile, kLogStagingFile, kLogStagingKiB);

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

// The command name of the process `pid`; empty, with a message, when it cannot be had.
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

// A pid file that names this very process is left from before a restart: a container hands out the
// same pids again.
bool is_running() {
    const pid_t pid = XLIBCReadPidFile(kPidFile);
    return pid > 0 && pid != getpid() && XLIBCProcAlive(pid) == 1 &&
           get_pid_cmd(pid) == kDaemonName;
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

bool become_daemon() {
    if (daemon(0, 0) == -1)
        return false;
    // What the starter had open or blocked is not for the life of a daemon.
    CloseInheritedDescriptors();
    sigset_t none;
    sigemptyset(&none);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        signal(number, handle_signal);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGCHLD, SIG_IGN); // ended jobs are reaped by the kernel
    sigprocmask(SIG_SETMASK, &none, nullptr);
    return XLIBCProcPidFileCreate(kPidFile) >= 0;
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

} // namespace

int main(int argc, char *argv[]) {
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
