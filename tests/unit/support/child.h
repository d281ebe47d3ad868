// Parts of a test that need a process of their own.

#ifndef TESTS_UNIT_SUPPORT_CHILD_H
#define TESTS_UNIT_SUPPORT_CHILD_H

#include <functional>
#include <sys/types.h>

namespace kest {

// An account other than root that every system has: nobody.
constexpr uid_t kOtherAccount = 65534;

// Forks a process that runs `body` and ends with its result as exit status, without any of this
// program's own endings. An exception makes it 99.
pid_t StartChild(const std::function<int()> &body);

// Waits for the child, or for any when `child` is -1; its exit status, or -1 when it was killed or
// is no child of ours.
int ExitStatusOf(pid_t child);

// Both: the exit status of a child that runs `body`.
int InChild(const std::function<int()> &body);

// Calls `holds` until it is true or some seconds have passed; whether it came true.
bool Eventually(const std::function<bool()> &holds);

} // namespace kest

#endif
