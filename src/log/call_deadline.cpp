#include "log/call_deadline.h"

namespace kest {

namespace {

volatile std::sig_atomic_t timeIsUp = 0;

void NoteExpiry(int /*number*/) {
    timeIsUp = 1;
}

} // namespace

CallDeadline::CallDeadline(timeval most) {
    constexpr timeval again{0, 1000}; // the call may block just after the deadline
    struct sigaction interrupt {};
    interrupt.sa_handler = NoteExpiry; // without SA_RESTART
    sigaction(SIGALRM, &interrupt, &action_);
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    sigprocmask(SIG_UNBLOCK, &alarm, &mask_);
    timeIsUp = most.tv_sec == 0 && most.tv_usec == 0 ? 1 : 0;
    const itimerval timer{again, timeIsUp != 0 ? again : most};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

CallDeadline::~CallDeadline() {
    const itimerval stopped{};
    setitimer(ITIMER_REAL, &stopped, nullptr);
    sigprocmask(SIG_SETMASK, &mask_, nullptr);
    sigaction(SIGALRM, &action_, nullptr);
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): asked of an object that lives
bool CallDeadline::IsOver() const {
    return timeIsUp != 0;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): asked of an object that lives
timeval CallDeadline::Left() const {
    itimerval timer{};
    getitimer(ITIMER_REAL, &timer);
    // Checked last: a timer that has expired has been restarted.
    return timeIsUp != 0 ? timeval{} : timer.it_value;
}

} // namespace kest
