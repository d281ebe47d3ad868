// The world of a daemon under comparison, preloaded into it: a clock that stands still until the
// script sets it, sleeps that end when the script ends them, and draws from a stream with a seed.
// With them two programs that do the same do it in the same second, in the same order and with the
// same values, however fast the machine is.
//
// What the script writes and reads is the file "/dev/clock", in memory (stepped_machine.py has the
// same layout). The wait between two cycles ends with a byte from the pipe "/dev/go"; its beginning
// is announced in the pipe "/dev/waits" with its length.

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

enum SleeperState : std::int32_t { kNobody = 0, kAsleep = 1, kAwake = 2 };

struct Sleeper {
    std::int64_t until; // by the steady clock
    std::int32_t state;
    std::int32_t unused;
};

constexpr std::int32_t kMostSleepers = 65535;

struct World {
    std::int64_t now;    // seconds since the epoch
    std::int64_t steady; // seconds of a clock that nobody sets
    std::uint64_t seed;
    std::int32_t sleepers;
    std::int32_t unused;
    Sleeper sleeper[kMostSleepers];
};

World *Map() {
    const int file = open("/dev/clock", O_RDWR | O_CLOEXEC);
    void *const memory = mmap(nullptr, sizeof(World), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (file == -1 || memory == MAP_FAILED)
        abort();
    close(file);
    return static_cast<World *>(memory);
}

World &TheWorld() {
    static World *const world = Map();
    return *world;
}

void WaitWhile(std::int32_t *word, std::int32_t value, const timespec *most) {
    syscall(SYS_futex, word, FUTEX_WAIT, value, most, nullptr, 0);
}

void Wake(std::int32_t *word) {
    syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

template <typename Function>
Function *Next(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

// In a forked child, what its parent waits for; null otherwise.
std::int32_t *isOnItsWay = nullptr;

void LetParentGoOn() {
    if (isOnItsWay == nullptr)
        return;
    __atomic_store_n(isOnItsWay, 1, __ATOMIC_SEQ_CST);
    Wake(isOnItsWay);
    isOnItsWay = nullptr;
}

} // namespace

// --- Time ---------------------------------------------------------------------------------------

extern "C" std::time_t time(std::time_t *result) noexcept {
    const std::time_t now = TheWorld().now;
    if (result != nullptr)
        *result = now;
    return now;
}

extern "C" int gettimeofday(timeval *now, void * /*zone*/) noexcept {
    *now = {TheWorld().now, 0};
    return 0;
}

extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept {
    switch (clock) {
    case CLOCK_REALTIME:
    case CLOCK_REALTIME_COARSE:
        *now = {TheWorld().now, 0};
        return 0;
    case CLOCK_MONOTONIC:
    case CLOCK_MONOTONIC_COARSE:
    case CLOCK_MONOTONIC_RAW:
    case CLOCK_BOOTTIME:
        *now = {TheWorld().steady, 0};
        return 0;
    default:
        return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    }
}

// The start that a child waits with.
extern "C" unsigned sleep(unsigned seconds) {
    World &world = TheWorld();
    const std::int32_t number = __atomic_fetch_add(&world.sleepers, 1, __ATOMIC_SEQ_CST);
    if (number >= kMostSleepers)
        abort();
    Sleeper &self = world.sleeper[number];
    self.until = world.steady + seconds;
    __atomic_store_n(&self.state, kAsleep, __ATOMIC_SEQ_CST);
    LetParentGoOn();
    while (__atomic_load_n(&self.state, __ATOMIC_SEQ_CST) == kAsleep)
        WaitWhile(&self.state, kAsleep, nullptr);
    return 0;
}

// The wait between two cycles. While the system log has to catch up, the daemon waits for that too;
// the script is asked when nothing but time is left to wait for.
extern "C" int pselect(int count, fd_set *readable, fd_set *writable, fd_set *exceptional,
                       const timespec *timeout, const sigset_t *mask) {
    const struct {
        const sigset_t *mask;
        std::size_t size;
    } during = {mask, _NSIG / 8};
    if (count > 0)
        return static_cast<int>(
            syscall(SYS_pselect6, count, readable, writable, exceptional, nullptr, &during));
    const int go = open("/dev/go", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int waits = open("/dev/waits", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    const std::int64_t seconds = timeout->tv_sec;
    if (go == -1 || waits == -1 || write(waits, &seconds, sizeof seconds) != sizeof seconds)
        abort();
    fd_set told;
    FD_ZERO(&told);
    FD_SET(go, &told);
    int result =
        static_cast<int>(syscall(SYS_pselect6, go + 1, &told, nullptr, nullptr, nullptr, &during));
    const int error = errno;
    char byte = 0;
    if (result > 0)
        result = read(go, &byte, 1) == 1 ? 0 : -1;
    close(waits);
    close(go);
    errno = error;
    return result;
}

// --- Draws --------------------------------------------------------------------------------------

extern "C" ssize_t getrandom(void *buffer, std::size_t size, unsigned /*flags*/) {
    static std::uint64_t state = TheWorld().seed;
    auto *bytes = static_cast<unsigned char *>(buffer);
    for (std::size_t i = 0; i < size; ++i) {
        if (i % sizeof state == 0)
            state = state * 6364136223846793005U + 1442695040888963407U;
        bytes[i] = static_cast<unsigned char>(state >> (8 * (7 - i % sizeof state)));
    }
    return static_cast<ssize_t>(size);
}

// --- Order --------------------------------------------------------------------------------------

namespace {

// Whether the child has ended, collected or not.
bool HasEnded(pid_t child) {
    siginfo_t ended{};
    return kill(child, 0) == -1 ||
           (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
            ended.si_pid == child);
}

} // namespace

// A parent goes on when its child sleeps, talks to it, or has ended, also as another program. What
// a cycle starts at once is over when it starts the next.
extern "C" pid_t fork() noexcept {
    const int before = errno;
    void *const memory = mmap(nullptr, sizeof(std::int32_t), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto *const word = static_cast<std::int32_t *>(memory);
    errno = before;
    const pid_t pid = Next<pid_t()>("fork")();
    if (pid == 0) {
        isOnItsWay = word;
        return 0;
    }
    const int error = errno;
    constexpr timespec moment{0, 200000};
    constexpr int most = 50000; // about ten seconds
    for (int i = 0; pid > 0 && i < most; ++i) {
        if (__atomic_load_n(word, __ATOMIC_SEQ_CST) != 0 || HasEnded(pid))
            break;
        WaitWhile(word, 0, &moment);
    }
    munmap(memory, sizeof(std::int32_t));
    errno = error;
    return pid;
}

extern "C" ssize_t send(int socket, const void *bytes, std::size_t size, int flags) {
    const ssize_t sent =
        Next<ssize_t(int, const void *, std::size_t, int)>("send")(socket, bytes, size, flags);
    const int error = errno;
    LetParentGoOn();
    errno = error;
    return sent;
}

extern "C" void _exit(int status) {
    LetParentGoOn();
    syscall(SYS_exit_group, status);
    __builtin_unreachable();
}

// The one process that is started is the daemon, so that whoever has started it sees how it ends.
extern "C" int daemon(int /*stayHere*/, int /*keepStreams*/) noexcept {
    setsid();
    return chdir("/");
}
