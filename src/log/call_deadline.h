// A deadline, in real time, for a blocking call.

#ifndef LOG_CALL_DEADLINE_H
#define LOG_CALL_DEADLINE_H

#include <csignal>
#include <sys/time.h>

namespace kest {

// During the lifetime of an object, blocking calls are interrupted (EINTR) when `most` has passed,
// and repeatedly from then on. Uses SIGALRM and the real-time timer, and restores both, with the
// timer stopped. Only one object may exist at a time.
class CallDeadline {
public:
    explicit CallDeadline(timeval most);
    CallDeadline(const CallDeadline &) = delete;
    CallDeadline &operator=(const CallDeadline &) = delete;
    ~CallDeadline();

    bool IsOver() const;
    // The remaining time; 0 when the deadline has passed.
    timeval Left() const;

private:
    struct sigaction action_ {};
    sigset_t mask_{};
};

} // namespace kest

#endif
