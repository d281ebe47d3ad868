// Paths in directories that other accounts can write to.

#ifndef BASE_MOVE_ASIDE_H
#define BASE_MOVE_ASIDE_H

#include <string>

namespace kest {

// Whether `path` is a directory that belongs to the caller, and not a link to one. When it is not,
// errno is set (EPERM: it belongs to another account).
bool IsOwnDirectory(const char *path);

// Moves the object at `path` into a new directory beside it that only the caller can enter. A
// symbolic link is moved itself. Returns false with errno set when the object could not be moved.
bool MoveAside(const std::string &path);

} // namespace kest

#endif
