// The way into the system log.

#ifndef LOG_SYSTEM_LOG_H
#define LOG_SYSTEM_LOG_H

#include <cstddef>

// Each program links an implementation. The daemon's writes `text` to the system log as syslog()
// does, but never waits long: the log's socket takes a few messages only when nobody reads it, and
// a scheduler has other things to do than to stand before it. A message that could not be handed
// over within a second is lost, and so is each one after it that is not taken at once. errno may
// change. Uses SIGALRM and the real-time timer, and leaves both as they were set up, the timer
// stopped.
void WriteSystemLog(int priority, const char *text);

// The length beyond which the system log takes no text, in bytes. It may take less.
std::size_t LongestSystemLogText();

#endif
