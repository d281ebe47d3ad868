// The owner of a process.

#ifndef BASE_PROCESS_OWNER_H
#define BASE_PROCESS_OWNER_H

#include <sys/types.h>

namespace kest {

// Whether root is the real, effective and saved user of the process `pid`. The owner of "/proc/PID"
// is not reliable: the kernel shows root for every process that is not dumpable. errno is
// unchanged.
bool IsProcessOfRoot(pid_t pid);

} // namespace kest

#endif
