// Whose a process is.

#ifndef BASE_PROCESS_OWNER_H
#define BASE_PROCESS_OWNER_H

#include <sys/types.h>

namespace kest {

// Whether the process `pid` is root's by its real, effective and saved user. The owner of
// "/proc/PID" does not tell: the kernel shows root for any process that may not be traced. errno is
// left as it was.
bool IsProcessOfRoot(pid_t pid);

} // namespace kest

#endif
