// Reads small files and links.

#ifndef CTL_SYSTEM_FILES_H
#define CTL_SYSTEM_FILES_H

#include <cstddef>
#include <string>

namespace kest::ctl {

// The content of a regular file of at most 1 MiB; empty if it cannot be read.
std::string ReadFile(const std::string &path);

// The first bytes of a regular file, at most `most`; empty if it cannot be read.
std::string ReadHead(const std::string &path, std::size_t most);

// The target of a symbolic link; empty for anything else.
std::string ReadLink(const std::string &path);

} // namespace kest::ctl

#endif
