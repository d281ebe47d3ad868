// Small files that are looked at.

#ifndef CTL_SYSTEM_FILES_H
#define CTL_SYSTEM_FILES_H

#include <string>

namespace kest::ctl {

// The content of a small file; empty when there is none.
std::string ReadFile(const std::string &path);

// Where a link leads; empty for anything else.
std::string ReadLink(const std::string &path);

} // namespace kest::ctl

#endif
