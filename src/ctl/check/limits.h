// What a command may use up. The files of another system may have been made by somebody who wants
// to keep the machine that looks at them busy: its documents, its log, its time zone.

#ifndef CTL_CHECK_LIMITS_H
#define CTL_CHECK_LIMITS_H

#include <cstddef>

namespace kest::ctl {

// Lets the program run for four seconds of processor time; then it says so and ends with `status`.
// Nothing that it does waits for others.
void LimitTime(int status);

// Lets the program have ten times as much memory as the largest document that it reads, in bytes,
// at least 64 MiB. What needs more throws std::bad_alloc.
void LimitMemory(std::size_t documentSize);

} // namespace kest::ctl

#endif
