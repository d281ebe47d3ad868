// What becomes of a saved document that cannot be read: it would be lost with the next save.

#ifndef CORE_UNREADABLE_H
#define CORE_UNREADABLE_H

#include <string>

namespace kest {

// The name under which the file at `path` is kept.
std::string UnreadableName(const std::string &path);

// Keeps the file at `path`, if there is one with something in it, under UnreadableName(path) too,
// in the place of one that was kept before. Returns false with errno set when it cannot be kept.
bool KeepUnreadable(const std::string &path);

} // namespace kest

#endif
