#include "platform/kestcore.h"

#include "base/descriptor.h"
#include "base/errno_guard.h"
#include "base/exit_statuses.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using kest::ChildStatusGuard;
using kest::CloseInheritedDescriptors;
using kest::Descriptor;
using kest::ErrnoGuard;
using kest::ReadAll;
using kest::WriteAll;

namespace {

// The codes that XLIBCErrGet returns.
enum ErrorCode {
    kNoError = 0x0000,
    kNoSuchProcess = 0x0100,
    kPidFileNotWritten = 0x0200,
    kPidFileHeld = 0x0201,
    kForkFailed = 0x0300,
    kNotStarted = 0x0301,
    kProgramFailed = 0x0302,
    kProgramKilled = 0x0303,
    kProgramTooSlow = 0x0304,
    kNoSuchFile = 0x0400
};

struct LastError {
    int code;
    int line;
};

LastError &TheLastError() {
    static LastError error{};
    return error;
}

void Record(ErrorCode code, int line) {
    TheLastError() = {code, code == kNoError ? 0 : line};
}
int Fail(ErrorCode code, int line) {
    Record(code, line);
    return -1;
}
int Succeed() {
    Record(kNoError, 0);
    return 0;
}

// The content of the small file `path`, empty when it cannot be read.
std::string Content(const std::string &path) {
    const ErrnoGuard errnoGuard;
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    std::string content;
    if (!file || !ReadAll(file.Get(), 4096, content))
        return {};
    return content;
}

std::string ProcessFile(pid_t pid, const char *name) {
    return Content("/proc/" + std::to_string(pid) + "/" + name);
}

// Whether `pid` has ended and only waits for its parent to collect it.
bool IsZombie(pid_t pid) {
    const std::string stat = ProcessFile(pid, "stat");
    const auto name = stat.rfind(')'); // the name before it may hold anything
    return name != std::string::npos && stat.compare(name, 3, ") Z") == 0;
}

// Starts `path` with the default action for every signal, but with the daemon's own signals
// blocked: a signal that is sent to all processes of the daemon's name must not end a process that
// was just forked and still has this name. Returns an errno value, 0 for success.
int Spawn(pid_t &pid, const char *path, char *const argv[]) {
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    sigset_t set;
    sigfillset(&set);
    posix_spawnattr_setsigdefault(&attributes, &set);
    sigemptyset(&set);
    for (const int number : {SIGHUP, SIGINT, SIGTERM})
        sigaddset(&set, number);
    posix_spawnattr_setsigmask(&attributes, &set);
    const int error = posix_spawn(&pid, path, nullptr, &attributes, argv, environ);
    posix_spawnattr_destroy(&attributes);
    return error;
}

// Blocks SIGCHLD for the length of a scope, so that a child's end can be waited for with a
// time-out.
class ChildSignalBlocked {
public:
    ChildSignalBlocked() {
        sigemptyset(&set_);
        sigaddset(&set_, SIGCHLD);
        sigprocmask(SIG_BLOCK, &set_, &before_);
    }
    ChildSignalBlocked(const ChildSignalBlocked &) = delete;
    ChildSignalBlocked &operator=(const ChildSignalBlocked &) = delete;
    ~ChildSignalBlocked() {
        const ErrnoGuard errnoGuard;
        sigprocmask(SIG_SETMASK, &before_, nullptr);
    }

    // Returns false when a whole second has passed without a signal.
    bool WaitOneSecond() const {
        constexpr timespec second{1, 0};
        return sigtimedwait(&set_, nullptr, &second) != -1 || errno != EAGAIN;
    }

private:
    sigset_t set_{};
    sigset_t before_{};
};

// Collects the child `pid` if it ends within `seconds`. Returns its pid, 0 when it did not end, or
// -1 with errno set. Counts whole seconds instead of reading a clock, which may be set.
pid_t WaitFor(pid_t pid, int seconds, int &status) {
    const ChildSignalBlocked blocked;
    for (;;) {
        const pid_t ended = waitpid(pid, &status, WNOHANG);
        if (ended != 0 || seconds == 0)
            return ended;
        if (!blocked.WaitOneSecond())
            --seconds;
    }
}

// How long a program may run, in seconds, and how long it may take to end after it was killed. A
// program that waits for a broken device does not end even then; it is left behind.
constexpr int kLongestRun = 10;
constexpr int kLongestEnd = 1;

int RunAndWait(const char *path, char *const argv[]) {
    const ChildStatusGuard statuses;
    pid_t pid = -1;
    const int error = Spawn(pid, path, argv);
    if (error != 0) {
        errno = error;
        return Fail(kNotStarted, __LINE__);
    }
    int status = 0;
    const pid_t ended = WaitFor(pid, kLongestRun, status);
    if (ended == 0) {
        kill(pid, SIGKILL);
        WaitFor(pid, kLongestEnd, status);
        errno = ETIMEDOUT;
        return Fail(kProgramTooSlow, __LINE__);
    }
    if (ended == -1 || !WIFEXITED(status))
        return Fail(kProgramKilled, __LINE__);
    if (WEXITSTATUS(status) == 0)
        return Succeed();
    Record(kProgramFailed, __LINE__);
    return WEXITSTATUS(status);
}

// Opens and locks the pid file; no descriptor when another process holds it or it cannot be opened.
Descriptor LockPidFile(const char *path) {
    for (;;) {
        Descriptor file(open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW, 0644));
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        if (!file || fcntl(file.Get(), F_SETLK, &lock) == -1)
            return {};
        // The process that held the lock may have removed the file before it released the lock.
        struct stat held {};
        struct stat named {};
        if (fstat(file.Get(), &held) == -1)
            return {};
        if (stat(path, &named) == 0 && held.st_ino == named.st_ino && held.st_dev == named.st_dev)
            return file;
    }
}

} // namespace

pid_t XLIBCReadPidFile(const char *path) {
    const std::string content = Content(path);
    pid_t pid = 0;
    std::from_chars(content.data(), content.data() + content.size(), pid);
    Succeed();
    return pid;
}

int XLIBCProcAlive(pid_t pid) {
    const ErrnoGuard errnoGuard;
    Succeed();
    const bool exists = kill(pid, 0) == 0 || errno == EPERM;
    return exists && !IsZombie(pid) ? 1 : 0;
}

int XLIBCProcGetByPid(pid_t pid, XLIBCProc **process) {
    const std::string command = ProcessFile(pid, "comm");
    if (command.empty())
        return Fail(kNoSuchProcess, __LINE__);
    auto record = std::make_unique<XLIBCProc>();
    record->pid = pid;
    command.copy(record->command, sizeof record->command - 1);
    record->command[std::strcspn(record->command, "\n")] = '\0';
    *process = record.release();
    return Succeed();
}

void XLIBCProcFree(XLIBCProc *process) {
    delete process;
}

int XLIBCProcPidFileCreate(const char *path) {
    Descriptor file = LockPidFile(path);
    if (!file)
        return Fail(errno == EACCES || errno == EAGAIN ? kPidFileHeld : kPidFileNotWritten,
                    __LINE__);
    if (ftruncate(file.Get(), 0) == -1 || !WriteAll(file.Get(), std::to_string(getpid()) + "\n"))
        return Fail(kPidFileNotWritten, __LINE__);
    // Stays open, and so locked, until the process ends.
    static_cast<void>(file.Release());
    return Succeed();
}

pid_t XLIBCProcForkEx(int /*flags*/) {
    // No signal may reach the child while it still has its parent's handlers.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before);
    const pid_t pid = fork();
    if (pid == 0) {
        setsid(); // signals to its process group must not reach its parent
        for (const int number : {SIGINT, SIGTERM, SIGPIPE})
            signal(number, SIG_DFL);
        signal(SIGHUP, SIG_IGN);
        CloseInheritedDescriptors();
        sigemptyset(&before);
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
    Record(pid == -1 ? kForkFailed : kNoError, __LINE__);
    return pid;
}

int XLIBCExecv(const char *path, char *const argv[], int /*flag*/) {
    {
        const ErrnoGuard errnoGuard;
        for (int number = 1; number <= SIGRTMAX; ++number)
            signal(number, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (path != nullptr)
        execv(path, argv);
    else
        errno = EFAULT; // an empty command
    return Fail(kNotStarted, __LINE__);
}

int XLIBCExec(const char *path, ...) {
    std::vector<char *> argv{const_cast<char *>(path)};
    va_list rest;
    va_start(rest, path);
    do
        argv.push_back(va_arg(rest, char *));
    while (argv.back() != nullptr);
    va_end(rest);
    return RunAndWait(path, argv.data());
}

bool XLIBCFileExist(const char *path) {
    struct stat status {};
    const bool exists = stat(path, &status) == 0;
    Record(exists ? kNoError : kNoSuchFile, __LINE__);
    return exists;
}

int XLIBCErrGet() {
    return TheLastError().code;
}
const char *XLIBCErrorGetFile() {
    return TheLastError().code == kNoError ? "" : "kestcore.cpp";
}
int XLIBCErrorGetLine() {
    return TheLastError().line;
}
