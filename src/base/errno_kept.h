// Keeps errno as it was for the length of a scope. Messages tell errno as it stands, so work whose
// failure is of no interest must not leave its own error behind.

#ifndef BASE_ERRNO_KEPT_H
#define BASE_ERRNO_KEPT_H

#include <cerrno>

class ErrnoKept {
public:
    ErrnoKept() = default;
    ErrnoKept(const ErrnoKept &) = delete;
    ErrnoKept &operator=(const ErrnoKept &) = delete;
    ~ErrnoKept() { errno = error_; }

private:
    int error_ = errno;
};

#endif
