// Keeps the exit statuses of children available in a program that ignores SIGCHLD.

#ifndef BASE_EXIT_STATUSES_H
#define BASE_EXIT_STATUSES_H

#include "base/errno_guard.h"

#include <csignal>
#include <sys/wait.h>

namespace kest {

// During the lifetime of an object, children that end can be waited for even though the program
// ignores SIGCHLD, so that their pids are not reused. The destructor restores the disposition of
// SIGCHLD and reaps the children that ended meanwhile, as ignoring the signal would have done.
class ChildStatusGuard {
public:
    ChildStatusGuard() {
        sigaction(SIGCHLD, nullptr, &before_);
        if (Ignored())
            signal(SIGCHLD, SIG_DFL);
    }
    ChildStatusGuard(const ChildStatusGuard &) = delete;
    ChildStatusGuard &operator=(const ChildStatusGuard &) = delete;
    ~ChildStatusGuard() {
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
