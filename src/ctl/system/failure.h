// What ends a command.

#ifndef CTL_SYSTEM_FAILURE_H
#define CTL_SYSTEM_FAILURE_H

#include <stdexcept>

namespace kest::ctl {

// Something that a command needs cannot be had: the program says so and exits with 2.
class Failure : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace kest::ctl

#endif
