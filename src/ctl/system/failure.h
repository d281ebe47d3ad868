#ifndef CTL_SYSTEM_FAILURE_H
#define CTL_SYSTEM_FAILURE_H

#include <stdexcept>

namespace kest::ctl {

// An error that ends a command: the program prints the message and exits with status 2.
class Failure : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace kest::ctl

#endif
