#include "log/system_log.h"

#include "platform/descriptor.h"

#include <csignal>
#include <sys/socket.h>
#include <sys/time.h>
#include <syslog.h>

namespace {

volatile std::sig_atomic_t timeIsUp = 0;

void NoteThatTimeIsUp(int /*number*/) {
    timeIsUp = 1;
}

// While an object of this class lives, whatever waits is interrupted when `patience` is over, and
// again and again from then on: the log is tried twice.
class Patience {
public:
    explicit Patience(timeval patience) {
        struct sigaction interrupt {};
        interrupt.sa_handler = NoteThatTimeIsUp; // without SA_RESTART
        sigaction(SIGALRM, &interrupt, &action_);
        sigset_t alarm;
        sigemptyset(&alarm);
        sigaddset(&alarm, SIGALRM);
        sigprocmask(SIG_UNBLOCK, &alarm, &mask_);
        timeIsUp = 0;
        const itimerval timer{patience, patience};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    Patience(const Patience &) = delete;
    Patience &operator=(const Patience &) = delete;
    ~Patience() {
        const itimerval stopped{};
        setitimer(ITIMER_REAL, &stopped, nullptr);
        sigprocmask(SIG_SETMASK, &mask_, nullptr);
        sigaction(SIGALRM, &action_, nullptr);
    }

private:
    struct sigaction action_ {};
    sigset_t mask_{};
};

} // namespace

std::size_t LongestSystemLogText() {
    constexpr int usual = 212992;
    int size = 0;
    socklen_t length = sizeof size;
    const Descriptor local(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!local || getsockopt(local.Get(), SOL_SOCKET, SO_SNDBUF, &size, &length) == -1)
        size = usual;
    return static_cast<std::size_t>(size);
}

void WriteSystemLog(int priority, const char *text) {
    constexpr timeval patient{0, 500000};
    constexpr timeval impatient{0, 1000};
    static bool wasTaken = true;
    const Patience patience(wasTaken ? patient : impatient);
    syslog(priority, "%s", text);
    wasTaken = timeIsUp == 0;
}
