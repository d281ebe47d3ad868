// Code of a test that runs in a separate process.

#ifndef TESTS_UNIT_SUPPORT_CHILD_H
#define TESTS_UNIT_SUPPORT_CHILD_H

#include <functional>
#include <sys/types.h>

namespace kest {

// An account other than root that every system has: nobody.
constexpr uid_t kOtherAccount = 65534;

// Forks a process that runs `body` and exits with its result as status, without the exit handlers
// of this program. The status after an exception is 99.
pid_t StartChild(const std::function<int()> &body);

// Waits for the child, or for any child if `child` is -1. Returns its exit status, or -1 if it was
// killed or is not a child of this process.
int ExitStatusOf(pid_t child);

// Runs `body` in a child and returns the exit status of the child.
int InChild(const std::function<int()> &body);

// Calls `holds` until it returns true or some seconds have passed. Returns whether it became true.
bool Eventually(const std::function<bool()> &holds);

} // namespace kest

#endif
