#include "job/copier.h"

#include "base/errno_guard.h"
#include "job/runtime_directory.h"
#include "platform/kestcore.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <exception>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <unistd.h>

namespace kest {

namespace {

constexpr const char *kProcessName = "kestcrond-stage";

// Seconds. The platform library ends a copy after ten; a process that does not answer two seconds
// later was stopped.
constexpr int kLongestAnswer = 12;
constexpr int kAccountSeconds = 30;

// A request and an answer are one packet each. A request is cut after the text of `source`.
struct Request {
    int refusal;
    std::array<char, NAME_MAX + 1> name;
    std::array<char, PATH_MAX> source;
};
constexpr std::size_t kShortestRequest = offsetof(Request, source) + 1;

std::size_t SizeOf(const Request &request) {
    return kShortestRequest + std::strlen(request.source.data());
}
struct Greeting {
    Copier::Fault fault;
    int error;
};

template <std::size_t kSize>
void CopyText(const std::string &text, std::array<char, kSize> &to) {
    to[text.copy(to.data(), kSize - 1)] = '\0';
}

// --- In the process -----------------------------------------------------------------------------

// Whether `path` is on a file system without blocks: the kernel generates its files.
bool IsOfKernel(const char *path) {
    struct statvfs status {};
    return statvfs(path, &status) == 0 && status.f_blocks == 0;
}

// Whether `source` can be staged; errno is set when it cannot. Generated files appear empty, and
// some block their reader forever.
bool IsStageable(const char *source) {
    struct stat status {};
    if (stat(source, &status) == -1)
        return false;
    if (S_ISREG(status.st_mode) && (status.st_size != 0 || !IsOfKernel(source)))
        return true;
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return false;
}

// Links to a program that may be executed but not read.
ProgramCopy Link(const std::string &source, const std::string &target) {
    const std::string absolute = source.front() == '/' ? source : "/" + source;
    if (symlink(absolute.c_str(), target.c_str()) == 0)
        return {ProgramCopy::Outcome::Made};
    return {ProgramCopy::Outcome::Failed, errno};
}

ProgramCopy RunCopyProgram(const char *source, const std::string &target) {
    ProgramCopy copy;
    errno = 0;
    if (XLIBCExec(kCopyProgram, "-af", source, target.c_str(), nullptr) == 0) {
        copy.outcome = ProgramCopy::Outcome::Made;
        struct stat status {};
        if (stat(target.c_str(), &status) == -1)
            copy.targetError = errno;
    }
    copy.error = errno;
    copy.platformError = XLIBCErrGet();
    CopyText(XLIBCErrorGetFile(), copy.platformFile);
    copy.platformLine = XLIBCErrorGetLine();
    return copy;
}

ProgramCopy Answer(const Request &request, bool isRoot) {
    const char *source = request.source.data();
    const std::string target = std::string(kRuntimeDirectory) + "/" + request.name.data();
    errno = 0;
    if (!XLIBCFileExist(source))
        return {!isRoot && errno == EACCES ? ProgramCopy::Outcome::Failed
                                           : ProgramCopy::Outcome::NoProgram,
                errno};
    if (request.refusal != 0)
        return {ProgramCopy::Outcome::Refused, request.refusal};
    if (!IsStageable(source))
        return {ProgramCopy::Outcome::Refused, errno};
    // Stays open during the copy: no process can then take a lease, which would block the copy
    // program.
    const Descriptor held = OpenRegularFile(source);
    if (!held && errno == EACCES && access(source, X_OK) == 0)
        return Link(source, target);
    if (!held)
        return {ProgramCopy::Outcome::Failed, errno};
    return RunCopyProgram(source, target);
}

bool IsSameDirectory(const char *path, int directory) {
    struct stat named {};
    struct stat opened {};
    return stat(path, &named) == 0 && fstat(directory, &opened) == 0 &&
           named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
}

// Mounts the work directory over the runtime directory, for this process only.
bool EnterNamespace(const CopierPlace &place) {
    if (unshare(CLONE_NEWNS) == -1 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) == -1 ||
        mount(place.workPath.c_str(), kRuntimeDirectory, nullptr, MS_BIND, nullptr) == -1)
        return false;
    if (IsSameDirectory(kRuntimeDirectory, place.work))
        return true;
    errno = EPERM;
    return false;
}

void EndGroup(int /*number*/) {
    kill(0, SIGKILL);
}

// Ends this process when the time of its account is used up. The time counts over all answers.
class TimeLimit {
public:
    explicit TimeLimit(bool isLimited) : isLimited_(isLimited) {}
    void Start() const {
        if (isLimited_)
            setitimer(ITIMER_REAL, &left_, nullptr);
    }
    void Stop() {
        const itimerval none{};
        if (isLimited_)
            setitimer(ITIMER_REAL, &none, &left_);
    }

private:
    bool isLimited_;
    itimerval left_{{0, 0}, {kAccountSeconds, 0}};
};

void AnswerRequests(int socket, bool isRoot) {
    TimeLimit limit(!isRoot);
    Request request{};
    while (recv(socket, &request, sizeof request, 0) >= static_cast<ssize_t>(kShortestRequest)) {
        limit.Start();
        const ProgramCopy copy = Answer(request, isRoot);
        limit.Stop();
        if (send(socket, &copy, sizeof copy, MSG_NOSIGNAL) != sizeof copy)
            return;
    }
}

// Detaches the process from the daemon. Signals for the daemon that are sent to all processes of
// its name do not end a copy. The process has its own process group, so that it can be killed
// together with the copy program.
void LeaveDaemon(int socket) {
    prctl(PR_SET_NAME, kProcessName);
    setsid();
    signal(SIGCHLD, SIG_DFL);
    signal(SIGALRM, EndGroup);
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGHUP, SIGINT, SIGTERM})
        sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    CloseInheritedDescriptors(socket);
}

// The copy program gets an error at the limit instead of a signal.
bool LimitFiles(std::uint64_t most) {
    const rlimit limit{static_cast<rlim_t>(most), static_cast<rlim_t>(most)};
    signal(SIGXFSZ, SIG_IGN);
    return setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

Greeting Prepare(const CopierPlace &place, int socket) {
    errno = 0;
    Greeting greeting{Copier::Fault::None, 0};
    if (!place.workPath.empty() && !EnterNamespace(place))
        greeting = {Copier::Fault::NoNamespace, errno};
    LeaveDaemon(socket);
    // The account must not read the daemon's data that is still in this process's memory.
    if (greeting.fault == Copier::Fault::None && place.account != nullptr &&
        (!BecomeAccount(place.account->name, place.account->uid, place.account->gid,
                        place.extraGroup) ||
         prctl(PR_SET_DUMPABLE, 0) == -1 || !LimitFiles(place.mostBytes)))
        greeting = {Copier::Fault::NoRights, errno};
    return greeting;
}

[[noreturn]] void Serve(int socket, const CopierPlace &place, pid_t daemon) {
    try {
        const Greeting greeting = Prepare(place, socket);
        // Comes last, because a change of the account resets it.
        const bool endsWithDaemon = prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == daemon;
        if (endsWithDaemon &&
            send(socket, &greeting, sizeof greeting, MSG_NOSIGNAL) == sizeof greeting &&
            greeting.fault == Copier::Fault::None)
            AnswerRequests(socket, place.account == nullptr);
    } catch (const std::exception &) {
        _exit(EXIT_FAILURE);
    }
    _exit(EXIT_SUCCESS);
}

// --- In the daemon ------------------------------------------------------------------------------

// Creates both ends of a connection. Calls on the first end block for at most one second.
bool Connect(Descriptor &ours, Descriptor &theirs) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) == -1)
        return false;
    ours = Descriptor(ends[0]);
    theirs = Descriptor(ends[1]);
    constexpr timeval second{1, 0};
    return setsockopt(ours.Get(), SOL_SOCKET, SO_RCVTIMEO, &second, sizeof second) == 0 &&
           setsockopt(ours.Get(), SOL_SOCKET, SO_SNDTIMEO, &second, sizeof second) == 0;
}

} // namespace

// When the process has ended, its pid may belong to another process. The connection shows whether
// it has ended.
void Copier::End() {
    const ErrnoGuard errnoGuard;
    char nothing = 0;
    if (socket_ && recv(socket_.Get(), &nothing, sizeof nothing, MSG_PEEK | MSG_DONTWAIT) != 0) {
        kill(-process_, SIGKILL);
        kill(process_, SIGKILL);
    }
    socket_.Close();
}

std::unique_ptr<Copier> Copier::Start(const CopierPlace &place, Fault &fault,
                                      const std::atomic<bool> &stopRequested) {
    fault = Fault::NoProcess;
    Descriptor ours;
    Descriptor theirs;
    if (!Connect(ours, theirs))
        return nullptr;
    const pid_t daemon = getpid();
    const pid_t process = fork();
    if (process == 0)
        Serve(theirs.Get(), place, daemon);
    if (process == -1)
        return nullptr;
    theirs.Close();
    std::unique_ptr<Copier> copier(new Copier(std::move(ours), process));
    Greeting greeting{Fault::NoProcess, 0};
    if (!copier->Receive(&greeting, sizeof greeting, stopRequested))
        greeting = {Fault::NoProcess, errno};
    fault = greeting.fault;
    if (fault == Fault::None)
        return copier;
    copier.reset();
    errno = greeting.error;
    return nullptr;
}

bool Copier::Receive(void *reply, std::size_t size, const std::atomic<bool> &stopRequested) {
    for (int seconds = 0; seconds < kLongestAnswer;) {
        const ssize_t got = recv(socket_.Get(), reply, size, 0);
        if (got == static_cast<ssize_t>(size))
            return true;
        if (got != -1 || (errno != EINTR && errno != EAGAIN)) {
            errno = EPIPE;
            return false;
        }
        if (stopRequested) {
            errno = ECANCELED;
            return false;
        }
        seconds += errno == EAGAIN ? 1 : 0;
    }
    errno = ETIMEDOUT;
    return false;
}

ProgramCopy Copier::Copy(const std::string &name, const std::string &source, int refusal,
                         const std::atomic<bool> &stopRequested) {
    Request request{};
    request.refusal = refusal;
    CopyText(name, request.name);
    CopyText(source, request.source);
    const std::size_t size = SizeOf(request);
    ProgramCopy copy;
    if (send(socket_.Get(), &request, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size) &&
        Receive(&copy, sizeof copy, stopRequested))
        return copy;
    copy.error = errno;
    copy.outcome =
        copy.error == ECANCELED ? ProgramCopy::Outcome::Stopped : ProgramCopy::Outcome::Failed;
    End();
    return copy;
}

} // namespace kest
