// Places where other accounts may have put something first.

#ifndef BASE_MOVE_ASIDE_H
#define BASE_MOVE_ASIDE_H

#include <string>

namespace kest {

// Whether `path` is a directory of the caller's own, and no link to one. Where it is not, errno
// tells why (EPERM: somebody else's).
bool IsOwnDirectory(const char *path);

// Moves whatever stands at `path`, itself and not what it links to, into a new directory beside it
// that only the caller can enter. Returns false with errno set when it still stands there.
bool MoveAside(const std::string &path);

} // namespace kest

#endif
