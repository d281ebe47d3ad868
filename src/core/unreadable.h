// Keeps saved documents that cannot be read. They would be lost with the next save.

#ifndef CORE_UNREADABLE_H
#define CORE_UNREADABLE_H

#include <string>

namespace kest {

// The path under which the file at `path` is kept.
std::string UnreadableName(const std::string &path);

// Keeps the file at `path` under UnreadableName(path) too, unless it is missing or empty. Replaces
// a file that was kept before. Returns false with errno set on failure.
bool KeepUnreadable(const std::string &path);

} // namespace kest

#endif
