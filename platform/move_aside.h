// Getting something out of the way that other accounts may have put there.

#ifndef PLATFORM_MOVE_ASIDE_H
#define PLATFORM_MOVE_ASIDE_H

#include <string>

// Moves whatever stands at `path`, itself and not what it links to, into a new directory beside it
// that only the caller can enter. Returns false with errno set when it still stands there.
bool MoveAside(const std::string &path);

#endif
