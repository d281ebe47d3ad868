// Limits the resources of a command with --root. The files of another system, such as its
// documents, its log and its time zone, may be crafted to exhaust the machine that reads them.

#ifndef CTL_SYSTEM_LIMITS_H
#define CTL_SYSTEM_LIMITS_H

#include <cstddef>

namespace kest::ctl {

// Limits the program to four seconds of processor time. Beyond that it prints an error and exits
// with `status`.
void LimitTime(int status);

// Limits the memory of the program to ten times `documentSize` (bytes), but at least 64 MiB.
// Allocations beyond that throw std::bad_alloc.
void LimitMemory(std::size_t documentSize);

} // namespace kest::ctl

#endif
