// The exit statuses of children, for a program that ignores SIGCHLD.

#ifndef BASE_EXIT_STATUSES_H
#define BASE_EXIT_STATUSES_H

#include "base/errno_guard.h"

#include <csignal>
#include <sys/wait.h>

namespace kest {

// While an object of this class lives, a child that ends stays there to be waited for even though
// the program ignores SIGCHLD, so that its pid cannot become somebody else's. At its end SIGCHLD is
// as before, and children that ended meanwhile are collected, as ignoring the signal would have
// done.
class ExitStatusesKept {
public:
    ExitStatusesKept() {
        sigaction(SIGCHLD, nullptr, &before_);
        if (Ignored())
            signal(SIGCHLD, SIG_DFL);
    }
    ExitStatusesKept(const ExitStatusesKept &) = delete;
    ExitStatusesKept &operator=(const ExitStatusesKept &) = delete;
    ~ExitStatusesKept() {
        if (!Ignored())
            return;
        const ErrnoGuard errnoGuard;
        sigaction(SIGCHLD, &before_, nullptr);
        while (waitpid(-1, nullptr, WNOHANG) > 0)
            continue;
    }

private:
    bool Ignored() const { return before_.sa_handler == SIG_IGN; }
    struct sigaction before_ {};
};

} // namespace kest

#endif
