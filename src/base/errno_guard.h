// Keeps errno as it was for the length of a scope. Messages tell errno as it stands, so work whose
// failure is of no interest must not leave its own error behind.

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
