// A bound, in real time, on a call that waits.

#ifndef LOG_PATIENCE_H
#define LOG_PATIENCE_H

#include <csignal>
#include <sys/time.h>

// While an object of this class lives, a call that waits is interrupted (EINTR) when `most` is
// over, and again and again from then on. Uses SIGALRM and the real-time timer, and leaves both as
// they were set up, the timer stopped. One object at a time.
class Patience {
public:
    explicit Patience(timeval most);
    Patience(const Patience &) = delete;
    Patience &operator=(const Patience &) = delete;
    ~Patience();

    bool IsOver() const;
    // What is left of the time; 0 when it is over.
    timeval Left() const;

private:
    struct sigaction action_ {};
    sigset_t mask_{};
};

#endif
