// Access to the system log.

#ifndef LOG_SYSTEM_LOG_H
#define LOG_SYSTEM_LOG_H

#include "base/descriptor.h"

#include <cstddef>

namespace kest {

// Writes `text` to the system log as syslog() does, but does not block for long: the log's socket
// holds only a few messages while no process reads them. All messages of a cycle together wait for
// half a second at most. Messages that the log has not taken by then are kept and sent later
// (log/system_log_sender.h). errno may change. Uses SIGALRM and the real-time timer, and restores
// both, with the timer stopped.
void WriteSystemLog(int priority, const char *text);

// Begins a new half second. Sends kept messages as far as the log accepts them at once. Returns a
// descriptor that polls as writable when the log accepts more, or an empty one when no message is
// kept or no process reads the log.
Descriptor CatchUpWithSystemLog();

// An upper bound of the length of a text that the system log accepts, in bytes. Longer texts are
// cut.
std::size_t LongestSystemLogText();

} // namespace kest

#endif
