// Reads small files and links.

#ifndef CTL_SYSTEM_FILES_H
#define CTL_SYSTEM_FILES_H

#include <cstddef>
#include <string>
#include <sys/types.h>

namespace kest::ctl {

// The content of a regular file of at most 1 MiB; empty if it cannot be read.
std::string ReadFile(const std::string &path);

// The first bytes of a regular file, at most `most`; empty if it cannot be read.
std::string ReadHead(const std::string &path, std::size_t most);

// The target of a symbolic link; empty for anything else.
std::string ReadLink(const std::string &path);

// Replaces a regular file, or a link to one or to nothing, in one step, with that mode; or makes
// it. A link is not followed and the old mode is dropped, because other users may have prepared
// them. Returns false with errno set on failure; the old file is then unchanged.
bool ReplaceFile(const std::string &path, const std::string &text, mode_t mode);

} // namespace kest::ctl

#endif
