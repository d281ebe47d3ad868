// Restores errno at the end of a scope. Messages include errno, so an operation whose failure is
// ignored must not change it.

#ifndef BASE_ERRNO_GUARD_H
#define BASE_ERRNO_GUARD_H

#include <cerrno>

namespace kest {

class ErrnoGuard {
public:
    ErrnoGuard() = default;
    ErrnoGuard(const ErrnoGuard &) = delete;
    ErrnoGuard &operator=(const ErrnoGuard &) = delete;
    ~ErrnoGuard() { errno = error_; }

private:
    int error_ = errno;
};

} // namespace kest

#endif
