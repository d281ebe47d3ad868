// A bound, in real time, on a call that waits.

#ifndef LOG_CALL_DEADLINE_H
#define LOG_CALL_DEADLINE_H

#include <csignal>
#include <sys/time.h>

namespace kest {

// While an object of this class lives, a call that waits is interrupted (EINTR) when `most` is
// over, and again and again from then on. Uses SIGALRM and the real-time timer, and leaves both as
// they were set up, the timer stopped. One object at a time.
class CallDeadline {
public:
    explicit CallDeadline(timeval most);
    CallDeadline(const CallDeadline &) = delete;
    CallDeadline &operator=(const CallDeadline &) = delete;
    ~CallDeadline();

    bool IsOver() const;
    // What is left of the time; 0 when it is over.
    timeval Left() const;

private:
    struct sigaction action_ {};
    sigset_t mask_{};
};

} // namespace kest

#endif
