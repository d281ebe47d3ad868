// Reads small files and links.

#ifndef CTL_SYSTEM_FILES_H
#define CTL_SYSTEM_FILES_H

#include <string>

namespace kest::ctl {

// The content of a regular file of at most 1 MiB; empty if it cannot be read.
std::string ReadFile(const std::string &path);

// The target of a symbolic link; empty for anything else.
std::string ReadLink(const std::string &path);

} // namespace kest::ctl

#endif
